// The cache of compiled lists, with a stand-in compiler that writes its source
// where WebKit would write the compiled list: real files, real links, real
// locks; WebKit itself is in WebKitContentBlockerManagerTests.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/linux/CompiledRuleListCache.h"
#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::gnulinux {
namespace {

namespace fs = std::filesystem;
constexpr const char* kIdentifier = "com.example.blocker";

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class CompiledRuleListCacheTest : public ::testing::Test {
  public:  // the cases below change the fixture through lambdas
    testing::TestPlatform platform;
    std::string store = platform.rootPath() + "/store";
    std::string library = platform.rootPath() + "/libwebkit.so";
    int compiles = 0;
    std::optional<Error> nextError;

    CompiledRuleListCacheTest() { std::ofstream(library) << "webkit 1"; }

    CompiledRuleListCache makeCache(CompiledRuleListCache::Limits limits = {}) {
        return CompiledRuleListCache(
            store,
            [this](const std::string& folder, const std::string& identifier,
                   std::string_view source) -> std::optional<Error> {
                ++compiles;
                if (nextError) return std::exchange(nextError, std::nullopt);
                std::ofstream(fs::path(folder) / ("ContentRuleList-" + identifier)) << source;
                return std::nullopt;
            },
            [this] { return library; }, limits);
    }
    size_t entryCount() const {
        size_t count = 0;
        for (const auto& item : fs::directory_iterator(store + "/.cache")) {
            count += item.path().filename().string().rfind("ContentRuleList-", 0) == 0;
        }
        return count;
    }
};

TEST_F(CompiledRuleListCacheTest, ListsCompiledBeforeAreServedWithoutCompiling) {
    struct Step {
        const char* source;
        bool compiled;
        size_t entries;  // kept afterwards, with at most 3
    };
    const std::vector<Step> steps = {
        {"[a]", true, 1},    // first reload phase
        {"[a]", false, 1},   // second phase
        {"[off]", true, 2},  // blocking off
        {"[a]", false, 2},   // and on again
        {"[b]", true, 3},    // another profile
        {"[c]", true, 3},    // a fourth list: the least recently used ("[off]") goes
        {"[a]", false, 3},  {"[off]", true, 3},  // so it is compiled again
    };
    auto cache = makeCache({.entries = 3});
    for (size_t i = 0; i < steps.size(); ++i) {
        SCOPED_TRACE("step " + std::to_string(i) + " " + steps[i].source);
        const int before = compiles;
        const auto outcome = cache.install(kIdentifier, steps[i].source);
        EXPECT_EQ(outcome.error, std::nullopt);
        EXPECT_EQ(outcome.compiled, steps[i].compiled);
        EXPECT_EQ(compiles - before, steps[i].compiled ? 1 : 0);
        EXPECT_EQ(entryCount(), steps[i].entries);
        // The current list is the entry itself, not a copy that could drift.
        const std::string current = cache.currentListPath(kIdentifier);
        EXPECT_EQ(readFile(current), steps[i].source);
        EXPECT_TRUE(fs::equivalent(current, cache.entryPath(kIdentifier, steps[i].source)));
    }
}

TEST_F(CompiledRuleListCacheTest, WhatCannotBeTrustedIsCompiledAgain) {
    struct Case {
        const char* name;
        std::function<void(CompiledRuleListCacheTest&)> change;
        size_t entriesAfter;  // the old library's entries all go
    };
    // Files of the user's beside the store: whatever the cache holds, they
    // are never read into a list, linked, changed or removed.
    const fs::path outside = platform.rootPath() + "/outside";
    const fs::path secret = outside / "secret";
    const auto entryA = [](auto& test) { return test.makeCache().entryPath(kIdentifier, "[a]"); };
    const auto index = [](auto& test) { return fs::path(test.store) / ".cache" / "index.json"; };
    const auto renameInIndex = [index](auto& test, const std::string& name) {
        std::string text = readFile(index(test));
        const std::string from = fs::path(test.makeCache().entryPath(kIdentifier, "[a]"))
                                     .filename()
                                     .string()
                                     .substr(std::string("ContentRuleList-").size());
        text.replace(text.find(from), from.size(), name);
        std::ofstream(index(test)) << text;
    };
    const std::vector<Case> cases = {
        {"WebKit upgraded", [](auto& test) { std::ofstream(test.library) << "webkit 2, longer"; },
         1},
        {"WebKit removed", [](auto& test) { fs::remove(test.library); }, 1},
        {"index damaged",
         [](auto& test) { std::ofstream(test.store + "/.cache/index.json") << "{"; }, 2},
        {"entry deleted", [entryA](auto& test) { fs::remove(entryA(test)); }, 2},
        {"entry cut short", [entryA](auto& test) { fs::resize_file(entryA(test), 1); }, 2},
        {"entry from another WebKit, same size",
         [entryA](auto& test) { std::ofstream(entryA(test)) << "[z]"; }, 2},
        {"entry a link to a file outside",
         [entryA, secret](auto& test) {
             fs::remove(entryA(test));
             fs::create_symlink(secret, entryA(test));
         },
         2},
        {"index names a path outside",
         [renameInIndex](auto& test) { renameInIndex(test, "../../outside/secret"); }, 2},
        {"index names a folder's way out",
         [renameInIndex](auto& test) {
             renameInIndex(test, "x/../../../outside/secret");
             fs::create_directories(fs::path(test.store) / ".cache" / "ContentRuleList-x");
         },
         3},  // that folder counts
        {"cache folder is a file",
         [](auto& test) {
             fs::remove_all(fs::path(test.store) / ".cache");
             std::ofstream(fs::path(test.store) / ".cache") << "not a folder";
         },
         1},
        {"cache folder is a link to a folder outside",
         [outside](auto& test) {
             fs::remove_all(fs::path(test.store) / ".cache");
             fs::create_directory_symlink(outside, fs::path(test.store) / ".cache");
         },
         1},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        fs::remove_all(store);
        fs::remove_all(outside);
        fs::create_directories(outside);
        std::ofstream(secret) << "[the user's]";
        std::ofstream(outside / "ContentRuleList-com.example.blocker.old") << "[the user's too]";
        fs::last_write_time(outside / "ContentRuleList-com.example.blocker.old",
                            fs::file_time_type::clock::now() - std::chrono::hours(2));
        std::ofstream(library) << "webkit 1";
        auto cache = makeCache();
        ASSERT_TRUE(cache.install(kIdentifier, "[a]").compiled);
        ASSERT_TRUE(cache.install(kIdentifier, "[b]").compiled);
        testCase.change(*this);
        const auto outcome = cache.install(kIdentifier, "[a]");
        EXPECT_EQ(outcome.error, std::nullopt);
        EXPECT_TRUE(outcome.compiled);
        EXPECT_EQ(readFile(cache.currentListPath(kIdentifier)), "[a]");
        EXPECT_TRUE(fs::is_directory(fs::symlink_status(store + "/.cache")));
        EXPECT_EQ(entryCount(), testCase.entriesAfter);
        // And served from the cache from now on (with a WebKit to stamp it).
        if (fs::exists(library)) {
            EXPECT_FALSE(cache.install(kIdentifier, "[a]").compiled);
        }
        EXPECT_EQ(readFile(secret), "[the user's]");
        EXPECT_EQ(fs::hard_link_count(secret), 1u);
        EXPECT_TRUE(fs::exists(outside / "ContentRuleList-com.example.blocker.old"));
    }
}

TEST_F(CompiledRuleListCacheTest, ACompileErrorLeavesTheCurrentListAlone) {
    auto cache = makeCache();
    ASSERT_EQ(cache.install(kIdentifier, "[good]").error, std::nullopt);
    nextError = Error{"WebKitUserContentFilterError", 0, "Invalid action type."};
    const auto outcome = cache.install(kIdentifier, "[bad]");
    EXPECT_EQ(outcome.error, (Error{"WebKitUserContentFilterError", 0, "Invalid action type."}));
    EXPECT_EQ(readFile(cache.currentListPath(kIdentifier)), "[good]");
    // A bad list is not remembered as compiled.
    EXPECT_TRUE(cache.install(kIdentifier, "[bad]").compiled);

    for (const char* identifier : {"", "..", "a/b", "a b"}) {
        EXPECT_TRUE(cache.install(identifier, "[x]").error.has_value()) << identifier;
    }
}

TEST_F(CompiledRuleListCacheTest, LeftoversGoButAnotherProcesssFreshCompileStays) {
    auto cache = makeCache();
    ASSERT_TRUE(cache.install(kIdentifier, "[a]").compiled);
    const fs::path old = store + "/.cache/ContentRuleList-com.example.blocker.dead";
    const fs::path fresh = store + "/.cache/ContentRuleList-com.example.blocker.fresh";
    std::ofstream(old) << "left by a killed process";
    std::ofstream(fresh) << "compiled a moment ago elsewhere";
    fs::last_write_time(old, fs::file_time_type::clock::now() - std::chrono::hours(2));
    ASSERT_TRUE(cache.install(kIdentifier, "[b]").compiled);
    EXPECT_FALSE(fs::exists(old));
    EXPECT_TRUE(fs::exists(fresh));
}

}  // namespace
}  // namespace stonewall::platform::gnulinux

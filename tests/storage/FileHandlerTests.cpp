#include "storage/FileHandler.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "StorageTestSupport.h"

namespace stonewall {
namespace {

namespace fs = std::filesystem;
using testing::readBytes;
using testing::StorageTest;
using testing::writeBytes;

class FileHandlerTest : public StorageTest {
protected:
    std::string configFolder() const { return platform.rootPath() + "/config"; }

    // A handler over a fresh folder of the temporary root.
    FileHandler scratch() {
        const std::string folder = platform.rootPath() + "/scratch";
        fs::create_directories(folder);
        platform.host->setUserDirectory(platform::SearchPathDirectory::Documents,
                                        platform.rootPath());
        return FileHandler::initWithName("scratch", FileLocation::kDocuments);
    }

    static size_t entriesIn(const std::string& folder) {
        return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
    }
};

TEST_F(FileHandlerTest, ApplicationSupportLocationCreatesStonewallThenTheFolder) {
    ASSERT_FALSE(fs::exists(configFolder()));
    const FileHandler handler = FileHandler::initWithName(".Data", FileLocation::kApplicationSupport);
    EXPECT_EQ(handler.path(), configFolder() + "/Stonewall/.Data");
    EXPECT_TRUE(fs::is_directory(configFolder() + "/Stonewall/.Data"));
}

TEST_F(FileHandlerTest, BaseDirectoriesOfEachLocation) {
    const std::string root = platform.rootPath();
    EXPECT_EQ(FileHandler::initWithLocation(FileLocation::kDocuments).path(), root + "/data");
    EXPECT_EQ(FileHandler::initWithLocation(FileLocation::kCaches).path(), root + "/cache");
    EXPECT_EQ(FileHandler::initWithLocation(FileLocation::kApplicationSupport).path(),
              root + "/config/Stonewall");
    // Only location 3 makes its base directory.
    EXPECT_FALSE(fs::exists(root + "/data"));
    EXPECT_TRUE(fs::is_directory(root + "/config/Stonewall"));
}

TEST_F(FileHandlerTest, FallbacksJoinNamesToTheHomeDirectory) {
    using platform::SearchPathDirectory;
    for (auto directory : {SearchPathDirectory::Documents, SearchPathDirectory::Caches,
                           SearchPathDirectory::ApplicationSupport}) {
        platform.host->setUserDirectory(directory, std::nullopt);
    }
    const std::string home = platform.rootPath() + "/home";
    EXPECT_EQ(FileHandler::applicationDocumentsDirectory(), home + "/Documents");
    EXPECT_EQ(FileHandler::applicationCachesDirectory(), home + "/Caches");
    EXPECT_EQ(FileHandler::applicationApplicationSupportDirectory(),
              home + "/Application Support/Stonewall");
    EXPECT_FALSE(fs::exists(home + "/Application Support"));  // the fallback is not created
}

TEST_F(FileHandlerTest, UnknownLocationsReachNoFile) {
    const auto cwdBefore = fs::current_path();
    for (int64_t location : {int64_t{0}, int64_t{4}, int64_t{-1}}) {
        SCOPED_TRACE(location);
        EXPECT_EQ(FileHandler::initWithLocation(location).path(), std::nullopt);
        const FileHandler handler = FileHandler::initWithName("x", location);
        EXPECT_EQ(handler.path(), "");
        // Nothing may land relative to the working directory.
        EXPECT_FALSE(handler.writeToFile("stonewall-stray", std::string_view("data")));
        EXPECT_FALSE(handler.fileExists("stonewall-stray"));
        EXPECT_EQ(handler.readFromFile("stonewall-stray"), std::nullopt);
        handler.createFile("stonewall-stray");
        handler.archiveData("stonewall-stray", {{"a", true}});
        EXPECT_FALSE(fs::exists(cwdBefore / "stonewall-stray"));
        EXPECT_FALSE(fs::exists(cwdBefore / "x"));
        EXPECT_EQ(handler.fileSize(std::nullopt), 0);
    }
}

TEST_F(FileHandlerTest, GroupFolderIsMadeInsideANewContainer) {
    ASSERT_FALSE(fs::exists(platform.containerPath()));
    const FileHandler handler =
        FileHandler::initWithNameAndGroup(".Profiles", std::string(kApplicationGroup));
    EXPECT_EQ(handler.path(), platform.containerPath() + "/.Profiles");
    EXPECT_TRUE(fs::is_directory(platform.containerPath() + "/.Profiles"));
}

TEST_F(FileHandlerTest, GroupWithoutContainerGivesAnEmptyPath) {
    platform.host->setContainerPath(std::string(kApplicationGroup), std::nullopt);
    const FileHandler handler =
        FileHandler::initWithNameAndGroup(".Profiles", std::string(kApplicationGroup));
    EXPECT_EQ(handler.path(), "");
    EXPECT_FALSE(handler.writeToFile("f", std::string_view("x")));
}

TEST_F(FileHandlerTest, WriteReplacesAnExistingFileAndLeavesNoTemporaryFile) {
    const FileHandler handler = scratch();
    ASSERT_TRUE(handler.writeToFile("f.json", std::string_view("old contents, longer")));
    ASSERT_TRUE(handler.writeToFile("f.json", std::string_view("new")));
    EXPECT_EQ(handler.readFromFile("f.json"), "new");
    EXPECT_EQ(entriesIn(*handler.path()), 1u);
    // Binary data with NUL bytes passes unchanged; an empty write gives an empty file.
    const std::string binary("a\0b\xff", 4);
    ASSERT_TRUE(handler.writeToURL("bin", binary));
    EXPECT_EQ(handler.readFromFile("bin"), binary);
    ASSERT_TRUE(handler.writeToFile("empty", std::string_view()));
    EXPECT_EQ(handler.readFromFile("empty"), "");
}

TEST_F(FileHandlerTest, NullDataRemovesTheOldFileAndWritesNothing) {
    const FileHandler handler = scratch();
    ASSERT_TRUE(handler.writeToFile("f", std::string_view("old")));
    EXPECT_FALSE(handler.writeToFile("f", std::nullopt));
    EXPECT_FALSE(handler.fileExists("f"));
    EXPECT_EQ(handler.readFromFile("f"), std::nullopt);
}

TEST_F(FileHandlerTest, WriteIntoAMissingFolderFailsCleanly) {
    const FileHandler handler = scratch();
    fs::remove_all(*handler.path());
    EXPECT_FALSE(handler.writeToFile("f", std::string_view("x")));
    EXPECT_FALSE(fs::exists(*handler.path()));
    EXPECT_TRUE(platform.log->contains("FileHandler"));
}

// A full disk, simulated with a file-size limit in a child process: the
// write fails, no temporary file is left and the old file is still whole.
TEST_F(FileHandlerTest, FailedWriteKeepsTheOldFileAndLeavesNoTemporaryFile) {
    const FileHandler handler = scratch();
    ASSERT_TRUE(handler.writeToFile("big", std::string_view("old")));
    const int result = testing::runInChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = 1024;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
        const bool written = handler.writeToFile("big", std::string(64 * 1024, 'x'));
        return written ? 1 : 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(handler.readFromFile("big"), "old");
    EXPECT_EQ(entriesIn(*handler.path()), 1u);
}

// The streamed write replaces the old file only with a complete new one: a
// producer that gives up, or a disk that fills up part-way (a file-size
// limit in a child process), leave the old file whole and no temporary file.
TEST_F(FileHandlerTest, StreamedWriteReplacesTheFileOnlyWhenComplete) {
    struct Case {
        const char* name;
        bool producerSucceeds;
        size_t sizeLimit;  // 0: none
        bool written;
    };
    const std::vector<Case> cases = {
        {"complete", true, 0, true},
        {"producer gives up", false, 0, false},
        {"disk fills part-way", true, 100 * 1024, false},
    };
    const FileHandler handler = scratch();
    const std::string piece(64 * 1024, 'x');
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        ASSERT_TRUE(handler.writeToFile("list.json", std::string_view("old")));
        const int result = testing::runInChild([&] {
            if (testCase.sizeLimit) {
                std::signal(SIGXFSZ, SIG_IGN);
                rlimit limit{};
                limit.rlim_cur = limit.rlim_max = testCase.sizeLimit;
                if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
            }
            const bool written = handler.writeToURL("list.json", [&](const DataSink& sink) {
                for (int i = 0; i < 4; ++i) (void)sink(piece);
                return testCase.producerSucceeds;
            });
            return written ? 1 : 0;
        });
        EXPECT_EQ(result, testCase.written ? 1 : 0);
        EXPECT_EQ(handler.readFromFile("list.json")->size(), testCase.written ? 4 * piece.size() : 3);
        EXPECT_EQ(entriesIn(*handler.path()), 1u);
    }
}

TEST_F(FileHandlerTest, FileSizes) {
    const FileHandler handler = scratch();
    EXPECT_EQ(handler.fileSize(std::string("missing")), 0);
    ASSERT_TRUE(handler.writeToFile("f", std::string(1234, 'x')));
    EXPECT_EQ(handler.fileSize(std::string("f")), 1234);
    EXPECT_GT(handler.fileSize(std::nullopt), 0);  // the folder itself
}

TEST_F(FileHandlerTest, MIMETypesByExtension) {
    const FileHandler handler = scratch();
    const std::pair<std::string, NullableString> cases[] = {
        {"profile_x_unarchive.json", "application/json"},
        {"notes.TXT", "text/plain"},
        {"page.html", "text/html"},
        {"image.PNG", "image/png"},
        {"photo.jpeg", "image/jpeg"},
        {"rules.sqlite", "application/vnd.sqlite3"},
        {"profile_x_data", std::nullopt},
        {"archive.unknownext", std::nullopt},
        {".hidden", std::nullopt},
        {"trailingdot.", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [name, type] : cases) {
        EXPECT_EQ(handler.fileMIMEType(name), type) << name;
    }
}

TEST_F(FileHandlerTest, CreateFileEmptiesAndCreateDirectoryMakesOneLevel) {
    const FileHandler handler = scratch();
    ASSERT_TRUE(handler.writeToFile("f", std::string_view("content")));
    handler.createFile("f");
    EXPECT_EQ(handler.readFromFile("f"), "");
    handler.createDirectory("a/b");  // no intermediate directories
    EXPECT_FALSE(handler.fileExists("a"));
    handler.createDirectory("a");
    EXPECT_TRUE(fs::is_directory(handler.getFilePath("a")));
}

TEST_F(FileHandlerTest, CopyReplacesTheTargetAndAMissingSourceLeavesNone) {
    const FileHandler handler = scratch();
    ASSERT_TRUE(handler.writeToFile("source", std::string_view("template bytes")));
    ASSERT_TRUE(handler.writeToFile("target", std::string_view("old")));
    handler.copyFile("target", handler.getFilePath("source"));
    EXPECT_EQ(handler.readFromFile("target"), "template bytes");
    handler.copyFile("target", handler.getFilePath("no-such-source"));
    EXPECT_FALSE(handler.fileExists("target"));
}

TEST_F(FileHandlerTest, RemoveFileAndRemoveFolder) {
    const FileHandler handler = scratch();
    ASSERT_TRUE(handler.writeToFile("f", std::string_view("x")));
    handler.removeFile("f");
    handler.removeFile("f");  // missing: nothing to do
    EXPECT_FALSE(handler.fileExists("f"));
    ASSERT_TRUE(handler.writeToFile("g", std::string_view("x")));
    handler.remove();
    EXPECT_FALSE(fs::exists(*handler.path()));
}

TEST_F(FileHandlerTest, ArchiveRoundTripAndMissingArchive) {
    const FileHandler handler = scratch();
    EXPECT_EQ(handler.unarchiveData("state"), std::nullopt);
    EXPECT_FALSE(handler.fileExists("state"));  // reading creates nothing
    const Archive archive{{"statusUpdated", true}, {"blockingCounter", false}};
    handler.archiveData("state", archive);
    EXPECT_EQ(handler.unarchiveData("state"), archive);
    handler.archiveData("state", Archive{});
    EXPECT_EQ(handler.unarchiveData("state"), Archive{});
}

TEST_F(FileHandlerTest, UndecodableArchivesGiveNothing) {
    const FileHandler handler = scratch();
    const std::string cases[] = {
        "",
        "not json",
        "[true]",
        "{\"statusUpdated\":1}",
        "{\"statusUpdated\":\"true\"}",
        "{\"statusUpdated\":true",
        std::string("\xff\xfe\x00", 3),
        "{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}",
    };
    for (const auto& bytes : cases) {
        writeBytes(handler.getFilePath("state"), bytes);
        EXPECT_EQ(handler.unarchiveData("state"), std::nullopt) << bytes.substr(0, 40);
    }
}

TEST_F(FileHandlerTest, WholePathOperations) {
    const FileHandler handler = scratch();
    const std::string a = handler.getFilePath("a");
    const std::string b = handler.getFilePath("b");
    ASSERT_TRUE(FileHandler::writeToURL(a, std::string_view("one"), /*extensionHidden=*/true));
    EXPECT_EQ(FileHandler::readFromURL(a), "one");
    EXPECT_EQ(FileHandler::readFromFilePath(a), "one");

    writeBytes(b, "old");
    FileHandler::copyFileFromURL(a, b);
    EXPECT_EQ(readBytes(b), "one");
    ASSERT_TRUE(FileHandler::writeToURL(a, std::string_view("two"), false));
    FileHandler::moveFileFromURL(a, b);
    EXPECT_FALSE(fs::exists(a));
    EXPECT_EQ(readBytes(b), "two");

    std::FILE* file = FileHandler::fileHandleForReadingURL(b);
    ASSERT_NE(file, nullptr);
    char buffer[4] = {};
    EXPECT_EQ(std::fread(buffer, 1, 3, file), 3u);
    std::fclose(file);
    EXPECT_EQ(std::string(buffer), "two");

    EXPECT_EQ(FileHandler::fileHandleForReadingURL(a), nullptr);
    EXPECT_EQ(FileHandler::readFromURL(a), std::nullopt);
    EXPECT_EQ(FileHandler::readFromURL(*handler.path()), std::nullopt);  // a folder has no bytes
    EXPECT_FALSE(FileHandler::writeToURL(b, std::nullopt, false));
    EXPECT_FALSE(fs::exists(b));
}

}  // namespace
}  // namespace stonewall

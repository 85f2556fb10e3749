#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/linux/LinuxHost.h"
#include "platform/linux/LinuxServices.h"
#include "platform/linux/SystemLog.h"
#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::gnulinux {
namespace {

namespace fs = std::filesystem;
using Environment = std::map<std::string, std::string>;

EnvironmentLookup lookupIn(Environment environment) {
    return [environment =
                std::move(environment)](const std::string& name) -> std::optional<std::string> {
        auto found = environment.find(name);
        if (found == environment.end()) return std::nullopt;
        return found->second;
    };
}

// What a host reports, on one line: versions, then the folders.
std::string summary(const LinuxHost& host) {
    const auto os = host.operatingSystemVersion();
    auto text = [](const std::optional<std::string>& value) { return value.value_or("-"); };
    return std::to_string(os.majorVersion) + "." + std::to_string(os.minorVersion) + "." +
           std::to_string(os.patchVersion) + " " +
           std::to_string(static_cast<int>(host.appKitVersionNumber())) + " " +
           (host.safariServicesVersion() ? std::to_string(*host.safariServicesVersion()) : "-") +
           (host.safariServicesAvailable() ? "" : "!") + " " +
           text(host.userDirectory(SearchPathDirectory::Documents)) + " " +
           text(host.userDirectory(SearchPathDirectory::Caches)) + " " +
           text(host.userDirectory(SearchPathDirectory::ApplicationSupport)) + " " +
           text(host.containerPathForApplicationGroup(kApplicationGroup));
}

TEST(LinuxHost, EnvironmentPlaysAnOlderHostAndMovesTheFolders) {
    const std::string group = "/stonewall/containers/K7Q2XJ4M9P.com.mapleharbor.Stonewall";
    const std::pair<Environment, std::string> cases[] = {
        {{}, "14.4.0 2487 6 /h/.local/share /h/.cache /h/.config /h/.local/share" + group},
        {{{"STONEWALL_OS_VERSION", "10.13.4"},
          {"STONEWALL_APPKIT_VERSION", "1404"},
          {"STONEWALL_SAFARI_SERVICES_VERSION", "none"},
          {"XDG_DATA_HOME", "/data"}},
         "10.13.4 1404 - /data /h/.cache /h/.config /data" + group},
        {{{"STONEWALL_SAFARI_SERVICES_AVAILABLE", "0"},
          {"XDG_CACHE_HOME", "/cache"},
          {"XDG_CONFIG_HOME", "relative/is/ignored"}},
         "14.4.0 2487 6! /h/.local/share /cache /h/.config /h/.local/share" + group},
        {{{"STONEWALL_CONTAINER", "/tmp/container/"}},
         "14.4.0 2487 6 /h/.local/share /h/.cache /h/.config /tmp/container"},
        {{{"STONEWALL_CONTAINER", "here"}},
         "14.4.0 2487 6 /h/.local/share /h/.cache /h/.config " +
             (fs::current_path() / "here").string()}};
    for (auto [environment, expected] : cases) {
        environment["HOME"] = "/h";
        const LinuxHost host(lookupIn(environment));
        EXPECT_EQ(summary(host), expected);
        EXPECT_EQ(host.containerPathForApplicationGroup("com.example.other"), std::nullopt);
        EXPECT_TRUE(host.warnings().empty());
    }
    // The option given by the program wins over the environment.
    LinuxHost overridden(lookupIn({{"HOME", "/h"}, {"STONEWALL_CONTAINER", "/env"}}), "/option");
    EXPECT_EQ(overridden.containerPathForApplicationGroup(kApplicationGroup), "/option");
}

TEST(LinuxHost, ValuesThatDoNotParseKeepTheDefaultAndWarn) {
    const std::pair<const char*, std::vector<const char*>> cases[] = {
        {"STONEWALL_OS_VERSION", {"10..4", "10.", "1.2.3.4", "9999999999", "10.a"}},
        {"STONEWALL_APPKIT_VERSION", {"new", "nan", "-1"}},
        {"STONEWALL_SAFARI_SERVICES_VERSION", {"5x"}},
        {"STONEWALL_SAFARI_SERVICES_AVAILABLE", {"maybe"}}};
    for (const auto& [variable, values] : cases)
        for (const char* value : values) {
            SCOPED_TRACE(std::string(variable) + "=" + value);
            LinuxHost host(lookupIn({{"HOME", "/h"}, {variable, value}}));
            EXPECT_EQ(summary(host),
                      "14.4.0 2487 6 /h/.local/share /h/.cache /h/.config /h/.local/share/"
                      "stonewall/containers/K7Q2XJ4M9P.com.mapleharbor.Stonewall");
            ASSERT_EQ(host.warnings().size(), 1u);
            EXPECT_NE(host.warnings()[0].find(variable), std::string::npos);
        }
    EXPECT_EQ(LinuxHost::parseVersion("10.12"), (OperatingSystemVersion{10, 12, 0}));
    EXPECT_EQ(LinuxHost::parseVersion("010.002.003"), (OperatingSystemVersion{10, 2, 3}));
}

TEST(LinuxBundle, VersionAndCatalogue) {
    testing::TestPlatform platform;
    const std::string resources = platform.rootPath() + "/resources";
    // A catalogue made as a translator makes one.
    const std::string messages = resources + "/locale/de/LC_MESSAGES";
    fs::create_directories(messages);
    std::ofstream(messages + "/stonewall.po")
        << "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n"
           "msgid \"Block Website\"\nmsgstr \"Website blockieren\"\n";
    ASSERT_EQ(
        std::system(
            ("msgfmt -o " + messages + "/stonewall.mo " + messages + "/stonewall.po").c_str()),
        0);

    LinuxBundle bundle(resources, lookupIn({}));
    EXPECT_EQ(bundle.shortVersionString(), STONEWALL_TEST_PROJECT_VERSION);
    // In the C locale gettext translates nothing: the key is the text.
    EXPECT_EQ(bundle.localizedString("Block Website"), "Block Website");
    EXPECT_EQ(bundle.localizedString(""), "");

    const std::string previous = std::setlocale(LC_MESSAGES, nullptr);
    ASSERT_NE(std::setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
    ::setenv("LANGUAGE", "de", 1);
    EXPECT_EQ(bundle.localizedString("Block Website"), "Website blockieren");
    EXPECT_EQ(bundle.localizedString("Untranslated text"), "Untranslated text");
    EXPECT_EQ(bundle.localizedString(""), "");  // not the catalogue's header
    EXPECT_EQ(bundle.localizedString(std::string("Block Website\0x", 15)),
              std::string("Block Website\0x", 15));
    ::unsetenv("LANGUAGE");
    std::setlocale(LC_MESSAGES, previous.c_str());
}

TEST(SystemLog, StderrCopiesAndDebugLinesOnlyWhenVerbose) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    SystemLog log(/*verbose=*/false, fds[1]);
    log.write(LogLevel::Debug, "hidden debug");
    log.write(LogLevel::Error, "quiet error %s%n");  // syslog only; never a format
    log.setVerbose(true);
    log.write(LogLevel::Debug, "shown %n debug");
    log.write(LogLevel::Info, "info");
    ::close(fds[1]);
    std::string text;
    char buffer[256];
    for (ssize_t count; (count = ::read(fds[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(count));
    }
    ::close(fds[0]);
    EXPECT_EQ(text, "stonewall: debug: shown %n debug\nstonewall: info: info\n");
}

TEST(PlatformRegistryDeathTest, UsingAServiceThatIsNotInstalledAbortsNamingIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)platform::contentBlocker(), "contentBlocker");
}

}  // namespace
}  // namespace stonewall::platform::gnulinux

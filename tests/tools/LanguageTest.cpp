// The command's help follows the usual locale variables: German from the
// catalogue the build makes, English without a locale.

#include <gtest/gtest.h>

#include <clocale>
#include <string>

#include "StonewallRunner.h"

namespace stonewall::tool::testing {
namespace {

TEST(LanguageTest, HelpFollowsTheLocale) {
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    const bool german = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
    std::setlocale(LC_ALL, saved.c_str());
    if (!german) GTEST_SKIP() << "the de_DE.UTF-8 locale is missing (scripts/setup makes it)";

    struct Case {
        const char* lang;
        const char* language;
        std::vector<std::string> says;
    } cases[] = {
        {"de_DE.UTF-8",
         "de",
         {"Aufruf: stonewall gnome-web",
          "Optionen:", "Exit-Codes:", "Ein JSON-Objekt statt der Tabelle ausgeben"}},
        {"de_DE.UTF-8", "", {"Aufruf: stonewall gnome-web"}},  // LANG alone chooses
        {"C.UTF-8", "", {"Usage: stonewall gnome-web", "Options:", "Exit codes:"}},
        // gettext leaves LANGUAGE aside under the C locale.
        {"C", "de", {"Usage: stonewall gnome-web", "Options:", "Exit codes:"}},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(std::string(item.lang) + " " + item.language);
        StonewallRunner runner(makeTemporaryFolder());
        runner.setEnvironment("LC_ALL", "");
        runner.setEnvironment("LC_MESSAGES", "");
        runner.setEnvironment("LANG", item.lang);
        runner.setEnvironment("LANGUAGE", item.language);
        const RunResult result = runner.run({"gnome-web", "--help"}, {}, /*withContainer=*/false);
        EXPECT_EQ(result.exitCode, 0);
        for (const std::string& text : item.says) {
            EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
        }
    }
}

}  // namespace
}  // namespace stonewall::tool::testing

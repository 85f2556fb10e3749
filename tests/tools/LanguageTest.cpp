// The command follows the usual locale variables: its help, reports, notes
// and errors in German from the catalogue the build makes, English without a
// locale; exit codes and --json stay the same in every language.

#include <gtest/gtest.h>

#include <clocale>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "Report.h"
#include "StonewallRunner.h"
#include "Text.h"
#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {

// A translation may reorder the values; other braces are text (a message
// lists "{ }" among the characters a rule cannot match).
TEST(LanguageTest, PlaceholdersAreFilledInAnyOrderAndOtherBracesStay) {
    const struct {
        const char* pattern;
        const char* first;
        const char* second;
        const char* made;
    } cases[] = {
        {"{0} of {1}", "a", "b", "a of b"},
        {"{1} von {0}", "a", "b", "b von a"},
        {"{0} and {0}", "a", "b", "a and a"},
        {"( ) { } [ ] {x} {", "a", "b", "( ) { } [ ] {x} {"},
        {"{2} missing", "a", "b", "{2} missing"},
        {"{0}{1}", "{1}", "b", "{1}b"},  // a value is not read again
    };
    for (const auto& item : cases) {
        EXPECT_EQ(format(item.pattern, {item.first, item.second}), item.made) << item.pattern;
    }
}

// Translated labels hold letters of two bytes; the values still line up.
TEST(LanguageTest, TableColumnsLineUpByCharacters) {
    Table table;
    table.add("Blockieren", "aus");
    table.add("übersprungen", "1 Zeile");
    std::ostringstream out;
    table.print(out);
    EXPECT_EQ(out.str(), "Blockieren    aus\nübersprungen  1 Zeile\n");
}

bool hasGermanLocale() {
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    const bool german = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
    std::setlocale(LC_ALL, saved.c_str());
    return german;
}

void useLocale(StonewallRunner& runner, const std::string& lang, const std::string& language) {
    runner.setEnvironment("LC_ALL", "");
    runner.setEnvironment("LC_MESSAGES", "");
    runner.setEnvironment("LANG", lang);
    runner.setEnvironment("LANGUAGE", language);
}

TEST(LanguageTest, HelpFollowsTheLocale) {
    if (!hasGermanLocale()) GTEST_SKIP() << "the de_DE.UTF-8 locale is missing (scripts/setup)";

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
        useLocale(runner, item.lang, item.language);
        const RunResult result = runner.run({"gnome-web", "--help"}, {}, /*withContainer=*/false);
        EXPECT_EQ(result.exitCode, 0);
        for (const std::string& text : item.says) {
            EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
        }
    }
}

// Milliseconds differ from run to run; everything else is the same.
nlohmann::json withoutTimes(nlohmann::json report) {
    if (report.is_object()) {
        report.erase("totalMilliseconds");
        report.erase("writeMilliseconds");
    }
    return report;
}

// One command in a fresh sandbox, prepared by `setup`, under one locale.
RunResult runIn(const std::string& lang, const std::string& language,
                const std::function<void(StonewallRunner&)>& setup, std::vector<std::string> args,
                bool json) {
    StonewallRunner runner(makeTemporaryFolder());
    if (setup) setup(runner);
    useLocale(runner, lang, language);
    for (auto& arg : args) {
        if (arg == "LIST") arg = (runner.root() / "list.txt").string();
    }
    if (json) args.push_back("--json");
    RunResult result = runner.run(args);
    std::error_code ignored;
    std::filesystem::remove_all(runner.root(), ignored);
    return result;
}

TEST(LanguageTest, ReportsAndErrorsFollowTheLocaleAndScriptsSeeTheSame) {
    if (!hasGermanLocale()) GTEST_SKIP() << "the de_DE.UTF-8 locale is missing (scripts/setup)";

    const auto withWorkProfile = [](StonewallRunner& runner) {
        ASSERT_EQ(runner.run({"info"}).exitCode, 0);
        const auto shared = runner.containerPath() / ".Shared" / "shared_data";
        sqlExec(shared,
                "UPDATE SharedData SET profileIDs='defaultProfile,work', "
                "profiles='Default Profile,Work'");
        writeFile(runner.root() / "list.txt",
                  "! Title: test\n||ads.example^\n||tracker.example^\nexample.org##.banner\n"
                  "||bad.example^$unknownoption\n");
    };
    const auto withContainer = [](StonewallRunner& runner) {
        ASSERT_EQ(runner.run({"info"}).exitCode, 0);
    };

    struct Case {
        const char* what;
        std::function<void(StonewallRunner&)> setup;
        std::vector<std::string> args;  // "LIST": the sandbox's list.txt
        int exitCode;
        std::vector<std::string> english;  // in stdout or stderr
        std::vector<std::string> german;
    } cases[] = {
        {"an error before the container",
         nullptr,
         {"block", "https://"},
         2,
         {"stonewall: URL \"https://\": has no host"},
         {"stonewall: URL \"https://\": hat keinen Host (geben Sie eine vollständige URL an"}},
        {"a mistyped subcommand (CLI11 words it in English only)",
         nullptr,
         {"profile", "activte", "work"},
         1,
         {"stonewall: usage: unknown subcommand activte (see stonewall profile --help)"},
         {"stonewall: Aufruf: unbekannter Unterbefehl activte (siehe stonewall profile --help)"}},
        {"an error with the known profiles",
         withContainer,
         {"profile", "activate", "nosuch"},
         2,
         {"unknown profile identifier (known: defaultProfile)"},
         {"stonewall: Profil \"nosuch\": unbekannte Profilkennung (bekannt: defaultProfile)"}},
        {"a report with counts and a note",
         withWorkProfile,
         {"profile", "import", "work", "LIST"},
         0,
         {"imported  ", "3 rules", "1 line", "Profile work is not the active one"},
         {"importiert  ", "3 Regeln", "1 Zeile", "Profil work ist nicht das aktive"}},
        {"a table of yes and no",
         withContainer,
         {"check", "https://example.com/"},
         0,
         {"block   ", "no"},
         {"blockieren  ", "nein"}},
        {"a summary",
         withContainer,
         {"update"},
         0,
         {"No lists are subscribed"},
         {"Es sind keine Listen abonniert (siehe stonewall profile subscriptions)."}},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.what);
        const std::vector<std::string>& args = item.args;
        const RunResult english = runIn("C", "", item.setup, args, false);
        const RunResult german = runIn("de_DE.UTF-8", "de", item.setup, args, false);
        const RunResult englishJSON = runIn("C", "", item.setup, args, true);
        const RunResult germanJSON = runIn("de_DE.UTF-8", "de", item.setup, args, true);

        EXPECT_EQ(english.exitCode, item.exitCode) << describe(args, english);
        EXPECT_EQ(german.exitCode, item.exitCode) << describe(args, german);
        EXPECT_EQ(englishJSON.exitCode, item.exitCode) << describe(args, englishJSON);
        EXPECT_EQ(germanJSON.exitCode, item.exitCode) << describe(args, germanJSON);
        for (const std::string& text : item.english) {
            EXPECT_NE((english.out + english.err).find(text), std::string::npos)
                << text << "\n"
                << describe(args, english);
        }
        for (const std::string& text : item.german) {
            EXPECT_NE((german.out + german.err).find(text), std::string::npos)
                << text << "\n"
                << describe(args, german);
        }
        const auto englishReport = nlohmann::json::parse(englishJSON.out, nullptr, false);
        ASSERT_TRUE(englishReport.is_object()) << describe(args, englishJSON);
        EXPECT_EQ(withoutTimes(englishReport),
                  withoutTimes(nlohmann::json::parse(germanJSON.out, nullptr, false)))
            << germanJSON.out;
        // The error line is the people's; the one of --json the scripts'.
        EXPECT_EQ(englishJSON.err, english.err);
    }
}

}  // namespace
}  // namespace stonewall::tool::testing

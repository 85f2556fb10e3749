// Every kind of bad input: a clear one-line message on stderr, the
// documented exit code, and nothing changed in the container.

#include <algorithm>
#include <filesystem>

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

class BadInputTest : public ToolTest {};

TEST_F(BadInputTest, IsRefusedWithOneLineAndChangesNothing) {
    createContainer();
    addWorkProfile();
    // "@name" in the arguments and the message stands for that scratch file.
    const std::map<std::string, std::string> files = {
        {"quantifier", R"([["", "img", "i", "https://a.example/x{2}.png", "", "", "", "", ""]])"},
        {"huge", R"([["", "img", "i", "https://a.example/)" + std::string(1 << 20, 'x') +
                     R"(", "", "", "", "", ""]])"},
        {"deep", std::string(100000, '[') + std::string(100000, ']')},
        {"cut", "[[\"a\","},
        {"string", "\"div\""},
        {"empty", "[]"},
        {"nodata", "{\"status\": 1}"},
        {"eight", "[[\"\", \"div\", \"d\", \"\", \"\", \"\", \"\", \"\"]]"},
        {"object", "[{\"tag\": \"div\"}]"},
        {"number",
         R"([["", "div", "d", "", "", "", "", "", ""], ["", "img", "i", 42, "", "", "", "", ""]])"},
        {"badutf8", "[\"\xff\"]"},
        {"toplevel", "{\"action\": {}}"},
        {"rules", R"([{"trigger":{"url-filter":".*"},"action":{"type":"block"}}])"},
        {"hosts", "127.0.0.1 localhost\n0.0.0.0 ads.test\n0.0.0.0 b.test\n"},
        {"binary", std::string("\x7f\x45LF\0\0\x01", 7)},
        {"comments", "! nothing but comments\n"},
        {"nothing", "||x.test^$redirect=noop.js\n/(a|b)/\n"},
        {"list", "||a.test^\n"},
    };
    for (const auto& [name, contents] : files) writeFile(scratch(name), contents);
    const std::string page = "https://a.example/";
    const std::string fortyOne(41, 'n');
    // Exit code 2, or 1 for a usage error.
    struct Case {
        std::vector<std::string> args;
        std::string message;  // the start of the line after "stonewall: "
    };
    const std::vector<Case> cases = {
        {{"block", "example.com"},
         "URL \"example.com\": has no host (give a full URL such as https://example.com/)"},
        {{"block", "https://"}, "URL \"https://\": has no host"},
        // Hosts that are not host names would be stored as broken patterns
        // or split into two entries at the comma.
        {{"block", "https://a(b.example/"}, "URL \"https://a(b.example/\": has no valid host"},
        {{"block", "https://a.example,b.example/"},
         "URL \"https://a.example,b.example/\": has no valid host name"},
        {{"block", "https://host.example/\xff"},
         "URL \"https://host.example/\\xff\": is not valid UTF-8"},
        {{"pick", "--page", page, "@quantifier"},
         "@quantifier: element 0: its source holds a character a rule cannot match exactly"},
        {{"pick", "--page", page, "@huge"},
         "@huge: element 0: its source is longer than 8192 bytes"},
        {{"pick", "--page", page, "missing.json"},
         "missing.json: cannot be read: No such file or directory"},
        {{"pick", "--page", page, "."}, ".: cannot be read: it is a directory"},
        {{"pick", "--page", page, "@cut"}, "@cut: not JSON: parse error at line 1, column 7"},
        {{"pick", "--page", page, "@string"},
         "@string: not a JSON array of elements (it is a string)"},
        {{"pick", "--page", page, "@empty"}, "@empty: holds no elements"},
        {{"pick", "--page", page, "@nodata"}, "@nodata: an object without \"data\""},
        {{"pick", "--page", page, "@eight"}, "@eight: element 0: expected 9 strings, found 8"},
        {{"pick", "--page", page, "@object"},
         "@object: element 0: expected an array of 9 strings, found an object"},
        {{"pick", "--page", page, "@number"},
         "@number: element 1, field 3: expected a string, found a number"},
        {{"validate", "@deep"}, "@deep: nested deeper than 100 levels"},
        {{"validate", "@badutf8"}, "@badutf8: not JSON: "},
        {{"validate", "@toplevel"}, "@toplevel: not a JSON array (it is an object)"},
        {{"compile", "--profile", "../../etc"},
         "profile \"../../etc\": unknown profile identifier (known: defaultProfile"},
        {{"profile", "create", "  "}, "name \"  \": is empty"},
        {{"profile", "create", fortyOne}, "name \"" + fortyOne + "\": is too long (41"},
        {{"profile", "create", "a,b"}, "name \"a,b\": holds a \",\""},
        {{"profile", "create", "Work"}, "name \"Work\": another profile has this name"},
        {{"profile", "rename", "nope", "X"}, "profile \"nope\": unknown profile identifier"},
        {{"profile", "rename", "work", "Default Profile"}, "name \"Default Profile\": another"},
        {{"profile", "remove", "defaultProfile"}, "profile \"defaultProfile\": is the active"},
        {{"profile", "import", "nope", "@list"}, "profile \"nope\": unknown"},
        {{"profile", "import", "work", "@rules"}, "@rules: is JSON"},
        {{"profile", "import", "work", "@hosts"}, "@hosts: is a hosts file"},
        {{"profile", "import", "work", "@binary"}, "@binary: is not a text file"},
        {{"profile", "import", "work", "@comments"}, "@comments: holds no filter rules"},
        {{"profile", "import", "work", "@nothing"},
         "@nothing: no line could be imported (2 skipped)"},
        {{"open-url", "stonewall://nowhere"}, "URL \"stonewall://nowhere\": is not one of"},
        {{"status", "maybe"}, "usage: "},
        {{"profile"}, "usage: "},
        {{}, "usage: "},
        {{"block"}, "usage: "},
        {{"compile", "--fast"}, "usage: "},
        {{"watch", "--count", "0"}, "usage: "},
        {{"info", "--container", ""}, "usage: "},
    };
    const auto withFiles = [&](std::string text) {
        if (const auto at = text.find('@'); at != std::string::npos) {
            const auto end = std::min(text.find_first_of(": ", at), text.size());
            text.replace(at, end - at, scratch(text.substr(at + 1, end - at - 1)).string());
        }
        return text;
    };
    const auto before = snapshotFiles(container());
    for (const Case& test : cases) {
        std::vector<std::string> args = test.args;
        for (auto& arg : args) arg = withFiles(arg);
        const RunResult result = run(args);
        SCOPED_TRACE(describe(args, result));
        EXPECT_EQ(result.exitCode, test.message == "usage: " ? 1 : 2);
        EXPECT_EQ(result.err.rfind("stonewall: " + withFiles(test.message), 0), 0u);
        if (test.message == "usage: ") {  // and whose help to read
            EXPECT_NE(result.err.find("(see stonewall" + (args.empty() ? "" : " " + args[0])),
                      std::string::npos);
        }
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(snapshotFiles(container()) == before) << "the container changed";
    }
}

TEST_F(BadInputTest, AContainerOrResourcesThatCannotBeUsedAreAStorageError) {
    writeFile(scratch("plain-file"), "not a folder");
    fs::create_directories(scratch("empty-resources"));
    const fs::path beneath = scratch("plain-file") / "container";
    const std::pair<fs::path, std::string> cases[] = {
        {beneath, "container " + beneath.string() + ": cannot be created: Not a directory"},
        {scratch("plain-file"),
         "container " + scratch("plain-file").string() + ": not a directory"},
    };
    for (const auto& [path, message] : cases) {
        for (const char* command : {"compile", "info", "status"}) {
            const std::vector<std::string> args = {command, "--container", path.string()};
            const RunResult result = runner().run(args, {}, /*withContainer=*/false);
            EXPECT_EQ(result.exitCode, 3) << describe(args, result);
            EXPECT_EQ(result.err, "stonewall: " + message + "\n");
        }
    }
    runner().setEnvironment("STONEWALL_RESOURCES", scratch("empty-resources").string());
    const RunResult result = run({"compile"});
    EXPECT_EQ(result.exitCode, 3) << describe({"compile"}, result);
    EXPECT_EQ(result.err.rfind("stonewall: resources " + scratch("empty-resources").string() +
                                   ": the template database \"shared_data\" is missing",
                               0),
              0u)
        << result.err;
    EXPECT_FALSE(fs::exists(container()));
}

TEST_F(BadInputTest, JSONModeStillPrintsOneObjectWithTheError) {
    const RunResult result = run({"block", "nohost", "--json"});
    EXPECT_EQ(result.exitCode, 2);
    const json report = json::parse(result.out);
    EXPECT_EQ(report["command"], "block");
    EXPECT_EQ(report["error"]["exitCode"], 2);
    EXPECT_EQ(report["error"]["subject"], "URL \"nohost\"");
    EXPECT_NE(result.err.find("has no host"), std::string::npos);
}

}  // namespace
}  // namespace stonewall::tool::testing

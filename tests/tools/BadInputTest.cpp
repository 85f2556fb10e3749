// Every kind of bad input: a clear one-line message on stderr, the
// documented exit code, and nothing changed in the container.

#include <algorithm>
#include <filesystem>

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kFile = "@";  // stands for the case's input file in args

struct BadInput {
    const char* name;
    std::vector<std::string> args;
    std::optional<std::string> fileContents;  // written to the input file when present
    int exitCode;
    const char* message;  // expected on stderr after "stonewall: "
};

const char* kNine = R"(["", "div", "div.x", "", "", "", "", "", ""])";

std::vector<BadInput> badInputs() {
    const std::string nine = kNine;
    return {
        {"URLWithoutScheme",
         {"block", "example.com"},
         std::nullopt,
         2,
         "URL \"example.com\": has no host (give a full URL such as https://example.com/)"},
        {"FileURL",
         {"secure", "file:///etc/hosts"},
         std::nullopt,
         2,
         "URL \"file:///etc/hosts\": has no host"},
        {"EmptyURL", {"allow", ""}, std::nullopt, 2, "URL \"\": has no host"},
        // Hosts that are not host names would be stored as broken patterns
        // or split into two entries at the comma.
        {"HostWithParenthesis", {"block", "https://a(b.example/"}, std::nullopt, 2,
         "URL \"https://a(b.example/\": has no valid host name"},
        {"HostWithClosingParenthesis", {"block", "https://a)b.example/"}, std::nullopt, 2,
         "URL \"https://a)b.example/\": has no valid host name"},
        {"HostWithDollar", {"secure", "https://a$b.example/"}, std::nullopt, 2,
         "URL \"https://a$b.example/\": has no valid host name"},
        {"HostWithEncodedNul", {"allow", "https://a%00b.example/"}, std::nullopt, 2,
         "URL \"https://a%00b.example/\": has no valid host name"},
        {"HostWithComma", {"block", "https://a.example,b.example/"}, std::nullopt, 2,
         "URL \"https://a.example,b.example/\": has no valid host name"},
        {"SchemeOnly", {"block", "https://"}, std::nullopt, 2, "URL \"https://\": has no host"},
        {"InvalidUTF8AfterHost", {"block", "https://host.example/\xff"}, std::nullopt, 2,
         "URL \"https://host.example/\\xff\": is not valid UTF-8"},
        {"PickSourceWithQuantifier",
         {"pick", "--page", "https://a.example/", kFile},
         R"([["", "img", "i", "https://a.example/x{2}.png", "", "", "", "", ""]])",
         2,
         "@: element 0: its source holds a character a rule cannot match exactly"},
        {"PickSourceWithBackslash",
         {"pick", "--page", "https://a.example/", kFile},
         R"([["", "img", "i", "https://a.example/x\\y$.png", "", "", "", "", ""]])",
         2,
         "@: element 0: its source holds a character"},
        {"PickHugeSource",
         {"pick", "--page", "https://a.example/", kFile},
         R"([["", "img", "i", "https://a.example/)" + std::string(1 << 20, 'x') +
             R"(", "", "", "", "", ""]])",
         2,
         "@: element 0: its source is longer than 8192 bytes"},
        {"ValidateDeepNesting",
         {"validate", kFile},
         std::string(100000, '[') + std::string(100000, ']'),
         2,
         "@: nested deeper than 100 levels"},
        {"CheckWithoutHost",
         {"check", "not a url"},
         std::nullopt,
         2,
         "URL \"not a url\": has no host"},
        {"PickPageWithoutHost",
         {"pick", "--page", "about:blank", kFile},
         kNine,
         2,
         "URL \"about:blank\": has no host"},
        {"PickMissingFile",
         {"pick", "--page", "https://a.example/", "missing.json"},
         std::nullopt,
         2,
         "missing.json: cannot be read: No such file or directory"},
        {"PickDirectory",
         {"pick", "--page", "https://a.example/", "."},
         std::nullopt,
         2,
         ".: cannot be read: it is a directory"},
        {"PickNotJSON",
         {"pick", "--page", "https://a.example/", kFile},
         "[[\"a\",",
         2,
         "@: not JSON: parse error at line 1, column 7"},
        {"PickNotAnArray",
         {"pick", "--page", "https://a.example/", kFile},
         "\"div\"",
         2,
         "@: not a JSON array of elements (it is a string)"},
        {"PickNoElements",
         {"pick", "--page", "https://a.example/", kFile},
         "[]",
         2,
         "@: holds no elements"},
        {"PickObjectWithoutData",
         {"pick", "--page", "https://a.example/", kFile},
         "{\"status\": 1}",
         2,
         "@: an object without \"data\""},
        {"PickEightStrings",
         {"pick", "--page", "https://a.example/", kFile},
         "[[\"\", \"div\", \"d\", \"\", \"\", \"\", \"\", \"\"]]",
         2,
         "@: element 0: expected 9 strings, found 8"},
        {"PickEntryNotAnArray",
         {"pick", "--page", "https://a.example/", kFile},
         "[{\"tag\": \"div\"}]",
         2,
         "@: element 0: expected an array of 9 strings, found an object"},
        {"PickFieldNotAString",
         {"pick", "--page", "https://a.example/", kFile},
         "[" + nine + ", [\"\", \"img\", \"i\", 42, \"\", \"\", \"\", \"\", \"\"]]",
         2,
         "@: element 1, field 3: expected a string, found a number"},
        {"ActivateUnknownProfile",
         {"profile", "activate", "nosuch"},
         std::nullopt,
         2,
         "profile \"nosuch\": unknown profile identifier (known: defaultProfile)"},
        {"CompileUnknownProfile",
         {"compile", "--profile", "../../etc"},
         std::nullopt,
         2,
         "profile \"../../etc\": unknown profile identifier"},
        {"CompileEmptyProfile",
         {"compile", "--profile", ""},
         std::nullopt,
         2,
         "profile \"\": unknown profile identifier"},
        {"ValidateMissingFile",
         {"validate", "missing.json"},
         std::nullopt,
         2,
         "missing.json: cannot be read"},
        {"ValidateNotJSON",
         {"validate", kFile},
         "[{\"action\": }]",
         2,
         "@: not JSON: parse error at line 1, column 13"},
        {"ValidateInvalidUTF8", {"validate", kFile}, "[\"\xff\"]", 2, "@: not JSON: "},
        {"ValidateObject",
         {"validate", kFile},
         "{\"action\": {}}",
         2,
         "@: not a JSON array (it is an object)"},
        {"UsageBadState", {"status", "maybe"}, std::nullopt, 1, "usage: "},
        {"UsageNoSubcommand", {}, std::nullopt, 1, "usage: "},
        {"UsageMissingURL", {"block"}, std::nullopt, 1, "usage: "},
        {"UsageUnknownOption", {"compile", "--fast"}, std::nullopt, 1, "usage: "},
        {"UsageZeroCount", {"watch", "--count", "0"}, std::nullopt, 1, "usage: "},
        {"UsageEmptyContainer", {"info", "--container", ""}, std::nullopt, 1, "usage: "},
        {"UsageNegativeTimeout", {"compile", "--timeout", "-1"}, std::nullopt, 1, "usage: "},
    };
}

void PrintTo(const BadInput& input, std::ostream* out) { *out << input.name; }

class BadInputTest : public ToolTest, public ::testing::WithParamInterface<BadInput> {};

TEST_P(BadInputTest, IsRefusedWithOneLineAndChangesNothing) {
    const BadInput& input = GetParam();
    createContainer();
    // "@" in the arguments and the message stands for the case's input file.
    const std::string file = scratch("input.json").string();
    if (input.fileContents) writeFile(file, *input.fileContents);
    std::vector<std::string> args = input.args;
    for (auto& arg : args) {
        if (arg == kFile) arg = file;
    }
    std::string expected = std::string("stonewall: ") + input.message;
    if (const auto at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, file);
    const auto before = snapshotFiles(runner().root());

    const RunResult result = run(args);
    EXPECT_EQ(result.exitCode, input.exitCode) << describe(args, result);
    EXPECT_EQ(result.err.rfind(expected, 0), 0u) << "expected a line starting with\n"
                                                 << expected << "\n"
                                                 << describe(args, result);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "") << describe(args, result);
    EXPECT_EQ(snapshotFiles(runner().root()), before) << "the container changed";
}

INSTANTIATE_TEST_SUITE_P(Cases, BadInputTest, ::testing::ValuesIn(badInputs()),
                         [](const auto& info) { return std::string(info.param.name); });

class BadContainerTest : public ToolTest {};

TEST_F(BadContainerTest, AContainerThatCannotBeCreatedIsAStorageError) {
    writeFile(scratch("plain-file"), "not a folder");
    struct Case {
        fs::path container;
        const char* reason;
    };
    const Case cases[] = {
        {scratch("plain-file") / "container", "cannot be created: Not a directory"},
        {scratch("plain-file"), "not a directory"},
    };
    for (const auto& [path, reason] : cases) {
        for (const char* command : {"compile", "info", "status"}) {
            const std::vector<std::string> args = {command, "--container", path.string()};
            const RunResult result = runner().run(args, {}, /*withContainer=*/false);
            EXPECT_EQ(result.exitCode, 3) << describe(args, result);
            EXPECT_EQ(result.err, "stonewall: container " + path.string() + ": " + reason + "\n");
        }
    }
}

TEST_F(BadContainerTest, MissingTemplatesAreAStorageErrorBeforeTheContainerIsMade) {
    fs::create_directories(scratch("empty-resources"));
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

TEST_F(BadContainerTest, JSONModeStillPrintsOneObjectWithTheError) {
    const std::vector<std::string> args = {"block", "nohost", "--json"};
    const RunResult result = run(args);
    EXPECT_EQ(result.exitCode, 2);
    const json report = json::parse(result.out);
    EXPECT_EQ(report["command"], "block");
    EXPECT_EQ(report["error"]["exitCode"], 2);
    EXPECT_EQ(report["error"]["subject"], "URL \"nohost\"");
    EXPECT_NE(result.err.find("has no host"), std::string::npos);
}

}  // namespace
}  // namespace stonewall::tool::testing

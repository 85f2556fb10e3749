// The checks the browser applies to what pages and web processes send it.

#include <gtest/gtest.h>

#include <string>

#include "engine/DataElement.h"
#include "page/BlockedLoad.h"
#include "page/PageMessage.h"

namespace stonewall::browser {
namespace {

std::string nineStrings(const std::string& last = "\"p\"") {
    return R"(["l","img","#a","s","c","div","#p","",)" + last + "]";
}

TEST(PageMessageTest, AcceptsOnlyTheShapesTheHandlerRelieson) {
    struct Case {
        const char* label;
        std::string json;
        bool accepted;
    };
    const Case cases[] = {
        {"status", R"({"name":"VisualStatus","userInfo":{"status":1}})", true},
        {"status as fraction", R"({"name":"VisualStatus","userInfo":{"status":1.5}})", true},
        {"status missing", R"({"name":"VisualStatus","userInfo":{}})", false},
        {"status as text", R"({"name":"VisualStatus","userInfo":{"status":"1"}})", false},
        {"data", R"({"name":"VisualData","userInfo":{"data":[)" + nineStrings() + "]}}", true},
        {"data empty", R"({"name":"VisualData","userInfo":{"data":[]}})", true},
        {"data not an array", R"({"name":"VisualData","userInfo":{"data":"x"}})", false},
        {"unknown name passes to be logged", R"({"name":"Hello","userInfo":{"x":[1,2]}})", true},
        {"user info not an object", R"({"name":"Hello","userInfo":[1]})", false},
        {"null user info", R"({"name":"Hello","userInfo":null})", true},
        {"empty name", R"({"name":"","userInfo":{}})", false},
        {"name not text", R"({"name":7})", false},
        {"not an object", R"(["VisualStatus"])", false},
        {"not JSON", R"({"name":"VisualStatus",)", false},
        {"nested too deep", R"({"name":"X","userInfo":{"a":[[[[[[[[[1]]]]]]]]]}})", false},
        {"brackets inside text do not count", R"({"name":"X","userInfo":{"a":"[[[[[[[[[[[["}})",
         true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(checkPageMessage(c.json).has_value(), c.accepted) << c.label;
    }
}

// The browser and the engine read picked elements by one rule: a bad entry
// is an empty element of its own, and the good entries beside it still
// reach the engine, so one odd element never loses the user's whole pick.
TEST(PageMessageTest, PickedElementsFollowOneRuleInBrowserAndEngine) {
    struct Case {
        const char* label;
        std::string data;
        // One letter per element the engine makes: 'e' read by position,
        // '-' empty. Empty text: the browser refuses the message.
        std::string elements;
    };
    const Case cases[] = {
        {"one element", "[" + nineStrings() + "]", "e"},
        {"no elements", "[]", ""},
        {"eight members beside a good one",
         R"([["a","b","c","d","e","f","g","h"],)" + nineStrings() + "]", "-e"},
        {"ten members", R"([["a","b","c","d","e","f","g","h","i","j"]])", "-"},
        {"a member that is a number reads as absent", "[" + nineStrings("9") + "]", "e"},
        {"an entry that is text", R"(["x",)" + nineStrings() + "]", "-e"},
        {"data not an array", R"("x")", ""},
    };
    for (const auto& c : cases) {
        const auto message =
            checkPageMessage(R"({"name":"VisualData","userInfo":{"data":)" + c.data + "}}");
        const bool refused = c.elements.empty() && c.data != "[]";
        ASSERT_EQ(message.has_value(), !refused) << c.label;
        if (!message) continue;
        const auto elements = DataElement::elementsFromMessageData(message->userInfo["data"]);
        ASSERT_TRUE(elements) << c.label;
        std::string shapes;
        for (const DataElement& element : *elements) shapes += element.parentElement ? 'e' : '-';
        EXPECT_EQ(shapes, c.elements) << c.label;
    }
    // A member that is not a string is absent, not text.
    const auto message =
        checkPageMessage(R"({"name":"VisualData","userInfo":{"data":[)" + nineStrings("9") + "]}}");
    ASSERT_TRUE(message);
    const auto elements = DataElement::elementsFromMessageData(message->userInfo["data"]);
    ASSERT_TRUE(elements && elements->size() == 1);
    EXPECT_FALSE(elements->front().parentElement->currentSource);
    EXPECT_EQ(elements->front().tag, "img");
}

TEST(PageMessageTest, RefusesMoreElementsThanAPersonPicks) {
    std::string data;
    for (size_t i = 0; i <= kMaximumPickedElements; ++i) data += (i ? "," : "") + nineStrings();
    EXPECT_FALSE(checkPageMessage(R"({"name":"VisualData","userInfo":{"data":[)" + data + "]}}"));
}

TEST(PageMessageTest, ScriptCallQuotesWhatAPageCouldHaveChosen) {
    const std::string call = pageScriptCall("Visual\"Done</script>\n", nullptr);
    EXPECT_EQ(call,
              "window.__stonewallPicker && window.__stonewallPicker.receive("
              "\"Visual\\\"Done</script>\\n\", null);");
    // Invalid UTF-8 is replaced, not thrown on.
    EXPECT_NE(pageScriptCall("\xff", {{"k", "\xfe"}}).find("\\ufffd"), std::string::npos);
}

TEST(BlockedLoadTest, RecognisesOnlyWebKitsOwnReport) {
    const std::string report =
        "Content blocker prevented frame displaying http://a.test/page from loading a resource "
        "from http://ads.test/banner.png";
    struct Case {
        const char* label;
        ConsoleSource source;
        ConsoleLevel level;
        std::string text;
        std::optional<std::string> url;
    };
    const Case cases[] = {
        {"report", ConsoleSource::Other, ConsoleLevel::Info, report, "http://ads.test/banner.png"},
        {"console.info of a page", ConsoleSource::ConsoleAPI, ConsoleLevel::Info, report,
         std::nullopt},
        {"other level", ConsoleSource::Other, ConsoleLevel::Warning, report, std::nullopt},
        {"other text", ConsoleSource::Other, ConsoleLevel::Info, "Blocked a frame", std::nullopt},
        {"no separator", ConsoleSource::Other, ConsoleLevel::Info,
         "Content blocker prevented frame displaying http://a.test/", std::nullopt},
        {"empty URL", ConsoleSource::Other, ConsoleLevel::Info,
         "Content blocker prevented frame displaying http://a.test/ from loading a resource from ",
         std::nullopt},
        {"trailing words", ConsoleSource::Other, ConsoleLevel::Info, report + " twice",
         std::nullopt},
        {"page URL with the phrase in its query", ConsoleSource::Other, ConsoleLevel::Info,
         "Content blocker prevented frame displaying http://a.test/?q=from%20loading from loading "
         "a resource from http://t.test/x.js",
         "http://t.test/x.js"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(blockedURLFromConsoleMessage(c.source, c.level, c.text), c.url) << c.label;
    }
}

}  // namespace
}  // namespace stonewall::browser

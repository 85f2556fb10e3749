// Picked elements as the page script sends them.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "engine/DataElement.h"

namespace stonewall {
namespace {

TEST(DataElement, MessageDataOfTheWire) {
    const auto elements = DataElement::elementsFromMessageData(std::string_view(
        R"([["l","div","#a","","","body","","",""],
            ["l","img",null,"s",7,"a","","",""],
            ["too","short"],
            "not an array",
            {"tag":"img"}])"));
    ASSERT_TRUE(elements);
    ASSERT_EQ(elements->size(), 5u);
    EXPECT_EQ((*elements)[0].selector, "#a");
    EXPECT_EQ((*elements)[0].parentElement->tag, "body");
    EXPECT_FALSE((*elements)[1].selector) << "a non-string member reads as absent";
    EXPECT_FALSE((*elements)[1].currentSource);
    EXPECT_EQ((*elements)[1].source, "s");
    for (size_t i = 2; i < 5; ++i) {
        EXPECT_FALSE((*elements)[i].tag) << i;
        EXPECT_FALSE((*elements)[i].parentElement) << i;
    }

    // Message data that is no array of elements.
    for (std::string_view text : {std::string_view("[[\"a\""), std::string_view("{\"data\":[]}"),
                                  std::string_view("[\"\xff\xfe\"]")}) {
        EXPECT_FALSE(DataElement::elementsFromMessageData(text)) << text;
    }
    const auto empty = DataElement::elementsFromMessageData(std::string_view("[]"));
    ASSERT_TRUE(empty);
    EXPECT_TRUE(empty->empty());
    // Deep nesting is refused or read, never a crash.
    const std::string deep(100000, '[');
    EXPECT_FALSE(DataElement::elementsFromMessageData(std::string_view(deep)));
    EXPECT_TRUE(DataElement::elementsFromMessageData(nlohmann::json::array({nlohmann::json()})));
}

}  // namespace
}  // namespace stonewall

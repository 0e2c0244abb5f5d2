#include "bus/vanid_text.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

constexpr char kText[] = "00:11:22:33:44:55:66:77:88:99:aa:bb:cc:dd:ee:ff:10";

TEST(VanidText, KeepsTheBytesThereAndBack) {
    vanid_t id{};
    ASSERT_TRUE(parseVanid(id, kText));
    EXPECT_EQ(id.bytes[1], 0x11);
    EXPECT_EQ(id.bytes[15], 0xff);
    EXPECT_EQ(id.bytes[16], 0x10);
    EXPECT_EQ(formatVanid(id), kText);
}

TEST(VanidText, RejectsAnyOtherLengthAndLeavesTheValueAlone) {
    vanid_t id;
    std::memset(id.bytes, 0x5a, sizeof id.bytes);
    const vanid_t before = id;
    for (const std::string& text :
         {std::string(), std::string(kText, 49), kText + std::string("0")}) {
        EXPECT_FALSE(parseVanid(id, text));
        EXPECT_EQ(std::memcmp(&id, &before, sizeof id), 0);
    }
}

TEST(VanidText, ReadsEachFieldByItself) {
    const struct {
        const char* field;
        int byte;
    } cases[] = {{"AB", 0xab}, {"zz", 0x00}, {" f", 0x0f}, {"-1", 0xff},
                 {"+7", 0x07}, {"1g", 0x01}, {"0x", 0x00}, {"  ", 0x00}};
    for (const auto& example : cases) {
        // What follows the field would change the number, were it read on.
        const std::string text = example.field + std::string("9") + std::string(kText).substr(3);
        vanid_t id{};
        ASSERT_TRUE(parseVanid(id, text));
        EXPECT_EQ(id.bytes[0], example.byte) << '"' << example.field << '"';
        EXPECT_EQ(id.bytes[1], 0x11);
    }
}

}  // namespace

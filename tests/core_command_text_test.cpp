// Command texts and read keys: one hexadecimal conversion, and keys that keep requests apart.

#include <gtest/gtest.h>

#include "command_text.h"

TEST(CommandText, CodesAreHexadecimalAndSubCommandsGoOutAs0xFF) {
    const std::pair<const char*, uint8_t> codes[] = {{"0x21", 0x21}, {"21", 0x21}, {"0X1a", 0x1A},
                                                     {"09", 0x09},   {"FF", 0xFF}, {"7", 0x07}};
    for (const auto& [text, expected] : codes) {
        uint8_t code = 0;
        u8Array_t payload;
        ASSERT_TRUE(commandRequestOf(text, code, payload)) << text;
        EXPECT_EQ(code, expected) << text;
        EXPECT_TRUE(payload.empty()) << text;
    }
    uint8_t code = 0;
    u8Array_t payload;
    ASSERT_TRUE(commandRequestOf("0X00010070", code, payload));
    EXPECT_EQ(code, 0xFF);
    EXPECT_EQ(payload, (u8Array_t{0x00, 0x01, 0x00, 0x70}));
    for (const char* bad : {"", "0x", "G1", "0x1G", "12345Z"}) {
        u8Array_t ignored;
        EXPECT_FALSE(commandRequestOf(bad, code, ignored)) << bad;
    }
}

TEST(CommandText, ReadKeysKeepACommandWithPayloadApartFromASubCommand) {
    VarInfo withPayload;
    withPayload.get_cmd = "0x75";
    withPayload.get_payload = {0x00};
    VarInfo subCommand;
    subCommand.get_cmd = "0x7500";
    VarInfo plain;
    plain.get_cmd = "0x75";
    EXPECT_NE(readRequestKey(withPayload), readRequestKey(subCommand));
    EXPECT_NE(readRequestKey(withPayload), readRequestKey(plain));
    VarInfo samePayload = withPayload;
    EXPECT_EQ(readRequestKey(samePayload), readRequestKey(withPayload));
}

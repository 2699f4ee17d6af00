// The management codec: its layout as bytes, and that nothing leads it out of the message.
#include <gtest/gtest.h>

#include <cstring>

#include "adr.h"
#include "world.h"

namespace
{

const Bytes MESSAGE = {
    0, 2, 0, 4, 0x00, 0x00, 0x00, 0x07,       // func 7
    0, 2, 0, 4, 0xFF, 0xFF, 0xFF, 0xFE,       // ret code
    0, 2, 0, 4, 0x00, 0x01, 0x00, 0x22, 1, 1, // command, index header, one index item
    2, 0, 4, 0x80, 0x00, 0x00, 0x05,          // a word
    3, 0, 0, 3, 'a', 'b', 'c',                // data: three bytes
};

TEST(Codec, ReadsAMessage)
{
    Bytes bytes = MESSAGE;
    AdrMsg msg;
    uint32_t func = 0, retCode = 0, cmd = 0;
    ASSERT_EQ(adr_start(&msg, bytes.data(), static_cast<uint32_t>(bytes.size())), 0);
    EXPECT_EQ(adr_decodefunc(&msg, &func), 0);
    EXPECT_EQ(adr_decoderetcode(&msg, &retCode), 0);
    EXPECT_EQ(adr_decodecmd(&msg, &cmd), 0);
    EXPECT_TRUE(func == 7 && retCode == 0xFFFFFFFE && cmd == 0x10022);
    adr_offset(&msg, 5);
    EXPECT_EQ(adr_getint32(&msg), static_cast<int32_t>(0x80000005));
    adr_offset(&msg, 2);
    EXPECT_EQ(adr_getushort(&msg), 3);
    // Bytes read to where they stand stay as they are.
    EXPECT_EQ(adr_getchar(&msg, bytes.data() + adr_count(&msg), 3), bytes.data() + 37);
    EXPECT_EQ(adr_count(&msg), bytes.size());
    EXPECT_FALSE(msg.overrun);
    EXPECT_EQ(bytes, MESSAGE);
    EXPECT_NE(adr_start(&msg, bytes.data(), 25), 0);
}

TEST(Codec, NeverLeavesTheMessage)
{
    const auto getShort = [](AdrMsg *m) -> uint32_t { return adr_getushort(m); };
    const auto afterOne = [](AdrMsg *m) -> uint32_t { uint8_t byte = 0; adr_getushort(m); return adr_getchar(m, &byte, 1) != nullptr || byte; };
    // From there in a message of 30 bytes, all 0xFF; the value read, the position then, whether it did not fit.
    const std::tuple<const char *, uint32_t, uint32_t (*)(AdrMsg *), uint32_t, uint32_t, bool> rows[] = {
        {"the last four bytes", 26, adr_getuint32, 0xFFFFFFFF, 30, false},
        {"one byte too few for a word", 27, adr_getuint32, 0, 30, true},
        {"the last two bytes", 28, getShort, 0xFFFF, 30, false},
        {"one byte too few for a short", 29, getShort, 0, 30, true},
        {"a read after one that did not fit", 29, afterOne, 0, 30, true},
        {"no bytes at the end", 30, [](AdrMsg *m) -> uint32_t { return adr_getchar(m, m->base + 30, 0) == m->base + 30; }, 1, 30, false},
        {"a skip to the end", 26, [](AdrMsg *m) { return adr_offset(m, 4), 0u; }, 0, 30, false},
        {"a skip beyond the end", 26, [](AdrMsg *m) { return adr_offset(m, 5), 0u; }, 0, 30, true},
        {"a skip that would wrap", 26, [](AdrMsg *m) { return adr_offset(m, 0xFFFFFFFF), 0u; }, 0, 30, true},
        {"a position at the end", 20, [](AdrMsg *m) { return adr_pos(m, 30), 0u; }, 0, 30, false},
        {"a position beyond the end", 20, [](AdrMsg *m) { return adr_pos(m, 31), 0u; }, 0, 20, true},
    };
    for (const auto &[claim, at, read, value, position, overrun] : rows) {
        SCOPED_TRACE(claim);
        Bytes bytes(30, 0xFF);
        AdrMsg msg;
        adr_start(&msg, bytes.data(), 30);
        adr_pos(&msg, at);
        EXPECT_EQ(read(&msg), value);
        EXPECT_EQ(adr_count(&msg), position);
        EXPECT_EQ(msg.overrun, overrun);
    }
}

TEST(Codec, WritesItemsOrNothing)
{
    const uint32_t words[2] = {0x01020304, 0xA0B0C0D0};
    // From there in a message of 30 bytes; type, length, value (null: "abcd" at 22 of the message itself); whether it is written,
    // whether it did not fit, the message from there on.
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, const void *, bool, bool, const char *> rows[] = {
        {"bytes", 24, 0, 2, "xy", true, false, "03 00 00 02 78 79"},
        {"bytes that stand where the item begins", 22, 0, 4, nullptr, true, false, "03 00 00 04 61 62 63 64"},
        {"a word", 22, 2, 4, words, true, false, "03 02 00 04 01 02 03 04"},
        {"two words", 18, 4, 8, words, true, false, "03 04 00 08 01 02 03 04 a0 b0 c0 d0"},
        {"one byte of room missing", 23, 2, 4, words, false, true, "ff ff ff ff ff ff ff"},
        {"a word of another length", 18, 2, 8, words, false, false, "ff ff ff ff ff ff ff ff ff ff ff ff"},
        {"two words of another length", 22, 4, 4, words, false, false, "ff ff ff ff ff ff ff ff"},
        {"a type there is not", 22, 3, 4, words, false, false, "ff ff ff ff ff ff ff ff"},
        {"a length that is none of a short", 22, 0, 0x10000, words, false, false, "ff ff ff ff ff ff ff ff"},
    };
    for (const auto &[claim, at, type, length, value, written, overrun, tail] : rows) {
        SCOPED_TRACE(claim);
        Bytes bytes(30, 0xFF);
        if (value == nullptr)
            memcpy(bytes.data() + 22, "abcd", 4);
        AdrMsg msg;
        adr_start(&msg, bytes.data(), 30);
        adr_pos(&msg, at);
        EXPECT_EQ(adr_encodedata(&msg, type, length, value != nullptr ? value : bytes.data() + 22) == 0, written);
        EXPECT_EQ(msg.overrun, overrun);
        EXPECT_EQ(adr_count(&msg), written ? 30 : at);
        EXPECT_EQ(world_hex(bytes.data() + at, 30 - at), tail);
        EXPECT_EQ(bytes[at - 1], 0xFF);
    }
}

TEST(Codec, WritesAResultWord)
{
    Bytes bytes(30, 0xFF);
    AdrMsg msg;
    adr_start(&msg, bytes.data(), 30);
    for (const auto &[at, value] : {std::pair{26u, 0x3E80010}, {27u, 0}}) {
        adr_pos(&msg, at);
        adr_int32(&msg, value);
        EXPECT_EQ(msg.overrun, at == 27);
        EXPECT_EQ(world_hex(bytes.data() + 26, 4), "03 e8 00 10");
    }
}

} // namespace

// Option text templates: expansion, its limits, and the checks for those who take templates from an operator.
#include "daemon_test.h"

#include "dhcpsnoop_format.h"

namespace
{

class Format : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        WorldPort &port = world.access(7, 10);
        port.name = "swp7";
        port.number = 70;
        port.location = {101, 102, 103, 104, 105, 106, 107};
        world.vlan_interface(110, 10).number = 1100;
        world.scalarTexts = {{66, "switch-1"}, {74, "Model 24"}};
        snoop(110); // a frame on member port 7, attributed to the VLAN interface 110
    }

    static DhcpsnoopPktInfo info()
    {
        DhcpsnoopPktInfo info = {};
        info.ifp = dhcpsnoop_if_lookup(110);
        info.ifIndex = 7;
        info.svlan = 10;
        info.cvlan = 20;
        return info;
    }

    // Expansion of exactly these bytes; behind them stands what must not be read, behind the output what must
    // not be written.
    static Bytes expand(const Bytes &text, uint32_t room = 768, const DhcpsnoopPktInfo &from = info())
    {
        const Bytes exact = text + text_bytes("s%s");
        Bytes out(1024, 0xEE);
        const uint32_t written = dhcpsnoop_format_print(&from, exact.data(), static_cast<uint32_t>(text.size()), out.data(), room);
        EXPECT_LE(written, 255u);
        for (size_t i = written; i < out.size(); i++)
            EXPECT_EQ(out[i], 0xEE) << "written behind the " << written << " bytes";
        out.resize(written);
        return out;
    }
    static Bytes expand(const char *text, uint32_t room = 768) { return expand(text_bytes(text), room); }
};

const Bytes NONE, NUL = {0};
const Bytes MAC110 = hex_bytes("02 00 00 00 01 6e");

TEST_F(Format, Conversions)
{
    const struct {
        const char *text;
        Bytes output;
    } rows[] = {
        {"", {}},
        {"plain", text_bytes("plain")},
        {"%D", text_bytes("switch-1")},
        {"%e", text_bytes("Model 24")},
        {"%N", text_bytes("swp7")}, // the receiving port's
        {"%i", text_bytes("1100")}, // the interface entry's
        {"%y", text_bytes("70")},   // the receiving port's
        {"%S", text_bytes("102")},
        {"%r", text_bytes("103")},
        {"%s", text_bytes("10")},
        {"%c", text_bytes("20")},
        {"%l", text_bytes("0")},
        {"%d", MAC110}, // binary
        {"%Q", text_bytes("0")},
        {"%A%Z%a%z", text_bytes("0000")},
        {"%s.%c.%d:%N", text_bytes("10.20.") + MAC110 + text_bytes(":swp7")},
        {"%d %N:%s.%c", MAC110 + text_bytes(" swp7:10.20")},
        // Literal percent signs.
        {"%", text_bytes("%")},
        {"100%", text_bytes("100%")},
        {"%%s", text_bytes("%10")},
        {"%%%", text_bytes("%%%")},
        {"%1abc", text_bytes("%1abc")},
        {"%1a%s", text_bytes("%1a10")},
        {"%@%[%`%{", text_bytes("%@%[%`%{")}, // beside the letters on either side
        {"%\xE4x%s", text_bytes("%\xE4x10")}, // bytes of 128 and above are no letters
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(hex(expand(row.text)), hex(row.output));
    }
}

TEST_F(Format, NumbersAreSigned)
{
    world.ports[7].number = 0xFFFFFFFF;
    world.ports[7].location[1] = 0x80000000;
    world.ports[7].location[2] = 0x7FFFFFFF;
    EXPECT_EQ(expand("%y %S %r"), text_bytes("-1 -2147483648 2147483647"));
}

TEST_F(Format, EveryLetterAsksForTheLocation)
{
    world.clear();
    expand("%D%1%d%%%Q");
    EXPECT_EQ(world.questions("qorIndexTrans"), Lines(3, "qorIndexTrans 7 6"));
}

TEST_F(Format, EndOfTheTemplate)
{
    const struct {
        const char *claim;
        Bytes text, output;
    } rows[] = {
        {"a NUL ends the output", text_bytes("ab") + NUL + text_bytes("cd"), text_bytes("ab")},
        {"a NUL after a conversion", text_bytes("%s") + NUL + text_bytes("%c"), text_bytes("10")},
        {"the length cuts a conversion", text_bytes("a%"), text_bytes("a%")}, // an 's' stands behind it
        {"without another percent sign a run goes on to the length, NULs included",
         text_bytes("%1") + NUL + text_bytes("ab"), text_bytes("%1") + NUL + text_bytes("ab")},
        {"the search for it stops at a NUL: the rest is the run, conversions too",
         text_bytes("%1") + NUL + text_bytes("%s"), text_bytes("%1") + NUL + text_bytes("%s")},
        {"a percent sign before a NUL", text_bytes("%") + NUL + text_bytes("x"), text_bytes("%") + NUL + text_bytes("x")},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        EXPECT_EQ(hex(expand(row.text)), hex(row.output));
    }
}

TEST_F(Format, RoomAndTheLimitOf255)
{
    const std::string a253(253, 'a'), a254(254, 'a'), a255(255, 'a'), a256(256, 'a');
    // claim, text, room, output
    const std::tuple<const char *, std::string, uint32_t, Bytes> rows[] = {
        {"no room", "abc", 0, NONE},
        {"ordinary bytes up to the room", "abc", 2, text_bytes("ab")},
        {"6 bytes do not fit into 3", "%d", 3, NONE},
        {"nor into 5", "%d", 5, NONE},
        {"they fit into 6", "%d", 6, MAC110},
        {"a conversion that does not fit ends the text", "ab%dcd", 7, text_bytes("ab")},
        {"and is never cut", "%s%s", 3, text_bytes("10")},
        {"255 ordinary bytes", a255, 768, text_bytes(a255)},
        {"not 256", a256, 768, text_bytes(a255)},
        {"a conversion up to 255", a253 + "%s", 768, text_bytes(a253 + "10")},
        {"not beyond", a254 + "%s", 768, text_bytes(a254)},
        {"nothing is looked at beyond 255", a255 + "%s", 768, text_bytes(a255)},
        {"a run up to 255", a253 + "%1", 768, text_bytes(a253 + "%1")},
        {"not beyond", a254 + "%1", 768, text_bytes(a254)},
        // Kept: the room is compared with the length before the run.
        {"a run passes the room", "a%1234567", 2, text_bytes("a%1234567")},
        {"but does not begin behind it", "ab%1234567", 2, text_bytes("ab")},
        {"a run of 255 passes a room of 1", "%1" + std::string(253, 'x'), 1, text_bytes("%1" + std::string(253, 'x'))},
        {"a run of 256 does not", "%1" + std::string(254, 'x'), 768, NONE},
    };
    for (const auto &[claim, text, room, output] : rows) {
        SCOPED_TRACE(claim);
        EXPECT_EQ(hex(expand(text_bytes(text), room)), hex(output));
    }
}

TEST_F(Format, WhatThePlatformDoesNotAnswer)
{
    const Bytes nothing(128, 0);
    world.scalarTexts.clear();
    world.ports.clear();
    // A text that is not answered is the whole zeroed buffer.
    EXPECT_EQ(expand("%D"), nothing);
    EXPECT_EQ(expand("%e"), nothing);
    EXPECT_EQ(expand("%N"), nothing);
    EXPECT_EQ(expand("%N", 127), Bytes{});
    EXPECT_EQ(expand("%i.%y.%S.%r"), text_bytes("0.0.0.0"));
    // One buffer does not shine through another.
    world.scalarTexts = {{66, "name"}};
    EXPECT_EQ(expand("%D%e"), text_bytes("name") + nothing);
    // A length beyond the room it was given is the room.
    world.scalarTexts = {{66, std::string(300, 'n')}};
    EXPECT_EQ(expand("%D"), Bytes(128, 'n'));
}

TEST_F(Format, WithoutAnInterface)
{
    DhcpsnoopPktInfo none = info();
    none.ifp = nullptr;
    EXPECT_EQ(expand(text_bytes("%d%i%y"), 768, none), Bytes(6, 0) + text_bytes("070"));
}

TEST_F(Format, Check)
{
    // claim, text, result
    const std::tuple<const char *, Bytes, int32_t> rows[] = {
        {"nothing", NONE, 0},
        {"no conversion", text_bytes("abc"), 0},
        {"a conversion at the end needs its terminator counted", text_bytes("%s"), -1},
        {"with it", text_bytes("%s") + NUL, 0},
        {"no delimiter behind the letter", text_bytes("%sx"), -1},
        {"two conversions and the terminator", text_bytes("%s.%c") + NUL, 0},
        {"without it", text_bytes("%s.%c"), -1},
        {"not a letter, but too short", text_bytes("%1"), -1},
        {"not a letter", text_bytes("%1") + NUL, 0},
        {"a lone percent sign", text_bytes("%"), -1},
        {"with two bytes behind", text_bytes("%  "), 0},
        {"what stands behind a NUL does not count", text_bytes("ab") + NUL + text_bytes("%sx"), 0},
        {"two percent signs: the second counts", text_bytes("%%s."), 0},
        {"and must be followed too", text_bytes("%%sx"), -1},
        {"bytes of 128 and above are no letters", text_bytes("%\xC4") + NUL, 0},
        {"nor delimiters", text_bytes("%s\xA0"), -1},
        {"the last of a long one", Bytes(125, 'a') + text_bytes("%s:"), 0},
    };
    for (const auto &[claim, text, result] : rows) {
        SCOPED_TRACE(claim);
        const Bytes exact = text + text_bytes("%x");
        EXPECT_EQ(dhcpsnoop_format_check(exact.data(), static_cast<uint32_t>(text.size())), result);
    }
}

TEST_F(Format, Delimiters)
{
    const std::string delimiters = " ./:;[]{}<>()";
    for (int32_t c = -300; c < 600; c++) {
        const auto low = static_cast<unsigned char>(c);
        const bool expected = low == 0 || delimiters.find(static_cast<char>(low)) != std::string::npos;
        EXPECT_EQ(dhcpsnoop_delimiter_check(c), expected ? 0 : -1) << c;
        const uint8_t text[] = {'%', 's', low};
        EXPECT_EQ(dhcpsnoop_format_check(text, 3), expected ? 0 : -1) << c;
    }
}

} // namespace

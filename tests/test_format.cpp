// Option text templates: expansion, its limits, and the checks for those who take templates from an operator.
#include "dhcpsnoop_format.h"
#include "scene.h"

namespace
{

using namespace std::string_literals;

// A frame with tags 10 and 20 on member port 7, attributed to VLAN interface 110.
void set_up()
{
    world.reset();
    WorldPort &port = world.access(7, 10);
    port.number = 70;
    port.location = {101, 102, 103, 104, 105, 106, 107};
    world.vlan_interface(110, 10).number = 1100;
    snoop(110);
}

// Expansion of exactly these bytes; behind them stands what must not be read, behind the output what must not be written.
std::string expand(const std::string &text, uint32_t room = 768, bool interface = true)
{
    DhcpsnoopPktInfo info = {};
    info.ifp = interface ? dhcpsnoop_if_lookup(110) : nullptr;
    info.ifIndex = 7;
    info.svlan = 10;
    info.cvlan = 20;
    const Bytes exact = text_bytes(text + "s%s");
    std::string out(1024, '\xEE');
    const uint32_t written = dhcpsnoop_format_print(&info, exact.data(), static_cast<uint32_t>(text.size()), reinterpret_cast<uint8_t *>(out.data()), room);
    EXPECT_EQ(out.find_first_not_of('\xEE', written), std::string::npos) << "written behind the " << written << " bytes";
    return out.substr(0, written);
}

std::string many(size_t count, char byte = 'a') { return std::string(count, byte); }

const std::string MAC = "\x02\0\0\0\x01\x6e"s, NOTHING = many(128, '\0');

const struct {
    std::string text, output;
    uint32_t room = 768;
    const char *claim = "";
} ROWS[] = {
    // clang-format off
    {"", ""},
    {"plain", "plain"},
    {"%D %e", "switch-1 model 24"},
    {"%N", "swp7", 768, "the receiving port's"},
    {"%i", "1100", 768, "the interface entry's"},
    {"%y", "70", 768, "the receiving port's"},
    {"%S %r %s %c %l %d", "102 103 10 20 0 " + MAC},
    {"%Q%A%Z%a%z", "00000"},
    {"%s.%c.%d:%N", "10.20." + MAC + ":swp7"},
    // literal percent signs
    {"%", "%"},
    {"100%", "100%"},
    {"%%s", "%10"},
    {"%%%", "%%%"},
    {"%1abc", "%1abc"},
    {"%1a%s", "%1a10"},
    {"%@%[%`%{", "%@%[%`%{", 768, "beside the letters on either side"},
    {"%\xE4x%s", "%\xE4x10", 768, "bytes of 128 and above are no letters"},
    // the end of the template
    {"ab\0cd"s, "ab", 768, "a NUL ends the output"},
    {"%s\0%c"s, "10", 768, "a NUL after a conversion"},
    {"a%", "a%", 768, "the length cuts a conversion: an 's' stands behind it"},
    {"%1\0ab"s, "%1\0ab"s, 768, "without another percent sign a run goes on to the length, NULs included"},
    {"%1\0%s"s, "%1\0%s"s, 768, "the search for it stops at a NUL: the rest is the run, conversions too"},
    {"%\0x"s, "%\0x"s, 768, "a percent sign before a NUL"},
    // the room and the limit of 255
    {"abc", "", 0, "no room"},
    {"abc", "ab", 2, "ordinary bytes up to the room"},
    {"%d", "", 5, "6 bytes do not fit into 5"},
    {"%d", MAC, 6, "they fit into 6"},
    {"ab%dcd", "ab", 7, "a conversion that does not fit ends the text"},
    {"%s%s", "10", 3, "and is never cut"},
    {many(256), many(255), 768, "255 ordinary bytes, not 256"},
    {many(253) + "%s", many(253) + "10", 768, "a conversion up to 255"},
    {many(254) + "%s", many(254), 768, "not beyond"},
    {many(255) + "%s", many(255), 768, "nothing is looked at beyond 255"},
    {many(253) + "%1", many(253) + "%1", 768, "a run up to 255"},
    {many(254) + "%1", many(254), 768, "not beyond"},
    {"a%1234567", "a%1234567", 2, "Kept: the room is compared with the length before the run, which may pass it"},
    {"ab%1234567", "ab", 2, "but does not begin behind it"},
    {"%1" + many(253), "%1" + many(253), 1, "a run of 255 passes a room of 1"},
    {"%1" + many(254), "", 768, "a run of 256 does not"},
    // clang-format on
};

using Format = Daemon;

TEST_F(Format, Expansion)
{
    set_up();
    for (const auto &row : ROWS)
        EXPECT_EQ(expand(row.text, row.room), row.output) << row.text << ": " << row.claim;
    world.clear();
    expand("%D%1%d%%%Q"); // every letter asks for the location
    EXPECT_EQ(world.questions("qorIndexTrans"), Lines(3, "qorIndexTrans 7 6"));
    EXPECT_EQ(expand("%d%i%y", 768, false), many(6, '\0') + "070") << "without an interface";
    world.ports[7].number = 0xFFFFFFFF;
    world.ports[7].location = {0, 0x80000000, 0x7FFFFFFF};
    EXPECT_EQ(expand("%y %S %r"), "-1 -2147483648 2147483647");
    // A text that is not answered is the whole zeroed buffer; one buffer does not shine through another.
    world.scalarTexts = {{66, "name"}};
    world.ports.clear();
    EXPECT_EQ(expand("%D%e"), "name" + NOTHING);
    EXPECT_EQ(expand("%N%N"), NOTHING);
    EXPECT_EQ(expand("%N", 127), "");
    EXPECT_EQ(expand("%i.%y.%S.%r"), "0.0.0.0");
    world.scalarTexts = {{66, many(300)}};
    EXPECT_EQ(expand("%D"), many(128)) << "a length beyond the room it was given is the room";
}

TEST_F(Format, Check)
{
    const struct {
        const char *claim;
        std::string text;
        bool right;
    } rows[] = {
        // clang-format off
        {"nothing", "", true},
        {"no conversion", "abc", true},
        {"a conversion at the end needs its terminator counted", "%s", false},
        {"with it", "%s\0"s, true},
        {"two conversions and the terminator", "%s.%c\0"s, true},
        {"not a letter, but too short", "%1", false},
        {"not a letter", "%1\0"s, true},
        {"a lone percent sign", "%", false},
        {"with two bytes behind", "%  ", true},
        {"what stands behind a NUL does not count", "ab\0%sx"s, true},
        {"two percent signs: the second counts", "%%s.", true},
        {"and must be followed too", "%%sx", false},
        {"bytes of 128 and above are no letters", "%\xC4\0"s, true},
        {"a letter beside", "%@x", true},
        {"the last of a long one", many(125) + "%s:", true},
        // clang-format on
    };
    for (const auto &row : rows) {
        const Bytes exact = text_bytes(row.text + "%x");
        EXPECT_EQ(dhcpsnoop_format_check(exact.data(), static_cast<uint32_t>(row.text.size())), row.right ? 0 : -1) << row.claim;
    }
    const std::string delimiters = " ./:;[]{}<>()\0"s;
    for (int32_t c = -300; c < 600; c++) {
        const int32_t expected = delimiters.find(static_cast<char>(c)) != std::string::npos ? 0 : -1;
        EXPECT_EQ(dhcpsnoop_delimiter_check(c), expected) << c;
        const uint8_t text[] = {'%', 's', static_cast<uint8_t>(c)};
        EXPECT_EQ(dhcpsnoop_format_check(text, 3), expected) << c;
    }
}

} // namespace

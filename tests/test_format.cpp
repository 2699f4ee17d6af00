// Option text templates: expansion, its limits, and the checks for those who take templates from an operator.
#include "dhcpsnoop_format.h"
#include "scene.h"

namespace
{

using namespace std::string_literals;

// Expansion of exactly these bytes; behind them stands what must not be read, behind the output what must not be written.
std::string expand(const std::string &text, uint32_t room = 768)
{
    DhcpsnoopPktInfo info = {};
    info.ifp = dhcpsnoop_if_lookup(110);
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

// Exactly these bytes; behind them stands another conversion.
std::string checked(const std::string &text)
{
    const Bytes exact = text_bytes(text + "%x");
    return std::to_string(dhcpsnoop_format_check(exact.data(), static_cast<uint32_t>(text.size())));
}

using Format = Daemon;

TEST_F(Format, Expansion)
{
    // A frame with tags 10 and 20 on member port 7, attributed to VLAN interface 110.
    world.reset();
    WorldPort &port = world.access(7, 10);
    port.number = 70;
    port.location = {101, 102, 103, 104, 105, 106, 107};
    world.vlan_interface(110, 10).number = 1100;
    snoop(110);
    check({
        {"%D %e", expand("%D %e"), "switch-1 model 24"},
        {"the receiving port's", expand("%N"), "swp7"},
        {"the interface entry's", expand("%i"), "1100"},
        {"the receiving port's", expand("%y"), "70"},
        {"%S %r %s %c %l %d", expand("%S %r %s %c %l %d"), "102 103 10 20 0 " + MAC},
        {"%Q%A%Z%a%z", expand("%Q%A%Z%a%z"), "00000"},
        // literal percent signs
        {"beside the letters on either side", expand("%@%[%`%{"), "%@%[%`%{"},
        // the end of the template
        {"the length cuts a conversion: an 's' stands behind it", expand("a%"), "a%"},
        {"without another percent sign a run goes on to the length, NULs included", expand("%1\0ab"s), "%1\0ab"s},
        {"the search for it stops at a NUL: the rest is the run, conversions too", expand("%1\0%s"s), "%1\0%s"s},
        // the room and the limit of 255
        {"they fit into 6", expand("%d", 6), MAC},
        {"and is never cut", expand("%s%s", 3), "10"},
        {"a conversion up to 255", expand(many(253) + "%s"), many(253) + "10"},
        {"a run up to 255", expand(many(253) + "%1"), many(253) + "%1"},
        {"not beyond", expand(many(254) + "%1"), many(254)},
        {"Kept: the room is compared with the length before the run, which may pass it", expand("a%1234567", 2), "a%1234567"},
        {"but does not begin behind it", expand("ab%1234567", 2), "ab"},
    });
    world.clear();
    expand("%D%1%d%%%Q"); // every letter asks for the location
    EXPECT_EQ(world.questions("qorIndexTrans"), Lines(3, "qorIndexTrans 7 6"));
    port.number = 0xFFFFFFFF;
    port.location = {0, 0x80000000, 0x7FFFFFFF};
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
    check({
        {"a conversion at the end needs its terminator counted", checked("%s"), "-1"},
        {"a lone percent sign", checked("%"), "-1"},
        {"what stands behind a NUL does not count", checked("ab\0%sx"s), "0"},
    });
    const std::string delimiters = " ./:;[]{}<>()\0"s;
    for (int32_t c = -300; c < 600; c++) {
        const int32_t expected = delimiters.find(static_cast<char>(c)) != std::string::npos ? 0 : -1;
        EXPECT_EQ(dhcpsnoop_delimiter_check(c), expected) << c;
        const uint8_t text[] = {'%', 's', static_cast<uint8_t>(c)};
        EXPECT_EQ(dhcpsnoop_format_check(text, 3), expected) << c;
    }
}

} // namespace

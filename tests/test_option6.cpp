// Options 18 and 37: built from each kind of setting, appended, stripped; the whole frame afterwards is
// compared with one that scapy encoded, lengths and checksum included.
#include "daemon_test.h"

#include "dhcp6snoop_msg.h"
#include "dhcpv6_frames.h"

namespace
{

constexpr uint32_t ENTERPRISE = 32473; // RFC 5612
const Bytes PORT1 = hex_bytes("01 06 00 06 00 0a 11 22 77 33 02 08 00 06 02 00 00 00 01 01");
const std::string TOO_LONG18 = "[DHCPSNOOP] Packet len exceeds the max, don't insert option18.\r\n";
const std::string TOO_LONG37 = "[DHCPSNOOP] Packet len exceeds the max, don't insert option37.\r\n";

class Option6 : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(1, 10).location = {0x111, 0x122, 0x133, 4, 5, 6, 0x177};
        port = snoop(1, DHCPSNOOP_IF_OPTION18 | DHCPSNOOP_IF_OPTION37);
        gDhcpsnoop.enterpriseNum = ENTERPRISE;
        debug(1);
    }

    void interface_id(uint8_t format, const std::string &text)
    {
        port->interfaceIdFmt = format;
        port->interfaceIdLen = static_cast<uint8_t>(text.size());
        std::copy(text.begin(), text.end(), port->interfaceId);
    }

    void remote_id(uint8_t format, const std::string &text)
    {
        port->remoteId6Fmt = format;
        port->remoteId6Len = static_cast<uint8_t>(text.size());
        std::copy(text.begin(), text.end(), port->remoteId6);
    }

    static void global(DhcpsnoopOptionFormat &format, uint16_t mode, const std::string &text)
    {
        format = {mode, static_cast<uint16_t>(text.size()), {}};
        std::copy(text.begin(), text.end(), format.text);
    }

    DhcpsnoopIf *port = nullptr;
};

using Build = uint32_t (*)(const DhcpsnoopPktInfo *, uint8_t *, uint32_t);

Bytes built(Build build, const DhcpsnoopPktInfo &info)
{
    uint8_t buffer[600] = {};
    const uint32_t length = build(&info, buffer, 512);
    return Bytes(buffer, buffer + length);
}

TEST_F(Option6, Construction)
{
    const std::string empty;
    // claim, format, text (the interface's), mode, globalText, data (of both options)
    const std::tuple<const char *, uint8_t, std::string, uint16_t, std::string, Bytes> rows[] = {
        {"default data", 0, empty, 3, "%s", PORT1},
        {"own format 3 instead of a global template", 3, empty, 5, "%s", PORT1},
        {"own format 4", 4, empty, 3, empty, PORT1},
        {"a global mode of 0 is the default data", 0, empty, 0, "%s", PORT1},
        {"a global mode of 6", 0, empty, 6, "%s", PORT1},
        {"the interface's string", 3, "uplink %s", 3, empty, text_bytes("uplink %s")},
        // Kept: the interface's string counts even when the mode came from the global setting.
        {"the interface's string with the global mode", 0, "uplink", 4, "%s", text_bytes("uplink")},
        {"a string of 128 bytes", 4, std::string(128, 'x'), 3, empty, Bytes(128, 'x')},
        // Kept: 1, 2 and 5 are templates here, only 5 is one in option 82.
        {"template by mode 1", 1, "v%s.", 3, empty, text_bytes("v10.")},
        {"template by mode 2", 2, "v%s.", 3, empty, text_bytes("v10.")},
        {"template by mode 5", 5, "v%s.", 3, empty, text_bytes("v10.")},
        {"own template, not the global one", 5, "own", 5, "global", text_bytes("own")},
        {"the global template by mode 1", 0, "own", 1, "g%s.%d", text_bytes("g10.") + hex_bytes("02 00 00 00 01 01")},
        {"the global template by mode 2", 0, "own", 2, "g%s", text_bytes("g10")},
        {"the global template by mode 5", 0, "own", 5, "g%s", text_bytes("g10")},
        {"a template of 255 bytes", 0, empty, 5, std::string(255, 'y'), Bytes(255, 'y')},
    };
    for (const auto &[claim, format, text, mode, globalText, data] : rows) {
        SCOPED_TRACE(claim);
        interface_id(format, text);
        remote_id(format, text);
        global(gDhcpsnoop.interfaceIdFmt, mode, globalText);
        global(gDhcpsnoop.remoteId6Fmt, mode, globalText);
        const Parsed parsed(client6(1));
        EXPECT_EQ(hex(built(dhcp6snoop_construct_opt18, parsed.info)), hex(opt6(18, data)));
        EXPECT_EQ(hex(built(dhcp6snoop_construct_opt37, parsed.info)), hex(opt6(37, be32(ENTERPRISE) + data)));
    }
    // Each option has settings of its own.
    interface_id(4, "eighteen");
    remote_id(4, "thirty-seven");
    const Parsed parsed(client6(1));
    EXPECT_EQ(hex(built(dhcp6snoop_construct_opt18, parsed.info)), hex(opt6(18, text_bytes("eighteen"))));
    EXPECT_EQ(hex(built(dhcp6snoop_construct_opt37, parsed.info)), hex(opt6(37, be32(ENTERPRISE) + text_bytes("thirty-seven"))));
}

TEST_F(Option6, ATemplateThatRendersToNothing)
{
    interface_id(5, "");
    remote_id(5, "");
    const Parsed parsed(client6(1));
    EXPECT_EQ(hex(built(dhcp6snoop_construct_opt18, parsed.info)), "");
    // Kept: the enterprise number alone still makes an option 37.
    EXPECT_EQ(hex(built(dhcp6snoop_construct_opt37, parsed.info)), hex(opt6(37, be32(ENTERPRISE))));
}

TEST_F(Option6, NothingToBuildFor)
{
    Parsed parsed(client6(1));
    uint8_t buffer[512];
    for (const Build build : {dhcp6snoop_construct_opt18, dhcp6snoop_construct_opt37}) {
        EXPECT_EQ(build(nullptr, buffer, 512), 0u);
        EXPECT_EQ(build(&parsed.info, nullptr, 512), 0u);
        DhcpsnoopPktInfo nowhere = {};
        EXPECT_EQ(build(&nowhere, buffer, 512), 0u);
    }
}

TEST_F(Option6, TheLocationIsTheReceivingInterfacesOwn)
{
    // Not that of the port the frame came in on, which a VLAN interface does not share.
    world.vlan_interface(110, 10).location = {1, 2, 3, 4, 5, 6, 7};
    world.ports[110].mac = {2, 0, 0, 0, 1, 0x6E};
    snoop(110);
    const Parsed parsed(client6(1), {.port = 9, .inIf = 110});
    EXPECT_EQ(hex(built(dhcp6snoop_construct_opt18, parsed.info)), hex(opt6(18, hex_bytes("01 06 00 06 00 0a 01 02 07 03 02 08 00 06") +
                                                                                    Bytes(parsed.info.ifp->mac, parsed.info.ifp->mac + 6))));
}

// The frame's length, the option and 2048.
TEST_F(Option6, RoomInTheFrame)
{
    // build, frameLen, length, text
    const std::tuple<Build, uint32_t, uint32_t, const std::string *> rows[] = {
        {dhcp6snoop_construct_opt18, 2048 - 24, 24, nullptr},
        {dhcp6snoop_construct_opt18, 2048 - 23, 0, &TOO_LONG18},
        {dhcp6snoop_construct_opt18, 2030, 0, &TOO_LONG18},
        {dhcp6snoop_construct_opt37, 2048 - 28, 28, nullptr},
        {dhcp6snoop_construct_opt37, 2048 - 27, 0, &TOO_LONG37},
    };
    for (const auto &[build, frameLen, length, text] : rows) {
        SCOPED_TRACE(frameLen);
        Parsed parsed(client6(1));
        parsed.info.frameLen = frameLen;
        world.clear();
        EXPECT_EQ(built(build, parsed.info).size(), length);
        EXPECT_EQ(debug_texts(), text == nullptr ? Lines{} : Lines{*text});
    }
}

std::string construct18(int length) { return world_format("[DHCPSNOOP] Construct option18, option len %d.\r\n", length); }
std::string construct37(int length) { return world_format("[DHCPSNOOP] Construct option37, option len %d.\r\n", length); }
const std::string INSERT18 = "[DHCPSNOOP] Insert option18 to packet.\r\n";
const std::string INSERT37 = "[DHCPSNOOP] Insert option37 to packet.\r\n";

TEST_F(Option6, ClientMessages)
{
    constexpr uint32_t both = DHCPSNOOP_IF_OPTION18 | DHCPSNOOP_IF_OPTION37;
    // claim, frame, flags, expected, texts
    const std::tuple<const char *, const char *, uint32_t, const char *, Lines> rows[] = {
        {"both", SOLICIT, both, SOLICIT_18_37, {construct18(24), INSERT18, construct37(28), INSERT37}},
        {"37 alone", SOLICIT, DHCPSNOOP_IF_OPTION37, SOLICIT_37, {construct37(28), INSERT37}},
        {"neither", SOLICIT, 0, SOLICIT, {}},
        {"37 is there", SOLICIT_37, both, SOLICIT_37_18, {construct18(24), INSERT18}},
        {"both are there", SOLICIT_18_37, both, SOLICIT_18_37, {}},
        {"behind two IAs", REQUEST, both, REQUEST_18_37, {construct18(24), INSERT18, construct37(28), INSERT37}},
    };
    for (const auto &[claim, frame, flags, expected, texts] : rows) {
        SCOPED_TRACE(claim);
        port->flags = (port->flags & ~both) | flags;
        Parsed parsed(hex_bytes(frame));
        const uint32_t dhcpLen = parsed.info.dhcpLen;
        world.clear();
        dhcp6snoop_construct_client_opt(&parsed.info);
        EXPECT_EQ(dump(parsed.bytes()), dump(hex_bytes(expected)));
        EXPECT_EQ(hex(parsed.bytes()), hex(hex_bytes(expected)));
        EXPECT_EQ(debug_texts(), texts);
        EXPECT_EQ(parsed.info.ipBodyLen, parsed.info.frameLen - 54);
        EXPECT_EQ(parsed.info.udpLen, parsed.info.ipBodyLen);
        EXPECT_EQ(parsed.info.dhcpLen, dhcpLen); // Kept: it does not follow
    }
    dhcp6snoop_construct_client_opt(nullptr);
}

// Kept: the length handed on is a single byte.
TEST_F(Option6, LengthsBeyondAByte)
{
    port->flags &= ~DHCPSNOOP_IF_OPTION37;
    const struct {
        size_t text, appended;
        Lines texts;
    } rows[] = {
        {251, 255, {construct18(255), INSERT18}},
        {252, 0, {construct18(0)}},
        {253, 1, {construct18(1), INSERT18}},
        {255, 3, {construct18(3), INSERT18}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        global(gDhcpsnoop.interfaceIdFmt, 5, std::string(row.text, 'z'));
        Parsed parsed(hex_bytes(SOLICIT));
        world.clear();
        dhcp6snoop_construct_client_opt(&parsed.info);
        EXPECT_EQ(debug_texts(), row.texts);
        Bytes option = opt6(18, Bytes(row.text, 'z'));
        option.resize(row.appended);
        const Bytes solicit = hex_bytes(SOLICIT);
        const Frame6 expected = client6(1, Bytes(solicit.begin() + 66, solicit.end()) + option);
        EXPECT_EQ(hex(parsed.bytes()), hex(expected.bytes()));
    }
}

// Kept: a sum of zero stays 0, though receivers discard such a datagram.
TEST_F(Option6, AChecksumOfZero)
{
    const Bytes inserted = opt6(18, PORT1);
    Frame6 frame = client6(1);
    // The sum with the option behind it, as the value of another: that makes it all ones, its complement 0.
    frame.options = opt6(8, {0, 0}) + inserted;
    const Bytes whole = frame.bytes();
    const Bytes elapsed = opt6(8, Bytes(whole.begin() + 60, whole.begin() + 62));
    port->flags &= ~DHCPSNOOP_IF_OPTION37;
    Parsed parsed(client6(1, elapsed));
    dhcp6snoop_construct_client_opt(&parsed.info);
    frame.options = elapsed + inserted;
    frame.udpChecksum = 0;
    EXPECT_EQ(hex(parsed.bytes()), hex(frame.bytes()));
}

TEST_F(Option6, InsertsOnlyWhatFits)
{
    const Bytes option(30, 7);
    for (const uint32_t before : {2018u, 2019u, 2048u}) {
        SCOPED_TRACE(before);
        Frame6 frame = client6(1, opt6(1, Bytes(before - 70, 0)));
        Parsed parsed(frame);
        ASSERT_EQ(parsed.info.frameLen, before);
        dhcp6snoop_insert_opt(&parsed.info, option.data(), 30);
        if (before == 2018)
            frame.options = frame.options + option;
        EXPECT_EQ(hex(parsed.bytes()), hex(frame.bytes()));
    }
    Parsed parsed(hex_bytes(SOLICIT));
    dhcp6snoop_insert_opt(&parsed.info, nullptr, 4);
    dhcp6snoop_insert_opt(&parsed.info, option.data(), 0xFFFFFFFF);
    dhcp6snoop_insert_opt(nullptr, option.data(), 4);
    EXPECT_EQ(hex(parsed.bytes()), hex(hex_bytes(SOLICIT)));
}

TEST_F(Option6, Strip)
{
    const struct {
        const char *claim, *frame;
        std::vector<uint32_t> codes;
        const char *expected;
    } rows[] = {
        {"18 then 37", REPLY_18_37, {18, 37}, REPLY},
        {"37 then 18", REPLY_18_37, {37, 18}, REPLY},
        {"every one of that code", REPLY_18_TWICE, {18}, REPLY},
        {"at the end of the message", ADVERTISE_18_37, {18, 37}, ADVERTISE},
        {"one that is not there", REPLY, {18, 37}, REPLY},
        {"from the front of the other", SOLICIT_18_37, {18}, SOLICIT_37},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Parsed parsed(hex_bytes(row.frame));
        const Bytes expected = hex_bytes(row.expected);
        uint16_t sum = 0;
        for (const uint32_t code : row.codes)
            sum = dhcp6snoop_strip_opt(&parsed.info, code);
        EXPECT_EQ(hex(parsed.bytes()), hex(expected));
        EXPECT_EQ(sum, expected[60] << 8 | expected[61]);
        // What was found is found where it now stands.
        const Parsed again(expected);
        EXPECT_EQ(parsed.info.interfaceIdOpt, nullptr);
        EXPECT_EQ(parsed.info.remoteIdOpt == nullptr, again.info.remoteIdOpt == nullptr);
        ASSERT_EQ(parsed.info.iaCount, again.info.iaCount);
        for (uint32_t i = 0; i < again.info.iaCount; i++)
            EXPECT_EQ(parsed.info.iaOpts[i] - parsed.info.frame, again.info.iaOpts[i] - again.info.frame);
    }
    EXPECT_EQ(dhcp6snoop_strip_opt(nullptr, 18), 0);
}

TEST_F(Option6, StripsOddMessages)
{
    const Bytes keep = opt6(1, {1, 2, 3});
    const struct {
        const char *claim;
        Frame6 frame, expected;
    } rows[] = {
        {"an option that claims more than there is goes to the end", server6(7, keep + opt6(18, {1, 2}, 65535)), server6(7, keep)},
        {"another that does stays", server6(7, opt6(18, {1}) + opt6(1, {1, 2}, 65535)), server6(7, opt6(1, {1, 2}, 65535))},
        {"a step of 65536 does not come round", server6(7, opt6(1, {1, 2}, 65532) + opt6(18, {1})), server6(7, opt6(1, {1, 2}, 65532) + opt6(18, {1}))},
        {"three bytes at the end stay", server6(7, opt6(18, {1}) + Bytes{0, 18, 0}), server6(7, {0, 18, 0})},
        {"one inside an IA stays", server6(7, ia_na(opt6(18, {1})) + opt6(18, {2})), server6(7, ia_na(opt6(18, {1})))},
        {"no option", server6(7), server6(7)},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        Parsed parsed(row.frame);
        dhcp6snoop_strip_opt(&parsed.info, 18);
        EXPECT_EQ(hex(parsed.bytes()), hex(row.expected.bytes()));
    }
    // Behind the datagram: dropped from the frame; the IPv6 length loses only what was removed.
    Frame6 slack = server6(7, opt6(18, {1, 2, 3, 4}) + keep);
    slack.slack = Bytes(5, 0xEE);
    Parsed parsed(slack);
    dhcp6snoop_strip_opt(&parsed.info, 18);
    Frame6 expected = server6(7, keep);
    expected.payloadLen = 8 + 4 + 7 + 5;
    EXPECT_EQ(hex(parsed.bytes()), hex(expected.bytes()));
    // A datagram that ends before the options: nothing is stripped, whatever its length.
    for (uint16_t udpLen = 0; udpLen < 12; udpLen++) {
        Frame6 shorter = server6(7, opt6(18, {1, 2, 3, 4}));
        shorter.udpLen = udpLen;
        Parsed cut(shorter);
        ASSERT_EQ(cut.result, 0);
        dhcp6snoop_strip_opt(&cut.info, 18);
        EXPECT_EQ(cut.info.frameLen, shorter.bytes().size());
        EXPECT_EQ(cut.info.udpLen, udpLen);
        EXPECT_EQ(cut.info.ipBodyLen, 20u);
    }
}

// The longest message there is, all of it options to be removed, and all of it kept.
TEST_F(Option6, StripsAFullFrame)
{
    for (const uint16_t code : {uint16_t{18}, uint16_t{1}}) {
        Bytes options;
        while (options.size() + 4 <= 2048 - 66)
            options = options + opt6(code, {});
        options.resize(2048 - 66);
        Parsed parsed(server6(7, options));
        ASSERT_EQ(parsed.result, 0);
        dhcp6snoop_strip_opt(&parsed.info, 18);
        EXPECT_EQ(parsed.info.frameLen, code == 18 ? 66u + (2048 - 66) % 4 : 2048u);
        EXPECT_EQ(parsed.info.udpLen, parsed.info.frameLen - 54);
    }
}

} // namespace

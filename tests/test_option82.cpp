// Option 82: what is built (RFC 3046 2, 3.1, 3.2; sub-option 9: RFC 4243 3), inserted, appended, compared,
// stripped. Expected bytes are written out by hand after those layouts, and tshark dissects such frames so.
#include "daemon_test.h"

namespace
{

const Bytes NONE, ENTERPRISE = be32(32473); // RFC 5612

class Option82 : public Daemon
{
  protected:
    void SetUp() override
    {
        world.reset();
        world.access(7, 10).location = {0x101, 0x202, 0x303, 4, 5, 6, 0x707};
        ifp = snoop(7, DHCPSNOOP_IF_OPTION82);
    }

    // Puts a text and its length into an interface's slot.
    static void put(uint8_t (&slot)[DHCPSNOOP_TEXT_MAX], uint8_t *length, std::string_view text)
    {
        *length = static_cast<uint8_t>(text.size());
        memcpy(slot, text.data(), text.size());
    }
    // Raw identifiers of these texts; no remote-id for an empty one.
    static void raw(DhcpsnoopIf *p, std::string_view circuitId, std::string_view remoteId)
    {
        p->circuitIdFmt = 4;
        p->remoteIdFmt = remoteId.empty() ? 1 : 4;
        put(p->circuitId, &p->circuitIdLen, circuitId);
        put(p->remoteId, &p->remoteIdLen, remoteId);
    }
    static void put(DhcpsnoopOptionFormat *format, uint16_t mode, std::string_view text)
    {
        format->mode = mode;
        format->len = static_cast<uint16_t>(text.size());
        memcpy(format->text, text.data(), text.size());
    }

    DhcpsnoopIf *ifp = nullptr;
};

constexpr Arrival ON7 = {.port = 7, .outer = 10};

using Builder = uint32_t (*)(const DhcpsnoopPktInfo *, uint8_t *, uint32_t);

Bytes build(Builder builder, const Parsed &parsed, uint32_t room = 768)
{
    Bytes buffer(800, 0xEE);
    buffer.resize(builder(&parsed.info, buffer.data(), room));
    return buffer;
}

TEST_F(Option82, Identifiers)
{
    const std::string a128(128, 'a');
    // claim, mode (the interface's), globalMode, text (the interface's), other (the global one), circuitId, remoteId
    const std::tuple<const char *, uint8_t, uint16_t, std::string_view, std::string_view, Bytes, Bytes> rows[] = {
        {"typed, generated: VLAN and location, or the MAC", 3, 4, "", "", hex_bytes("01 08 00 06 00 0a 01 02 07 03"), hex_bytes("02 08 00 06 02 00 00 00 01 07")},
        {"raw, generated", 4, 3, "", "", hex_bytes("01 06 00 0a 01 02 07 03"), hex_bytes("02 06 02 00 00 00 01 07")},
        {"raw text", 4, 3, "abc", "", hex_bytes("01 03 61 62 63"), hex_bytes("02 03 61 62 63")},
        {"the longest text", 3, 4, a128, "", hex_bytes("01 82 01 80") + text_bytes(a128), hex_bytes("02 82 01 80") + text_bytes(a128)},
        {"template of the interface", 5, 3, "%s-%N", "x", hex_bytes("01 07 31 30 2d 73 77 70 37"), hex_bytes("02 07 31 30 2d 73 77 70 37")},
        {"the global template when the interface has no mode", 0, 5, "own", "%s", hex_bytes("01 02 31 30"), hex_bytes("02 02 31 30")},
        {"an empty template omits the sub-option, whatever the global one", 5, 5, "", "%s", NONE, NONE},
        {"a template that yields nothing omits it", 5, 3, std::string_view("\0", 1), "", NONE, NONE},
        {"the global mode 3, generated", 0, 3, "", "", hex_bytes("01 08 00 06 00 0a 01 02 07 03"), hex_bytes("02 08 00 06 02 00 00 00 01 07")},
        // Kept: whichever record the mode came from, the text is the interface's own.
        {"the global mode 3 with the interface's text", 0, 3, "own", "", hex_bytes("01 05 01 03 6f 77 6e"), hex_bytes("02 05 01 03 6f 77 6e")},
        {"the global mode 4 never takes the global text", 0, 4, "", "glob", hex_bytes("01 06 00 0a 01 02 07 03"), hex_bytes("02 06 02 00 00 00 01 07")},
        {"mode 1 builds nothing", 1, 3, "abc", "", NONE, NONE},
        {"mode 6 builds nothing", 6, 3, "abc", "", NONE, NONE},
        {"no mode at all builds nothing", 0, 0, "abc", "", NONE, NONE},
    };
    for (const auto &[claim, mode, globalMode, text, other, circuitId, remoteId] : rows) {
        SCOPED_TRACE(claim);
        ifp->circuitIdFmt = ifp->remoteIdFmt = mode;
        put(ifp->circuitId, &ifp->circuitIdLen, text);
        put(ifp->remoteId, &ifp->remoteIdLen, text);
        put(&gDhcpsnoop.circuitIdFmt, globalMode, other);
        put(&gDhcpsnoop.remoteIdFmt, globalMode, other);
        const Parsed parsed(Frame{}, ON7);
        EXPECT_EQ(hex(build(dhcpsnoop_build_subopt_circid, parsed)), hex(circuitId));
        EXPECT_EQ(hex(build(dhcpsnoop_build_subopt_remoteid, parsed)), hex(remoteId));
    }
}

TEST_F(Option82, IdentifiersEachHaveTheirOwnSettings)
{
    ifp->circuitIdFmt = 4;
    put(ifp->circuitId, &ifp->circuitIdLen, "c");
    gDhcpsnoop.remoteIdFmt.mode = 5;
    put(&gDhcpsnoop.remoteIdFmt, 5, "%c");
    const Parsed parsed(Frame{}, {.port = 7, .outer = 10, .inner = 33});
    EXPECT_EQ(hex(build(dhcpsnoop_build_subopt_circid, parsed)), "01 01 63");
    EXPECT_EQ(hex(build(dhcpsnoop_build_subopt_remoteid, parsed)), "02 02 33 33");
}

TEST_F(Option82, IdentifiersInTheRoomTheyAreGiven)
{
    const Parsed parsed(Frame{}, ON7);
    for (const Builder builder : {dhcpsnoop_build_subopt_circid, dhcpsnoop_build_subopt_remoteid}) {
        EXPECT_EQ(build(builder, parsed, 10).size(), 10u);
        EXPECT_EQ(build(builder, parsed, 9).size(), 0u);
    }
    put(&gDhcpsnoop.circuitIdFmt, 5, "%d");
    EXPECT_EQ(build(dhcpsnoop_build_subopt_circid, parsed, 8).size(), 8u);
    for (const uint32_t room : {7u, 2u, 1u, 0u})
        EXPECT_EQ(build(dhcpsnoop_build_subopt_circid, parsed, room).size(), 0u);
}

TEST_F(Option82, VendorSubOption)
{
    const Bytes a128 = Bytes(128, 'h');
    // claim, enabled, text, hostname, withHeader
    const std::tuple<const char *, bool, std::string_view, std::optional<std::string>, Bytes> rows[] = {
        {"switched off", false, "abc", "sw", NONE},
        {"the interface's text", true, "abc", "sw", Bytes{9, 10} + ENTERPRISE + hex_bytes("05 01 03 61 62 63")},
        {"the host name when it has none", true, "", "sw", Bytes{9, 9} + ENTERPRISE + hex_bytes("04 01 02 73 77")},
        {"a host name of 128", true, "", std::string(128, 'h'), Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + a128},
        {"a longer one is cut", true, "", std::string(300, 'h'), Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + a128},
        {"an empty host name is none", true, "", "", NONE},
        {"no host name", true, "", std::nullopt, NONE},
    };
    for (const auto &[claim, enabled, text, hostname, withHeader] : rows) {
        SCOPED_TRACE(claim);
        ifp->flags = enabled ? ifp->flags | 1u << 27 : ifp->flags & ~(1u << 27);
        put(ifp->subopt9, &ifp->subopt9Len, text);
        world.hostname = hostname;
        Bytes buffer(200, 0xEE);
        buffer.resize(dhcpsnoop_build_subopt9(buffer.data(), ifp, 1));
        EXPECT_EQ(hex(buffer), hex(withHeader));
        buffer.assign(200, 0xEE);
        buffer.resize(dhcpsnoop_build_subopt9(buffer.data(), ifp, 2));
        EXPECT_EQ(hex(buffer), hex(withHeader.empty() ? NONE : Bytes(withHeader.begin() + 2, withHeader.end())));
    }
    Bytes buffer(200, 0);
    EXPECT_EQ(dhcpsnoop_build_subopt9(buffer.data(), nullptr, 1), 0u);
}

// A frame whose options end with the end option at that frame length.
Frame frame_of(size_t length) { return Frame{.options = opt_type(1) + Bytes(length - 286, 0) + OPT_END}; }

TEST_F(Option82, ConstructionAndInsertion)
{
    const Bytes typed = hex_bytes("52 14 01 08 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 07");
    const Frame discover = client_frame(1, opt(12, text_bytes("host")));
    const std::string empty = "[DHCPSNOOP] option82 len (0) is zero or exceeds the max.\r\n";
    const std::string tooLong = "[DHCPSNOOP] Packet len exceeds the max, don't insert option82.\r\n";
    // claim, frame, set, inserted ("" = the frame goes on as it was), text
    const std::tuple<const char *, Frame, void (*)(DhcpsnoopIf *), Bytes, std::string> rows[] = {
        {"circuit-id and remote-id", discover, [](DhcpsnoopIf *) {}, typed, ""},
        {"behind them sub-option 9", discover, [](DhcpsnoopIf *p) { p->flags |= DHCPSNOOP_IF_SUBOPT9; }, Bytes{82, 37} + Bytes(typed.begin() + 2, typed.end()) + Bytes{9, 15} + ENTERPRISE + hex_bytes("0a 01 08") + text_bytes("switch-1"), ""},
        {"one identifier omitted", discover, [](DhcpsnoopIf *p) { p->circuitIdFmt = 1; }, hex_bytes("52 0a 02 08 00 06 02 00 00 00 01 07"), ""},
        {"nothing to insert", discover, [](DhcpsnoopIf *p) { p->circuitIdFmt = p->remoteIdFmt = 1; }, NONE, empty},
        {"255 bytes", discover,
         [](DhcpsnoopIf *p) { raw(p, std::string(128, 'c'), std::string(123, 'r')); },
         Bytes{82, 255, 1, 128} + Bytes(128, 'c') + Bytes{2, 123} + Bytes(123, 'r'), ""},
        {"256 bytes", discover,
         [](DhcpsnoopIf *p) { raw(p, std::string(128, 'c'), std::string(124, 'r')); },
         NONE, "[DHCPSNOOP] option82 len (256) is zero or exceeds the max.\r\n"},
        {"a frame of 2040 and 8 bytes more", frame_of(2040), [](DhcpsnoopIf *p) { raw(p, "abcd", ""); }, hex_bytes("52 06 01 04 61 62 63 64"), ""},
        {"a frame of 2040 and 9 bytes more", frame_of(2040), [](DhcpsnoopIf *p) { raw(p, "abcde", ""); }, NONE, tooLong},
        {"a frame of 2027 and the usual 22", frame_of(2027), [](DhcpsnoopIf *) {}, NONE, tooLong},
        {"no end option: built but not inserted", Frame{.options = opt_type(1) + Bytes{0}}, [](DhcpsnoopIf *) {}, NONE, ""},
    };
    for (const auto &[claim, frame, set, inserted, text] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        set(ifp);
        debug(1);
        Parsed parsed(frame, ON7);
        world.clear();
        EXPECT_EQ(dhcpsnoop_process_option82(&parsed.info), 0);
        Lines texts = {"[DHCPSNOOP] Process option82 in client packet, mode is 3.\r\n",
                       "[DHCPSNOOP] option82 isn't exist, construct and insert it to the pkt.\r\n"};
        if (!text.empty())
            texts.push_back(text);
        EXPECT_EQ(debug_texts(), texts);
        Frame expected = frame;
        if (!inserted.empty()) {
            expected.options.pop_back();
            expected.options = expected.options + inserted + OPT_END;
        }
        EXPECT_EQ(dump(parsed.bytes()), dump(expected.bytes()));
    }
}

TEST_F(Option82, InsertionCoversWhatStoodBehindTheEnd)
{
    Parsed parsed(Frame{.options = opt_type(1) + OPT_END + hex_bytes("11 22 33 44")}, ON7);
    const Bytes option = hex_bytes("52 02 01 00 ff");
    EXPECT_EQ(dhcpsnoop_insert_opt82(&parsed.info, option.data(), 4), 0);
    EXPECT_EQ(hex(options_of(parsed.bytes())), "35 01 01 52 02 01 00 ff 00 00 00 00"); // only what lay behind the frame
    EXPECT_EQ(dhcpsnoop_insert_opt82(nullptr, option.data(), 4), -1);
    EXPECT_EQ(dhcpsnoop_insert_opt82(&parsed.info, nullptr, 4), -1);
    parsed.info.optEnd = nullptr;
    EXPECT_EQ(dhcpsnoop_insert_opt82(&parsed.info, option.data(), 4), -1);
}

// A frame of 2048 bytes with the given options at its end, whose IP total length wraps the frame's length to
// 0.
Bytes wrapped(const Bytes &options)
{
    Bytes frame = Frame{.options = Bytes(2048 - 282 - options.size(), 0) + options}.bytes();
    frame[16] = 0xFF;
    frame[17] = 0xF2;
    return frame;
}

TEST_F(Option82, FrameWhoseLengthWrapsIsNotWrittenBehind)
{
    for (const Bytes &options : {opt(82, opt(9, {1})) + OPT_END, OPT_END,
                                 opt(82, opt(9, {1})) + Bytes(200, 0) + OPT_END}) {
        const Bytes frame = wrapped(options);
        for (const uint32_t policy : {2u, 3u}) {
            ifp->flags |= DHCPSNOOP_IF_SUBOPT9;
            set_flag_field(ifp, DHCPSNOOP_IF_POLICY, policy);
            Parsed parsed(frame, ON7);
            ASSERT_EQ(parsed.result, 0);
            ASSERT_EQ(parsed.info.frameLen, 0u);
            const DhcpsnoopRxPkt before = parsed.rx;
            EXPECT_EQ(dhcpsnoop_process_option82(&parsed.info), 0);
            Bytes name(100, 'n');
            dhcpsnoop_insert_opt67(&parsed.info, name.data(), 100);
            dhcpsnoop_insert_opt125(&parsed.info, name.data(), 100);
            EXPECT_EQ(memcmp(&before, &parsed.rx, sizeof before), 0);
        }
    }
}

TEST_F(Option82, ExistingOption)
{
    const Bytes own = opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61")));
    const std::string keep = "[DHCPSNOOP] Keep the pkt, send to server directly.\r\n";
    const std::string drop = "[DHCPSNOOP] Drop the pkt with option82!\r\n";
    const std::string append = "[DHCPSNOOP] Append hostname & ip addres to the pkt.\r\n";
    // claim, policy, mode (of the interface), globalCircuit (mode), printed, result, text, grows
    const std::tuple<const char *, uint32_t, uint32_t, uint16_t, uint32_t, int32_t, std::string, bool> rows[] = {
        {"policy 0 keeps", 0, 3, 3, 3, 0, keep, false},
        {"policy 1 drops", 1, 3, 3, 3, -1, drop, false},
        {"policy 2 keeps", 2, 3, 3, 3, 0, keep, false},
        {"policy 3 appends", 3, 3, 3, 3, 0, append, true},
        {"mode 4", 1, 4, 3, 4, -1, drop, false},
        {"mode 5", 1, 5, 3, 5, -1, drop, false},
        {"another mode forwards whatever the policy", 1, 6, 3, 6, 0, "", false},
        {"mode 1 too", 3, 1, 3, 1, 0, "", false},
        {"without a mode the global circuit-id's", 1, 0, 4, 4, -1, drop, false},
        {"which may be outside 3 to 5", 1, 0, 1, 1, 0, "", false},
    };
    for (const auto &[claim, policy, mode, globalCircuit, printed, result, text, grows] : rows) {
        SCOPED_TRACE(claim);
        SetUp();
        ifp->flags |= DHCPSNOOP_IF_SUBOPT9;
        set_flag_field(ifp, DHCPSNOOP_IF_POLICY, policy);
        set_flag_field(ifp, DHCPSNOOP_IF_MODE, mode);
        gDhcpsnoop.circuitIdFmt.mode = globalCircuit;
        gDhcpsnoop.remoteIdFmt.mode = 99;
        debug(1);
        const Frame frame = client_frame(1, own);
        Parsed parsed(frame, ON7);
        world.clear();
        EXPECT_EQ(dhcpsnoop_process_option82(&parsed.info), result);
        Lines texts = {
            world_format("[DHCPSNOOP] Process option82 in client packet, mode is %u.\r\n", printed),
            "[DHCPSNOOP] option82 is already exist!\r\n"};
        if (!text.empty())
            texts.push_back(text);
        EXPECT_EQ(debug_texts(), texts);
        const Bytes more = ENTERPRISE + hex_bytes("0a 01 08") + text_bytes("switch-1");
        const Frame grown = client_frame(1, opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61") + more)));
        EXPECT_EQ(dump(parsed.bytes()), dump(grows ? grown.bytes() : frame.bytes()));
    }
    Parsed parsed(Frame{}, ON7);
    parsed.info.ifp = nullptr;
    EXPECT_EQ(dhcpsnoop_process_option82(&parsed.info), -1);
    EXPECT_EQ(dhcpsnoop_process_option82(nullptr), -1);
}

TEST_F(Option82, AppendingTheVendorBlock)
{
    // The block is 7 bytes and the text "switch-1": 15 bytes.
    const Bytes block = ENTERPRISE + hex_bytes("0a 01 08") + text_bytes("switch-1");
    const Bytes sub9 = opt(9, hex_bytes("aa"));
    const auto filled = [](size_t frameLength, const Bytes &options) {
        return Frame{.options = Bytes(frameLength - 282 - options.size(), 0) + options};
    };
    const struct {
        const char *claim;
        Frame frame;
        bool hostname;
        int32_t result;
        Bytes options; // "" = unchanged
    } rows[] = {
        {"behind the data of sub-option 9", Frame{.options = opt(82, sub9) + OPT_END}, true, 0, opt(82, opt(9, Bytes{0xAA} + block)) + OPT_END},
        {"no end option", Frame{.options = opt(82, sub9) + Bytes{0}}, true, -1, NONE},
        {"no option 82", Frame{.options = opt_type(1) + OPT_END}, true, 0, NONE},
        {"no sub-option 9 in it", Frame{.options = opt(82, opt(1, {1})) + OPT_END}, true, 0, NONE},
        {"no host name", Frame{.options = opt(82, sub9) + OPT_END}, false, 0, NONE},
        {"up to a frame of 2048", filled(2033, opt(82, sub9) + OPT_END), true, 0, Bytes(2033 - 282 - 6, 0) + opt(82, opt(9, Bytes{0xAA} + block)) + OPT_END},
        {"not to 2049", filled(2034, opt(82, sub9) + OPT_END), true, 0, NONE},
        // Kept: sub-option 9 is taken to be the last thing before the end option; what follows it is
        // overwritten.
        {"over what follows sub-option 9", Frame{.options = opt(82, sub9 + opt(1, {1, 2})) + OPT_END}, true,
         0, Bytes{82, 22, 9, 16, 0xAA} + block + OPT_END + Bytes(4, 0)},
        {"a sub-option 9 that claims more than there is, near the end", filled(2000, opt(82, {9, 200}) + OPT_END), true, 0, NONE},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        ifp->flags |= DHCPSNOOP_IF_SUBOPT9;
        world.hostname = row.hostname ? std::optional<std::string>("switch-1") : std::nullopt;
        Parsed parsed(row.frame, ON7);
        const DhcpsnoopRxPkt before = parsed.rx;
        EXPECT_EQ(dhcpsnoop_append_subopt9(&parsed.info), row.result);
        if (row.options.empty()) {
            // A refusal changes no byte, not even behind the frame.
            EXPECT_EQ(memcmp(&before, &parsed.rx, sizeof before), 0);
            continue;
        }
        Frame expected = row.frame;
        expected.options = row.options;
        EXPECT_EQ(dump(parsed.bytes()), dump(expected.bytes()));
    }
}

TEST_F(Option82, RemoteIdComparison)
{
    // claim, subOption, text, mode, equal
    const std::tuple<const char *, const char *, std::string_view, uint32_t, bool> rows[] = {
        {"typed MAC", "02 08 00 06 02 00 00 00 01 07", "", 3, true},
        {"the type and length bytes are not looked at", "02 08 77 88 02 00 00 00 01 07", "", 3, true},
        {"raw MAC", "02 06 02 00 00 00 01 07 00 00", "", 4, true},
        {"raw MAC read as typed", "02 06 02 00 00 00 01 07 00 00", "", 3, false},
        {"last byte differs", "02 06 02 00 00 00 01 08", "", 4, false},
        {"any mode but 3 is read as raw", "02 06 02 00 00 00 01 07 00 00", "", 5, true},
        {"typed text", "02 05 01 03 61 62 63", "abc", 3, true},
        {"raw text", "02 03 61 62 63 00 00", "abc", 4, true},
        {"only the text's own length counts", "02 04 61 62 63 64", "abc", 4, true},
        {"another text", "02 03 61 62 64 00 00", "abc", 4, false},
        {"the MAC does not count when there is a text", "02 06 02 00 00 00 01 07", "abc", 4, false},
    };
    for (const auto &[claim, subOption, text, mode, equal] : rows) {
        SCOPED_TRACE(claim);
        put(ifp->remoteId, &ifp->remoteIdLen, text);
        EXPECT_EQ(dhcpsnoop_remote_id_cmp(hex_bytes(subOption).data(), ifp, mode) == 0, equal);
    }
    EXPECT_NE(dhcpsnoop_remote_id_cmp(nullptr, ifp, 3), 0);
}

TEST_F(Option82, Stripping)
{
    const Bytes own = opt(82, opt(1, {7, 8, 9}));
    // claim, before, after, hadEnd
    const std::tuple<const char *, Bytes, Bytes, bool> rows[] = {
        {"last before the end", opt_type(5) + own + OPT_END, opt_type(5) + OPT_END, true},
        {"with padding behind the end", opt_type(5) + own + OPT_END + Bytes(9, 0), opt_type(5) + OPT_END + Bytes(9, 0), true},
        {"between others", opt_type(5) + own + opt(12, {1}) + OPT_END, opt_type(5) + opt(12, {1}) + OPT_END, true},
        {"first and only", own + OPT_END, OPT_END, true},
        {"empty", opt(82, {}) + OPT_END, OPT_END, true},
        {"without an end option", opt_type(5) + own + Bytes{0}, opt_type(5) + Bytes{0}, false},
        {"none to strip", opt_type(5) + OPT_END, opt_type(5) + OPT_END, true},
        // Kept: the length is counted in 8 bits.
        {"of length 254: nothing is removed", Bytes{82, 254} + Bytes(254, 1) + OPT_END, Bytes{82, 254} + Bytes(254, 1) + OPT_END, true},
        {"of length 255: one byte is", Bytes{82, 255} + Bytes(255, 1) + OPT_END, Bytes{255} + Bytes(255, 1) + OPT_END, true},
        {"of length 253: all of it", Bytes{82, 253} + Bytes(253, 1) + OPT_END, OPT_END, true},
    };
    for (const auto &[claim, before, after, hadEnd] : rows) {
        SCOPED_TRACE(claim);
        Parsed parsed(Frame{.options = before}, ON7);
        const uint8_t *end = parsed.info.optEnd;
        dhcpsnoop_strip_option(&parsed.info);
        EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = after}.bytes()));
        EXPECT_EQ(parsed.info.opt82, nullptr);
        const auto removed = static_cast<ptrdiff_t>(before.size() - after.size());
        EXPECT_EQ(parsed.info.optEnd, hadEnd ? end - removed : nullptr);
    }
    dhcpsnoop_strip_option(nullptr);
}

} // namespace

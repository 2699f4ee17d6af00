// Option 82: what is built (RFC 3046 2, 3.1, 3.2; sub-option 9: RFC 4243 3), inserted, appended, compared, stripped. Expected
// bytes are written out by hand after those layouts, and tshark dissects such frames so.
#include <algorithm>
#include <sstream>

#include "scene.h"

namespace
{

const Bytes ENTERPRISE = be32(32473), NOTHING; // RFC 5612
const Bytes BLOCK = ENTERPRISE + hex_bytes("0a 01 08") + text_bytes("switch-1"), SUB9 = opt(9, {0xAA});
constexpr Arrival ON7 = {.port = 7, .outer = 10, .inner = 33};
const std::string A128(128, 'a'), ZERO(1, '\0');

// Puts a mode and a text where they belong.
template <class Mode, class Length>
void put(Mode &mode, Length &length, uint8_t *slot, int value, const std::string &text)
{
    mode = static_cast<Mode>(value);
    length = static_cast<Length>(text.size());
    memcpy(slot, text.data(), text.size());
}

// Port 7, with option 82. Words are "what=mode" or "what=mode:text": "circuit" and "remote", or "ids" for both, of the port, and the
// same with a "g" in front; "sub9", switched on; "host", "policy" and "mode".
DhcpsnoopIf *set_up(const std::string &words)
{
    world.reset();
    world.access(7, 10).location = {0x101, 0x202, 0x303, 4, 5, 6, 0x707};
    DhcpsnoopIf *ifp = snoop(7, DHCPSNOOP_IF_OPTION82);
    std::istringstream list(words);
    for (std::string word; list >> word;) {
        const size_t equals = word.find('='), colon = word.find(':');
        const std::string what = word.substr(0, equals), text = colon == std::string::npos ? "" : word.substr(colon + 1);
        const int mode = atoi(word.c_str() + equals + 1);
        if (what == "circuit" || what == "ids")
            put(ifp->circuitIdFmt, ifp->circuitIdLen, ifp->circuitId, mode, text);
        if (what == "remote" || what == "ids")
            put(ifp->remoteIdFmt, ifp->remoteIdLen, ifp->remoteId, mode, text);
        if (what == "gcircuit" || what == "gids")
            put(gDhcpsnoop.circuitIdFmt.mode, gDhcpsnoop.circuitIdFmt.len, gDhcpsnoop.circuitIdFmt.text, mode, text);
        if (what == "gremote" || what == "gids")
            put(gDhcpsnoop.remoteIdFmt.mode, gDhcpsnoop.remoteIdFmt.len, gDhcpsnoop.remoteIdFmt.text, mode, text);
        if (what == "sub9")
            ifp->flags |= DHCPSNOOP_IF_SUBOPT9, put(ifp->subopt9Len, ifp->subopt9Len, ifp->subopt9, mode, text);
        if (what == "host")
            world.hostname = mode < 0 ? std::nullopt : std::optional<std::string>(text);
        if (what == "policy" || what == "mode")
            set_flag_field(ifp, what == "mode" ? DHCPSNOOP_IF_MODE : DHCPSNOOP_IF_POLICY, static_cast<uint32_t>(mode));
    }
    debug(1);
    return ifp;
}

// Zeroes and this end, in a frame of that length.
Bytes filled(size_t frameLength, const Bytes &end) { return Bytes(frameLength - 282 - end.size(), 0) + end; }

const struct {
    const char *claim;
    std::string before;
    Bytes data; // of the option that is inserted; empty: none, the frame stays as it was
    std::string said = "";
    Bytes options = OPT_END;
} BUILT[] = {
    // clang-format off
    // circuit-id and remote-id
    {"typed, generated: VLAN and location, or the MAC", "ids=3 gids=4", hex_bytes("01 08 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 07")},
    {"raw, generated", "ids=4 gids=3", hex_bytes("01 06 00 0a 01 02 07 03 02 06 02 00 00 00 01 07")},
    {"typed text", "ids=3:abc gids=4", hex_bytes("01 05 01 03 61 62 63 02 05 01 03 61 62 63")},
    {"raw text", "ids=4:abc gids=3", hex_bytes("01 03 61 62 63 02 03 61 62 63")},
    {"the longest text", "circuit=3:" + A128 + " remote=1", hex_bytes("01 82 01 80") + Bytes(128, 'a')},
    {"as remote-id", "remote=3:" + A128 + " circuit=1", hex_bytes("02 82 01 80") + Bytes(128, 'a')},
    {"template of the interface", "ids=5:%s-%N gids=3:x", hex_bytes("01 07 31 30 2d 73 77 70 37 02 07 31 30 2d 73 77 70 37")},
    {"the global template when the interface has no mode", "ids=0:own gids=5:%s", hex_bytes("01 02 31 30 02 02 31 30")},
    {"an empty template omits the sub-option, whatever the global one", "ids=5 gids=5:%s", NOTHING, "option82 len (0) is zero or exceeds the max."},
    {"a template that yields nothing omits it", "ids=5:" + ZERO + " gids=3", NOTHING, "option82 len (0) is zero or exceeds the max."},
    {"the global mode 3, generated", "ids=0 gids=3", hex_bytes("01 08 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 07")},
    {"Kept: whichever record the mode came from, the text is the interface's own", "ids=0:own gids=3", hex_bytes("01 05 01 03 6f 77 6e 02 05 01 03 6f 77 6e")},
    {"the global mode 4 never takes the global text", "ids=0 gids=4:glob", hex_bytes("01 06 00 0a 01 02 07 03 02 06 02 00 00 00 01 07")},
    {"mode 1 builds nothing", "ids=1:abc gids=3", NOTHING},
    {"mode 6 builds nothing", "ids=6:abc gids=3", NOTHING},
    {"no mode at all builds nothing", "ids=0:abc gids=0", NOTHING},
    {"each has its own settings", "circuit=4:c remote=0 gremote=5:%c", hex_bytes("01 01 63 02 02 33 33")},
    // sub-option 9
    {"behind them sub-option 9, the host name", "circuit=1 remote=4:r sub9=0", hex_bytes("02 01 72 09 0f") + BLOCK},
    {"the interface's text", "ids=1 sub9=0:abc", Bytes{9, 10} + ENTERPRISE + hex_bytes("05 01 03 61 62 63")},
    {"no host name", "ids=1 sub9=0 host=-1", NOTHING},
    {"an empty host name", "ids=1 sub9=0 host=0:", NOTHING},
    {"a host name of 129", "ids=1 sub9=0 host=0:" + A128 + "b", Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + Bytes(128, 'a')},
    {"a text of 128", "ids=1 sub9=0:" + A128, Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + Bytes(128, 'a')},
    // room
    {"255 bytes", "circuit=4:" + A128 + " remote=4:" + std::string(123, 'r'), Bytes{1, 128} + Bytes(128, 'a') + Bytes{2, 123} + Bytes(123, 'r')},
    {"256 bytes", "circuit=4:" + A128 + " remote=4:" + std::string(124, 'r'), NOTHING, "option82 len (256) is zero or exceeds the max."},
    {"a frame of 2040 and 8 bytes more", "circuit=4:abcd remote=1", hex_bytes("01 04 61 62 63 64"), "", filled(2040, OPT_END)},
    {"a frame of 2040 and 9 bytes more", "circuit=4:abcde remote=1", NOTHING, "Packet len exceeds the max, don't insert option82.", filled(2040, OPT_END)},
    {"over the end and what follows it", "ids=4:c", hex_bytes("01 01 63 02 01 63"), "", OPT_END + Bytes(4, 9)},
    {"no end option: built but not inserted", "ids=3", NOTHING, "!option82 len (0) is zero or exceeds the max.", {53, 1, 1, 0}},
    // clang-format on
};

using Option82 = Daemon;

TEST_F(Option82, Built)
{
    for (const auto &row : BUILT) {
        SCOPED_TRACE(row.claim);
        set_up(row.before);
        Frame frame = {.options = row.options};
        Parsed parsed(frame, ON7);
        EXPECT_EQ(dhcpsnoop_process_option82(&parsed.info), 0);
        if (!row.data.empty()) { // over the end option and what follows it
            const size_t end = frame.options.size();
            frame.options.resize(static_cast<size_t>(std::find(frame.options.begin(), frame.options.end(), 255) - frame.options.begin()));
            frame.options = frame.options + opt(82, row.data) + OPT_END;
            frame.options.resize(end + row.data.size() + 2, 0);
        }
        EXPECT_EQ(dump(parsed.bytes()), dump(frame.bytes()));
        EXPECT_EQ(unsaid("option82 isn't exist, construct and insert it to the pkt." + (row.said.empty() ? "" : "|" + row.said)), "");
    }
}

const Bytes OWN = opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61"))), GROWN = opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61") + BLOCK));
#define KEEP "Keep the pkt, send to server directly."
#define DROP "Drop the pkt with option82!"
#define APPEND "Append hostname & ip addres to the pkt."

const struct {
    const char *claim, *before;
    Bytes options, after; // empty: no byte changes, not even behind the frame
    int32_t result;
    std::string said;
} EXISTING[] = {
    // clang-format off
    {"policy 0 keeps", "policy=0 mode=3", OWN + OPT_END, NOTHING, 0, KEEP "|Process option82 in client packet, mode is 3."},
    {"policy 1 drops", "policy=1 mode=3", OWN + OPT_END, NOTHING, -1, DROP},
    {"policy 2 keeps", "policy=2 mode=3", OWN + OPT_END, NOTHING, 0, KEEP},
    {"policy 3 appends", "policy=3 mode=3", OWN + OPT_END, GROWN + OPT_END, 0, APPEND},
    {"mode 4", "policy=1 mode=4", OWN + OPT_END, NOTHING, -1, DROP},
    {"mode 5", "policy=1 mode=5", OWN + OPT_END, NOTHING, -1, DROP},
    {"another mode forwards whatever the policy", "policy=1 mode=6", OWN + OPT_END, NOTHING, 0, "!" DROP},
    {"mode 1 too", "policy=3 mode=1", OWN + OPT_END, NOTHING, 0, "!" APPEND},
    {"without a mode the global circuit-id's", "policy=1 gcircuit=4 gremote=99", OWN + OPT_END, NOTHING, -1, DROP "|Process option82 in client packet, mode is 4."},
    {"which may be outside 3 to 5", "policy=1 gcircuit=1", OWN + OPT_END, NOTHING, 0, "!" DROP},
    // appending
    {"behind the data of sub-option 9", "policy=3", opt(82, SUB9) + OPT_END, opt(82, opt(9, Bytes{0xAA} + BLOCK)) + OPT_END, 0, APPEND},
    {"no end option", "policy=3", opt(82, SUB9) + Bytes{0}, NOTHING, -1, APPEND},
    {"no sub-option 9 in it", "policy=3", opt(82, opt(1, {1})) + OPT_END, NOTHING, 0, APPEND},
    {"no host name", "policy=3 host=-1", opt(82, SUB9) + OPT_END, NOTHING, 0, APPEND},
    {"up to a frame of 2048", "policy=3", filled(2033, opt(82, SUB9) + OPT_END), filled(2048, opt(82, opt(9, Bytes{0xAA} + BLOCK)) + OPT_END), 0, APPEND},
    {"not to 2049", "policy=3", filled(2034, opt(82, SUB9) + OPT_END), NOTHING, 0, APPEND},
    {"Kept: over what follows sub-option 9", "policy=3", opt(82, SUB9 + opt(1, {1, 2})) + OPT_END, Bytes{82, 22, 9, 16, 0xAA} + BLOCK + OPT_END + Bytes(4, 0), 0, APPEND},
    {"a sub-option 9 that claims more than there is, near the end", "policy=3", filled(2000, opt(82, {9, 200}) + OPT_END), NOTHING, 0, APPEND},
    // clang-format on
};

TEST_F(Option82, Existing)
{
    for (const auto &row : EXISTING) {
        SCOPED_TRACE(row.claim);
        set_up(std::string(row.before) + " sub9=0");
        Parsed parsed(Frame{.options = row.options}, ON7);
        const DhcpsnoopRxPkt before = parsed.rx;
        EXPECT_EQ(dhcpsnoop_process_option82(&parsed.info), row.result);
        EXPECT_EQ(unsaid("option82 is already exist!|" + row.said), "");
        if (row.after.empty())
            EXPECT_EQ(memcmp(&before, &parsed.rx, sizeof before), 0);
        else
            EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = row.after}.bytes()));
    }
}

TEST_F(Option82, RoomAndNulls)
{
    DhcpsnoopIf *ifp = set_up("gcircuit=5:%d");
    Parsed parsed(Frame{}, ON7);
    const auto built = [&](auto builder, uint32_t room) {
        uint8_t buffer[800];
        return builder(&parsed.info, buffer, room);
    };
    for (const auto &[room, length] : std::map<uint32_t, uint32_t>{{8, 8}, {7, 0}, {2, 0}, {1, 0}, {0, 0}})
        EXPECT_EQ(built(dhcpsnoop_build_subopt_circid, room), length) << room; // a template
    EXPECT_EQ(built(dhcpsnoop_build_subopt_remoteid, 10), 10u);
    EXPECT_EQ(built(dhcpsnoop_build_subopt_remoteid, 9), 0u);

    // A frame of 2048 bytes whose IP total length wraps the frame's length to 0 is not written behind.
    for (const Bytes &options : {opt(82, SUB9) + OPT_END, OPT_END, opt(82, SUB9) + Bytes(200, 0) + OPT_END}) {
        for (const char *policy : {"policy=2 sub9=0", "policy=3 sub9=0"}) {
            set_up(policy);
            Bytes frame = Frame{.options = filled(2048, options)}.bytes();
            frame[16] = 0xFF;
            frame[17] = 0xF2;
            Parsed wrapped(frame, ON7);
            ASSERT_TRUE(wrapped.result == 0 && wrapped.info.frameLen == 0);
            const DhcpsnoopRxPkt before = wrapped.rx;
            EXPECT_EQ(dhcpsnoop_process_option82(&wrapped.info), 0);
            const Bytes name(100, 'n');
            dhcpsnoop_insert_opt67(&wrapped.info, name.data(), 100);
            dhcpsnoop_insert_opt125(&wrapped.info, name.data(), 100);
            EXPECT_EQ(memcmp(&before, &wrapped.rx, sizeof before), 0);
        }
    }

    uint8_t buffer[800];
    parsed.info.ifp = nullptr;
    EXPECT_TRUE(dhcpsnoop_process_option82(&parsed.info) == -1 && dhcpsnoop_process_option82(nullptr) == -1);
    EXPECT_EQ(dhcpsnoop_build_subopt_circid(&parsed.info, buffer, 99) + dhcpsnoop_build_subopt_remoteid(&parsed.info, buffer, 99) + dhcpsnoop_build_subopt9(buffer, nullptr, 1), 0u);
    EXPECT_TRUE(dhcpsnoop_insert_opt82(nullptr, buffer, 4) == -1 && dhcpsnoop_insert_opt82(&parsed.info, nullptr, 4) == -1);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(nullptr, ifp, 3), 0);
    dhcpsnoop_strip_option(nullptr);
}

TEST_F(Option82, RemoteIdComparison)
{
    const struct {
        const char *claim, *subOption, *before;
        uint32_t mode;
        bool equal;
    } rows[] = {
        // clang-format off
        {"typed MAC", "02 08 00 06 02 00 00 00 01 07", "", 3, true},
        {"the type and length bytes are not looked at", "02 08 77 88 02 00 00 00 01 07", "", 3, true},
        {"raw MAC", "02 06 02 00 00 00 01 07 00 00", "", 4, true},
        {"raw MAC read as typed", "02 06 02 00 00 00 01 07 00 00", "", 3, false},
        {"last byte differs", "02 06 02 00 00 00 01 08", "", 4, false},
        {"any mode but 3 is read as raw", "02 06 02 00 00 00 01 07 00 00", "", 5, true},
        {"typed text", "02 05 01 03 61 62 63", "remote=3:abc", 3, true},
        {"raw text", "02 03 61 62 63 00 00", "remote=3:abc", 4, true},
        {"only the text's own length counts", "02 04 61 62 63 64", "remote=3:abc", 4, true},
        {"another text", "02 03 61 62 64 00 00", "remote=3:abc", 4, false},
        {"the MAC does not count when there is a text", "02 06 02 00 00 00 01 07", "remote=3:abc", 4, false},
        // clang-format on
    };
    for (const auto &row : rows)
        EXPECT_EQ(dhcpsnoop_remote_id_cmp(hex_bytes(row.subOption).data(), set_up(row.before), row.mode) == 0, row.equal) << row.claim;
}

TEST_F(Option82, Stripping)
{
    const Bytes own = opt(82, opt(1, {7, 8, 9})), type = opt_type(5);
    const struct {
        const char *claim;
        Bytes before, after;
    } rows[] = {
        // clang-format off
        {"last before the end, padding behind", type + own + OPT_END + Bytes(9, 0), type + OPT_END + Bytes(9, 0)},
        {"between others", type + own + opt(12, {1}) + OPT_END, type + opt(12, {1}) + OPT_END},
        {"empty and only", opt(82, {}) + OPT_END, OPT_END},
        {"without an end option", type + own + Bytes{0}, type + Bytes{0}},
        {"none to strip", type + OPT_END, type + OPT_END},
        // Kept: the length is counted in 8 bits.
        {"of length 254: nothing is removed", Bytes{82, 254} + Bytes(254, 1) + OPT_END, Bytes{82, 254} + Bytes(254, 1) + OPT_END},
        {"of length 255: one byte is", Bytes{82, 255} + Bytes(255, 1) + OPT_END, Bytes{255} + Bytes(255, 1) + OPT_END},
        {"of length 253: all of it", Bytes{82, 253} + Bytes(253, 1) + OPT_END, OPT_END},
        // clang-format on
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        set_up("");
        Parsed parsed(Frame{.options = row.before}, ON7);
        const uint8_t *end = parsed.info.optEnd;
        dhcpsnoop_strip_option(&parsed.info);
        EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = row.after}.bytes()));
        EXPECT_EQ(parsed.info.opt82, nullptr);
        EXPECT_EQ(parsed.info.optEnd, end == nullptr ? nullptr : end - (row.before.size() - row.after.size()));
    }
}

} // namespace

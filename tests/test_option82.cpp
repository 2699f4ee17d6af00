// Option 82: what is built (RFC 3046 2, 3.1, 3.2; sub-option 9: RFC 4243 3), inserted, appended, compared, stripped. Expected
// bytes are written out by hand after those layouts, and tshark dissects such frames so.
#include <algorithm>
#include <sstream>

#include "scene.h"

namespace
{

const Bytes ENTERPRISE = be32(32473); // RFC 5612
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

// A client's message with these options: the options afterwards, or "kept" when no byte changed, not even behind the frame; then
// the texts behind the two that tell the mode and whether the option is there.
std::string process(const std::string &words, const Bytes &options = OPT_END)
{
    DhcpsnoopIf *ifp = set_up(words);
    const uint32_t mode = dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_MODE);
    Parsed parsed(Frame{.options = options}, ON7);
    const DhcpsnoopRxPkt before = parsed.rx;
    const bool there = parsed.info.opt82 != nullptr;
    const int32_t result = dhcpsnoop_process_option82(&parsed.info);
    const Bytes after(parsed.info.dhcpMsg + 240, parsed.info.dhcpMsg + parsed.info.dhcpLen);
    EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = after}.bytes()));
    EXPECT_EQ(unsaid(world_format("Process option82 in client packet, mode is %u.|", mode != 0 ? mode : gDhcpsnoop.circuitIdFmt.mode) + (there ? "option82 is already exist!" : "option82 isn't exist, construct and insert it to the pkt.")), "");
    std::string text = memcmp(&before, &parsed.rx, sizeof before) == 0 ? "kept" : hex(after);
    text += result == 0 ? "" : result == -1 ? " refused"
                                            : " ?";
    const Lines texts = world.texts(Did::Debug);
    for (size_t i = 3; i < texts.size(); i++)
        text += "; " + texts[i].substr(12, texts[i].size() - 14);
    return text;
}

std::string inserted(const Bytes &data) { return hex(opt(82, data) + OPT_END); }

#define EMPTY "kept; option82 len (0) is zero or exceeds the max."

using Option82 = Daemon;

TEST_F(Option82, Inserted)
{
    check({
        {"typed, generated: VLAN and location, or the MAC", process("ids=3 gids=4"), inserted(hex_bytes("01 08 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 07"))},
        {"raw, generated", process("ids=4 gids=3"), inserted(hex_bytes("01 06 00 0a 01 02 07 03 02 06 02 00 00 00 01 07"))},
        {"typed text", process("ids=3:abc gids=4"), inserted(hex_bytes("01 05 01 03 61 62 63 02 05 01 03 61 62 63"))},
        {"raw text", process("ids=4:abc gids=3"), inserted(hex_bytes("01 03 61 62 63 02 03 61 62 63"))},
        {"the longest text", process("circuit=3:" + A128 + " remote=1"), inserted(hex_bytes("01 82 01 80") + Bytes(128, 'a'))},
        {"as remote-id", process("remote=3:" + A128 + " circuit=1"), inserted(hex_bytes("02 82 01 80") + Bytes(128, 'a'))},
        {"template of the interface", process("ids=5:%s-%N gids=3:x"), inserted(hex_bytes("01 07 31 30 2d 73 77 70 37 02 07 31 30 2d 73 77 70 37"))},
        {"the global template when the interface has no mode", process("ids=0:own gids=5:%s"), inserted(hex_bytes("01 02 31 30 02 02 31 30"))},
        {"an empty template omits the sub-option, whatever the global one", process("ids=5 gids=5:%s"), EMPTY},
        {"a template that yields nothing omits it", process("ids=5:" + ZERO + " gids=3"), EMPTY},
        {"the global mode 3, generated", process("ids=0 gids=3"), inserted(hex_bytes("01 08 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 07"))},
        {"Kept: whichever record the mode came from, the text is the interface's own", process("ids=0:own gids=3"), inserted(hex_bytes("01 05 01 03 6f 77 6e 02 05 01 03 6f 77 6e"))},
        {"the global mode 4 never takes the global text", process("ids=0 gids=4:glob"), inserted(hex_bytes("01 06 00 0a 01 02 07 03 02 06 02 00 00 00 01 07"))},
        {"mode 1 builds nothing", process("ids=1:abc gids=3"), EMPTY},
        {"mode 6 builds nothing", process("ids=6:abc gids=3"), EMPTY},
        {"no mode at all builds nothing", process("ids=0:abc gids=0"), EMPTY},
        {"each has its own settings", process("circuit=4:c remote=0 gremote=5:%c"), inserted(hex_bytes("01 01 63 02 02 33 33"))},
        {"behind them sub-option 9, the host name", process("circuit=1 remote=4:r sub9=0"), inserted(hex_bytes("02 01 72 09 0f") + BLOCK)},
        {"the interface's text", process("ids=1 sub9=0:abc"), inserted(Bytes{9, 10} + ENTERPRISE + hex_bytes("05 01 03 61 62 63"))},
        {"no host name", process("ids=1 sub9=0 host=-1"), EMPTY},
        {"an empty host name", process("ids=1 sub9=0 host=0:"), EMPTY},
        {"a host name of 129", process("ids=1 sub9=0 host=0:" + A128 + "b"), inserted(Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + Bytes(128, 'a'))},
        {"a text of 128", process("ids=1 sub9=0:" + A128), inserted(Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + Bytes(128, 'a'))},
        {"255 bytes", process("circuit=4:" + A128 + " remote=4:" + std::string(123, 'r')), inserted(Bytes{1, 128} + Bytes(128, 'a') + Bytes{2, 123} + Bytes(123, 'r'))},
        {"256 bytes", process("circuit=4:" + A128 + " remote=4:" + std::string(124, 'r')), "kept; option82 len (256) is zero or exceeds the max."},
        {"a frame of 2040 and 8 bytes more", process("circuit=4:abcd remote=1", filled(2040, OPT_END)), hex(filled(2048, opt(82, hex_bytes("01 04 61 62 63 64")) + OPT_END))},
        {"a frame of 2040 and 9 bytes more", process("circuit=4:abcde remote=1", filled(2040, OPT_END)), "kept; Packet len exceeds the max, don't insert option82."},
        {"over the end and what follows it", process("ids=4:c", OPT_END + Bytes(4, 9)), inserted(hex_bytes("01 01 63 02 01 63")) + " 00 00 00 00"},
        {"no end option: built but not inserted", process("ids=3", {53, 1, 1, 0}), "kept"},
    });
}

const Bytes OWN = opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61"))), GROWN = opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61") + BLOCK));
#define KEEP "; Keep the pkt, send to server directly."
#define DROP "; Drop the pkt with option82!"
#define APPEND "; Append hostname & ip addres to the pkt."

TEST_F(Option82, AlreadyThere)
{
    check({
        {"policy 0 keeps", process("sub9=0 policy=0 mode=3", OWN + OPT_END), "kept" KEEP},
        {"policy 1 drops", process("sub9=0 policy=1 mode=3", OWN + OPT_END), "kept refused" DROP},
        {"policy 2 keeps", process("sub9=0 policy=2 mode=3", OWN + OPT_END), "kept" KEEP},
        {"policy 3 appends", process("sub9=0 policy=3 mode=3", OWN + OPT_END), hex(GROWN + OPT_END) + APPEND},
        {"mode 4", process("sub9=0 policy=1 mode=4", OWN + OPT_END), "kept refused" DROP},
        {"mode 5", process("sub9=0 policy=1 mode=5", OWN + OPT_END), "kept refused" DROP},
        {"another mode forwards whatever the policy", process("sub9=0 policy=1 mode=6", OWN + OPT_END), "kept"},
        {"mode 1 too", process("sub9=0 policy=3 mode=1", OWN + OPT_END), "kept"},
        {"without a mode the global circuit-id's", process("sub9=0 policy=1 gcircuit=4 gremote=99", OWN + OPT_END), "kept refused" DROP},
        {"which may be outside 3 to 5", process("sub9=0 policy=1 gcircuit=1", OWN + OPT_END), "kept"},
        {"behind the data of sub-option 9", process("sub9=0 policy=3", opt(82, SUB9) + OPT_END), hex(opt(82, opt(9, Bytes{0xAA} + BLOCK)) + OPT_END) + APPEND},
        {"no end option", process("sub9=0 policy=3", opt(82, SUB9) + Bytes{0}), "kept refused" APPEND},
        {"no sub-option 9 in it", process("sub9=0 policy=3", opt(82, opt(1, {1})) + OPT_END), "kept" APPEND},
        {"no host name", process("sub9=0 policy=3 host=-1", opt(82, SUB9) + OPT_END), "kept" APPEND},
        {"up to a frame of 2048", process("sub9=0 policy=3", filled(2033, opt(82, SUB9) + OPT_END)), hex(filled(2048, opt(82, opt(9, Bytes{0xAA} + BLOCK)) + OPT_END)) + APPEND},
        {"not to 2049", process("sub9=0 policy=3", filled(2034, opt(82, SUB9) + OPT_END)), "kept" APPEND},
        {"Kept: over what follows sub-option 9", process("sub9=0 policy=3", opt(82, SUB9 + opt(1, {1, 2})) + OPT_END), hex(Bytes{82, 22, 9, 16, 0xAA} + BLOCK + OPT_END + Bytes(4, 0)) + APPEND},
        {"a sub-option 9 that claims more than there is, near the end", process("sub9=0 policy=3", filled(2000, opt(82, {9, 200}) + OPT_END)), "kept" APPEND},
    });
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
    const Parsed there(Frame{}, ON7);
    EXPECT_EQ(dhcpsnoop_construct_opt82(&parsed.info, buffer, 99) + dhcpsnoop_construct_opt82(nullptr, buffer, 99) + dhcpsnoop_construct_opt82(&there.info, nullptr, 99), 0u);
    EXPECT_TRUE(dhcpsnoop_insert_opt82(nullptr, buffer, 4) == -1 && dhcpsnoop_insert_opt82(&parsed.info, nullptr, 4) == -1);
    EXPECT_NE(dhcpsnoop_remote_id_cmp(nullptr, ifp, 3), 0);
    dhcpsnoop_strip_option(nullptr);
}

std::string compared(const char *subOption, uint32_t mode, const std::string &words = "")
{
    return dhcpsnoop_remote_id_cmp(hex_bytes(subOption).data(), set_up(words), mode) == 0 ? "equal" : "not";
}

// The options without option 82, and where their end is.
std::string stripped(const Bytes &options)
{
    set_up("");
    Parsed parsed(Frame{.options = options}, ON7);
    dhcpsnoop_strip_option(&parsed.info);
    const Bytes after(parsed.info.dhcpMsg + 240, parsed.info.dhcpMsg + parsed.info.dhcpLen);
    EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = after}.bytes()));
    EXPECT_EQ(parsed.info.opt82, nullptr);
    return hex(after) + (parsed.info.optEnd == nullptr ? " no end" : world_format(" %td", parsed.info.optEnd - parsed.info.dhcpMsg - 240));
}

TEST_F(Option82, ComparedAndStripped)
{
    const Bytes own = opt(82, opt(1, {7, 8, 9}));
    check({
        {"typed MAC", compared("02 08 00 06 02 00 00 00 01 07", 3), "equal"},
        {"the type and length bytes are not looked at", compared("02 08 77 88 02 00 00 00 01 07", 3), "equal"},
        {"raw MAC", compared("02 06 02 00 00 00 01 07 00 00", 4), "equal"},
        {"raw MAC read as typed", compared("02 06 02 00 00 00 01 07 00 00", 3), "not"},
        {"last byte differs", compared("02 06 02 00 00 00 01 08", 4), "not"},
        {"any mode but 3 is read as raw", compared("02 06 02 00 00 00 01 07 00 00", 5), "equal"},
        {"typed text", compared("02 05 01 03 61 62 63", 3, "remote=3:abc"), "equal"},
        {"raw text: only its own length counts", compared("02 04 61 62 63 64", 4, "remote=3:abc"), "equal"},
        {"another text", compared("02 03 61 62 64 00 00", 4, "remote=3:abc"), "not"},
        {"the MAC does not count when there is a text", compared("02 06 02 00 00 00 01 07", 4, "remote=3:abc"), "not"},
        {"last before the end, padding behind", stripped(opt_type(5) + own + OPT_END + Bytes(2, 0)), "35 01 05 ff 00 00 3"},
        {"between others", stripped(opt_type(5) + own + opt(12, {1}) + OPT_END), "35 01 05 0c 01 01 ff 6"},
        {"empty and only", stripped(opt(82, {}) + OPT_END), "ff 0"},
        {"without an end option", stripped(opt_type(5) + own + Bytes{0}), "35 01 05 00 no end"},
        {"none to strip", stripped(opt_type(5) + OPT_END), "35 01 05 ff 3"},
        {"Kept: the length is counted in 8 bits, of 254: nothing is removed", stripped(Bytes{82, 254} + Bytes(254, 1) + OPT_END), hex(Bytes{82, 254} + Bytes(254, 1) + OPT_END) + " 256"},
        {"of length 255: one byte is", stripped(Bytes{82, 255} + Bytes(255, 1) + OPT_END), hex(Bytes{255} + Bytes(255, 1) + OPT_END) + " 256"},
        {"of length 253: all of it", stripped(Bytes{82, 253} + Bytes(253, 1) + OPT_END), "ff 0"},
    });
}

} // namespace

// Options put into messages and taken out, with lengths and checksums made right again. Option 82: RFC 3046 2, 3.1, 3.2; sub-option 9:
// RFC 4243 3; option 67: RFC 2132 9.5; option 125: RFC 3925 4. Expected bytes are written out by hand after those layouts, and
// tshark dissects such frames so; sums come from RFC 1071 and scapy.
#include <functional>

#include "scene.h"

namespace
{

const Bytes ENTERPRISE = be32(32473); // RFC 5612
const Bytes BLOCK = ENTERPRISE + hex_bytes("0a 01 08") + text_bytes("switch-1"), SUB9 = opt(9, {0xAA});
constexpr Arrival ON7 = {.port = 7, .outer = 10, .inner = 33};
const std::string A128(128, 'a'), ZERO(1, '\0');

// Port 7, with option 82. Words are "what=mode" or "what=mode:text": "circuit" and "remote", or "ids" for both, of the port, and the
// same with a "g" in front; "sub9", switched on; "host", "policy" and "mode".
DhcpsnoopIf *set_up(const std::string &words)
{
    world.reset();
    world.access(7, 10).location = {0x101, 0x202, 0x303, 4, 5, 6, 0x707};
    DhcpsnoopIf *ifp = snoop(7, DHCPSNOOP_IF_OPTION82);
    for (const std::string &word : parts(words, ' ')) {
        const size_t equals = word.find('='), colon = word.find(':');
        const std::string what = word.substr(0, equals), text = colon == std::string::npos ? "" : word.substr(colon + 1);
        const int mode = atoi(word.c_str() + equals + 1);
        const auto put = [&](auto &format, auto &length, auto &slot) {
            format = static_cast<std::remove_reference_t<decltype(format)>>(mode);
            length = static_cast<std::remove_reference_t<decltype(length)>>(text.size());
            std::copy(text.begin(), text.end(), slot);
        };
        if (what == "circuit" || what == "ids")
            put(ifp->circuitIdFmt, ifp->circuitIdLen, ifp->circuitId);
        if (what == "remote" || what == "ids")
            put(ifp->remoteIdFmt, ifp->remoteIdLen, ifp->remoteId);
        if (what == "gcircuit" || what == "gids")
            put(gDhcpsnoop.circuitIdFmt.mode, gDhcpsnoop.circuitIdFmt.len, gDhcpsnoop.circuitIdFmt.text);
        if (what == "gremote" || what == "gids")
            put(gDhcpsnoop.remoteIdFmt.mode, gDhcpsnoop.remoteIdFmt.len, gDhcpsnoop.remoteIdFmt.text);
        if (what == "sub9")
            ifp->flags |= DHCPSNOOP_IF_SUBOPT9, put(ifp->subopt9Len, ifp->subopt9Len, ifp->subopt9);
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

// A message with these options after a change: its options, or "kept" when no byte changed, not even behind the frame; then the texts
// but the first. Lengths and sums are those of a frame built so, and the recorded pointers follow.
std::string changed(const Bytes &options, const std::function<void(DhcpsnoopPktInfo *)> &change, bool follow = true)
{
    Parsed parsed(Frame{.options = options}, ON7);
    const DhcpsnoopRxPkt before = parsed.rx;
    world.clear();
    change(&parsed.info);
    const DhcpsnoopPktInfo &info = parsed.info;
    const Bytes after(info.dhcpMsg + 240, info.dhcpMsg + info.dhcpLen);
    EXPECT_EQ(dump(parsed.bytes()), dump(Frame{.options = after}));
    EXPECT_TRUE(info.udpLen == info.dhcpLen + 8 && info.ipBodyLen == info.udpLen);
    EXPECT_TRUE(!follow || ((info.optEnd == nullptr || *info.optEnd == 255) && (info.opt82 == nullptr || *info.opt82 == 82)));
    std::string text = memcmp(&before, &parsed.rx, sizeof before) == 0 ? "kept" : hex(after);
    const Lines texts = world.texts(Did::Debug);
    for (size_t i = 1; i < texts.size(); i++)
        text += "; " + texts[i].substr(12, texts[i].size() - 14);
    return text;
}

std::string process(const std::string &words, const Bytes &options = OPT_END)
{
    const uint32_t mode = dhcpsnoop_flag_get(set_up(words)->flags, DHCPSNOOP_IF_MODE);
    int32_t result = 0;
    const std::string done = changed(
        options, [&result](DhcpsnoopPktInfo *info) { result = dhcpsnoop_process_option82(info); }, false);
    EXPECT_EQ(unsaid(world_format("Process option82 in client packet, mode is %u.", mode != 0 ? mode : gDhcpsnoop.circuitIdFmt.mode)), "");
    return done + (result == 0 ? "" : " refused");
}

#define NEW "; option82 isn't exist, construct and insert it to the pkt."
#define EMPTY "kept" NEW "; option82 len (0) is zero or exceeds the max."

std::string inserted(const Bytes &data)
{
    return hex(opt(82, data) + OPT_END) + NEW;
}

using Options = Daemon;

TEST_F(Options, Inserted)
{
    check({
        {"typed, generated: VLAN and location, or the MAC", process("ids=3 gids=4"), inserted(hex_bytes("01 08 00 06 00 0a 01 02 07 03 02 08 00 06 02 00 00 00 01 07"))},
        {"template of the interface", process("ids=5:%s-%N gids=3:x"), inserted(hex_bytes("01 07 31 30 2d 73 77 70 37 02 07 31 30 2d 73 77 70 37"))},
        {"an empty template omits the sub-option, whatever the global one", process("ids=5 gids=5:%s"), EMPTY},
        {"Kept: whichever record the mode came from, the text is the interface's own", process("ids=0:own gids=3"), inserted(hex_bytes("01 05 01 03 6f 77 6e 02 05 01 03 6f 77 6e"))},
        {"the global mode 4 never takes the global text", process("ids=0 gids=4:glob"), inserted(hex_bytes("01 06 00 0a 01 02 07 03 02 06 02 00 00 00 01 07"))},
        {"each has its own settings", process("circuit=4:c remote=0 gremote=5:%c"), inserted(hex_bytes("01 01 63 02 02 33 33"))},
        {"behind them sub-option 9, the host name", process("circuit=1 remote=4:r sub9=0"), inserted(hex_bytes("02 01 72 09 0f") + BLOCK)},
        {"the interface's text", process("ids=1 sub9=0:abc"), inserted(Bytes{9, 10} + ENTERPRISE + hex_bytes("05 01 03 61 62 63"))},
        {"no host name", process("ids=1 sub9=0 host=-1"), EMPTY},
        {"a host name of 129", process("ids=1 sub9=0 host=0:" + A128 + "b"), inserted(Bytes{9, 135} + ENTERPRISE + Bytes{130, 1, 128} + Bytes(128, 'a'))},
        {"256 bytes", process("circuit=4:" + A128 + " remote=4:" + std::string(124, 'r')), "kept" NEW "; option82 len (256) is zero or exceeds the max."},
        {"a frame of 2040 and 8 bytes more", process("circuit=4:abcd remote=1", filled(2040, OPT_END)), hex(filled(2048, opt(82, hex_bytes("01 04 61 62 63 64")) + OPT_END)) + NEW},
        {"a frame of 2040 and 9 bytes more", process("circuit=4:abcde remote=1", filled(2040, OPT_END)), "kept" NEW "; Packet len exceeds the max, don't insert option82."},
        {"over the end and what follows it", process("ids=4:c", OPT_END + Bytes(4, 9)), hex(opt(82, hex_bytes("01 01 63 02 01 63")) + OPT_END + Bytes(4, 0)) + NEW},
        {"no end option: built but not inserted", process("ids=3", {53, 1, 1, 0}), "kept" NEW},
    });
}

const Bytes OWN = opt(82, opt(1, {7}) + opt(9, ENTERPRISE + hex_bytes("03 01 01 61")));
#define THERE "; option82 is already exist!"
#define KEEP THERE "; Keep the pkt, send to server directly."
#define DROP "kept" THERE "; Drop the pkt with option82! refused"
#define APPEND THERE "; Append hostname & ip addres to the pkt."

TEST_F(Options, AlreadyThere)
{
    check({
        {"policy 0 keeps", process("sub9=0 policy=0 mode=3", OWN + OPT_END), "kept" KEEP},
        {"policy 1 drops", process("sub9=0 policy=1 mode=3", OWN + OPT_END), DROP},
        {"another mode forwards whatever the policy", process("sub9=0 policy=1 mode=6", OWN + OPT_END), "kept" THERE},
        {"without a mode the global circuit-id's", process("sub9=0 policy=1 gcircuit=4 gremote=99", OWN + OPT_END), DROP},
        {"behind the data of sub-option 9", process("sub9=0 policy=3", opt(82, SUB9) + OPT_END), hex(opt(82, opt(9, Bytes{0xAA} + BLOCK)) + OPT_END) + APPEND},
        {"no end option", process("sub9=0 policy=3", opt(82, SUB9) + Bytes{0}), "kept" APPEND " refused"},
        {"no sub-option 9 in it", process("sub9=0 policy=3", opt(82, opt(1, {1})) + OPT_END), "kept" APPEND},
        {"up to a frame of 2048", process("sub9=0 policy=3", filled(2033, opt(82, SUB9) + OPT_END)), hex(filled(2048, opt(82, opt(9, Bytes{0xAA} + BLOCK)) + OPT_END)) + APPEND},
        {"not to 2049", process("sub9=0 policy=3", filled(2034, opt(82, SUB9) + OPT_END)), "kept" APPEND},
        {"Kept: over what follows sub-option 9", process("sub9=0 policy=3", opt(82, SUB9 + opt(1, {1, 2})) + OPT_END), hex(Bytes{82, 22, 9, 16, 0xAA} + BLOCK + OPT_END + Bytes(4, 0)) + APPEND},
        {"a sub-option 9 that claims more than there is, near the end", process("sub9=0 policy=3", filled(2000, opt(82, {9, 200}) + OPT_END)), "kept" APPEND},
    });
}

TEST_F(Options, RoomForOption82)
{
    set_up("gcircuit=5:%d");
    const Parsed parsed(Frame{}, ON7);
    const auto built = [&parsed](auto builder, uint32_t room) {
        uint8_t buffer[800];
        return std::to_string(builder(&parsed.info, buffer, room));
    };
    check({
        {"a template of 8 bytes", built(dhcpsnoop_build_subopt_circid, 8), "8"},
        {"one byte less, less than a header, nothing", series({built(dhcpsnoop_build_subopt_circid, 7), built(dhcpsnoop_build_subopt_circid, 1), built(dhcpsnoop_build_subopt_circid, 0)}), "0"},
        {"a typed MAC", built(dhcpsnoop_build_subopt_remoteid, 10), "10"},
        {"one byte less", built(dhcpsnoop_build_subopt_remoteid, 9), "0"},
    });
}

TEST_F(Options, FrameWhoseLengthWrapsIsNotWrittenBehind)
{
    for (const Bytes &options : {opt(82, SUB9) + OPT_END, OPT_END, opt(82, SUB9) + Bytes(200, 0) + OPT_END}) {
        for (const char *policy : {"policy=2 sub9=0", "policy=3 sub9=0"}) {
            set_up(policy);
            Parsed wrapped(Frame{.ipTotalLen = 0xFFF2, .options = filled(2048, options)}, ON7);
            const DhcpsnoopRxPkt before = wrapped.rx;
            const Bytes name(100, 'n');
            EXPECT_TRUE(wrapped.info.frameLen == 0 && dhcpsnoop_process_option82(&wrapped.info) == 0);
            dhcpsnoop_insert_opt67(&wrapped.info, name.data(), 100);
            dhcpsnoop_insert_opt125(&wrapped.info, name.data(), 100);
            EXPECT_EQ(memcmp(&before, &wrapped.rx, sizeof before), 0);
        }
    }
}

std::string compared(const char *subOption, uint32_t mode, const std::string &words = "")
{
    return dhcpsnoop_remote_id_cmp(hex_bytes(subOption).data(), set_up(words), mode) == 0 ? "equal" : "not";
}

std::string stripped(const Bytes &options)
{
    set_up("");
    return changed(options, dhcpsnoop_strip_option);
}

TEST_F(Options, ComparedAndStripped)
{
    const Bytes own = opt(82, opt(1, {7, 8, 9}));
    check({
        {"the type and length bytes are not looked at", compared("02 08 77 88 02 00 00 00 01 07", 3), "equal"},
        {"any mode but 3 is read as raw", compared("02 06 02 00 00 00 01 07 00 00", 5), "equal"},
        {"the MAC does not count when there is a text", compared("02 06 02 00 00 00 01 07", 4, "remote=3:abc"), "not"},
        {"last before the end, padding behind", stripped(opt_type(5) + own + OPT_END + Bytes(2, 0)), "35 01 05 ff 00 00"},
        {"Kept: the length is counted in 8 bits, of 254: nothing is removed", stripped(Bytes{82, 254} + Bytes(254, 1) + OPT_END), "kept"},
        {"of length 255: one byte is", stripped(Bytes{82, 255} + Bytes(255, 1) + OPT_END), hex(Bytes{255} + Bytes(255, 1) + OPT_END)},
    });
}

// Option 67, or 125, of so many bytes put into a reply.
std::string inserted(uint8_t number, const Bytes &options, uint32_t length = 3)
{
    set_up("");
    const auto insert = number == 125 ? dhcpsnoop_insert_opt125 : dhcpsnoop_insert_opt67;
    const std::string done = changed(options, [&](DhcpsnoopPktInfo *info) { insert(info, Bytes(300, 'b').data(), length); });
    EXPECT_EQ(unsaid(world_format("Insert option%u, len is %d.", number, static_cast<int>(length))), "");
    return done;
}

TEST_F(Options, OfBoot)
{
    const Bytes own82 = opt(82, opt(2, {1, 2})), full82 = opt(82, Bytes(253, 1)), type = opt_type(ACK);
    for (const uint8_t number : {uint8_t{67}, uint8_t{125}}) {
        SCOPED_TRACE(number);
        const uint32_t most = number == 125 ? 246 : 253;
        const auto option = [number](uint8_t length) {
            const Bytes data(length, 'b'), vendor = ENTERPRISE + Bytes{static_cast<uint8_t>(length + 2), 4, length};
            return opt(number, number == 125 ? vendor + data : data);
        };
        const Bytes own = option(3);
        const std::string invalid = world_format("kept; option%u len is invalid!", number);
        const size_t before = 2048 - own.size(); // the longest frame with room for it
        check({
            {"over the end option and the padding behind it", inserted(number, type + OPT_END + Bytes(2, 9)), hex(type + own + OPT_END + Bytes(2, 0))},
            {"before option 82 and what follows it", inserted(number, own82 + type + OPT_END + Bytes(2, 9)), hex(own + own82 + type + OPT_END + Bytes(2, 9))},
            {"already there", inserted(number, opt(number, {1}) + OPT_END), "kept"},
            {"no end option", inserted(number, type + Bytes{0}), "kept"},
            {"length 0", inserted(number, OPT_END, 0), invalid},
            {"the greatest length", inserted(number, OPT_END, most), hex(option(static_cast<uint8_t>(most)) + OPT_END)},
            {"one more", inserted(number, OPT_END, most + 1), invalid},
            {"a length that wraps", inserted(number, OPT_END, number == 125 ? 0xFFFFFFF7 : 0xFFFFFFFE), invalid},
            {"up to a frame of 2048", inserted(number, filled(before, OPT_END)), hex(filled(2048, own + OPT_END))},
            {"not to 2049", inserted(number, filled(before + 1, OPT_END)), world_format("kept; Packet len exceeds the max, don't insert option%u!", number)},
            {"256 bytes from option 82 on", inserted(number, full82 + OPT_END), hex(own + full82 + OPT_END)},
            {"257 bytes from option 82 on", inserted(number, full82 + OPT_END + Bytes{0}), world_format("kept; option-82 is not the last option, don't insert option%u!", number)},
        });
    }
}

// Of this datagram between 10.1.2.3 and 10.9.8.7, and its header afterwards.
std::string udp_sum(Bytes udp)
{
    const Bytes ip = hex_bytes("45 00 00 1f 00 00 00 00 40 11 00 00 0a 01 02 03 0a 09 08 07");
    const uint16_t sum = dhcpsnoop_get_udp_checksum(ip.data(), udp.data());
    return world_format("%04x, ", sum) + world_hex(udp.data(), 8);
}

TEST_F(Options, Checksums)
{
    const uint16_t longest = internet_checksum(hex_bytes("0a 01 02 03 0a 09 08 07 00 11 07 f4 00 44 00 43 07 f4 00 00") + Bytes(2028, 7));
    check({
        {"the carry of the fold is folded too", world_format("%x", checkdhcpsnoopsum(hex_bytes("ff ff ff ff 00 01").data(), 6)), "fffe"},
        {"Kept: a sum that comes out as zero stays zero, where RFC 768 sends all ones", udp_sum(hex_bytes("00 44 00 43 00 0a 00 00 e1 3f")), "0000, 00 44 00 43 00 0a 00 00"},
        {"the longest datagram, 2036", udp_sum(hex_bytes("00 44 00 43 07 f4 ab cd") + Bytes(2028, 7)), world_format("%04x, 00 44 00 43 07 f4 00 00", longest)},
        {"one byte more", udp_sum(hex_bytes("00 44 00 43 07 f5 ab cd") + Bytes(2029, 7)), "0000, 00 44 00 43 07 f5 ab cd"},
    });
}

} // namespace

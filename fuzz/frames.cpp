// Three kinds of frames: made of small choices with true headers, mended to have true lengths, and as they
// are.
#include "frames.h"

#include <algorithm>
#include <cstring>

#include "frame.h"
#include "pools.h"

namespace
{

constexpr size_t IPV4_HEADER = 20, UDP_HEADER = 8;

// How a frame comes in: interface it is attributed to, port, outer VLAN.
struct Arrival {
    uint32_t inIf, port;
    uint16_t vid;
};
constexpr std::array<Arrival, 16> ARRIVALS = {
    {
     {1, 1, 10},
     {2, 2, 20},
     {2, 2, 10},
     {3, 3, 10},
     {4, 4, 10},
     {4, 4, 20},
     {5, 5, 0},
     {6, 6, 0},
     {20, 7, 20},
     {30, 8, 30},
     {20, 1, 20}, // from a port that snoops itself
        {30, 77, 30},
     {4, 4, 30},
     {1, 1, 4095},
     {2, 2, 99},
     {0, 1, 10},
     }
};

void put16(Bytes &bytes, size_t at, size_t value)
{
    if (at + 2 > bytes.size())
        return;
    bytes[at] = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

size_t get16(const Bytes &bytes, size_t at)
{
    return at + 2 > bytes.size() ? 0 : size_t{bytes[at]} << 8 | bytes[at + 1];
}

size_t l2_length(const Bytes &bytes)
{
    size_t at = 12;
    while (at < 20 && (get16(bytes, at) == 0x8100 || get16(bytes, at) == 0x88A8))
        at += 4;
    return at + 2;
}

// A message in true headers: what matters is chosen from small sets, so that messages meet their bindings;
// the option area is the input's.
Bytes frame_synthesized(Input &input, bool *whole)
{
    Frame frame;
    frame.op = input.pick(std::array<uint8_t, 4>{1, 2, 1, 3});
    const uint8_t type = input.u8();
    frame.tags.resize(input.u8() % 3);
    for (Tag &tag : frame.tags)
        tag = {input.pick(std::array<uint16_t, 2>{0x8100, 0x88A8}), input.pick(POOL_VIDS)};
    frame.chaddr = input.pick(POOL_MACS);
    frame.src = input.pick(POOL_MACS);
    frame.ciaddr = input.pick(POOL_ADDRESSES);
    frame.yiaddr = input.pick(POOL_ADDRESSES);
    frame.giaddr = input.pick(POOL_ADDRESSES);
    frame.srcIp = input.pick(POOL_ADDRESSES);
    frame.flags = static_cast<uint16_t>(input.u8() << 8);
    if (frame.op == 2) {
        frame.srcPort = 67;
        frame.dstPort = 68;
    }

    const uint8_t shape = input.u8();
    const size_t pads = (shape & 1) != 0 ? input.u16() % DHCPSNOOP_FRAME_MAX : 0;
    const Bytes options = input.bytes(input.u16() % DHCPSNOOP_FRAME_MAX);
    frame.options = Bytes(pads, 0);
    if ((shape & 2) == 0)
        frame.options = frame.options + opt_type(type);
    frame.options = frame.options + options;
    if ((shape & 4) == 0)
        frame.options.push_back(255);
    frame.padding.assign((shape & 8) != 0 ? input.u8() : 0, 0xFF);
    if ((shape & 16) != 0) {
        const size_t length = frame.message().size() + UDP_HEADER;
        frame.udpLen = static_cast<uint16_t>(length + static_cast<size_t>(static_cast<int8_t>(input.u8())));
        frame.ipTotalLen = static_cast<uint16_t>(length + IPV4_HEADER +
                                                 static_cast<size_t>(static_cast<int8_t>(input.u8())));
        *whole = false;
    }
    return frame.bytes();
}

// The options that a byte for each chooses: addresses in IAs, status codes, what the daemon itself inserts.
Bytes options6(Input &input, int depth)
{
    Bytes area;
    for (uint8_t count = input.u8() % 6; count > 0; count--) {
        const uint8_t kind = input.u8();
        std::optional<uint16_t> length;
        if ((kind & 0x80) != 0)
            length = input.u16();
        Bytes data;
        uint16_t code = 0;
        switch (kind & 7) {
        case 0:
        case 1:
            code = (kind & 7) == 0 ? 3 : 4;
            data = Bytes((kind & 7) == 0 ? 12 : 4, 0);
            break;
        case 2: {
            code = 5;
            const Ip6 address = ip6(input.pick(POOL_ADDRESSES6));
            data = Bytes(address.begin(), address.end()) + be32(300) + be32(input.u8() * 60u);
            break;
        }
        case 3:
            code = 13;
            data = be16(input.u8() % 8);
            break;
        case 4:
        case 5: {
            code = (kind & 7) == 4 ? 18 : 37;
            const auto vid = static_cast<uint8_t>(input.pick(POOL_VIDS)), port = input.u8();
            data = (code == 37 ? be32(gDhcpsnoop.enterpriseNum) : Bytes{}) +
                   Bytes{1, 6, 0, 6, 0, vid, 1, 0, 0, port} + Bytes{2, 8, 0, 6, 2, 0, 0, 0, 1, port};
            break;
        }
        default:
            code = input.u16();
            data = input.bytes(input.u8());
            break;
        }
        if ((kind & 7) < 3 && depth > 0)
            data = data + options6(input, depth - 1);
        area = area + opt6(code, data, length);
    }
    return area;
}

Bytes frame6_synthesized(Input &input, bool *whole)
{
    const uint8_t type = input.u8();
    Frame6 frame = input.u8() % 2 == 0 ? client6(type) : server6(type);
    frame.tags.resize(input.u8() % 3);
    for (Tag &tag : frame.tags)
        tag = {input.pick(std::array<uint16_t, 2>{0x8100, 0x88A8}), input.pick(POOL_VIDS)};
    frame.src = input.pick(POOL_MACS);
    const uint8_t shape = input.u8();
    if ((shape & 1) != 0)
        frame.options = opt6(1, Bytes(input.u16() % DHCPSNOOP_FRAME_MAX, 0));
    frame.options = frame.options + options6(input, 2);
    if ((shape & 2) != 0)
        frame.padding.assign(input.u8(), 0xFF);
    if ((shape & 4) != 0) {
        frame.slack.assign(input.u8(), 0xFF);
        *whole = false;
    }
    if ((shape & 8) != 0) {
        const size_t length = UDP_HEADER + 4 + frame.options.size();
        frame.udpLen = static_cast<uint16_t>(length + static_cast<size_t>(static_cast<int8_t>(input.u8())));
        frame.payloadLen =
            static_cast<uint16_t>(length + static_cast<size_t>(static_cast<int8_t>(input.u8())));
        *whole = false;
    }
    if ((shape & 16) != 0) {
        frame.nextHeader = input.pick(std::array<uint8_t, 5>{0, 43, 44, 60, 6});
        frame.extension = input.bytes(input.u8());
        *whole = false;
    }
    return frame.bytes();
}

// The input's bytes, with as much of the IPv4 and UDP headers put right as it asks for.
Bytes frame_mended(Input &input)
{
    const uint8_t mend = input.u8();
    Bytes frame = input.bytes(input.u16() % (DHCPSNOOP_FRAME_MAX + 1));
    const size_t ip = l2_length(frame);
    if (frame.size() < ip + IPV4_HEADER + UDP_HEADER)
        return frame;
    if ((mend & 1) != 0)
        frame[ip] = 0x45;
    if ((mend & 2) != 0)
        put16(frame, ip + 2, frame.size() - ip);
    if ((mend & 4) != 0)
        frame[ip + 9] = 17;
    const size_t udp = ip + (frame[ip] & 15u) * 4;
    if ((mend & 8) != 0)
        put16(frame, udp + 2, 67);
    if ((mend & 16) != 0 && frame.size() > udp)
        put16(frame, udp + 4, frame.size() - udp);
    if ((mend & 32) != 0 && frame.size() > udp + UDP_HEADER)
        frame[udp + UDP_HEADER] = (mend & 64) != 0 ? 2 : 1;
    return frame;
}

} // namespace

uint32_t frame_take(Input &input, DhcpsnoopRxPkt *rx, bool *whole)
{
    const uint8_t kind = input.u8();
    const Arrival &arrival = ARRIVALS[kind >> 4];
    *whole = false;
    Bytes frame;
    switch (kind & 3) {
    case 0:
        *whole = true;
        frame = frame_synthesized(input, whole);
        break;
    case 1:
        *whole = true;
        frame = frame6_synthesized(input, whole);
        break;
    case 2:
        frame = frame_mended(input);
        break;
    case 3:
        frame = input.bytes(input.u16() % (DHCPSNOOP_FRAME_MAX + 1));
        break;
    }

    // A frame longer than the buffer is cut, as the kernel cuts it.
    const size_t size = std::min<size_t>(frame.size(), DHCPSNOOP_FRAME_MAX);
    if (size < frame.size())
        *whole = false;
    rx->valid = 1;
    rx->len = static_cast<uint16_t>(size);
    std::copy_n(frame.begin(), size, rx->data);
    std::fill(rx->data + size, rx->data + sizeof rx->data, uint8_t{0});
    rx->ifIndex = arrival.port;
    rx->outerVid = arrival.vid;
    rx->innerVid = 0;
    rx->l2HdrLen = static_cast<uint16_t>(l2_length(frame));
    rx->etherType = get16(frame, rx->l2HdrLen - 2u) == 0x86DD ? 0x86DD : 0x0800;
    if ((kind & 4) != 0) {
        // Packet information of any content.
        rx->ifIndex = input.u32();
        rx->outerVid = input.u16();
        rx->innerVid = input.u16();
        rx->l2HdrLen = input.u16();
        rx->etherType = input.pick(std::array<uint16_t, 4>{0x0800, 0x86DD, 0x0800, 0x0806});
        const uint16_t length = input.u16();
        if (length != 0)
            rx->len = length;
        *whole = false;
    }
    return arrival.inIf;
}

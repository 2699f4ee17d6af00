#include "frame.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>

namespace
{

constexpr size_t BOOTP_FIXED = 240; // with the cookie

void put16(Bytes &bytes, size_t at, uint32_t value)
{
    bytes.at(at) = static_cast<uint8_t>(value >> 8);
    bytes.at(at + 1) = static_cast<uint8_t>(value);
}

uint32_t get16(const Bytes &bytes, size_t at) { return uint32_t{bytes.at(at)} << 8 | bytes.at(at + 1); }

uint32_t get32(const Bytes &bytes, size_t at) { return get16(bytes, at) << 16 | get16(bytes, at + 2); }

Bytes slice(const Bytes &bytes, size_t from, size_t count)
{
    if (from >= bytes.size())
        return {};
    count = count < bytes.size() - from ? count : bytes.size() - from;
    const auto first = bytes.begin() + static_cast<ptrdiff_t>(from);
    return Bytes(first, first + static_cast<ptrdiff_t>(count));
}

uint16_t udp_sum(uint32_t srcIp, uint32_t dstIp, const Bytes &datagram)
{
    return internet_checksum(be32(srcIp) + be32(dstIp) + Bytes{0, 17} +
                             be16(static_cast<uint32_t>(datagram.size())) + datagram);
}

__attribute__((format(printf, 1, 2))) std::string text_of(const char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string dotted(const Bytes &bytes, size_t at)
{
    return text_of("%u.%u.%u.%u", bytes.at(at), bytes.at(at + 1), bytes.at(at + 2), bytes.at(at + 3));
}

// Where the IP header begins: behind addresses, tags and EtherType.
size_t ip_offset(const Bytes &frame)
{
    size_t at = 12;
    while (at + 4 <= frame.size() && get16(frame, at) != 0x0800 && get16(frame, at) != 0x86DD)
        at += 4;
    return at + 2;
}

// Over the pseudo-header of RFC 8200 8.1; `addresses` is source and destination.
uint16_t udp6_sum(const Bytes &addresses, const Bytes &datagram)
{
    return internet_checksum(addresses + be32(static_cast<uint32_t>(datagram.size())) + be32(17) + datagram);
}

std::string options6_text(const Bytes &area, const std::string &indent)
{
    std::string out;
    size_t at = 0;
    for (; at + 4 <= area.size(); at += 4 + get16(area, at + 2)) {
        const uint32_t code = get16(area, at), length = get16(area, at + 2);
        const Bytes data = slice(area, at + 4, length);
        const size_t fixed = code == 3 ? 12 : code == 4 ? 4
                                          : code == 5   ? 24
                                                        : data.size();
        out += indent + text_of("option %u length %u: ", code, length) + hex(slice(data, 0, fixed)) + "\n" +
               options6_text(slice(data, fixed, data.size()), indent + "  ");
    }
    const Bytes rest = slice(area, at, area.size());
    return rest.empty() ? out : out + indent + "rest " + hex(rest) + "\n";
}

// From the IPv6 header on.
std::string dissect6(const Bytes &packet)
{
    const size_t end = packet.size() < 48 ? packet.size() : 40 + get16(packet, 4);
    if (packet.size() < 48 || packet[6] != 17 || end < 48)
        return "IPv6 without UDP: " + hex(packet) + "\n";
    const Bytes datagram = slice(packet, 40, end - 40);
    const size_t udpLen = get16(datagram, 4);
    const bool good = udp6_sum(slice(packet, 8, 32), slice(datagram, 0, udpLen)) == 0;
    std::string out = text_of("ip6 %08x length %u next %u hops %u\n", get32(packet, 0), get16(packet, 4),
                              packet[6], packet[7]) +
                      "ip6 from " + hex(slice(packet, 8, 16)) + " to " + hex(slice(packet, 24, 16)) + "\n" +
                      text_of("udp %u to %u length %zu checksum %s\n", get16(datagram, 0), get16(datagram, 2),
                              udpLen, good ? "good" : text_of("bad %04x", get16(datagram, 6)).c_str());
    const Bytes message = slice(datagram, 8, udpLen < 8 ? 0 : udpLen - 8);
    out +=
        "message " + hex(slice(message, 0, 4)) + "\n" + options6_text(slice(message, 4, message.size()), "");
    if (udpLen < datagram.size())
        out += "behind the datagram " + hex(slice(datagram, udpLen, datagram.size())) + "\n";
    if (end < packet.size())
        out += "padding " + hex(slice(packet, end, packet.size())) + "\n";
    return out;
}

size_t dhcp_offset(const Bytes &frame)
{
    const size_t ip = ip_offset(frame);
    return ip + (frame.at(ip) & 15u) * 4 + 8;
}

} // namespace

Bytes be16(uint32_t value) { return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)}; }

Bytes be32(uint32_t value) { return be16(value >> 16) + be16(value & 0xFFFF); }

Bytes text_bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes mac_bytes(const Mac &mac) { return Bytes(mac.begin(), mac.end()); }

Bytes repeated(uint8_t byte, size_t count) { return Bytes(count, byte); }

Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes hex_bytes(std::string_view text)
{
    Bytes bytes;
    int high = -1;
    for (const char c : text) {
        if (isspace(static_cast<unsigned char>(c)))
            continue;
        const int digit = isdigit(static_cast<unsigned char>(c)) ? c - '0' : tolower(c) - 'a' + 10;
        if (digit < 0 || digit > 15)
            abort();
        if (high < 0) {
            high = digit;
            continue;
        }
        bytes.push_back(static_cast<uint8_t>(high * 16 + digit));
        high = -1;
    }
    return bytes;
}

std::string hex(const Bytes &bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i++)
        text += text_of(i == 0 ? "%02x" : " %02x", bytes[i]);
    return text;
}

Bytes opt(uint8_t code, const Bytes &data) { return Bytes{code, static_cast<uint8_t>(data.size())} + data; }

Bytes opt_type(uint8_t messageType) { return {53, 1, messageType}; }

Bytes opt_ip(uint8_t code, uint32_t address) { return opt(code, be32(address)); }

Bytes opt_lease(uint32_t seconds) { return opt(51, be32(seconds)); }

uint16_t internet_checksum(const Bytes &bytes)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); i++)
        sum += i % 2 == 0 ? uint64_t{bytes[i]} * 256 : bytes[i];
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(0xFFFF - sum);
}

Bytes Frame::message() const
{
    if (payload)
        return *payload;
    Bytes bytes = {op, 1, 6, hops};
    bytes = bytes + be32(xid) + be16(0) + be16(flags);
    bytes = bytes + be32(ciaddr) + be32(yiaddr) + be32(siaddr) + be32(giaddr);
    bytes = bytes + mac_bytes(chaddr) + repeated(0, 10 + 64 + 128);
    return bytes + be32(cookie) + options;
}

Bytes Frame::bytes() const
{
    Bytes udp = be16(srcPort) + be16(dstPort) + be16(0) + be16(0) + message();
    put16(udp, 4, udpLen.value_or(static_cast<uint16_t>(udp.size())));
    uint16_t sum = udp_sum(srcIp, dstIp, udp);
    if (sum == 0)
        sum = 0xFFFF; // RFC 768
    put16(udp, 6, udpChecksum.value_or(sum));

    const size_t headerLen = 20 + ipOptions.size();
    Bytes ip = {static_cast<uint8_t>(ipVersion << 4 | ihl.value_or(static_cast<uint8_t>(headerLen / 4))), 0};
    ip = ip + be16(ipTotalLen.value_or(static_cast<uint16_t>(headerLen + udp.size())));
    ip = ip + be32(0) + Bytes{ttl, protocol} + be16(0) + be32(srcIp) + be32(dstIp) + ipOptions;
    put16(ip, 10, ipChecksum.value_or(internet_checksum(ip)));

    Bytes frame = mac_bytes(dst) + mac_bytes(src);
    for (const Tag &tag : tags)
        frame = frame + be16(tag.tpid) + be16(tag.tci);
    return frame + be16(etherType) + ip + udp + padding;
}

Frame client_frame(uint8_t messageType, const Bytes &options)
{
    return Frame{.options = opt_type(messageType) + options + OPT_END};
}

Frame server_frame(uint8_t messageType, const Bytes &options)
{
    return Frame{.src = MAC_SERVER, .srcIp = ip4(10, 0, 0, 1), .srcPort = 67, .dstPort = 68, .op = 2, .yiaddr = ip4(10, 0, 0, 100), .options = opt_type(messageType) + opt_ip(54, ip4(10, 0, 0, 1)) + opt_lease(3600) + options + OPT_END};
}

Ip6 ip6(const char *text)
{
    Ip6 address = {};
    if (inet_pton(AF_INET6, text, address.data()) != 1)
        abort();
    return address;
}

Bytes opt6(uint16_t code, const Bytes &data, std::optional<uint16_t> length)
{
    return be16(code) + be16(length.value_or(static_cast<uint16_t>(data.size()))) + data;
}

Bytes status6(uint16_t code, std::string_view text) { return opt6(13, be16(code) + text_bytes(text)); }

Bytes iaaddr(const char *address, uint32_t valid, const Bytes &options)
{
    const Ip6 bytes = ip6(address);
    return opt6(5, Bytes(bytes.begin(), bytes.end()) + be32(valid / 2) + be32(valid) + options);
}

Bytes ia_na(const Bytes &options, uint32_t iaid) { return opt6(3, be32(iaid) + be32(0) + be32(0) + options); }

Bytes ia_ta(const Bytes &options, uint32_t iaid) { return opt6(4, be32(iaid) + options); }

Bytes Frame6::bytes() const
{
    Bytes body = Bytes{type} + Bytes{static_cast<uint8_t>(xid >> 16)} + be16(xid & 0xFFFF) + options;
    if (message)
        body = *message;
    Bytes udp = be16(srcPort) + be16(dstPort) + be32(0) + body;
    put16(udp, 4, udpLen.value_or(static_cast<uint16_t>(udp.size())));
    const Bytes addresses = Bytes(srcIp.begin(), srcIp.end()) + Bytes(dstIp.begin(), dstIp.end());
    uint16_t sum = udp6_sum(addresses, udp);
    if (sum == 0)
        sum = 0xFFFF; // RFC 8200 8.1
    put16(udp, 6, udpChecksum.value_or(sum));

    Bytes frame = mac_bytes(dst) + mac_bytes(src);
    for (const Tag &tag : tags)
        frame = frame + be16(tag.tpid) + be16(tag.tci);
    const size_t payload = extension.size() + udp.size() + slack.size();
    return frame + be16(etherType) + be32(0x60000000) +
           be16(payloadLen.value_or(static_cast<uint16_t>(payload))) + Bytes{nextHeader, hopLimit} +
           addresses + extension + udp + slack + padding;
}

Frame6 client6(uint8_t type, const Bytes &options) { return Frame6{.type = type, .options = options}; }

Frame6 server6(uint8_t type, const Bytes &options)
{
    return Frame6{.dst = MAC_CLIENT,
                  .src = MAC_SERVER,
                  .hopLimit = 64,
                  .srcIp = ip6("fe80::5eff:fe00:1"),
                  .dstIp = ip6("fe80::c1ff:fe00:1"),
                  .srcPort = 547,
                  .dstPort = 546,
                  .type = type,
                  .options = options};
}

Bytes options_of(const Bytes &frame)
{
    const size_t dhcp = dhcp_offset(frame);
    const size_t end = dhcp - 8 + get16(frame, dhcp - 4);
    return slice(frame, dhcp + BOOTP_FIXED, end - dhcp - BOOTP_FIXED);
}

std::optional<Bytes> option_of(const Bytes &frame, uint8_t code)
{
    const Bytes area = options_of(frame);
    for (size_t at = 0; at < area.size() && area[at] != 255;) {
        if (area[at] == 0) {
            at++;
            continue;
        }
        const size_t length = at + 1 < area.size() ? area[at + 1] : 0;
        if (area[at] == code)
            return slice(area, at + 2, length);
        at += 2 + length;
    }
    return std::nullopt;
}

std::string dissect(const Bytes &frame)
{
    std::string out = "dst " + hex(slice(frame, 0, 6)) + "\nsrc " + hex(slice(frame, 6, 6)) + "\n";
    const size_t ip = ip_offset(frame);
    for (size_t at = 12; at + 6 <= ip; at += 4)
        out += text_of("tag %04x %04x\n", get16(frame, at), get16(frame, at + 2));
    if (ip <= frame.size() && get16(frame, ip - 2) == 0x86DD)
        return out + dissect6(slice(frame, ip, frame.size()));
    const size_t udp = ip + 20 <= frame.size() ? ip + (frame[ip] & 15u) * 4 : frame.size();
    if (udp + 8 > frame.size())
        return out + "not IPv4: " + hex(slice(frame, 12, frame.size())) + "\n";

    const Bytes header = slice(frame, ip, udp - ip);
    out += text_of("ip %02x tos %02x length %u id %04x frag %04x ttl %u protocol %u checksum %s\n", header[0],
                   header[1], get16(header, 2), get16(header, 4), get16(header, 6), header[8], header[9],
                   internet_checksum(header) == 0 ? "good" : text_of("bad %04x", get16(header, 10)).c_str());
    out += "ip from " + dotted(header, 12) + " to " + dotted(header, 16) + "\n";
    if (header.size() > 20)
        out += "ip options " + hex(slice(header, 20, header.size())) + "\n";

    const size_t end = ip + get16(header, 2) < frame.size() ? ip + get16(header, 2) : frame.size();
    const Bytes datagram = slice(frame, udp, end - udp);
    if (datagram.size() < 8)
        return out + "rest " + hex(slice(frame, udp, frame.size())) + "\n";
    const size_t udpLen = get16(datagram, 4);
    std::string sum = "none";
    if (get16(datagram, 6) != 0) {
        const uint16_t remainder = udp_sum(get32(header, 12), get32(header, 16), slice(datagram, 0, udpLen));
        sum = remainder == 0 ? "good" : text_of("bad %04x", get16(datagram, 6));
    }
    out += text_of("udp %u to %u length %zu checksum %s\n", get16(datagram, 0), get16(datagram, 2), udpLen,
                   sum.c_str());
    const Bytes dhcp = slice(datagram, 8, udpLen < 8 ? 0 : udpLen - 8);
    if (dhcp.size() < BOOTP_FIXED) {
        out += "payload " + hex(dhcp) + "\n";
    } else {
        out += text_of("op %u htype %u hlen %u hops %u xid %08x secs %u flags %04x\n", dhcp[0], dhcp[1],
                       dhcp[2], dhcp[3], get32(dhcp, 4), get16(dhcp, 8), get16(dhcp, 10));
        out += "ciaddr " + dotted(dhcp, 12) + " yiaddr " + dotted(dhcp, 16) + " siaddr " + dotted(dhcp, 20) +
               " giaddr " + dotted(dhcp, 24) + "\n";
        out += "chaddr " + hex(slice(dhcp, 28, 16)) + "\n";
        const Bytes names = slice(dhcp, 44, 192);
        if (names != repeated(0, 192))
            out += "sname and file " + hex(names) + "\n";
        out += text_of("cookie %08x\n", get32(dhcp, 236));
        size_t at = BOOTP_FIXED;
        while (at < dhcp.size() && dhcp[at] != 255) {
            const size_t length = dhcp[at] == 0 ? 0 : at + 1 < dhcp.size() ? dhcp[at + 1]
                                                                           : 0;
            if (dhcp[at] == 0)
                out += "pad\n";
            else
                out += text_of("option %u length %zu: ", dhcp[at], length) +
                       hex(slice(dhcp, at + 2, length)) + "\n";
            at += dhcp[at] == 0 ? 1 : 2 + length;
        }
        if (at < dhcp.size())
            out += "end\n";
        if (at + 1 < dhcp.size())
            out += "behind the end " + hex(slice(dhcp, at + 1, dhcp.size())) + "\n";
    }
    const Bytes slack = slice(datagram, udpLen, datagram.size());
    if (!slack.empty())
        out += "behind the datagram " + hex(slack) + "\n";
    if (end < frame.size())
        out += "padding " + hex(slice(frame, end, frame.size())) + "\n";
    return out;
}

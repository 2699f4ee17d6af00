#include "frame.h"

#include <cctype>
#include <cstdlib>
#include <sstream>

#include <arpa/inet.h>

namespace
{

void put16(Bytes &bytes, size_t at, uint32_t value)
{
    bytes.at(at) = static_cast<uint8_t>(value >> 8);
    bytes.at(at + 1) = static_cast<uint8_t>(value);
}

// A UDP datagram (RFC 768) and its checksum over the pseudo-header of RFC 768 or RFC 8200 8.1: addresses, then length and
// protocol in the given order.
Bytes udp_datagram(uint16_t srcPort, uint16_t dstPort, std::optional<uint16_t> length, std::optional<uint16_t> checksum, const Bytes &message, const Bytes &addresses)
{
    Bytes udp = be16(srcPort) + be16(dstPort) + be16(0) + be16(0) + message;
    const auto whole = static_cast<uint32_t>(udp.size());
    put16(udp, 4, length.value_or(static_cast<uint16_t>(whole)));
    const uint16_t sum = internet_checksum(addresses + be32(whole) + be32(17) + udp);
    put16(udp, 6, checksum.value_or(sum != 0 ? sum : 0xFFFF));
    return udp;
}

Bytes ethernet_header(const Mac &dst, const Mac &src, const std::vector<Tag> &tags, uint16_t etherType)
{
    Bytes header = mac_bytes(dst) + mac_bytes(src);
    for (const Tag &tag : tags)
        header = header + be16(tag.tpid) + be16(tag.tci);
    return header + be16(etherType);
}

} // namespace

Bytes be16(uint32_t value) { return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)}; }

Bytes be32(uint32_t value) { return be16(value >> 16) + be16(value & 0xFFFF); }

Bytes text_bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes mac_bytes(const Mac &mac) { return Bytes(mac.begin(), mac.end()); }

Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes hex_bytes(std::string_view text)
{
    Bytes bytes;
    std::string digits(text);
    std::erase_if(digits, [](unsigned char c) { return isspace(c) != 0; });
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::vector<std::string> parts(const std::string &text, char separator)
{
    std::vector<std::string> list;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        list.push_back(part);
    return list;
}

std::string hex(const Bytes &bytes)
{
    std::string text;
    for (const uint8_t byte : bytes)
        text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15], ' '};
    return text.substr(0, text.size() - !text.empty());
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
    Bytes bytes = {op, 1, 6, 0};
    bytes = bytes + be32(xid) + be16(0) + be16(flags);
    bytes = bytes + be32(ciaddr) + be32(yiaddr) + be32(0) + be32(giaddr);
    bytes = bytes + mac_bytes(chaddr) + Bytes(10 + 64 + 128, 0);
    return bytes + be32(0x63825363) + options;
}

Bytes Frame::bytes() const
{
    const Bytes udp = udp_datagram(srcPort, dstPort, udpLen, udpChecksum, message(), be32(srcIp) + be32(dstIp));
    const size_t headerLen = 20 + ipOptions.size();
    Bytes ip = {static_cast<uint8_t>(ipVersion * 16u + headerLen / 4), 0};
    ip = ip + be16(ipTotalLen.value_or(static_cast<uint16_t>(headerLen + udp.size())));
    ip = ip + be32(0) + Bytes{64, protocol} + be16(0) + be32(srcIp) + be32(dstIp) + ipOptions;
    put16(ip, 10, internet_checksum(ip));
    return ethernet_header(dst, src, tags, etherType) + ip + udp + padding;
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

Bytes ia_na(const Bytes &options) { return opt6(3, be32(7) + be32(0) + be32(0) + options); }

Bytes ia_ta(const Bytes &options) { return opt6(4, be32(9) + options); }

Bytes Frame6::bytes() const
{
    const Bytes addresses = Bytes(srcIp.begin(), srcIp.end()) + Bytes(dstIp.begin(), dstIp.end());
    const Bytes body = Bytes{type, static_cast<uint8_t>(xid >> 16)} + be16(xid & 0xFFFF) + options;
    const Bytes udp = udp_datagram(srcPort, dstPort, udpLen, udpChecksum, message.value_or(body), addresses);
    const size_t payload = extension.size() + udp.size() + slack.size();
    const Bytes ip = be32(0x60000000) + be16(payloadLen.value_or(static_cast<uint16_t>(payload))) + Bytes{nextHeader, hopLimit} + addresses;
    return ethernet_header(dst, src, tags, etherType) + ip + extension + udp + slack + padding;
}

Frame6 client6(uint8_t type, const Bytes &options) { return Frame6{.type = type, .options = options}; }

Frame6 server6(uint8_t type, const Bytes &options)
{
    const Ip6 server = ip6("fe80::5eff:fe00:1"), client = ip6("fe80::c1ff:fe00:1");
    Frame6 frame = {.dst = MAC_CLIENT, .src = MAC_SERVER, .hopLimit = 64, .srcIp = server, .dstIp = client};
    frame.srcPort = 547;
    frame.dstPort = 546;
    frame.type = type;
    frame.options = options;
    return frame;
}

std::string dump(const Bytes &frame)
{
    std::string text;
    for (size_t at = 0; at < frame.size(); at++)
        text += (at % 16 != 0 ? " " : (at == 0 ? "" : "\n") + std::to_string(at) + ": ") + hex({frame[at]});
    return text + "\n";
}

#include "ask_frame.h"

#include <algorithm>
#include <cstring>

#include "dhcpsnoop_msg.h"
#include "protocol.h"
#include "wire.h"

namespace platform_linux
{
namespace
{

constexpr uint16_t ETHER_TYPE_ARP = 0x0806, TPID_8021AD = 0x88A8;
constexpr uint32_t ARP_SPA = 14, ARP_LEN = 28;
constexpr uint8_t PROTOCOL_ICMPV6 = 58, NEIGHBOR_SOLICITATION = 135, NEIGHBOR_ADVERTISEMENT = 136;
constexpr uint32_t ICMPV6_TARGET = 8, SOLICITATION_LEN = 32; // with the source link-layer address

class Writer
{
  public:
    explicit Writer(AskFrame &frame) : frame_(frame) {}
    Writer &add(const uint8_t *bytes, size_t count)
    {
        std::copy_n(bytes, count, frame_.bytes.data() + frame_.length);
        frame_.length += count;
        return *this;
    }
    Writer &add8(uint8_t byte) { return add(&byte, 1); }
    Writer &add16(uint16_t word)
    {
        uint8_t bytes[2];
        wire_put16(bytes, word);
        return add(bytes, sizeof bytes);
    }
    Writer &zeros(size_t count)
    {
        frame_.length += count; // as they were
        return *this;
    }

  private:
    AskFrame &frame_;
};

// ICMPv6's checksum covers a pseudo-header (RFC 8200 8.1).
uint16_t icmp6_sum(const uint8_t *ip)
{
    uint8_t summed[32 + 8 + SOLICITATION_LEN] = {};
    std::copy_n(ip + IPV6_SRC, 32, summed);
    wire_put32(summed + 32, SOLICITATION_LEN);
    summed[39] = PROTOCOL_ICMPV6;
    std::copy_n(ip + IPV6_HEADER_LEN, SOLICITATION_LEN, summed + 40);
    return checkdhcpsnoopsum(summed, sizeof summed);
}

} // namespace

AskFrame ask_frame(const AskPort &port, const DhcpsnoopUserKey &address, const HostMac &host)
{
    AskFrame frame = {};
    const bool ipv6 = address.ipType == DHCPSNOOP_IPV6;
    const uint8_t *own = port.mac.data();
    Writer out(frame);
    out.add(host.data(), ETH_ADDR_LEN).add(own, ETH_ADDR_LEN);
    if (port.vid != 0)
        out.add16(port.tpid).add16(port.vid);
    out.add16(ipv6 ? ETHER_TYPE_IPV6 : ETHER_TYPE_ARP);
    if (!ipv6) {
        out.add16(1).add16(ETHER_TYPE_IPV4).add8(ETH_ADDR_LEN).add8(4).add16(1);
        out.add(own, ETH_ADDR_LEN).zeros(4).zeros(ETH_ADDR_LEN).add(address.ipAddr, 4);
        return frame;
    }
    uint8_t *ip = frame.bytes.data() + frame.length;
    out.add8(6 << 4).zeros(3).add16(SOLICITATION_LEN).add8(PROTOCOL_ICMPV6).add8(255);
    // The link-local address of the port's MAC address (RFC 4291 2.5.1).
    out.add16(0xFE80).zeros(6).add8(own[0] ^ 2).add(own + 1, 2).add16(0xFFFE).add(own + 3, 3);
    out.add(address.ipAddr, 16);
    out.add8(NEIGHBOR_SOLICITATION).zeros(7).add(address.ipAddr, 16);
    out.add8(1).add8(1).add(own, ETH_ADDR_LEN);
    wire_put16(ip + IPV6_HEADER_LEN + 2, icmp6_sum(ip));
    return frame;
}

bool is_answer(const uint8_t *frame, size_t length, const DhcpsnoopUserKey &address, const HostMac &host)
{
    const auto holds = [&](size_t at, size_t count) {
        return at + count <= length && memcmp(frame + at, address.ipAddr, count) == 0;
    };
    if (length < ETH_HEADER_LEN || memcmp(frame + ETH_SRC, host.data(), host.size()) != 0)
        return false;
    size_t at = ETH_TYPE;
    while (at + VLAN_TAG_LEN + 2 <= length &&
           (wire_get16(frame + at) == TPID_8021Q || wire_get16(frame + at) == TPID_8021AD))
        at += VLAN_TAG_LEN;
    const uint16_t type = wire_get16(frame + at);
    at += 2;
    if (address.ipType == DHCPSNOOP_IPV4)
        return type == ETHER_TYPE_ARP ? at + ARP_LEN <= length && holds(at + ARP_SPA, 4)
                                      : type == ETHER_TYPE_IPV4 && holds(at + IPV4_SRC, 4);
    if (type != ETHER_TYPE_IPV6 || at + IPV6_HEADER_LEN > length)
        return false;
    const size_t icmp = at + IPV6_HEADER_LEN;
    return holds(at + IPV6_SRC, 16) ||
           (frame[at + IPV6_NEXT_HEADER] == PROTOCOL_ICMPV6 && icmp < length &&
            frame[icmp] == NEIGHBOR_ADVERTISEMENT && holds(icmp + ICMPV6_TARGET, 16));
}

} // namespace platform_linux

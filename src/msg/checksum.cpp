// The Internet checksum (RFC 1071), the UDP checksum over the IPv4 pseudo-header (RFC 768), and the routine
// that makes a frame's lengths and checksums true again after its DHCP message changed.
#include "dhcpsnoop_msg.h"

#include <algorithm>
#include <cstring>

#include "frame_edit.h"
#include "protocol.h"
#include "wire.h"

static constexpr uint32_t SCRATCH_LEN = 2048;
static constexpr uint32_t PSEUDO_HEADER_LEN = 12;

uint16_t checkdhcpsnoopsum(const uint8_t *buffer, int32_t length)
{
    uint32_t sum = 0;
    for (; length >= 2; length -= 2, buffer += 2)
        sum += wire_get16(buffer);
    if (length == 1)
        sum += static_cast<uint32_t>(buffer[0]) << 8;
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum += sum >> 16;
    return static_cast<uint16_t>(~sum);
}

uint16_t dhcpsnoop_udp_sum(const uint8_t *addresses, uint32_t addressesLen, const uint8_t *udpHeader,
                           uint32_t length)
{
    const uint32_t headerLen = addressesLen + 4; // behind the addresses: zero, protocol, length
    if (length + headerLen > SCRATCH_LEN)
        return 0;
    uint8_t scratch[SCRATCH_LEN] = {};
    std::memcpy(scratch, addresses, addressesLen);
    scratch[addressesLen + 1] = IP_PROTO_UDP;
    wire_put16(scratch + addressesLen + 2, length);
    std::memcpy(scratch + headerLen, udpHeader, length);

    // Kept: RFC 768 sends a sum of zero as all ones; here it stays 0. Over IPv4 the datagram reads as one
    // without checksum, over IPv6 (RFC 8200 8.1) the receiver discards it.
    return checkdhcpsnoopsum(scratch, static_cast<int32_t>(length + headerLen));
}

uint16_t dhcpsnoop_get_udp_checksum(const uint8_t *ipHeader, uint8_t *udpHeader)
{
    const uint32_t length = wire_get16(udpHeader + UDP_LENGTH);
    if (length + PSEUDO_HEADER_LEN > SCRATCH_LEN)
        return 0;
    wire_put16(udpHeader + UDP_CHECKSUM, 0);
    return dhcpsnoop_udp_sum(ipHeader + IPV4_SRC, PSEUDO_HEADER_LEN - 4, udpHeader, length);
}

static void lengths_change(DhcpsnoopPktInfo *info, uint32_t delta, bool grow)
{
    uint32_t *const lengths[] = {&info->frameLen, &info->ipBodyLen, &info->udpLen, &info->dhcpLen};
    for (const uint32_t *length : lengths) {
        if (!grow && *length < delta)
            return;
    }
    for (uint32_t *length : lengths)
        *length = grow ? *length + delta : *length - delta;
}

uint16_t dhcpsnoop_update_checksum(DhcpsnoopPktInfo *info, uint32_t delta, uint32_t grow)
{
    if (info == nullptr || !frame_holds(info, info->ipHdr, IPV4_HEADER_MIN) ||
        !frame_holds(info, info->udpHdr, UDP_HEADER_LEN))
        return 0;
    lengths_change(info, delta, grow == 1);
    wire_put16(info->ipTotLen, info->ipHdrLen + info->ipBodyLen);
    wire_put16(info->udpLenField, info->udpLen);

    uint8_t ipHeader[IPV4_HEADER_MAX] = {};
    const uint32_t ipHeaderLen = std::min(info->ipHdrLen, IPV4_HEADER_MAX);
    std::memcpy(ipHeader, info->ipHdr,
                frame_holds(info, info->ipHdr, ipHeaderLen) ? ipHeaderLen : IPV4_HEADER_MIN);
    wire_put16(ipHeader + IPV4_CHECKSUM, 0);
    wire_put16(info->ipHdr + IPV4_CHECKSUM, checkdhcpsnoopsum(ipHeader, (ipHeader[0] & 0x0F) * 4));

    // The sum is taken over a copy, so that the frame keeps its old one until the new one is known.
    uint16_t checksum = 0;
    if (info->udpLen <= SCRATCH_LEN && frame_holds(info, info->udpHdr, info->udpLen)) {
        uint8_t datagram[SCRATCH_LEN] = {};
        std::memcpy(datagram, info->udpHdr, info->udpLen);
        checksum = dhcpsnoop_get_udp_checksum(ipHeader, datagram);
    }
    wire_put16(info->udpHdr + UDP_CHECKSUM, checksum);
    return checksum;
}

// RFC 2131 2, RFC 2132. Checksums are summed anew for each frame.
#include "messages.h"

#include <cstring>

#include "protocol.h"
#include "wire.h"

static constexpr size_t IP = ETH_HEADER_LEN, UDP = IP + IPV4_HEADER_MIN, DHCP = UDP + UDP_HEADER_LEN;
static constexpr size_t XID = DHCP + 4;
static constexpr uint32_t SERVER_ADDRESS = 0x0A020002, CLIENTS = 0x0A400000, LEASE = 86'400;
static constexpr uint32_t ALL_ONES = 0xFFFFFFFF;

static uint32_t sum_words(const uint8_t *bytes, size_t count, uint32_t sum)
{
    for (size_t i = 0; i < count; i += 2)
        sum += wire_get16(bytes + i);
    return sum;
}

static uint16_t folded(uint32_t sum)
{
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

static uint8_t *put_option(uint8_t *at, uint8_t code, uint32_t value)
{
    at[0] = code;
    at[1] = 4;
    wire_put32(at + 2, value);
    return at + 6;
}

static void write_headers(uint8_t *frame, bool reply, const Exchange &exchange)
{
    const bool relayed = reply && exchange.giaddr != 0;
    wire_put16(frame + ETH_TYPE, ETHER_TYPE_IPV4);
    frame[IP] = 0x45;
    wire_put16(frame + IP + IPV4_TOTAL_LEN, FRAME_LENGTH - IP);
    frame[IP + 8] = 64;
    frame[IP + IPV4_PROTOCOL] = IP_PROTO_UDP;
    wire_put32(frame + IP + IPV4_SRC, reply ? SERVER_ADDRESS : 0);
    wire_put32(frame + IP + IPV4_DST, relayed ? exchange.giaddr : ALL_ONES);
    wire_put16(frame + IP + IPV4_CHECKSUM, folded(sum_words(frame + IP, IPV4_HEADER_MIN, 0)));
    wire_put16(frame + UDP + UDP_SRC_PORT, reply ? DHCP_SERVER_PORT : DHCP_CLIENT_PORT);
    wire_put16(frame + UDP + UDP_DST_PORT, reply && !relayed ? DHCP_CLIENT_PORT : DHCP_SERVER_PORT);
    wire_put16(frame + UDP + UDP_LENGTH, UDP_HEADER_LEN + DHCP_LENGTH);
}

void write_message(uint8_t *frame, Message message, uint32_t xid, const Exchange &exchange)
{
    const bool reply = message == Message::offer || message == Message::ack;
    const uint32_t address = CLIENTS + 1 + exchange.client;
    uint8_t mac[ETH_ADDR_LEN] = {0x02, 0xC1};
    wire_put32(mac + 2, exchange.client);

    memset(frame, 0, FRAME_LENGTH);
    if (reply && exchange.relayMac != nullptr)
        memcpy(frame + ETH_DST, exchange.relayMac, ETH_ADDR_LEN);
    else
        memset(frame + ETH_DST, 0xFF, ETH_ADDR_LEN);
    memcpy(frame + ETH_SRC, reply ? exchange.serverMac : mac, ETH_ADDR_LEN);
    write_headers(frame, reply, exchange);

    uint8_t *const dhcp = frame + DHCP;
    dhcp[DHCP_OP] = reply ? BOOTREPLY : BOOTREQUEST;
    dhcp[1] = 1; // Ethernet
    dhcp[2] = ETH_ADDR_LEN;
    wire_put32(frame + XID, xid);
    if (reply) {
        wire_put32(dhcp + DHCP_YIADDR, address);
        wire_put32(dhcp + DHCP_GIADDR, exchange.giaddr);
    }
    memcpy(dhcp + DHCP_CHADDR, mac, ETH_ADDR_LEN);
    wire_put32(dhcp + DHCP_MAGIC, 0x63825363);
    uint8_t *at = dhcp + DHCP_OPTIONS;
    at[0] = DHCP_OPT_MESSAGE_TYPE;
    at[1] = 1;
    at[2] = static_cast<uint8_t>(message);
    at += 3;
    if (message == Message::request)
        at = put_option(at, DHCP_OPT_REQUESTED_IP, address);
    if (message != Message::discover)
        at = put_option(at, DHCP_OPT_SERVER_ID, SERVER_ADDRESS);
    if (reply)
        at = put_option(put_option(at, DHCP_OPT_LEASE_TIME, LEASE), DHCP_OPT_ROUTER, SERVER_ADDRESS);
    at[0] = DHCP_OPT_END;

    const uint32_t pseudo = sum_words(frame + IP + IPV4_SRC, 8, IP_PROTO_UDP + UDP_HEADER_LEN + DHCP_LENGTH);
    const uint16_t sum = folded(sum_words(frame + UDP, UDP_HEADER_LEN + DHCP_LENGTH, pseudo));
    wire_put16(frame + UDP + UDP_CHECKSUM, sum != 0 ? sum : 0xFFFF);
}

bool read_xid(std::span<const uint8_t> frame, uint32_t *xid)
{
    if (frame.size() < DHCP + DHCP_MESSAGE_MIN || wire_get16(frame.data() + ETH_TYPE) != ETHER_TYPE_IPV4 ||
        frame[IP] != 0x45 || frame[IP + IPV4_PROTOCOL] != IP_PROTO_UDP ||
        wire_get32(frame.data() + DHCP + DHCP_MAGIC) != 0x63825363)
        return false;
    *xid = wire_get32(frame.data() + XID);
    return true;
}

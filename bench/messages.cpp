// RFC 2131 2, RFC 2132, RFC 8415. Checksums are summed anew for each frame.
#include "messages.h"

#include <cstring>

#include "protocol.h"
#include "wire.h"

static constexpr size_t IP = ETH_HEADER_LEN, UDP = IP + IPV4_HEADER_MIN, DHCP = UDP + UDP_HEADER_LEN;
static constexpr size_t XID = DHCP + 4, SIADDR = DHCP + 20;
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

void write_message(uint8_t *frame, Message message, uint32_t number, const Exchange &exchange)
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
    wire_put32(frame + XID, exchange.client + 1);
    wire_put32(frame + SIADDR, number);
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

bool read_number(std::span<const uint8_t> frame, uint32_t *number)
{
    if (frame.size() < DHCP + DHCP_MESSAGE_MIN || wire_get16(frame.data() + ETH_TYPE) != ETHER_TYPE_IPV4 ||
        frame[IP] != 0x45 || frame[IP + IPV4_PROTOCOL] != IP_PROTO_UDP ||
        wire_get32(frame.data() + DHCP + DHCP_MAGIC) != 0x63825363)
        return false;
    *number = wire_get32(frame.data() + SIADDR);
    return true;
}

static constexpr size_t UDP6 = IP + IPV6_HEADER_LEN, DHCP6 = UDP6 + UDP_HEADER_LEN;
static constexpr size_t IA = DHCP6 + DHCP6_OPTIONS, IAID = IA + DHCP6_OPT_HEADER_LEN;
static constexpr size_t IA_ADDRESS = IA + DHCP6_OPT_HEADER_LEN + 12;
static constexpr uint16_t PAYLOAD6 = FRAME_LENGTH - UDP6, USER_CLASS = 15;

static uint8_t *put_header6(uint8_t *at, uint16_t code, size_t length)
{
    wire_put16(at, code);
    wire_put16(at + DHCP6_OPT_LEN, static_cast<uint32_t>(length));
    return at + DHCP6_OPT_HEADER_LEN;
}

static void put_address(uint8_t *at, uint32_t prefix, uint32_t host)
{
    wire_put32(at, prefix);
    wire_put32(at + 12, host);
}

void write_message6(uint8_t *frame, Message message, uint32_t number, const Exchange &exchange)
{
    constexpr uint32_t LINK_LOCAL = 0xFE800000, GLOBAL = 0x20010DB8, SERVER = 1;
    const bool reply = message == Message::offer || message == Message::ack;
    const bool asks = message == Message::discover;
    uint8_t mac[ETH_ADDR_LEN] = {0x02, 0xC1};
    wire_put32(mac + 2, exchange.client);

    memset(frame, 0, FRAME_LENGTH);
    memcpy(frame + ETH_DST, reply ? mac : reinterpret_cast<const uint8_t *>("\x33\x33\0\1\0\2"),
           ETH_ADDR_LEN);
    memcpy(frame + ETH_SRC, reply ? exchange.serverMac : mac, ETH_ADDR_LEN);
    wire_put16(frame + ETH_TYPE, ETHER_TYPE_IPV6);
    frame[IP] = 0x60;
    wire_put16(frame + IP + IPV6_PAYLOAD_LEN, PAYLOAD6);
    frame[IP + IPV6_NEXT_HEADER] = IP_PROTO_UDP;
    frame[IP + IPV6_NEXT_HEADER + 1] = reply ? 64 : 1;
    put_address(frame + IP + IPV6_SRC, LINK_LOCAL, reply ? SERVER : CLIENTS + exchange.client);
    if (reply)
        put_address(frame + IP + IPV6_DST, LINK_LOCAL, CLIENTS + exchange.client);
    else
        put_address(frame + IP + IPV6_DST, 0xFF020000, 0x00010002);
    wire_put16(frame + UDP6 + UDP_SRC_PORT, reply ? DHCP6_SERVER_PORT : DHCP6_CLIENT_PORT);
    wire_put16(frame + UDP6 + UDP_DST_PORT, reply ? DHCP6_CLIENT_PORT : DHCP6_SERVER_PORT);
    wire_put16(frame + UDP6 + UDP_LENGTH, PAYLOAD6);

    const uint8_t types[] = {0, DHCP6_SOLICIT, DHCP6_ADVERTISE, DHCP6_REQUEST, 0, DHCP6_REPLY};
    wire_put32(frame + DHCP6, exchange.client + 1); // of 24 bits
    frame[DHCP6] = types[static_cast<size_t>(message)];
    put_header6(frame + IA, DHCP6_OPT_IA_NA, asks ? 12 : 12 + DHCP6_OPT_HEADER_LEN + 24);
    wire_put32(frame + IAID, number);
    uint8_t *at = frame + IA_ADDRESS;
    if (!asks) {
        at = put_header6(at, DHCP6_OPT_IAADDR, 24);
        put_address(at, GLOBAL, CLIENTS + exchange.client);
        wire_put32(at + 16, LEASE);
        wire_put32(at + 20, LEASE);
        at += 24;
    }
    put_header6(at, USER_CLASS, static_cast<size_t>(frame + FRAME_LENGTH - at) - DHCP6_OPT_HEADER_LEN);

    const uint32_t pseudo = sum_words(frame + IP + IPV6_SRC, 32, IP_PROTO_UDP + PAYLOAD6);
    const uint16_t sum = folded(sum_words(frame + UDP6, PAYLOAD6, pseudo));
    wire_put16(frame + UDP6 + UDP_CHECKSUM, sum != 0 ? sum : 0xFFFF);
}

bool read_number6(std::span<const uint8_t> frame, uint32_t *number)
{
    if (frame.size() < FRAME_LENGTH || wire_get16(frame.data() + ETH_TYPE) != ETHER_TYPE_IPV6 ||
        frame[IP + IPV6_NEXT_HEADER] != IP_PROTO_UDP || wire_get16(frame.data() + IA) != DHCP6_OPT_IA_NA)
        return false;
    *number = wire_get32(frame.data() + IAID);
    return true;
}

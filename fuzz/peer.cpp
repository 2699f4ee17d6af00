// Records of bindings and servers, mostly of addresses and interfaces that the daemon has; every length may
// lie, and the last record may be cut.
#include "peer.h"

#include <algorithm>

#include "event_message.h"
#include "pools.h"
#include "world.h"

namespace
{

constexpr uint8_t RECORD_SERVER = 2;

Bytes server_take(Input &input, uint8_t add)
{
    const uint32_t address = input.pick(POOL_ADDRESSES), port = input.pick(POOL_INTERFACES);
    const Bytes body = host32(address) + host32(port) + host16(input.pick(POOL_VIDS)) + host16(0);
    return Bytes{RECORD_SERVER, add} + host16(input.length(body.size())) + body;
}

Bytes user_take(Input &input, uint8_t type, uint8_t add, uint8_t what)
{
    const uint32_t address = input.pick(POOL_ADDRESSES);
    const uint8_t ipType = (what & 0x80) != 0 ? 2 : (what & 0x40) != 0 ? input.u8() : 1;
    const uint16_t vid = input.pick(POOL_VIDS);
    const Mac mac = input.pick(POOL_MACS);
    Bytes body = Bytes{ipType, 0, 0, 0} + be32(address) + ((what & 0x20) != 0 ? input.bytes(12) : Bytes{});
    body.resize(20);
    const uint32_t port = input.pick(POOL_INTERFACES), lease = input.u16();
    body = body + host16(vid) + host16(vid) + host32(port) + host32(lease) +
           host32(static_cast<uint32_t>(world.now)) + input.bytes(4);
    body.resize(40);
    body = body + host16(7) + mac_bytes(mac) + host32(1) + host32(2);
    return Bytes{type, add} + host16(input.length(body.size())) + body;
}

} // namespace

Bytes packet_take(Input &input)
{
    constexpr std::array<uint8_t, 6> TYPES = {1, 1, 1, RECORD_SERVER, RECORD_SERVER, 0};
    Bytes packet;
    for (int count = 1 + input.u8() % 24; count > 0; count--) {
        const uint8_t type = input.pick(TYPES), what = input.u8();
        const uint8_t add = (what & 3) != 3 ? what & 1 : what;
        packet =
            packet + (type == RECORD_SERVER ? server_take(input, add) : user_take(input, type, add, what));
    }
    packet.resize(packet.size() - std::min<size_t>(packet.size(), input.u8() % 64));
    return packet;
}

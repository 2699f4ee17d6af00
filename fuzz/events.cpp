// Messages of the types that the daemon follows, about interfaces that it has; every length may lie.
#include "events.h"

#include "event_message.h"
#include "pools.h"

namespace
{

constexpr uint16_t NEWLINK = 16, DELLINK = 17, DAI_START = 123, USERS_UPDATE = 190, IPSG_CHANGE = 198,
                   DAI_CHANGE = 199;

void align4(Bytes *bytes) { bytes->resize((bytes->size() + 3) / 4 * 4); }

Bytes attribute_take(Input &input)
{
    constexpr std::array<uint16_t, 5> TYPES = {38, 49, 52, 53, 3};
    const uint16_t type = input.pick(TYPES);
    Bytes value = host32(input.pick(POOL_INTERFACES));
    value.resize((value.size() + input.u8()) % 13);
    const auto length = static_cast<uint16_t>(input.length(4 + value.size()));
    Bytes attribute = link_attribute(type, value, length);
    align4(&attribute);
    return attribute;
}

Bytes payload_take(Input &input, uint16_t type)
{
    switch (type) {
    case NEWLINK:
    case DELLINK: {
        Bytes payload = Bytes(4, 0) + host32(input.pick(POOL_INTERFACES)) + Bytes(8, 0);
        for (int count = input.u8() % 8; count > 0; count--)
            payload = payload + attribute_take(input);
        return payload;
    }
    case USERS_UPDATE:
        return host32(input.pick(POOL_VIDS));
    case DAI_START:
    case IPSG_CHANGE:
    case DAI_CHANGE: {
        const uint32_t interface = input.pick(POOL_INTERFACES);
        return host32(interface) + Bytes{input.u8()};
    }
    default:
        return input.bytes(input.u8() % 8);
    }
}

} // namespace

Bytes events_take(Input &input)
{
    Bytes datagram;
    for (int count = 1 + input.u8() % 6; count > 0; count--) {
        const uint8_t kind = input.u8();
        const uint16_t type = kind == 0xFF ? input.u16() : EVENT_TYPES[kind % EVENT_TYPES.size()];
        const uint8_t card = input.u8() % 4;
        Bytes payload = payload_take(input, type);
        const uint8_t cut = input.u8();
        if (cut >= 0xF0)
            payload.resize(payload.size() > cut - 0xF0u ? payload.size() - (cut - 0xF0u) : 0);
        const uint32_t length = input.length(16 + payload.size());
        datagram =
            datagram + host32(length) + host16(type) + host16(0) + host32(card) + host32(kind) + payload;
        if (count > 1)
            align4(&datagram);
    }
    return datagram;
}

// Two kinds of requests: made of small choices in the form that their function wants, and as they are.
#include "requests.h"

#include "frame.h"
#include "management.h"
#include "pools.h"
#include "request.h"

namespace
{

// The index items as the function wants them.
void index_take(Input &input, uint32_t func, Request *request)
{
    if (func <= FUNC_GLOBAL_GET) {
        request->number(0).count(0);
    } else if (func >= FUNC_USER_FIRST && func <= FUNC_USER_GET) {
        const uint8_t which = input.u8();
        Bytes address = be32(POOL_ADDRESSES[which % POOL_ADDRESSES.size()]);
        if ((which & 0x40) != 0)
            address = address + input.bytes(12);
        request->key((which & 0x80) != 0 ? 2 : 1, address);
        if (which == 0xFF)
            request->bytes[29] = input.u8(); // an address type of no kind
    } else if (func >= FUNC_VLAN_FIRST && func <= FUNC_VLAN_GET) {
        request->number(input.pick(POOL_VIDS));
    } else {
        request->number(input.pick(POOL_INTERFACES));
        if (func >= FUNC_SERVER_IP_FIRST)
            request->number(input.pick(POOL_ADDRESSES));
    }
}

// A request of the right form for its function.
Bytes request_made(Input &input)
{
    constexpr std::array<uint8_t, 8> TYPES = {DATA_WORD,  DATA_BYTES, DATA_WORD, DATA_WORD_PAIR,
                                              DATA_BYTES, 1,          3,         255};
    const uint8_t func = input.u8();
    Request request(func, input.u8());
    index_take(input, func % FUNC_COUNT, &request);

    const uint8_t type = input.pick(TYPES);
    switch (type) {
    case DATA_WORD: {
        const uint8_t value = input.u8();
        request.word(value == 0xFF ? input.u32() : value);
        break;
    }
    case DATA_WORD_PAIR:
        request.data(type, input.bytes(8));
        break;
    default:
        request.data(type, input.bytes(input.u8()));
        break;
    }

    const uint8_t extra = input.u8();
    if ((extra & 0x80) != 0 && request.bytes.size() > extra % 0x80u)
        request.bytes.resize(request.bytes.size() - extra % 0x80u); // cut short
    else
        request.bytes.resize(request.bytes.size() + extra);
    return std::move(request.bytes);
}

} // namespace

Bytes request_take(Input &input)
{
    if (input.u8() % 2 == 0)
        return request_made(input);
    return input.bytes(input.u16() % (DHCPSNOOP_REQUEST_MAX + 1));
}

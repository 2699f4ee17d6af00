#include "request.h"

#include "dhcpsnoop_cmd.h"

namespace
{

void put(Bytes &bytes, const Bytes &more) { bytes.insert(bytes.end(), more.begin(), more.end()); }

} // namespace

Bytes Request::big_endian(const std::vector<uint32_t> &words)
{
    Bytes bytes;
    for (const uint32_t word : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<uint8_t>(word >> shift));
    return bytes;
}

Request::Request(uint32_t func, uint32_t cmd)
{
    for (const uint32_t word : {func, 0xAAAAAAAAu, cmd}) {
        put(bytes, {0, 2, 0, 4});
        put(bytes, big_endian({word}));
    }
    put(bytes, {1, 0});
}

Request &Request::count(uint8_t items)
{
    bytes[25] = items;
    return *this;
}

Request &Request::number(uint32_t value)
{
    put(bytes, {2, 0, 4});
    put(bytes, big_endian({value}));
    bytes[25]++;
    return *this;
}

Request &Request::key(uint8_t ipType, Bytes address)
{
    address.resize(16);
    put(bytes, {0, 0, 1, ipType, 0, 0, 3, 0, 0, 0, 0, 0, 16});
    put(bytes, address);
    return count(3);
}

Request &Request::data(uint8_t type, const Bytes &value)
{
    dataAt = bytes.size();
    put(bytes, {3, type, static_cast<uint8_t>(value.size() >> 8), static_cast<uint8_t>(value.size())});
    put(bytes, value);
    return *this;
}

uint32_t Reply::result() const
{
    return uint32_t{bytes[12]} << 24 | uint32_t{bytes[13]} << 16 | uint32_t{bytes[14]} << 8 | bytes[15];
}

std::string Reply::tail(size_t from) const { return world_hex(bytes.data() + from, bytes.size() - from); }

Reply ask(const Bytes &request)
{
    Reply reply;
    reply.bytes.reserve(request.size());
    reply.bytes = request;
    reply.length = dhcpsnoop_cmd_process(reply.bytes.data(), static_cast<uint32_t>(request.size()));
    return reply;
}

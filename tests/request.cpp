#include "request.h"

Request::Request(uint32_t func, uint32_t cmd)
{
    for (const uint32_t word : {func, 0xAAAAAAAAu, cmd})
        bytes = bytes + Bytes{0, 2, 0, 4} + be32(word);
    bytes = bytes + Bytes{1, 0};
}

Request &Request::count(uint8_t items)
{
    bytes[25] = items;
    return *this;
}

Request &Request::number(uint32_t value)
{
    bytes = bytes + Bytes{2, 0, 4} + be32(value);
    bytes[25]++;
    return *this;
}

Request &Request::key(uint8_t ipType, Bytes address)
{
    address.resize(16);
    bytes = bytes + Bytes{0, 0, 1, ipType, 0, 0, 3, 0, 0, 0, 0, 0, 16} + address;
    return count(3);
}

Request &Request::data(uint8_t type, const Bytes &value)
{
    bytes = bytes + Bytes{3, type} + be16(static_cast<uint32_t>(value.size())) + value;
    return *this;
}

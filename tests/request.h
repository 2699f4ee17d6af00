// Management requests built byte by byte, and replies taken apart, without the daemon's codec.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "world.h"

struct Request {
    Request(uint32_t func, uint32_t cmd);

    Request &number(uint32_t value);             // an index item of one word
    Request &key(uint8_t ipType, Bytes address); // the three items of a user key
    Request &data(uint8_t type, const Bytes &value);
    Request &word(uint32_t value) { return data(2, big_endian({value})); }
    Request &room(size_t count) { return data(0, Bytes(count, 0xEE)); }
    Request &count(uint8_t items); // says that there are so many index items

    std::string tail() const
    {
        return world_hex(bytes.data() + dataAt, bytes.size() - dataAt);
    } // the data item

    static Bytes big_endian(const std::vector<uint32_t> &words);

    Bytes bytes;
    size_t dataAt = 0; // where the data item begins
};

// What came back. The request stood in memory of exactly its length, so that a sanitizer sees one byte too
// many.
struct Reply {
    uint32_t length;
    Bytes bytes; // as long as the request
    uint32_t result() const;
    std::string tail(size_t from) const; // in hexadecimal, from there to the end
};

Reply ask(const Bytes &request);
inline Reply ask(const Request &request) { return ask(request.bytes); }

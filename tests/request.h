// Management requests built byte by byte, without the daemon's codec.
#pragma once

#include "frame.h"

struct Request {
    Request(uint32_t func, uint32_t cmd);

    Request &number(uint32_t value);             // an index item of one word
    Request &key(uint8_t ipType, Bytes address); // the three items of a user key
    Request &data(uint8_t type, const Bytes &value);
    Request &word(uint32_t value) { return data(2, be32(value)); }
    Request &count(uint8_t items); // says that there are so many index items

    Bytes bytes;
};

// The management codec: one request or reply is a flat byte string whose integers are big-endian.
//
//   0  8  func word: marker, type, 16-bit length 4, 32-bit value at 4
//   8  8  ret code word, the same form, value (the result of a reply) at 12
//  16  8  command word, the same form, value at 20
//  24  1  index header, 1
//  25  1  number of index items
//  26     index items: type (2 word, 0 bytes), 16-bit length, value
//         data header 3, data type, 16-bit length, value
//
// No operation reads or writes outside `size`: it sets `overrun`, reads give 0, writes do nothing.
#pragma once

#include <cstdint>

constexpr uint32_t ADR_RESULT_POSITION = 12, ADR_INDEX_POSITION = 24;
constexpr int32_t ADR_WORD_HEADER = 0x00020004; // marker 0, type word, length 4
constexpr uint8_t ADR_INDEX_HEADER = 1, ADR_DATA_HEADER = 3;
constexpr uint32_t ADR_INDEX_ITEM_HEADER_LEN = 3, ADR_DATA_ITEM_HEADER_LEN = 4;

extern "C" {

struct AdrMsg {
    uint8_t *base;
    uint32_t size, pos;
    bool overrun; // something lay outside the message
};

int32_t adr_start(AdrMsg *msg, uint8_t *buffer, uint32_t size); // non-zero: too short to be a message
int32_t adr_decodefunc(AdrMsg *msg, uint32_t *func); // the three words, in this order; non-zero: not there
int32_t adr_decoderetcode(AdrMsg *msg, uint32_t *retCode);
int32_t adr_decodecmd(AdrMsg *msg, uint32_t *cmd);
// Copies `count` bytes to `destination` (which may be where they stand) and gives their address in the
// message; null when they are not all there.
uint8_t *adr_getchar(AdrMsg *msg, uint8_t *destination, uint32_t count);
uint16_t adr_getushort(AdrMsg *msg);
int32_t adr_getint32(AdrMsg *msg);
uint32_t adr_getuint32(AdrMsg *msg);
void adr_offset(AdrMsg *msg, uint32_t count); // skips
uint32_t adr_count(const AdrMsg *msg);        // position
void adr_pos(AdrMsg *msg, uint32_t position);
void adr_int32(AdrMsg *msg, int32_t value);
// Writes a data item: header 3, type, length, value. Words of type 2 and 4 are taken in host order. `value`
// may stand in the message itself. 0, or non-zero with nothing written when it does not fit.
int32_t adr_encodedata(AdrMsg *msg, uint32_t type, uint32_t length, const void *value);
// Takes a data item of `type`: its value, `length` bytes in the message. Null when there is none, or when the
// message ends before `length`.
const uint8_t *adr_decodedata(AdrMsg *msg, uint8_t type, uint32_t *length);
}

// The management codec: reads and writes the items of one flat message in place. `pos` never passes `size`. A
// read that does not fit takes the position to the end, so that every read after it gives 0 as well; a write
// that does not fit leaves everything as it was.
#include "adr.h"

#include <cstring>

#include "management.h"
#include "wire.h"

static uint32_t room(const AdrMsg *msg) { return msg->size - msg->pos; }

// The next `count` bytes, taken; null when they are not all there.
static uint8_t *take(AdrMsg *msg, uint32_t count)
{
    if (count > room(msg)) {
        msg->overrun = true;
        msg->pos = msg->size;
        return nullptr;
    }
    uint8_t *at = msg->base + msg->pos;
    msg->pos += count;
    return at;
}

static int32_t decode_word(AdrMsg *msg, uint32_t *value)
{
    const uint8_t *word = take(msg, 8);
    if (word == nullptr || wire_get32(word) != ADR_WORD_HEADER)
        return -1;
    *value = wire_get32(word + 4);
    return 0;
}

int32_t adr_start(AdrMsg *msg, uint8_t *buffer, uint32_t size)
{
    *msg = {buffer, size, 0, false};
    return size < DHCPSNOOP_REQUEST_MIN ? -1 : 0;
}

int32_t adr_decodefunc(AdrMsg *msg, uint32_t *func) { return decode_word(msg, func); }

int32_t adr_decoderetcode(AdrMsg *msg, uint32_t *retCode) { return decode_word(msg, retCode); }

int32_t adr_decodecmd(AdrMsg *msg, uint32_t *cmd) { return decode_word(msg, cmd); }

uint8_t *adr_getchar(AdrMsg *msg, uint8_t *destination, uint32_t count)
{
    uint8_t *at = take(msg, count);
    if (at != nullptr)
        std::memmove(destination, at, count);
    return at;
}

uint16_t adr_getushort(AdrMsg *msg)
{
    const uint8_t *at = take(msg, 2);
    return at != nullptr ? wire_get16(at) : uint16_t{0};
}

int32_t adr_getint32(AdrMsg *msg) { return static_cast<int32_t>(adr_getuint32(msg)); }

uint32_t adr_getuint32(AdrMsg *msg)
{
    const uint8_t *at = take(msg, 4);
    return at != nullptr ? wire_get32(at) : 0;
}

void adr_offset(AdrMsg *msg, uint32_t count) { take(msg, count); }

uint32_t adr_count(const AdrMsg *msg) { return msg->pos; }

void adr_pos(AdrMsg *msg, uint32_t position)
{
    if (position > msg->size)
        msg->overrun = true;
    else
        msg->pos = position;
}

void adr_int32(AdrMsg *msg, int32_t value)
{
    if (room(msg) < 4) {
        msg->overrun = true;
        return;
    }
    wire_put32(msg->base + msg->pos, static_cast<uint32_t>(value));
    msg->pos += 4;
}

int32_t adr_encodedata(AdrMsg *msg, uint32_t type, uint32_t length, const void *value)
{
    const bool known =
        type == DATA_BYTES || (type == DATA_WORD && length == 4) || (type == DATA_WORD_PAIR && length == 8);
    if (!known || length > UINT16_MAX)
        return -1;
    if (room(msg) < ADR_DATA_ITEM_HEADER_LEN || room(msg) - ADR_DATA_ITEM_HEADER_LEN < length) {
        msg->overrun = true;
        return -1;
    }

    // The value first: it may stand where the header is about to be.
    uint8_t *item = msg->base + msg->pos;
    if (type == DATA_BYTES) {
        if (length != 0)
            std::memmove(item + ADR_DATA_ITEM_HEADER_LEN, value, length);
    } else {
        uint32_t words[2];
        std::memcpy(words, value, length);
        for (uint32_t i = 0; i < length / 4; i++)
            wire_put32(item + ADR_DATA_ITEM_HEADER_LEN + 4 * i, words[i]);
    }
    item[0] = ADR_DATA_HEADER;
    item[1] = static_cast<uint8_t>(type);
    wire_put16(item + 2, length);
    msg->pos += ADR_DATA_ITEM_HEADER_LEN + length;
    return 0;
}

const uint8_t *adr_decodedata(AdrMsg *msg, uint8_t type, uint32_t *length)
{
    const uint8_t *header = take(msg, ADR_DATA_ITEM_HEADER_LEN);
    if (header == nullptr || header[0] != ADR_DATA_HEADER || header[1] != type)
        return nullptr;
    *length = wire_get16(header + 2);
    return take(msg, *length);
}

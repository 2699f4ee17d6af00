// The management codec: reads and writes the items of one flat message in place. `pos` never passes `size`. A
// read that does not fit takes the position to the end, so that every read after it gives 0 as well; a write
// that does not fit leaves everything as it was.
#include "adr.h"

#include <cstring>

#include "wire.h"

static constexpr uint32_t MESSAGE_MIN = 26; // three words, index header, number of index items

static constexpr uint8_t WORD_MARKER = 0, DATA_HEADER = 3;
static constexpr uint32_t TYPE_BYTES = 0, TYPE_WORD = 2, TYPE_WORD_PAIR = 4;
static constexpr uint32_t ITEM_HEADER_LEN = 4; // marker, type, 16-bit length

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
    static constexpr uint8_t header[ITEM_HEADER_LEN] = {WORD_MARKER, TYPE_WORD, 0, 4};
    const uint8_t *word = take(msg, ITEM_HEADER_LEN + 4);
    if (word == nullptr || std::memcmp(word, header, sizeof header) != 0)
        return -1;
    *value = wire_get32(word + ITEM_HEADER_LEN);
    return 0;
}

int32_t adr_start(AdrMsg *msg, uint8_t *buffer, uint32_t size)
{
    *msg = {buffer, size, 0, false};
    return size < MESSAGE_MIN ? -1 : 0;
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
        type == TYPE_BYTES || (type == TYPE_WORD && length == 4) || (type == TYPE_WORD_PAIR && length == 8);
    if (!known || length > UINT16_MAX)
        return -1;
    if (room(msg) < ITEM_HEADER_LEN || room(msg) - ITEM_HEADER_LEN < length) {
        msg->overrun = true;
        return -1;
    }

    // The value first: it may stand where the header is about to be.
    uint8_t *item = msg->base + msg->pos;
    if (type == TYPE_BYTES) {
        if (length != 0)
            std::memmove(item + ITEM_HEADER_LEN, value, length);
    } else {
        uint32_t words[2];
        std::memcpy(words, value, length);
        for (uint32_t i = 0; i < length / 4; i++)
            wire_put32(item + ITEM_HEADER_LEN + 4 * i, words[i]);
    }
    item[0] = DATA_HEADER;
    item[1] = static_cast<uint8_t>(type);
    wire_put16(item + 2, length);
    msg->pos += ITEM_HEADER_LEN + length;
    return 0;
}

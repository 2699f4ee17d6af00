#include "adr_request.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <span>

#include "wire.h"

static void put_index_item(AdrBytes &out, uint8_t type, std::span<const uint8_t> value)
{
    out.insert(out.end(), {type, 0, static_cast<uint8_t>(value.size())}); // at most 16
    out.insert(out.end(), value.begin(), value.end());
}

static void put_index_word(AdrBytes &out, uint32_t word)
{
    uint8_t bytes[4];
    wire_put32(bytes, word);
    put_index_item(out, DATA_WORD, bytes);
}

// The number of index items and the items.
static AdrBytes index_bytes(const AdrIndex &index)
{
    // Kept: a global request counts no index item and yet carries one, which the daemon reads and ignores.
    AdrBytes out = {0};
    if (const auto *user = std::get_if<AdrUserKey>(&index)) {
        out[0] = 3;
        put_index_item(out, DATA_BYTES, {&user->ipType, 1});
        put_index_item(out, DATA_BYTES, std::array<uint8_t, 3>{});
        put_index_item(out, DATA_BYTES, user->ipAddr);
    } else if (const auto *server = std::get_if<AdrServerKey>(&index)) {
        out[0] = 2;
        put_index_word(out, server->ifIndex);
        put_index_word(out, server->address);
    } else {
        const auto *word = std::get_if<uint32_t>(&index);
        out[0] = word != nullptr ? 1 : 0;
        put_index_word(out, word != nullptr ? *word : 0);
    }
    return out;
}

AdrBytes adr_request_encode(const AdrRequest &request)
{
    AdrBytes body(DHCPSNOOP_REQUEST_MAX);
    AdrMsg msg;
    adr_start(&msg, body.data(), DHCPSNOOP_REQUEST_MAX);
    for (const uint32_t word : {uint32_t{request.func}, uint32_t{0}, request.cmd}) {
        adr_int32(&msg, ADR_WORD_HEADER);
        adr_int32(&msg, static_cast<int32_t>(word));
    }
    const AdrBytes index = index_bytes(request.index);
    body[ADR_INDEX_POSITION] = ADR_INDEX_HEADER;
    std::memcpy(&body[ADR_INDEX_POSITION + 1], index.data(), index.size());
    adr_pos(&msg, ADR_INDEX_POSITION + 1 + static_cast<uint32_t>(index.size()));
    const auto *bytes = std::get_if<AdrBytes>(&request.value);
    const int32_t failed =
        bytes != nullptr
            ? adr_encodedata(&msg, DATA_BYTES, static_cast<uint32_t>(bytes->size()), bytes->data())
            : adr_encodedata(&msg, DATA_WORD, 4, &std::get<uint32_t>(request.value));
    body.resize(failed != 0 ? 0 : adr_count(&msg));
    return body;
}

AdrBytes adr_request_frame(const AdrBytes &body)
{
    const auto length = static_cast<uint32_t>(body.size());
    AdrBytes framed(sizeof length + body.size());
    std::memcpy(framed.data(), &length, sizeof length);
    std::ranges::copy(body, framed.begin() + sizeof length);
    return framed;
}

bool adr_reply_decode(AdrMsg *msg, const AdrRequest &request, AdrBytes &reply, uint32_t &result)
{
    uint32_t func = 0, cmd = 0;
    if (reply.size() != adr_request_encode(request).size() ||
        adr_start(msg, reply.data(), static_cast<uint32_t>(reply.size())) != 0 ||
        adr_decodefunc(msg, &func) != 0 || adr_decoderetcode(msg, &result) != 0 ||
        adr_decodecmd(msg, &cmd) != 0)
        return false;
    adr_offset(msg, 1 + static_cast<uint32_t>(index_bytes(request.index).size()));
    return func == request.func && cmd == request.cmd;
}

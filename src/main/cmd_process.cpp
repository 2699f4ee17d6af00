// One management request: decoded, executed by the entry point of its function, and rewritten in place as the
// reply of the same length with the result word and, for a read, the data item overwritten. Nothing outside
// the request is read or written, whatever it claims about itself.
#include "dhcpsnoop_cmd.h"

#include <cstdio>
#include <iterator>

#include "adr.h"
#include "debug.h"
#include "dhcpsnoop_nm.h"
#include "management.h"

static constexpr uint32_t EMPTY_ANSWER_LEN = 22;

struct Request {
    AdrMsg msg;
    uint32_t func, cmd;

    // The index, by the function's kind of it.
    uint32_t number; // interface index or VLAN id
    DhcpsnoopUserKey key;
    uint32_t pair[2]; // interface index, server address

    uint8_t dataType;
    uint32_t words[2]; // DATA_WORD, DATA_WORD_PAIR
    QorBuffer bytes;   // DATA_BYTES, in the request itself
    void *data;        // argument of the entry point; null when the attribute takes another form

    // The result of an iteration.
    uint32_t foundNumber;
    DhcpsnoopUserKey foundKey;
    uint32_t foundPair[2];
};

// ---- index

static void index_number(Request *request)
{
    adr_offset(&request->msg, ADR_INDEX_ITEM_HEADER_LEN);
    request->number = static_cast<uint32_t>(adr_getint32(&request->msg));
}

static void index_user_key(Request *request)
{
    adr_offset(&request->msg, ADR_INDEX_ITEM_HEADER_LEN);
    adr_getchar(&request->msg, &request->key.ipType, sizeof request->key.ipType);
    adr_offset(&request->msg, ADR_INDEX_ITEM_HEADER_LEN);
    adr_getchar(&request->msg, request->key.reserved, sizeof request->key.reserved);
    adr_offset(&request->msg, ADR_INDEX_ITEM_HEADER_LEN);
    adr_getchar(&request->msg, request->key.ipAddr, sizeof request->key.ipAddr);
}

static void index_pair(Request *request)
{
    for (uint32_t &word : request->pair) {
        adr_offset(&request->msg, ADR_INDEX_ITEM_HEADER_LEN);
        word = adr_getuint32(&request->msg);
    }
}

// ---- entry points

static int32_t global_set(Request *r) { return dhcpSnoopSetApi(nullptr, r->cmd, r->data); }
static int32_t global_get(Request *r) { return dhcpSnoopGetApi(nullptr, r->cmd, r->data); }
static int32_t if_first(Request *r) { return dhcpSnoopIfGetFirst(&r->foundNumber); }
static int32_t if_next(Request *r) { return dhcpSnoopIfGetNext(r->number, &r->foundNumber); }
static int32_t if_set(Request *r) { return dhcpSnoopIfSetApi(r->number, r->cmd, r->data); }
static int32_t if_get(Request *r) { return dhcpSnoopIfGetApi(r->number, r->cmd, r->data); }
static int32_t user_first(Request *r) { return dhcpSnoopUserGetFirst(&r->foundKey); }
static int32_t user_next(Request *r) { return dhcpSnoopUserGetNext(&r->key, &r->foundKey); }
static int32_t user_set(Request *r) { return dhcpSnoopUserSetApi(&r->key, r->cmd, r->data); }
static int32_t user_get(Request *r) { return dhcpSnoopUserGetApi(&r->key, r->cmd, r->data); }
static int32_t vlan_first(Request *r) { return dhcpSnoopVlanGetFirst(&r->foundNumber); }
static int32_t vlan_next(Request *r) { return dhcpSnoopVlanGetNext(r->number, &r->foundNumber); }
static int32_t vlan_set(Request *r) { return dhcpSnoopVlanSetApi(r->number, r->cmd, r->data); }
static int32_t vlan_get(Request *r) { return dhcpSnoopVlanGetApi(r->number, r->cmd, r->data); }
static int32_t server_ip_first(Request *r) { return dhcpSnoopServerIpGetFirst(r->foundPair); }
static int32_t server_ip_next(Request *r) { return dhcpSnoopServerIpGetNext(r->pair, r->foundPair); }
static int32_t server_ip_set(Request *r) { return dhcpSnoopServerIpSetApi(r->pair, r->cmd, r->data); }
static int32_t server_ip_get(Request *r) { return dhcpSnoopServerIpGetApi(r->pair, r->cmd); }

// ---- replies: the data items of a success. False when they do not fit into the request's length; then none
// is written.

static bool reply_none(Request *) { return true; }

static bool reply_value(Request *request)
{
    switch (request->dataType) {
    case DATA_BYTES:
        return adr_encodedata(&request->msg, DATA_BYTES, request->bytes.length, request->bytes.data) == 0;
    case DATA_WORD:
        return adr_encodedata(&request->msg, DATA_WORD, 4, request->words) == 0;
    case DATA_WORD_PAIR:
        return adr_encodedata(&request->msg, DATA_WORD_PAIR, 8, request->words) == 0;
    default:
        return true;
    }
}

static bool reply_number(Request *request)
{
    return request->dataType != DATA_WORD ||
           adr_encodedata(&request->msg, DATA_WORD, 4, &request->foundNumber) == 0;
}

static bool room_for(const Request *request, uint32_t items, uint32_t valueBytes)
{
    return request->msg.size - adr_count(&request->msg) >= items * ADR_DATA_ITEM_HEADER_LEN + valueBytes;
}

static bool reply_key(Request *request)
{
    if (request->dataType != DATA_BYTES)
        return true;
    const DhcpsnoopUserKey &key = request->foundKey;
    if (!room_for(request, 3, sizeof key))
        return false;
    adr_encodedata(&request->msg, DATA_BYTES, sizeof key.ipType, &key.ipType);
    adr_encodedata(&request->msg, DATA_BYTES, sizeof key.reserved, key.reserved);
    adr_encodedata(&request->msg, DATA_BYTES, sizeof key.ipAddr, key.ipAddr);
    return true;
}

static bool reply_pair(Request *request)
{
    if (!room_for(request, 2, sizeof request->foundPair))
        return false;
    for (const uint32_t &word : request->foundPair)
        adr_encodedata(&request->msg, DATA_WORD, 4, &word);
    return true;
}

// ---- functions

enum class Object : uint8_t { Global, If, User, Vlan, ServerIp };

struct Function {
    Object object;
    uint8_t indexNum;
    void (*index)(
        Request *); // reads the index items. Kept: a global request carries one although it counts none
    int32_t (*call)(Request *);
    bool (*reply)(Request *);
};

// By function number.
static constexpr Function FUNCTIONS[] = {
    {Object::Global,   0, index_number,   global_set,      reply_none  },
    {Object::Global,   0, index_number,   global_set,      reply_none  },
    {Object::Global,   0, index_number,   global_get,      reply_value },
    {Object::If,       1, index_number,   if_first,        reply_number},
    {Object::If,       1, index_number,   if_next,         reply_number},
    {Object::If,       1, index_number,   if_set,          reply_none  },
    {Object::If,       1, index_number,   if_set,          reply_none  },
    {Object::If,       1, index_number,   if_get,          reply_value },
    {Object::User,     3, index_user_key, user_first,      reply_key   },
    {Object::User,     3, index_user_key, user_next,       reply_key   },
    {Object::User,     3, index_user_key, user_set,        reply_none  },
    {Object::User,     3, index_user_key, user_set,        reply_none  },
    {Object::User,     3, index_user_key, user_get,        reply_value },
    {Object::Vlan,     1, index_number,   vlan_first,      reply_number},
    {Object::Vlan,     1, index_number,   vlan_next,       reply_number},
    {Object::Vlan,     1, index_number,   vlan_set,        reply_none  },
    {Object::Vlan,     1, index_number,   vlan_get,        reply_value },
    {Object::ServerIp, 2, index_pair,     server_ip_first, reply_pair  },
    {Object::ServerIp, 2, index_pair,     server_ip_next,  reply_pair  },
    {Object::ServerIp, 2, index_pair,     server_ip_set,   reply_none  },
    {Object::ServerIp, 2, index_pair,     server_ip_set,   reply_none  },
    {Object::ServerIp, 2, index_pair,     server_ip_get,   reply_value },
};
static_assert(std::size(FUNCTIONS) == FUNC_COUNT);

// The attributes whose value is a text, a packet or an address; every other one is a number.
struct BytesAttribute {
    Object object;
    uint32_t cmd;
};
static constexpr BytesAttribute BYTES_ATTRIBUTES[] = {
    {Object::Global, GLOBAL_SYNC_PACKET},
    {Object::If,     IF_CIRCUIT_ID     },
    {Object::If,     IF_REMOTE_ID      },
    {Object::If,     IF_SUBOPT9_TEXT   },
    {Object::If,     IF_INTERFACE_ID   },
    {Object::If,     IF_REMOTE_ID6     },
    {Object::User,   USER_MAC          },
};

static bool takes_bytes(Object object, uint32_t cmd)
{
    for (const BytesAttribute &attribute : BYTES_ATTRIBUTES) {
        if (attribute.object == object && attribute.cmd == cmd)
            return true;
    }
    return false;
}

// The value as the entry point takes it. Null when the value came in another form than the attribute's, so
// that no number is ever used as an address and no address shows as a number.
static void *entry_data(Request *request, const Function &function)
{
    const bool bytes = takes_bytes(function.object, request->cmd);
    switch (request->dataType) {
    case DATA_BYTES:
        return bytes ? &request->bytes : nullptr;
    case DATA_WORD:
    case DATA_WORD_PAIR:
        return bytes ? nullptr : request->words;
    default:
        return nullptr;
    }
}

// ---- decoding: each gives false when the request is none

static bool decode_header(Request *request)
{
    if (adr_decodefunc(&request->msg, &request->func) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: decode func word failed!\r\n");
        return false;
    }
    uint32_t ignored;
    if (adr_decoderetcode(&request->msg, &ignored) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: decode ret code word failed!\r\n");
        return false;
    }
    if (adr_decodecmd(&request->msg, &request->cmd) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: decode command word failed!\r\n");
        return false;
    }
    return true;
}

static bool decode_index(Request *request)
{
    uint8_t header = 0, indexNum = 0;
    adr_getchar(&request->msg, &header, 1);
    if (header != ADR_INDEX_HEADER) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: decode index header failed!\r\n");
        return false;
    }
    adr_getchar(&request->msg, &indexNum, 1);

    if (request->func >= FUNC_COUNT) {
        DEBUG_TRACE("[DHCPSNOOP] Command process: error func %d in get indexnum!\r\n", request->func);
        return true;
    }
    const Function &function = FUNCTIONS[request->func];
    if (indexNum != function.indexNum) {
        DEBUG_TRACE("[DHCPSNOOP] Command process: func %d indexNum %d err!\r\n", request->func, indexNum);
        return false;
    }
    function.index(request);
    return !request->msg.overrun;
}

static bool decode_data(Request *request)
{
    uint8_t header = 0;
    adr_getchar(&request->msg, &header, 1);
    if (header != ADR_DATA_HEADER) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: decode data charVal %d err!\r\n", header);
        return false;
    }
    adr_getchar(&request->msg, &request->dataType, 1);
    const uint16_t length = adr_getushort(&request->msg);
    if (request->msg.overrun)
        return false;

    const bool wrongLength =
        (request->dataType == DATA_WORD && length != 4) ||
        (request->dataType == DATA_WORD_PAIR && length != 8) ||
        (request->dataType == DATA_BYTES && length > request->msg.size - adr_count(&request->msg));
    if (wrongLength) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: decode data shortVal %d err, type = %d!\r\n", length,
                    request->dataType);
        return false;
    }

    switch (request->dataType) {
    case DATA_BYTES: // used where they lie
        request->bytes.length = length;
        request->bytes.data =
            adr_getchar(&request->msg, request->msg.base + adr_count(&request->msg), length);
        break;
    case DATA_WORD:
        request->words[0] = adr_getuint32(&request->msg);
        break;
    case DATA_WORD_PAIR:
        request->words[0] = adr_getuint32(&request->msg);
        request->words[1] = adr_getuint32(&request->msg);
        break;
    }
    return !request->msg.overrun;
}

static void execute(Request *request, uint32_t dataPosition)
{
    if (request->func >= FUNC_COUNT) {
        DEBUG_TRACE("[DHCPSNOOP] Command process: error func %d in encode data!\r\n", request->func);
        return;
    }
    const Function &function = FUNCTIONS[request->func];
    request->data = entry_data(request, function);
    int32_t result = function.call(request);
    if (result == 0) {
        adr_pos(&request->msg, dataPosition);
        if (!function.reply(request))
            result = NM_BAD_LENGTH;
    }
    adr_pos(&request->msg, ADR_RESULT_POSITION);
    adr_int32(&request->msg, result);
}

uint32_t dhcpsnoop_cmd_process(uint8_t *buffer, uint32_t length)
{
    if (buffer == nullptr || length == 0) {
        // Kept: an empty request is answered with that many bytes of the buffer, as they stand.
        std::printf("\r\n deftInstall assert error in line %d in func %s.", 623, "dhcpsnoop_cmd_process");
        return EMPTY_ANSWER_LEN;
    }
    if (length < DHCPSNOOP_REQUEST_MIN) {
        DEBUG_EVENT("[DHCPSNOOP] Command process: lenRx %d err!\r\n", length);
        return 0;
    }

    Request request = {};
    adr_start(&request.msg, buffer, length);
    if (!decode_header(&request) || !decode_index(&request))
        return 0;
    const uint32_t dataPosition = adr_count(&request.msg);
    if (!decode_data(&request))
        return 0;
    execute(&request, dataPosition);

    adr_pos(&request.msg, length);
    return adr_count(&request.msg);
}

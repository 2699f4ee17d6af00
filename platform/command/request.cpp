// Nothing outside a reply is read, and no length in it is believed.
#include "request.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace
{

struct ResultName {
    uint32_t code;
    const char *name, *meaning;
};

constexpr ResultName RESULT_NAMES[] = {
    {NM_OK,          "NM_OK",          "done"                                                        },
    {NM_NO_ENTRY,    "NM_NO_ENTRY",    "no such entry or interface"                                  },
    {NM_EXISTS,      "NM_EXISTS",      "the entry exists already, or belongs to IP source guard"     },
    {NM_HW_REFUSED,  "NM_HW_REFUSED",  "the hardware layer refused the change"                       },
    {NM_BOUND,       "NM_BOUND",       "the binding is bound and cannot be changed; unbind it first" },
    {NM_BAD_LENGTH,  "NM_BAD_LENGTH",  "the value is too short or too long, or has no room"          },
    {NM_BAD_COMMAND, "NM_BAD_COMMAND", "unknown command or value, or something it needs is not there"},
    {NM_NULL_KEY,    "NM_NULL_KEY",    "no key was given"                                            },
    {NM_NO_MEMORY,   "NM_NO_MEMORY",   "no free entry is left"                                       },
    {NM_INVALID,     "NM_INVALID",     "VLAN id or format out of range"                              },
    {NM_END,         "NM_END",         "nothing more, or the VLAN has no interface"                  },
};

// Below, a code without a name is what the platform answered the daemon, on Linux an errno value.
constexpr uint32_t RESULTS_OF_OUR_OWN = 0x1000;

const ResultName *findResult(uint32_t code)
{
    const auto *row = std::find_if(std::begin(RESULT_NAMES), std::end(RESULT_NAMES),
                                   [code](const ResultName &each) { return each.code == code; });
    return row == std::end(RESULT_NAMES) ? nullptr : row;
}

} // namespace

Reply::Reply(const Request &request, Bytes body) : body_(std::move(body)), rest_()
{
    if (body_.empty())
        throw CtlError(EXIT_REFUSED, "the daemon could not decode the request (empty reply); "
                                     "client and daemon may be of different versions");
    if (!adr_reply_decode(&rest_, request, body_, result_))
        throw NoDaemon("malformed reply: it does not belong to the request");
}

// The value of the next data item.
Bytes Reply::item(uint8_t type)
{
    uint32_t length = 0;
    const uint8_t *value = adr_decodedata(&rest_, type, &length);
    if (value == nullptr)
        throw NoDaemon(length == 0 ? "malformed reply: the value is not there"
                                   : "malformed reply: the value is longer than the reply");
    return {value, value + length};
}

uint32_t Reply::word()
{
    Bytes value = item(DATA_WORD);
    if (value.size() != 4)
        throw NoDaemon("malformed reply: a number of " + std::to_string(value.size()) + " bytes");
    AdrMsg msg = {value.data(), 4, 0, false};
    return adr_getuint32(&msg);
}

Bytes Reply::bytes() { return item(DATA_BYTES); }

UserKey Reply::userKey()
{
    Bytes type = item(DATA_BYTES), reserved = item(DATA_BYTES), address = item(DATA_BYTES);
    UserKey key;
    if (type.size() != 1 || reserved.size() != 3 || address.size() != key.ipAddr.size() ||
        (type[0] != 1 && type[0] != 2))
        throw NoDaemon("malformed reply: not the key of a binding");
    key.ipType = type[0];
    std::memcpy(key.ipAddr.data(), address.data(), address.size());
    return key;
}

ServerKey Reply::serverKey()
{
    uint32_t ifIndex = word();
    return {ifIndex, word()};
}

std::string resultMeaning(uint32_t code)
{
    if (const ResultName *row = findResult(code))
        return row->meaning;
    if (code < RESULTS_OF_OUR_OWN)
        return std::strerror(static_cast<int>(code));
    return "for an unknown reason, " + resultName(code);
}

std::string resultName(uint32_t code)
{
    char number[16];
    std::snprintf(number, sizeof(number), code < RESULTS_OF_OUR_OWN ? "%u" : "0x%X", code);
    if (const ResultName *row = findResult(code))
        return std::string(row->name) + " (" + number + ")";
    return std::string("result ") + number + (code < RESULTS_OF_OUR_OWN ? " of the platform" : "");
}

Refusal::Refusal(uint32_t resultCode, const std::string &what, const std::string &note)
    : CtlError(EXIT_REFUSED, what + ": refused, " + resultMeaning(resultCode) + note, resultName(resultCode)),
      code(resultCode)
{
}

Reply Daemon::ask(const Request &request) const
{
    const Bytes body = adr_request_encode(request);
    if (body.empty())
        throw UsageError("the value is too long for a request");
    return Reply(request, exchange_(body));
}

Reply Daemon::demand(const Request &request, const std::string &what) const
{
    Reply reply = ask(request);
    if (reply.result() != NM_OK)
        throw Refusal(reply.result(), what);
    return reply;
}

// Settings of one interface. A change is checked, offered to the platform (which learns of some that are
// refused afterwards), and only then made. What an attribute needs, how it is stored and how it is read stand
// in its table row.
#include "nm_common.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "debug.h"
#include "dhcpsnoop_if.h"
#include "dhcpsnoop_if_table.h"
#include "list.h"

static constexpr uint32_t TYPED_HEADER_LEN = 2; // type byte, length byte

// ---- option texts

// The members of one option's text. Sub-option 9 has neither type nor format and is always plain.
struct OptionText {
    uint8_t (DhcpsnoopIf::*text)[DHCPSNOOP_TEXT_MAX];
    uint8_t DhcpsnoopIf::*length;
    uint8_t DhcpsnoopIf::*type;
    uint8_t DhcpsnoopIf::*format;
};
static constexpr OptionText CIRCUIT_ID = {&DhcpsnoopIf::circuitId, &DhcpsnoopIf::circuitIdLen,
                                          &DhcpsnoopIf::circuitIdType, &DhcpsnoopIf::circuitIdFmt};
static constexpr OptionText REMOTE_ID = {&DhcpsnoopIf::remoteId, &DhcpsnoopIf::remoteIdLen,
                                         &DhcpsnoopIf::remoteIdType, &DhcpsnoopIf::remoteIdFmt};
static constexpr OptionText SUBOPT9 = {&DhcpsnoopIf::subopt9, &DhcpsnoopIf::subopt9Len, nullptr, nullptr};
static constexpr OptionText INTERFACE_ID = {&DhcpsnoopIf::interfaceId, &DhcpsnoopIf::interfaceIdLen,
                                            &DhcpsnoopIf::interfaceIdType, &DhcpsnoopIf::interfaceIdFmt};
static constexpr OptionText REMOTE_ID6 = {&DhcpsnoopIf::remoteId6, &DhcpsnoopIf::remoteId6Len,
                                          &DhcpsnoopIf::remoteId6Type, &DhcpsnoopIf::remoteId6Fmt};

static bool text_typed(const DhcpsnoopIf *ifp, const OptionText &option)
{
    if (option.format == nullptr)
        return false;
    const uint8_t format = ifp->*option.format;
    return format == DHCPSNOOP_FORMAT_TYPED || format == DHCPSNOOP_FORMAT_RAW;
}

static void text_clear(DhcpsnoopIf *ifp, const OptionText &option)
{
    std::memset(ifp->*option.text, 0, DHCPSNOOP_TEXT_MAX);
    ifp->*option.length = 0;
}

static void text_store(DhcpsnoopIf *ifp, const OptionText &option, const uint8_t *bytes, uint32_t length)
{
    const uint32_t stored = std::min(length, DHCPSNOOP_TEXT_MAX);
    text_clear(ifp, option);
    if (stored != 0)
        std::memcpy(ifp->*option.text, bytes, stored);
    ifp->*option.length = static_cast<uint8_t>(stored);
}

static void complain_short(uint32_t cmd)
{
    switch (cmd) {
    case IF_CIRCUIT_ID:
        DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: wrong length for circuit-id!\r\n");
        break;
    case IF_REMOTE_ID:
        DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: wrong length for remote-id!\r\n");
        break;
    case IF_INTERFACE_ID:
        DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: wrong length for option18!\r\n");
        break;
    case IF_REMOTE_ID6:
        DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: wrong length for option37!\r\n");
        break;
    }
}

static int32_t text_set(DhcpsnoopIf *ifp, uint32_t cmd, const OptionText &option, const QorBuffer *value)
{
    const auto *bytes = static_cast<const uint8_t *>(value->data);
    if (!text_typed(ifp, option)) {
        text_store(ifp, option, bytes, value->length);
        return NM_OK;
    }
    if (value->length < TYPED_HEADER_LEN) {
        complain_short(cmd);
        return NM_BAD_LENGTH;
    }
    const uint32_t length = bytes[1];
    if (length > value->length - TYPED_HEADER_LEN) {
        DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: length is invalid, option len %ld, total len %ld!\r\n",
                    static_cast<long>(length), static_cast<long>(value->length));
        return NM_BAD_LENGTH;
    }
    ifp->*option.type = bytes[0];
    text_store(ifp, option, bytes + TYPED_HEADER_LEN, length);
    return NM_OK;
}

static int32_t text_get(const DhcpsnoopIf *ifp, uint32_t cmd, const OptionText &option, QorBuffer *value)
{
    const uint32_t header = text_typed(ifp, option) ? TYPED_HEADER_LEN : 0;
    const uint32_t length = ifp->*option.length;
    // Kept: a typed remote-id must also find the room that the circuit-id would need.
    if (cmd == IF_REMOTE_ID && header != 0 && value->length < header + ifp->circuitIdLen)
        return NM_BAD_LENGTH;
    if (value->length < header + length)
        return NM_BAD_LENGTH;

    auto *out = static_cast<uint8_t *>(value->data);
    if (header != 0) {
        out[0] = ifp->*option.type;
        out[1] = static_cast<uint8_t>(length);
    }
    if (length != 0)
        std::memcpy(out + header, ifp->*option.text, length);
    value->length = header + length;
    return NM_OK;
}

// ---- preconditions, with what is said when they do not hold

static bool option82_on(const DhcpsnoopIf *ifp)
{
    if ((ifp->flags & DHCPSNOOP_IF_OPTION82) != 0)
        return true;
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: the option82 is disabled!\n\r");
    return false;
}

static bool subopt9_on(const DhcpsnoopIf *ifp)
{
    if (!option82_on(ifp))
        return false;
    if ((ifp->flags & DHCPSNOOP_IF_SUBOPT9) != 0)
        return true;
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: the option82 sub-option9 is disabled!\n\r");
    return false;
}

// Kept: for its text, option 18 is missed under option 82's name.
static bool option18_on_for_text(const DhcpsnoopIf *ifp)
{
    if ((ifp->flags & DHCPSNOOP_IF_OPTION18) != 0)
        return true;
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: the option82 is disabled!\n\r");
    return false;
}

static bool option18_on(const DhcpsnoopIf *ifp)
{
    if ((ifp->flags & DHCPSNOOP_IF_OPTION18) != 0)
        return true;
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: the option18 is disabled!\n\r");
    return false;
}

static bool option37_on(const DhcpsnoopIf *ifp)
{
    if ((ifp->flags & DHCPSNOOP_IF_OPTION37) != 0)
        return true;
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: the option37 is disabled!\n\r");
    return false;
}

// ---- numbers

// How a number is read from the interface and stored there; one that management only reads has a null store.
struct Number {
    uint32_t (*read)(const DhcpsnoopIf *);
    int32_t (*store)(DhcpsnoopIf *, uint32_t value);
};

template <uint32_t Mask> static uint32_t flag_get(const DhcpsnoopIf *ifp)
{
    return (ifp->flags & Mask) != 0 ? 1 : 0;
}

template <uint32_t Mask> static int32_t flag_set(DhcpsnoopIf *ifp, uint32_t value)
{
    ifp->flags = (value & 1) != 0 ? ifp->flags | Mask : ifp->flags & ~Mask;
    return NM_OK;
}

template <const DhcpsnoopFlagField &Field> static uint32_t field_get(const DhcpsnoopIf *ifp)
{
    return dhcpsnoop_flag_get(ifp->flags, Field);
}

template <const DhcpsnoopFlagField &Field> static int32_t field_set(DhcpsnoopIf *ifp, uint32_t value)
{
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, Field, value);
    return NM_OK;
}

template <auto Member> static uint32_t member_get(const DhcpsnoopIf *ifp) { return ifp->*Member; }

template <auto Member> static int32_t member_set(DhcpsnoopIf *ifp, uint32_t value)
{
    ifp->*Member = static_cast<std::remove_reference_t<decltype(ifp->*Member)>>(value);
    return NM_OK;
}

template <DhcpsnoopCounter Counter> static uint32_t counter_get(const DhcpsnoopIf *ifp)
{
    return ifp->counters[Counter];
}

static int32_t version_set(DhcpsnoopIf *ifp, uint32_t value)
{
    return static_cast<int32_t>(dhcpsnoop_if_version_set(ifp, value));
}

static int32_t option82_set(DhcpsnoopIf *ifp, uint32_t value)
{
    flag_set<DHCPSNOOP_IF_OPTION82>(ifp, value);
    field_set<DHCPSNOOP_IF_POLICY>(ifp, DHCPSNOOP_POLICY_DEFAULT);
    if ((value & 1) != 0) {
        ifp->circuitIdFmt = ifp->remoteIdFmt = DHCPSNOOP_FORMAT_TYPED;
        return NM_OK;
    }
    ifp->circuitIdFmt = ifp->remoteIdFmt = 0;
    text_clear(ifp, CIRCUIT_ID);
    text_clear(ifp, REMOTE_ID);
    text_clear(ifp, SUBOPT9);
    flag_set<DHCPSNOOP_IF_SUBOPT9>(ifp, 0);
    return NM_OK;
}

static int32_t subopt9_set(DhcpsnoopIf *ifp, uint32_t value)
{
    flag_set<DHCPSNOOP_IF_SUBOPT9>(ifp, value);
    if ((value & 1) == 0)
        text_clear(ifp, SUBOPT9);
    return NM_OK;
}

template <uint32_t Mask, const OptionText &Option>
static int32_t option6_set(DhcpsnoopIf *ifp, uint32_t value)
{
    flag_set<Mask>(ifp, value);
    if ((value & 1) != 0) {
        ifp->*Option.format = DHCPSNOOP_FORMAT_TYPED;
        return NM_OK;
    }
    ifp->*Option.format = 0;
    ifp->*Option.type = 0;
    text_clear(ifp, Option);
    return NM_OK;
}

template <const OptionText &Option> static uint32_t format_get(const DhcpsnoopIf *ifp)
{
    return ifp->*Option.format;
}

template <const OptionText &Option> static int32_t format_set(DhcpsnoopIf *ifp, uint32_t value)
{
    // Kept: tested only now, when the hardware has been told already.
    if (value >= DHCPSNOOP_FORMATS)
        return NM_INVALID;
    text_clear(ifp, Option);
    ifp->*Option.format = static_cast<uint8_t>(value);
    return NM_OK;
}

template <uint32_t Mask> static constexpr Number FLAG = {flag_get<Mask>, flag_set<Mask>};
template <const DhcpsnoopFlagField &Field>
static constexpr Number FIELD = {field_get<Field>, field_set<Field>};
template <auto Member> static constexpr Number MEMBER = {member_get<Member>, member_set<Member>};
template <DhcpsnoopCounter Counter> static constexpr Number COUNTER = {counter_get<Counter>, nullptr};
template <const OptionText &Option> static constexpr Number FORMAT = {format_get<Option>, format_set<Option>};
static constexpr Number VERSION = {field_get<DHCPSNOOP_IF_VERSION>, version_set};
static constexpr Number OPTION82 = {flag_get<DHCPSNOOP_IF_OPTION82>, option82_set};
static constexpr Number SUBOPT9_ON = {flag_get<DHCPSNOOP_IF_SUBOPT9>, subopt9_set};
static constexpr Number OPTION18 = {flag_get<DHCPSNOOP_IF_OPTION18>,
                                    option6_set<DHCPSNOOP_IF_OPTION18, INTERFACE_ID>};
static constexpr Number OPTION37 = {flag_get<DHCPSNOOP_IF_OPTION37>,
                                    option6_set<DHCPSNOOP_IF_OPTION37, REMOTE_ID6>};
static constexpr Number CUR_USER = {member_get<&DhcpsnoopIf::curUser>, nullptr};

// ---- attributes

enum class Offer : bool { No, Yes }; // to the hardware, before it is stored

enum class Same : uint8_t { // a value equal to the stored one
    Stored,                 // is offered and stored like any other
    Done,                   // succeeds at once, whatever the attribute needs
    DoneIfMet,              // succeeds at once when what the attribute needs is there
};

struct NumberAttribute {
    uint32_t cmd;
    Offer offer;
    Same same;
    bool (*needs)(const DhcpsnoopIf *);
    const Number *access;
};

// By number. Those not here: the interface itself, clearing its counters, and three that are read as nothing.
static constexpr NumberAttribute NUMBERS[] = {
    {IF_VERSION,             Offer::Yes, Same::Done,      nullptr,     &VERSION                           },
    {IF_TRUST,               Offer::Yes, Same::Done,      nullptr,     &FLAG<DHCPSNOOP_IF_TRUSTED>        },
    {IF_OPTION82,            Offer::Yes, Same::Done,      nullptr,     &OPTION82                          },
    {IF_POLICY,              Offer::Yes, Same::Stored,    option82_on, &FIELD<DHCPSNOOP_IF_POLICY>        },
    {IF_SUBOPT9,             Offer::Yes, Same::Done,      option82_on, &SUBOPT9_ON                        },
    {IF_MODE,                Offer::Yes, Same::Stored,    nullptr,     &FIELD<DHCPSNOOP_IF_MODE>          },
    {IF_OPTION18,            Offer::Yes, Same::Done,      nullptr,     &OPTION18                          },
    {IF_OPTION37,            Offer::Yes, Same::Done,      nullptr,     &OPTION37                          },
    {IF_CHECK_MAC,           Offer::Yes, Same::Stored,    nullptr,     &FLAG<DHCPSNOOP_IF_CHECK_MAC>      },
    {IF_CHECK_BINDING,       Offer::Yes, Same::Stored,    nullptr,     &FLAG<DHCPSNOOP_IF_CHECK_BINDING>  },
    {IF_MAX_USER,            Offer::Yes, Same::Stored,    nullptr,     &MEMBER<&DhcpsnoopIf::maxUser>     },
    {IF_CUR_USER,            Offer::No,  Same::Stored,    nullptr,     &CUR_USER                          },
    {IF_FLAG14,              Offer::Yes, Same::Stored,    nullptr,     &FLAG<DHCPSNOOP_IF_FLAG14>         },
    {IF_SETTING21,           Offer::Yes, Same::Stored,    nullptr,     &MEMBER<&DhcpsnoopIf::setting21>   },
    {IF_DROP_SOURCE_MAC,     Offer::No,  Same::Stored,    nullptr,     &COUNTER<DHCPSNOOP_DROP_SOURCE_MAC>},
    {IF_DROP_BINDING,        Offer::No,  Same::Stored,    nullptr,     &COUNTER<DHCPSNOOP_DROP_BINDING>   },
    {IF_DROP_UNTRUSTED,      Offer::No,  Same::Stored,    nullptr,     &COUNTER<DHCPSNOOP_DROP_UNTRUSTED> },
    {IF_CIRCUIT_ID_FORMAT,   Offer::Yes, Same::DoneIfMet, option82_on, &FORMAT<CIRCUIT_ID>                },
    {IF_REMOTE_ID_FORMAT,    Offer::Yes, Same::DoneIfMet, option82_on, &FORMAT<REMOTE_ID>                 },
    {IF_INTERFACE_ID_FORMAT, Offer::Yes, Same::DoneIfMet, option18_on, &FORMAT<INTERFACE_ID>              },
    {IF_REMOTE_ID6_FORMAT,   Offer::Yes, Same::DoneIfMet, option37_on, &FORMAT<REMOTE_ID6>                },
    {IF_RELAY_ADDR,          Offer::No,  Same::Stored,    nullptr,     &MEMBER<&DhcpsnoopIf::relayAddr>   },
};

struct TextAttribute {
    uint32_t cmd;
    bool (*needs)(const DhcpsnoopIf *);
    const OptionText *text;
};

static constexpr TextAttribute TEXTS[] = {
    {IF_CIRCUIT_ID,   option82_on,          &CIRCUIT_ID  },
    {IF_REMOTE_ID,    option82_on,          &REMOTE_ID   },
    {IF_SUBOPT9_TEXT, subopt9_on,           &SUBOPT9     },
    {IF_INTERFACE_ID, option18_on_for_text, &INTERFACE_ID},
    {IF_REMOTE_ID6,   option37_on,          &REMOTE_ID6  },
};

template <class Attribute, size_t Count>
static const Attribute *attribute_lookup(const Attribute (&attributes)[Count], uint32_t cmd)
{
    for (const Attribute &attribute : attributes) {
        if (attribute.cmd == cmd)
            return &attribute;
    }
    return nullptr;
}

// ---- set

static bool accepted(uint32_t ifIndex, uint32_t cmd, void *value, uint32_t mode)
{
    return qorHwIfSync(ifIndex, QOR_SYNC_IF + cmd, value, mode) == 0;
}

static int32_t enable_set(DhcpsnoopIf *ifp, uint32_t ifIndex, void *value, uint32_t mode)
{
    const uint32_t *number = value_number(value);
    if (number == nullptr)
        return NM_BAD_COMMAND;
    if (!accepted(ifIndex, IF_ENABLE, value, mode))
        return NM_HW_REFUSED;
    if (*number != 1)
        return static_cast<int32_t>(dhcpsnoop_if_disable(ifp));
    return ifp == nullptr ? static_cast<int32_t>(dhcpsnoop_if_enable(ifIndex)) : NM_OK;
}

static int32_t number_set(DhcpsnoopIf *ifp, const NumberAttribute &attribute, void *value, uint32_t mode)
{
    const uint32_t *number = value_number(value);
    const bool same = number != nullptr && *number == attribute.access->read(ifp);
    if (same && attribute.same == Same::Done)
        return NM_OK;
    if (attribute.needs != nullptr && !attribute.needs(ifp))
        return NM_BAD_COMMAND;
    if (number == nullptr)
        return NM_BAD_COMMAND;
    if (same && attribute.same == Same::DoneIfMet)
        return NM_OK;
    if (attribute.offer == Offer::Yes && !accepted(ifp->ifIndex, attribute.cmd, value, mode))
        return NM_HW_REFUSED;
    return attribute.access->store(ifp, *number);
}

static int32_t text_offer(DhcpsnoopIf *ifp, const TextAttribute &attribute, void *value, uint32_t mode)
{
    if (!attribute.needs(ifp))
        return NM_BAD_COMMAND;
    const QorBuffer *text = value_bytes(value);
    if (text == nullptr)
        return NM_BAD_COMMAND;
    if (!accepted(ifp->ifIndex, attribute.cmd, value, mode | QOR_SYNC_BUFFER))
        return NM_HW_REFUSED;
    return text_set(ifp, attribute.cmd, *attribute.text, text);
}

static int32_t setting_set(uint32_t ifIndex, uint32_t cmd, void *value, uint32_t mode)
{
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(ifIndex);
    if (cmd == IF_ENABLE)
        return enable_set(ifp, ifIndex, value, mode);
    if (ifp == nullptr)
        return NM_NO_ENTRY;
    if (cmd == IF_CLEAR_STATS) {
        std::memset(ifp->counters, 0, sizeof ifp->counters);
        return NM_OK;
    }
    if (const TextAttribute *text = attribute_lookup(TEXTS, cmd))
        return text_offer(ifp, *text, value, mode);
    const NumberAttribute *number = attribute_lookup(NUMBERS, cmd);
    if (number == nullptr || number->access->store == nullptr)
        return NM_BAD_COMMAND;
    return number_set(ifp, *number, value, mode);
}

static int32_t _dhcpSnoopIfSetApi(uint32_t ifIndex, uint32_t cmd, void *value, uint32_t mode)
{
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: interface %s, cmd %d.\r\n", if_name(ifIndex).text, cmd);
    const TableLock lock;
    const int32_t rc = setting_set(ifIndex, cmd, value, mode);
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: end, rc = %d.\r\n", rc);
    return rc;
}

int32_t dhcpSnoopIfSetApi(uint32_t ifIndex, uint32_t cmd, void *value)
{
    return _dhcpSnoopIfSetApi(ifIndex, cmd, value, QOR_SYNC_SET);
}

int32_t dhcpSnoopIfSyncApi(uint32_t ifIndex, uint32_t cmd, void *value)
{
    return _dhcpSnoopIfSetApi(ifIndex, cmd, value, QOR_SYNC_PEER);
}

// ---- get

static int32_t setting_get(uint32_t ifIndex, uint32_t cmd, void *value)
{
    const DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(ifIndex);
    if (ifp == nullptr || !if_in_use(ifp))
        return NM_NO_ENTRY;
    switch (cmd) {
    case IF_ENABLE:
        return value_put(value, 1);
    case IF_RESERVED25:
    case IF_RESERVED26:
    case IF_RESERVED27:
        return NM_OK;
    }
    if (const TextAttribute *text = attribute_lookup(TEXTS, cmd)) {
        QorBuffer *room = value_bytes(value);
        return room != nullptr ? text_get(ifp, cmd, *text->text, room) : NM_BAD_COMMAND;
    }
    const NumberAttribute *number = attribute_lookup(NUMBERS, cmd);
    return number != nullptr ? value_put(value, number->access->read(ifp)) : NM_BAD_COMMAND;
}

int32_t dhcpSnoopIfGetApi(uint32_t ifIndex, uint32_t cmd, void *value)
{
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if getapi: interface %s, cmd = %d.\r\n", if_name(ifIndex).text, cmd);
    const TableLock lock;
    const int32_t rc = setting_get(ifIndex, cmd, value);
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if getapi: end, rc %d.\r\n", rc);
    return rc;
}

static int32_t if_find(uint64_t least, uint32_t *out)
{
    if (out == nullptr)
        return -1;
    const TableLock lock;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (!if_in_use(ifp) || ifp->ifIndex < least)
            continue;
        *out = ifp->ifIndex;
        return 0;
    }
    return -1;
}

int32_t dhcpSnoopIfGetFirst(uint32_t *out) { return if_find(0, out); }

int32_t dhcpSnoopIfGetNext(uint32_t from, uint32_t *out) { return if_find(uint64_t{from} + 1, out); }

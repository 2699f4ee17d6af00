// Settings of one interface. A change is checked, offered to the platform and then made; some changes are
// refused after the offer. The row of an attribute names its preconditions and its place in the interface.
#include "nm_common.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "debug.h"
#include "dhcpsnoop_if.h"
#include "dhcpsnoop_if_table.h"
#include "list.h"
#include "option_text.h"

static constexpr uint32_t TYPED_HEADER_LEN = 2; // type byte, length byte

// ---- option texts

static bool text_typed(const DhcpsnoopIf *ifp, const DhcpsnoopOptionText &option)
{
    if (option.format == nullptr)
        return false;
    const uint8_t format = ifp->*option.format;
    return format == DHCPSNOOP_FORMAT_TYPED || format == DHCPSNOOP_FORMAT_RAW;
}

static void text_clear(DhcpsnoopIf *ifp, const DhcpsnoopOptionText &option)
{
    std::memset(ifp->*option.text, 0, DHCPSNOOP_TEXT_MAX);
    ifp->*option.length = 0;
}

static void text_store(DhcpsnoopIf *ifp, const DhcpsnoopOptionText &option, const uint8_t *bytes,
                       uint32_t length)
{
    const uint32_t stored = std::min(length, DHCPSNOOP_TEXT_MAX);
    text_clear(ifp, option);
    if (stored != 0)
        std::memcpy(ifp->*option.text, bytes, stored);
    ifp->*option.length = static_cast<uint8_t>(stored);
}

// ---- preconditions

// A flag of the interface, and the complaint where it is missing.
struct Need {
    uint32_t flag;
    const char *missing;
};
static constexpr Need OPTION82_ON = {DHCPSNOOP_IF_OPTION82,
                                     "[DHCPSNOOP] dhcpsnoop if setapi: the option82 is disabled!\n\r"};
static constexpr Need SUBOPT9_ON = {
    DHCPSNOOP_IF_SUBOPT9, "[DHCPSNOOP] dhcpsnoop if setapi: the option82 sub-option9 is disabled!\n\r"};
// Kept: for its text, option 18 is missed under option 82's name.
static constexpr Need OPTION18_ON_FOR_TEXT = {
    DHCPSNOOP_IF_OPTION18, "[DHCPSNOOP] dhcpsnoop if setapi: the option82 is disabled!\n\r"};
static constexpr Need OPTION18_ON = {DHCPSNOOP_IF_OPTION18,
                                     "[DHCPSNOOP] dhcpsnoop if setapi: the option18 is disabled!\n\r"};
static constexpr Need OPTION37_ON = {DHCPSNOOP_IF_OPTION37,
                                     "[DHCPSNOOP] dhcpsnoop if setapi: the option37 is disabled!\n\r"};

// No need is met always.
static bool met(const DhcpsnoopIf *ifp, const Need *need)
{
    if (need == nullptr || (ifp->flags & need->flag) != 0)
        return true;
    DEBUG_EVENT("%s", need->missing);
    return false;
}

// ---- numbers

// The place of a number in the interface.
enum class Kind : uint8_t {
    Flags,   // a field of the flags
    Word,    // 32 bits
    Half,    // 16 bits
    Counter, // one of the drop counters
    Format,  // how an option's text is used
};

enum class Set : uint8_t {
    No,      // management only reads it
    Stored,  // not offered to the hardware
    Offered, // to the hardware, before it is stored
};

enum class Same : uint8_t { // a value equal to the stored value
    Stored,                 // is offered and stored like any other value
    Done,                   // succeeds at once, whatever the precondition
    DoneIfMet,              // succeeds at once when the precondition holds
};

struct NumberAttribute {
    uint32_t cmd;
    Set set;
    Same same;
    const Need *need;
    Kind kind;
    union {
        DhcpsnoopFlagField field;
        uint32_t DhcpsnoopIf::*word;
        uint16_t DhcpsnoopIf::*half;
        DhcpsnoopCounter counter;
        const DhcpsnoopOptionText *text;
    };
    void (*effect)(DhcpsnoopIf *, uint32_t value) = nullptr; // on other members, before the value is stored
};

static constexpr DhcpsnoopFlagField flag(uint32_t mask)
{
    return {static_cast<uint32_t>(std::countr_zero(mask)), 1};
}

// An option comes with the typed format, and goes to that of the switch.
static uint8_t switched_format(bool on)
{
    return static_cast<uint8_t>(on ? DHCPSNOOP_FORMAT_TYPED : DHCPSNOOP_FORMAT_GLOBAL);
}

static void version_change(DhcpsnoopIf *ifp, uint32_t value) { dhcpsnoop_if_version_set(ifp, value); }

static void option82_change(DhcpsnoopIf *ifp, uint32_t value)
{
    const bool on = (value & 1) != 0;
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, DHCPSNOOP_IF_POLICY, DHCPSNOOP_POLICY_DEFAULT);
    ifp->circuitIdFmt = ifp->remoteIdFmt = switched_format(on);
    if (on)
        return;
    text_clear(ifp, OPTION_TEXT_CIRCUIT_ID);
    text_clear(ifp, OPTION_TEXT_REMOTE_ID);
    text_clear(ifp, OPTION_TEXT_SUBOPT9);
    ifp->flags &= ~DHCPSNOOP_IF_SUBOPT9;
}

static void subopt9_change(DhcpsnoopIf *ifp, uint32_t value)
{
    if ((value & 1) == 0)
        text_clear(ifp, OPTION_TEXT_SUBOPT9);
}

static void option6_change(DhcpsnoopIf *ifp, const DhcpsnoopOptionText &option, uint32_t value)
{
    const bool on = (value & 1) != 0;
    ifp->*option.format = switched_format(on);
    if (on)
        return;
    ifp->*option.type = 0;
    text_clear(ifp, option);
}

static void option18_change(DhcpsnoopIf *ifp, uint32_t value)
{
    option6_change(ifp, OPTION_TEXT_INTERFACE_ID, value);
}

static void option37_change(DhcpsnoopIf *ifp, uint32_t value)
{
    option6_change(ifp, OPTION_TEXT_REMOTE_ID6, value);
}

// By number. Not here: the interface itself, the clearing of its counters, and three reserved attributes.
// clang-format off
static constexpr NumberAttribute NUMBERS[] = {
    {IF_VERSION,             Set::Offered, Same::Done,      nullptr,     Kind::Flags,   {.field = DHCPSNOOP_IF_VERSION}, version_change},
    {IF_TRUST,               Set::Offered, Same::Done,      nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_TRUSTED)}},
    {IF_OPTION82,            Set::Offered, Same::Done,      nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_OPTION82)}, option82_change},
    {IF_POLICY,              Set::Offered, Same::Stored,    &OPTION82_ON, Kind::Flags,   {.field = DHCPSNOOP_IF_POLICY}},
    {IF_SUBOPT9,             Set::Offered, Same::Done,      &OPTION82_ON, Kind::Flags,   {.field = flag(DHCPSNOOP_IF_SUBOPT9)}, subopt9_change},
    {IF_MODE,                Set::Offered, Same::Stored,    nullptr,     Kind::Flags,   {.field = DHCPSNOOP_IF_MODE}},
    {IF_OPTION18,            Set::Offered, Same::Done,      nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_OPTION18)}, option18_change},
    {IF_OPTION37,            Set::Offered, Same::Done,      nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_OPTION37)}, option37_change},
    {IF_CHECK_MAC,           Set::Offered, Same::Stored,    nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_CHECK_MAC)}},
    {IF_CHECK_BINDING,       Set::Offered, Same::Stored,    nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_CHECK_BINDING)}},
    {IF_MAX_USER,            Set::Offered, Same::Stored,    nullptr,     Kind::Half,    {.half = &DhcpsnoopIf::maxUser}},
    {IF_CUR_USER,            Set::No,      Same::Stored,    nullptr,     Kind::Half,    {.half = &DhcpsnoopIf::curUser}},
    {IF_FLAG14,              Set::Offered, Same::Stored,    nullptr,     Kind::Flags,   {.field = flag(DHCPSNOOP_IF_FLAG14)}},
    {IF_SETTING21,           Set::Offered, Same::Stored,    nullptr,     Kind::Half,    {.half = &DhcpsnoopIf::setting21}},
    {IF_DROP_SOURCE_MAC,     Set::No,      Same::Stored,    nullptr,     Kind::Counter, {.counter = DHCPSNOOP_DROP_SOURCE_MAC}},
    {IF_DROP_BINDING,        Set::No,      Same::Stored,    nullptr,     Kind::Counter, {.counter = DHCPSNOOP_DROP_BINDING}},
    {IF_DROP_UNTRUSTED,      Set::No,      Same::Stored,    nullptr,     Kind::Counter, {.counter = DHCPSNOOP_DROP_UNTRUSTED}},
    {IF_CIRCUIT_ID_FORMAT,   Set::Offered, Same::DoneIfMet, &OPTION82_ON, Kind::Format,  {.text = &OPTION_TEXT_CIRCUIT_ID}},
    {IF_REMOTE_ID_FORMAT,    Set::Offered, Same::DoneIfMet, &OPTION82_ON, Kind::Format,  {.text = &OPTION_TEXT_REMOTE_ID}},
    {IF_INTERFACE_ID_FORMAT, Set::Offered, Same::DoneIfMet, &OPTION18_ON, Kind::Format,  {.text = &OPTION_TEXT_INTERFACE_ID}},
    {IF_REMOTE_ID6_FORMAT,   Set::Offered, Same::DoneIfMet, &OPTION37_ON, Kind::Format,  {.text = &OPTION_TEXT_REMOTE_ID6}},
    {IF_RELAY_ADDR,          Set::Stored,  Same::Stored,    nullptr,     Kind::Word,    {.word = &DhcpsnoopIf::relayAddr}},
};
// clang-format on

static uint32_t number_read(const DhcpsnoopIf *ifp, const NumberAttribute &attribute)
{
    switch (attribute.kind) {
    case Kind::Flags:
        return dhcpsnoop_flag_get(ifp->flags, attribute.field);
    case Kind::Word:
        return ifp->*attribute.word;
    case Kind::Half:
        return ifp->*attribute.half;
    case Kind::Counter:
        return ifp->counters[attribute.counter];
    case Kind::Format:
        return ifp->*attribute.text->format;
    }
    return 0;
}

static int32_t number_store(DhcpsnoopIf *ifp, const NumberAttribute &attribute, uint32_t value)
{
    if (attribute.effect != nullptr)
        attribute.effect(ifp, value);
    switch (attribute.kind) {
    case Kind::Flags:
        ifp->flags = dhcpsnoop_flag_set(ifp->flags, attribute.field, value);
        break;
    case Kind::Word:
        ifp->*attribute.word = value;
        break;
    case Kind::Half:
        ifp->*attribute.half = static_cast<uint16_t>(value);
        break;
    case Kind::Counter: // only read
        break;
    case Kind::Format:
        // Kept: tested only now, when the hardware has been told already.
        if (value >= DHCPSNOOP_FORMATS)
            return NM_INVALID;
        text_clear(ifp, *attribute.text);
        ifp->*attribute.text->format = static_cast<uint8_t>(value);
        break;
    }
    return NM_OK;
}

// ---- attributes of bytes

struct TextAttribute {
    uint32_t cmd;
    const Need *needs[2]; // both
    const DhcpsnoopOptionText *text;
    const char *tooShort; // complaint about a typed text without type and length; null for a plain text
};

// clang-format off
static constexpr TextAttribute TEXTS[] = {
    {IF_CIRCUIT_ID,   {&OPTION82_ON},              &OPTION_TEXT_CIRCUIT_ID,   "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for circuit-id!\r\n"},
    {IF_REMOTE_ID,    {&OPTION82_ON},              &OPTION_TEXT_REMOTE_ID,    "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for remote-id!\r\n"},
    {IF_SUBOPT9_TEXT, {&OPTION82_ON, &SUBOPT9_ON}, &OPTION_TEXT_SUBOPT9,      nullptr},
    {IF_INTERFACE_ID, {&OPTION18_ON_FOR_TEXT},     &OPTION_TEXT_INTERFACE_ID, "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for option18!\r\n"},
    {IF_REMOTE_ID6,   {&OPTION37_ON},              &OPTION_TEXT_REMOTE_ID6,   "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for option37!\r\n"},
};
// clang-format on

static int32_t text_set(DhcpsnoopIf *ifp, const TextAttribute &attribute, const QorBuffer *value)
{
    const DhcpsnoopOptionText &option = *attribute.text;
    const auto *bytes = static_cast<const uint8_t *>(value->data);
    if (!text_typed(ifp, option)) {
        text_store(ifp, option, bytes, value->length);
        return NM_OK;
    }
    if (value->length < TYPED_HEADER_LEN) {
        DEBUG_EVENT("%s", attribute.tooShort);
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

static int32_t text_get(const DhcpsnoopIf *ifp, const TextAttribute &attribute, QorBuffer *value)
{
    const DhcpsnoopOptionText &option = *attribute.text;
    const uint32_t header = text_typed(ifp, option) ? TYPED_HEADER_LEN : 0;
    const uint32_t length = ifp->*option.length;
    // Kept: a typed remote-id must also find the room that the circuit-id would need.
    if (attribute.cmd == IF_REMOTE_ID && header != 0 && value->length < header + ifp->circuitIdLen)
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
    const bool same = number != nullptr && *number == number_read(ifp, attribute);
    if (same && attribute.same == Same::Done)
        return NM_OK;
    if (!met(ifp, attribute.need))
        return NM_BAD_COMMAND;
    if (number == nullptr)
        return NM_BAD_COMMAND;
    if (same && attribute.same == Same::DoneIfMet)
        return NM_OK;
    if (attribute.set == Set::Offered && !accepted(ifp->ifIndex, attribute.cmd, value, mode))
        return NM_HW_REFUSED;
    return number_store(ifp, attribute, *number);
}

static int32_t text_offer(DhcpsnoopIf *ifp, const TextAttribute &attribute, void *value, uint32_t mode)
{
    if (!met(ifp, attribute.needs[0]) || !met(ifp, attribute.needs[1]))
        return NM_BAD_COMMAND;
    const QorBuffer *text = value_bytes(value);
    if (text == nullptr)
        return NM_BAD_COMMAND;
    if (!accepted(ifp->ifIndex, attribute.cmd, value, mode | QOR_SYNC_BUFFER))
        return NM_HW_REFUSED;
    return text_set(ifp, attribute, text);
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
    if (number == nullptr || number->set == Set::No)
        return NM_BAD_COMMAND;
    return number_set(ifp, *number, value, mode);
}

static int32_t _dhcpSnoopIfSetApi(uint32_t ifIndex, uint32_t cmd, void *value, uint32_t mode)
{
    DEBUG_EVENT("[DHCPSNOOP] dhcpsnoop if setapi: interface %s, cmd %d.\r\n", if_name(ifIndex).text, cmd);
    const TableLock lock;
    const int32_t rc = setting_set(ifIndex, cmd, value, mode);
    gIfChanges++;
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
        return room != nullptr ? text_get(ifp, *text, room) : NM_BAD_COMMAND;
    }
    const NumberAttribute *number = attribute_lookup(NUMBERS, cmd);
    return number != nullptr ? value_put(value, number_read(ifp, *number)) : NM_BAD_COMMAND;
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

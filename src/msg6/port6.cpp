// The interface whose option 18 or 37 a server sent back. Built anew for an interface and compared, the
// option says whose it is. Where no interface has a template, only the interfaces are tried whose configured
// text, or MAC address in the default layout, is in the option: a table of slots finds them. It is made with
// the pool of interfaces, and filled anew for the first reply behind a change of them.
#include "dhcp6snoop_msg.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "dhcpsnoop_if_table.h"
#include "frame_edit.h"
#include "list.h"
#include "option_text.h"
#include "protocol.h"
#include "wire.h"

using Number = uint16_t; // of an interface: its place in the pool, from 1 on; 0 = an empty slot

struct Port6Index {
    uint32_t mask;       // count of slots - 1; at least half of them are empty
    uint32_t changes[2]; // of the table of interfaces, when the slots were filled; by option, 37 and 18
    bool templates[2];
    Number *slots[2];
};

static Port6Index *gPort6Index; // null before the pools are made

int32_t dhcp6snoop_port_index_init(uint16_t count)
{
    size_t slots = 2;
    while (slots < 2 * size_t{count})
        slots *= 2;
    void *block = std::calloc(1, sizeof(Port6Index) + 2 * slots * sizeof(Number));
    if (block == nullptr)
        return -1;
    gPort6Index = ::new (block) Port6Index{};
    gPort6Index->mask = static_cast<uint32_t>(slots - 1);
    gPort6Index->slots[0] = reinterpret_cast<Number *>(gPort6Index + 1);
    gPort6Index->slots[1] = gPort6Index->slots[0] + slots;
    gPort6Index->changes[0] = gPort6Index->changes[1] = gIfChanges - 1;
    return 0;
}

void dhcp6snoop_port_index_free(void)
{
    std::free(gPort6Index);
    gPort6Index = nullptr;
}

// FNV-1a; the texts are the operator's.
static uint32_t home_of(const uint8_t *bytes, uint32_t length)
{
    uint32_t hash = 2166136261U;
    for (uint32_t i = 0; i < length; i++)
        hash = (hash ^ bytes[i]) * 16777619U;
    return (hash ^ hash >> 16) & gPort6Index->mask;
}

static DhcpsnoopIf *interface_at(Number number)
{
    return static_cast<DhcpsnoopIf *>(gDhcpsnoop.ifPool) + number - 1;
}

// In the order of the table: of equal texts the first one is found.
static void fill(bool interfaceId)
{
    const DhcpsnoopOptionText &option = interfaceId ? OPTION_TEXT_INTERFACE_ID : OPTION_TEXT_REMOTE_ID6;
    Number *slots = gPort6Index->slots[interfaceId];
    std::memset(slots, 0, (gPort6Index->mask + size_t{1}) * sizeof *slots);
    gPort6Index->changes[interfaceId] = gIfChanges;
    gPort6Index->templates[interfaceId] = false;
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (dhcp6snoop_is_template(option_text_mode(ifp, option)))
            gPort6Index->templates[interfaceId] = true;
        const uint32_t length = option_text_length(ifp, option);
        uint32_t at = length != 0 ? home_of(ifp->*option.text, length) : home_of(ifp->mac, sizeof ifp->mac);
        while (slots[at] != 0)
            at = (at + 1) & gPort6Index->mask;
        slots[at] = static_cast<Number>(ifp - interface_at(1) + 1);
    }
}

namespace
{

// The option as it came, and its builder.
struct Received {
    const DhcpsnoopPktInfo *info;
    bool interfaceId;
    const uint8_t *bytes;

    bool is_of(DhcpsnoopIf *ifp) const
    {
        constexpr uint32_t size = 256;
        uint8_t built[8 + size]; // an option 37 of that much text has 8 bytes in front of it
        DhcpsnoopPktInfo scratch = {};
        scratch.svlan = info->svlan;
        scratch.ifp = ifp;
        const uint32_t length = interfaceId ? dhcp6snoop_construct_opt18(&scratch, built, size)
                                            : dhcp6snoop_construct_opt37(&scratch, built, size);
        return length != 0 && length <= frame_left(info, bytes) && std::memcmp(bytes, built, length) == 0;
    }
};

} // namespace

static DhcpsnoopIf *first_with(const Received &received, const uint8_t *part, uint32_t length)
{
    const Number *slots = gPort6Index->slots[received.interfaceId];
    for (uint32_t at = home_of(part, length); slots[at] != 0; at = (at + 1) & gPort6Index->mask) {
        if (received.is_of(interface_at(slots[at])))
            return interface_at(slots[at]);
    }
    return nullptr;
}

DhcpsnoopIf *dhcp6snoop_get_if_from_opt(const DhcpsnoopPktInfo *info, uint32_t code)
{
    const bool interfaceId = code == DHCP6_OPT_INTERFACE_ID;
    const Received received = {info, interfaceId, interfaceId ? info->interfaceIdOpt : info->remoteIdOpt};
    if (received.bytes == nullptr)
        return nullptr;
    if (gPort6Index != nullptr && gPort6Index->changes[interfaceId] != gIfChanges)
        fill(interfaceId);
    if (gPort6Index == nullptr || gPort6Index->templates[interfaceId]) {
        for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
            if (received.is_of(ifp))
                return ifp;
        }
        return nullptr;
    }

    const uint32_t header = DHCP6_OPT_HEADER_LEN + (interfaceId ? 0 : DHCP6_ENTERPRISE_LEN),
                   left = frame_left(info, received.bytes);
    if (left < header)
        return nullptr;
    const uint32_t length = DHCP6_OPT_HEADER_LEN + wire_get16(received.bytes + DHCP6_OPT_LEN);
    if (length < header || length > left)
        return nullptr;
    const uint8_t *data = received.bytes + header;
    DhcpsnoopIf *byText = first_with(received, data, length - header);
    if (length - header != DHCP6_DEFAULT_ID_LEN)
        return byText;
    DhcpsnoopIf *byMac = first_with(received, data + DHCP6_DEFAULT_ID_MAC, sizeof byMac->mac);
    return byText == nullptr || (byMac != nullptr && byMac->ifIndex < byText->ifIndex) ? byMac : byText;
}

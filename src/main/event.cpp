// Platform events: a datagram of netlink messages is walked, each message handed to the handler of its type;
// links and aggregates are followed here. Malformed messages end the walk silently, unknown ones are reported
// and passed over.
#include "dhcpsnoop_event.h"

#include "debug.h"
#include "dhcpsnoop_if.h"
#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_user.h"
#include "event_handlers.h"

static constexpr uint32_t LINK_IFINDEX = 20, LINK_ATTRIBUTES = 32;
static constexpr int32_t LINK_HEADER_LEN = 16; // between the message's header and its attributes

static constexpr uint32_t ATTRIBUTE_HEADER_LEN = 4;
static constexpr uint32_t TRUNK_WITHDRAW = 0, TRUNK_INSTALL = 1;

static uint32_t align4(uint32_t length) { return (length + 3) & ~3u; }

// The platform is asked first. Only an answer with a count other than 0 or 1 stops the work.
static bool members_follow(uint32_t aggregate)
{
    uint32_t answer = 2;
    QorNestedGet request = {QOR_IF_AGGREGATE_PORTS, &answer, 1};
    return qorIfGetApi(aggregate, QOR_IF_NESTED, &request) != 0 || request.count <= 1;
}

// Attribute 38 may have removed the interface, so it is looked up again wherever it is needed.
static void link_attribute(uint32_t ifIndex, const uint8_t *attribute, uint32_t length)
{
    const bool hasWord = length >= ATTRIBUTE_HEADER_LEN + 4;
    const uint16_t type = event_get16(attribute + 2);
    switch (type) {
    case QOR_LINK_JOINS_AGGREGATE:
        DEBUG_EVENT("[DHCPSNOOP] Receive IFLA_PHYJOINAGG message: ifindex %d.\r\n", ifIndex);
        dhcpsnoop_if_disable(dhcpsnoop_if_lookup(ifIndex));
        break;
    case QOR_LINK_CONFIGURED:
        DEBUG_EVENT("[DHCPSNOOP] Receive IFLA_SYNCCFG message: ifindex %d.\r\n", ifIndex);
        break;
    case QOR_LINK_PORT_ADDED:
        DEBUG_EVENT("[DHCPSNOOP] Receive IFLA_AGGADDPHY message: ifindex %d.\r\n", ifIndex);
        if (hasWord && members_follow(ifIndex))
            dhcpsnoop_user_process_on_trunk(ifIndex, event_get32(attribute + ATTRIBUTE_HEADER_LEN),
                                            TRUNK_INSTALL);
        break;
    case QOR_LINK_PORT_REMOVED:
        DEBUG_EVENT("[DHCPSNOOP] Receive IFLA_AGGREMOVEPHY message: ifindex %d.\r\n", ifIndex);
        if (hasWord && dhcpsnoop_if_lookup(ifIndex) != nullptr && members_follow(ifIndex))
            dhcpsnoop_user_process_on_trunk(ifIndex, event_get32(attribute + ATTRIBUTE_HEADER_LEN),
                                            TRUNK_WITHDRAW);
        break;
    default:
        DEBUG_EVENT("[DHCPSNOOP] Unknown event %d!\r\n", type);
        break;
    }
}

void dhcpsnoop_newlink_process(uint8_t *message, int32_t length)
{
    length = event_payload_length(message, length);
    if (length < LINK_HEADER_LEN)
        return;
    const uint32_t ifIndex = event_get32(message + LINK_IFINDEX);
    if (dhcpsnoop_if_lookup(ifIndex) == nullptr)
        return;

    const uint8_t *attribute = message + LINK_ATTRIBUTES;
    auto left = static_cast<uint32_t>(length - LINK_HEADER_LEN);
    while (left >= ATTRIBUTE_HEADER_LEN) {
        const uint32_t attributeLength = event_get16(attribute);
        if (attributeLength < ATTRIBUTE_HEADER_LEN || attributeLength > left)
            return;
        link_attribute(ifIndex, attribute, attributeLength);
        if (align4(attributeLength) >= left)
            return;
        attribute += align4(attributeLength);
        left -= align4(attributeLength);
    }
}

void dhcpsnoop_dellink_process(uint8_t *message, int32_t length)
{
    if (event_payload_length(message, length) < LINK_HEADER_LEN)
        return;
    const uint32_t ifIndex = event_get32(message + LINK_IFINDEX);
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(ifIndex);
    if (ifp == nullptr)
        return;
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_DELLINK message: ifindex %d.\r\n", ifIndex);
    dhcpsnoop_if_disable(ifp);
}

static void event_new_link(const Event &event)
{
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_NEWLINK message.\r\n");
    dhcpsnoop_newlink_process(event.message, event_payload_length(event));
}

static void event_del_link(const Event &event)
{
    DEBUG_EVENT("[DHCPSNOOP] Receive RTM_DELLINK message.\r\n");
    dhcpsnoop_dellink_process(event.message, event_payload_length(event));
}

struct EventType {
    uint16_t type;
    void (*handle)(const Event &event);
};

static constexpr EventType EVENT_TYPES[] = {
    {QOR_EVENT_NEW_LINK,     event_new_link    },
    {QOR_EVENT_DEL_LINK,     event_del_link    },
    {QOR_EVENT_CARD_UP,      event_card_up     },
    {QOR_EVENT_CARD_DOWN,    event_card_down   },
    {QOR_EVENT_SLOT_UP,      event_slot_up     },
    {QOR_EVENT_SLOT_DOWN,    event_slot_down   },
    {QOR_EVENT_SUBSYSTEM_UP, event_subsystem_up},
    {QOR_EVENT_DAI_START,    event_dai_start   },
    {QOR_EVENT_DAI_STOP,     event_dai_stop    },
    {QOR_EVENT_USERS_UPDATE, event_users_update},
    {QOR_EVENT_IPSG_ITEMS,   event_ipsg_change },
    {QOR_EVENT_DAI_ITEMS,    event_dai_change  },
};

static void event_dispatch(const Event &event)
{
    const uint16_t type = event_get16(event.message + EVENT_TYPE);
    for (const EventType &known : EVENT_TYPES) {
        if (known.type == type) {
            known.handle(event);
            return;
        }
    }
    DEBUG_EVENT("[DHCPSNOOP] Unknown rtm type %d!\r\n", type);
}

int32_t dhcpsnoop_notify_recv(uint8_t *buffer, int32_t length)
{
    uint8_t *message = buffer;
    int32_t left = length;
    while (left >= static_cast<int32_t>(EVENT_HEADER_LEN)) {
        const uint32_t messageLength = event_get32(message + EVENT_LENGTH);
        if (messageLength < EVENT_HEADER_LEN || messageLength > static_cast<uint32_t>(left))
            return 0;
        // Kept: never negative, as the loop's condition has it.
        const int32_t payload = left - static_cast<int32_t>(EVENT_HEADER_LEN);
        if (payload < 0) {
            DEBUG_EVENT("[DHCPSNOOP] Malformed netlink message: rtnetlink len=%d plen=%d\r\n", messageLength,
                        payload);
            return 0;
        }
        event_dispatch({buffer, message, messageLength});

        const uint32_t step = align4(messageLength);
        if (step >= static_cast<uint32_t>(left))
            return 0;
        message += step;
        left -= static_cast<int32_t>(step);
    }
    return 0;
}

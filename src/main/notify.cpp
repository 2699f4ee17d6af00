// Events about bindings, published to other features of the platform.
#include "dhcpsnoop_notify.h"

#include <cstring>

#include "debug.h"
#include "platform.h"

static constexpr uint32_t RECORD_LEN = 72, BODY_LEN = 48;

int32_t dhcpsnoop_notify_send(const uint8_t *body48, uint32_t event)
{
    // Host order, as all records exchanged with the platform.
    struct Record {
        uint32_t zero, type, length;
        uint16_t event;
        uint8_t reserved[10];
        uint8_t body[BODY_LEN];
    } record = {};
    static_assert(sizeof record == RECORD_LEN && offsetof(Record, event) == 12 &&
                  offsetof(Record, body) == 24);

    record.type = QOR_NETLINK_RECORD;
    record.length = RECORD_LEN;
    record.event = static_cast<uint16_t>(event);
    std::memcpy(record.body, body48, BODY_LEN);

    DEBUG_EVENT("[DHCPSNOOP]  Send notify: event %d\r\n", event);
    return qorNetlinkSend(QOR_NETLINK_KIND, QOR_NETLINK_DESTINATION, &record, RECORD_LEN);
}

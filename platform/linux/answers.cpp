// Answers to the daemon's questions about the switch: interface attributes, VLAN members, names, numbers and
// roles, from the model. A number that is not in platform_numbers.h is refused.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/utsname.h>

#include "acknowledged.h"
#include "guard.h"
#include "model.h"
#include "platform.h"
#include "redundancy.h"
#include "refusals.h"
#include "relay_socket.h"
#include "subscribers.h"
#include "switch_model.h"
#include "taken_frame.h"
#include "vlan_bridge.h"

using namespace platform_linux;

namespace
{

utsname machine()
{
    utsname name{};
    uname(&name);
    return name;
}

int32_t put_text(QorBuffer *text, const char *value)
{
    const size_t length = strlen(value);
    if (text == nullptr || text->data == nullptr || length > text->length)
        return ENOSPC;
    memcpy(text->data, value, length);
    text->length = static_cast<uint32_t>(length);
    return 0;
}

int32_t put_name(uint32_t ifIndex, char *buffer, uint32_t size)
{
    const Port *port = model_port(ifIndex);
    if (port == nullptr)
        return ENODEV;
    const size_t length = strlen(port->name);
    if (buffer == nullptr || length >= size)
        return ENOSPC;
    memcpy(buffer, port->name, length + 1);
    return 0;
}

uint32_t unit_type(PortKind kind)
{
    switch (kind) {
    case PortKind::port:
    case PortKind::host:
        return QOR_UNIT_PORT;
    case PortKind::aggregate:
        return QOR_UNIT_AGGREGATE;
    case PortKind::vlanInterface:
        return QOR_UNIT_VLAN_INTERFACE;
    }
    return 0;
}

int32_t get_nested(const Port &port, QorNestedGet *get)
{
    if (get->attribute != QOR_IF_AGGREGATE_PORTS || port.kind != PortKind::aggregate)
        return EINVAL;
    uint32_t ports = 0;
    for (const auto &[ifIndex, member] : model_ports())
        ports += member.aggregate == port.ifIndex ? 1 : 0;
    if (get->answer != nullptr && get->count != 0)
        *get->answer = ports;
    get->count = get->answer != nullptr && get->count != 0 ? 1 : 0;
    return 0;
}

int32_t set_binding(uint32_t ifIndex, const QorIfRequest *request)
{
    if (int32_t result = 0; request != nullptr && redundancy_decides(*request, result))
        return result;
    if (request != nullptr && request->record != nullptr && request->operation == QOR_USER_ADD &&
        is_only_asked_for(*static_cast<const QorUserRecord *>(request->record)))
        return EBUSY;
    return binding_set(ifIndex, request);
}

} // namespace

int32_t qorIfGetApi(uint32_t ifIndex, uint32_t attribute, void *value)
{
    const Port *port = model_port(ifIndex);
    if (port == nullptr)
        return ENODEV;
    if (value == nullptr)
        return EINVAL;
    auto *text = static_cast<QorBuffer *>(value);
    auto *word = static_cast<uint32_t *>(value);
    switch (attribute) {
    case QOR_IF_NAME:
        return put_text(text, port->name);
    case QOR_IF_NUMBER:
        *word = port->number;
        return 0;
    case QOR_IF_MAC:
        if (text->data == nullptr || text->length < sizeof port->mac)
            return ENOSPC;
        memcpy(text->data, port->mac, sizeof port->mac);
        text->length = sizeof port->mac;
        return 0;
    case QOR_IF_TPID:
        if (latestFrame != nullptr)
            latestFrame->leaves = true;
        *word = port->tpid;
        return 0;
    case QOR_IF_WORK_MODE:
        *word = port->routed ? 1 : 0;
        return 0;
    case QOR_IF_IS_VLAN:
        *word = port->kind == PortKind::vlanInterface ? 1 : 0;
        return 0;
    case QOR_IF_VLAN:
        if (port->kind != PortKind::vlanInterface)
            return EINVAL;
        *word = port->vlan;
        return 0;
    case QOR_IF_NESTED:
        return get_nested(*port, static_cast<QorNestedGet *>(value));
    default:
        return EINVAL;
    }
}

int32_t qorIfSetApi(uint32_t ifIndex, uint32_t command, void *value)
{
    if (command == QOR_IF_BINDING)
        return set_binding(ifIndex, static_cast<const QorIfRequest *>(value));
    if ((command != QOR_IF_TRAP_ADD && command != QOR_IF_TRAP_DELETE) || value == nullptr)
        return EINVAL;
    switch (*static_cast<uint32_t *>(value)) {
    case QOR_TRAP_DHCP:
        return trap_set(ifIndex, 4, command == QOR_IF_TRAP_ADD);
    case QOR_TRAP_DHCPV6:
        return trap_set(ifIndex, 6, command == QOR_IF_TRAP_ADD);
    default:
        return EINVAL;
    }
}

int32_t qorIfUnit2Name(uint32_t ifIndex, char *name, uint32_t size) { return put_name(ifIndex, name, size); }

int32_t nmGetIfPartDescr(uint32_t ifIndex, char *buffer, uint32_t size)
{
    return put_name(ifIndex, buffer, size);
}

int32_t qorIndexTrans(const uint32_t *from, uint32_t kind, uint32_t *to)
{
    if (from == nullptr || to == nullptr)
        return EINVAL;
    if (kind == QOR_TRANS_LOCATION) {
        const Port *port = model_port(*from);
        if (port == nullptr)
            return ENODEV;
        // A box without slots and cards: 0, as their number 0 is all there is.
        std::fill_n(to, QOR_LOCATION_WORDS, 0);
        to[QOR_LOCATION_SYSTEM] = qorSelfSysIndex();
        to[QOR_LOCATION_PORT] = port->number;
        to[QOR_LOCATION_UNIT] = port->number;
        to[QOR_LOCATION_TYPE] = unit_type(port->kind);
        return 0;
    }
    if (kind != QOR_TRANS_INDEX)
        return EINVAL;
    if (from[QOR_LOCATION_TYPE] != QOR_UNIT_VLAN_INTERFACE || from[QOR_LOCATION_UNIT] > UINT16_MAX)
        return EINVAL;
    const uint32_t ifIndex = model_vlan_interface(static_cast<uint16_t>(from[QOR_LOCATION_UNIT]));
    if (ifIndex == 0)
        return ENODEV;
    *to = ifIndex;
    return 0;
}

// The ports on which a frame of the VLAN may leave now, ascending by index; the asker sends to each without
// asking again. Blocked by spanning tree or down, a port is left out: a flood through it would make the loop
// that it prevents.
int32_t qorVlanGetApi(uint32_t vid, uint32_t attribute, QorBuffer *list)
{
    if (attribute != QOR_VLAN_PORTS || list == nullptr || list->data == nullptr)
        return EINVAL;
    if (vid == 0 || vid >= VlanSet().size())
        return EINVAL;
    // With several bridges the VLAN is that of the bridge that snoops in it, or below its interface.
    const Port *interface = model_port(model_vlan_interface(static_cast<uint16_t>(vid)));
    uint32_t bridge = vlanBridges[vid];
    if (bridge == 0 && interface != nullptr && !switch_model().conf().describes_ports())
        bridge = interface->bridge;
    auto *out = static_cast<uint8_t *>(list->data);
    uint32_t used = 0;
    bool member = false;
    for (const auto &[ifIndex, port] : model_ports()) {
        if (port.kind == PortKind::vlanInterface || !port.members[vid] ||
            (bridge != 0 && port.bridge != bridge))
            continue;
        member = true;
        if (!port.sends(vid))
            continue;
        if (used + sizeof ifIndex > list->length) {
            refusal_count(Refused::floodLimit, interface != nullptr ? interface->name : "");
            break;
        }
        memcpy(out + used, &ifIndex, sizeof ifIndex);
        used += static_cast<uint32_t>(sizeof ifIndex);
    }
    if (!member)
        return ENOENT;
    list->length = used;
    return 0;
}

int32_t qorScalarGetApi(uint32_t, uint32_t attribute, QorBuffer *text)
{
    const utsname name = machine();
    if (attribute == QOR_SCALAR_HOSTNAME)
        return put_text(text, name.nodename);
    if (attribute != QOR_SCALAR_DESCRIPTION)
        return EINVAL;
    std::array<char, sizeof name> description; // room for all three
    snprintf(description.data(), description.size(), "%s %s %s", name.sysname, name.release, name.machine);
    return put_text(text, description.data());
}

uint32_t qorSelfSysIndex() { return model_system(); }

const char *nmGetHostname()
{
    static utsname name;
    name = machine();
    return name.nodename[0] != 0 && strcmp(name.nodename, "(none)") != 0 ? name.nodename : nullptr;
}

// Only -1 stops every sender of the daemon; that to the client's own port goes on at other values.
int32_t sysIFGet(uint32_t ifIndex, uint32_t attribute, void *buffer)
{
    const Port *port = model_port(ifIndex);
    if (port == nullptr || buffer == nullptr)
        return -1;
    const uint32_t vid = static_cast<const SysIfQuery *>(buffer)->vid;
    if (attribute == QOR_SYS_EXCLUDED)
        return port->sends(vid) && vlan_is_of(vid, port->bridge) ? 0 : -1;
    if (attribute == QOR_SYS_UNTAGGED)
        return port->routed || (vid < port->untagged.size() && port->untagged[vid]) ? 1 : 0;
    return -1;
}

// Asked in every pass of the daemon's loop.
uint32_t qorHwScalarGet(uint32_t, uint32_t scalar, void *)
{
    relay_socket_follow();
    guard_gate_retry();
    const DhcpsnoopRole role = redundancy_role();
    switch (scalar) {
    case QOR_HW_NOT_MASTER:
        return role == DHCPSNOOP_ROLE_MASTER ? 0 : 1;
    case QOR_HW_NOT_SLAVE:
    case QOR_HW_STACK:
        return role == DHCPSNOOP_ROLE_SLAVE ? 0 : 1;
    default:
        return 0;
    }
}

// A box without cards and slots: nothing is in any of them.
int32_t qorHwCardGet(const uint32_t *, uint32_t, void *) { return ENODEV; }

int32_t qorHwSlotGet(const uint32_t *, uint32_t, void *) { return ENODEV; }

int32_t qorNetlinkSend(uint32_t kind, uint32_t destination, const void *record, uint32_t length)
{
    EventRecord event;
    if (kind != QOR_NETLINK_KIND || destination != QOR_NETLINK_DESTINATION || record == nullptr ||
        length != sizeof event)
        return EINVAL;
    memcpy(&event, record, sizeof event);
    return subscribers_publish(event);
}

namespace
{
int32_t guard_answer(GuardFeature feature, uint32_t ifIndex, uint32_t call, void *reply)
{
    const Port *port = model_port(ifIndex);
    if (port == nullptr)
        return ENODEV;
    if (reply == nullptr)
        return EINVAL;
    const bool isVlan = port->kind == PortKind::vlanInterface;
    const uint8_t items = guard_checked(guard_config_get({isVlan, isVlan ? port->vlan : ifIndex}), feature);
    if (call == QOR_HOOK_ENABLED)
        *static_cast<uint32_t *>(reply) = items != 0 ? 1 : 0;
    else if (call == QOR_HOOK_CHECK_ITEMS)
        *static_cast<uint8_t *>(reply) = items;
    else
        return EINVAL;
    return 0;
}
} // namespace

int32_t ipsgIfGetApi(uint32_t ifIndex, uint32_t call, void *reply)
{
    return guard_answer(GuardFeature::ipSourceGuard, ifIndex, call, reply);
}

int32_t arpAntiAttackIfGetApi(uint32_t ifIndex, uint32_t call, void *reply)
{
    return guard_answer(GuardFeature::arpInspection, ifIndex, call, reply);
}

// No auto-provisioning on this platform: nothing to insert.
int32_t deftinstall_client_entry_callback(const DhcpsnoopInstallRecord *, QorBuffer *option125,
                                          QorBuffer *bootFile)
{
    for (QorBuffer *text : {option125, bootFile})
        if (text != nullptr)
            text->length = 0;
    return 0;
}

// Every number that passes between the core and the platform, once, grouped by the call of platform.h or the
// record that carries it: the checklist of a new platform. The words say who gives a value. "Answer": the
// platform fills the call's buffer, a uint32_t unless another type is named. "Order": the core hands the
// value to the platform. "Report": the platform hands it to the core.
#pragma once

#include <cstdint>

// OsixCreateMSem. Order.
constexpr uint32_t QOR_SEM_OPTIONS = 9;

// qorIfGetApi, attribute of an interface. Answer.
enum QorIfAttribute : uint32_t {
    QOR_IF_NAME = 3,                   // QorBuffer: its name, without terminator
    QOR_IF_NUMBER = 5,                 // its number on the switch
    QOR_IF_MAC = 33,                   // QorBuffer: 6 bytes
    QOR_IF_TPID = 45,                  // EtherType of the tags that it sends; 0 = 0x8100
    QOR_IF_WORK_MODE = 193,            // bit 0 set = routed
    QOR_IF_IS_VLAN = 417,              // not 0 = a VLAN interface
    QOR_IF_VLAN = 5400,                // VLAN of a VLAN interface; refused for every other interface
    QOR_IF_NESTED = 65536285,          // QorNestedGet, with the attribute below
    QOR_IF_AGGREGATE_PORTS = 65536223, // number of ports of an aggregate
};

// qorIfSetApi, command to an interface. Order.
enum QorIfCommand : uint32_t {
    QOR_IF_BINDING = 300,     // QorIfRequest
    QOR_IF_TRAP_ADD = 305,    // uint32_t: one of QOR_TRAP_…
    QOR_IF_TRAP_DELETE = 306, // the same
};
constexpr uint32_t QOR_TRAP_DHCP = 23, QOR_TRAP_DHCPV6 = 24;

// QorIfRequest and its QorUserRecord. Order.
constexpr uint32_t QOR_USER_ADD = 0x3E800DF, QOR_USER_DELETE = 0x3E800E0; // operation
constexpr uint8_t DHCPSNOOP_HW_IPSG = 0x80, DHCPSNOOP_HW_DAI = 0x40;      // ruleFlags
constexpr uint8_t QOR_MAC_VALID = 0x30;                                   // macValid, when a MAC is given
constexpr uint8_t QOR_ADDRESS_IPV4 = 0x20, QOR_ADDRESS_IPV6 = 0x80;       // addrKind, when one is given
constexpr uint8_t DHCPSNOOP_CHECK_IP = 0x80, DHCPSNOOP_CHECK_MAC = 0x40, DHCPSNOOP_CHECK_VLAN = 0x20,
                  DHCPSNOOP_CHECK_PORT = 0x10,
                  DHCPSNOOP_CHECK_ALL = 0xF0; // check items, also of hooks and events

// ipsgIfGetApi and arpAntiAttackIfGetApi, call. Answer.
constexpr uint32_t QOR_HOOK_ENABLED = 1;     // 1 = the feature stands on the interface
constexpr uint32_t QOR_HOOK_CHECK_ITEMS = 2; // one byte: DHCPSNOOP_CHECK_…

// qorIndexTrans, kind of translation, and the words of a location. Answer.
constexpr uint32_t QOR_TRANS_LOCATION = 6; // an interface index to its location
constexpr uint32_t QOR_TRANS_INDEX = 7;    // a location (unit and its type) to an interface index
enum QorLocationWord : uint32_t {
    QOR_LOCATION_SYSTEM,
    QOR_LOCATION_SLOT,
    QOR_LOCATION_PORT,
    QOR_LOCATION_ZERO,
    QOR_LOCATION_UNIT, // number of the port, or the VLAN of a VLAN interface
    QOR_LOCATION_TYPE, // one of QOR_UNIT_…
    QOR_LOCATION_CARD,
    QOR_LOCATION_WORDS
};
constexpr uint32_t QOR_UNIT_PORT = 1, QOR_UNIT_AGGREGATE = 2, QOR_UNIT_VLAN_INTERFACE = 3;

// qorVlanGetApi, attribute of a VLAN. Answer.
constexpr uint32_t QOR_VLAN_PORTS = 5410; // QorBuffer of uint32_t: indexes of its ports

// qorScalarGetApi, attribute of the switch. Answer: QorBuffer, a text without terminator.
constexpr uint32_t QOR_SCALAR_HOSTNAME = 66, QOR_SCALAR_DESCRIPTION = 74;

// sysIFGet, attribute of a port in a VLAN. Answer: the result.
constexpr uint32_t QOR_SYS_EXCLUDED = 255; // not 0 = no frame of the VLAN may leave here now
constexpr uint32_t QOR_SYS_UNTAGGED = 258; // not 0 = the port sends the VLAN without a tag

// qorHwScalarGet, state of this control unit. Answer: the result.
constexpr uint32_t QOR_HW_NOT_MASTER = 53; // 0 = this is the master
constexpr uint32_t QOR_HW_NOT_SLAVE = 54;  // 0 = this is the standby unit, unless it is the master
constexpr uint32_t QOR_HW_STACK = 45; // not 0 = the hardware is this unit's, also when it is the standby unit

// qorHwCardGet and qorHwSlotGet, property of a card or slot. Answer: the result.
constexpr uint32_t QOR_CARD_KNOWN = 49152043, QOR_CARD_KIND = 49152042; // 0 = known; 0 = card without daemon
constexpr uint32_t QOR_SLOT_KNOWN = 32768049, QOR_SLOT_KIND = 32768042; // 0 = known; 0 = slot with a daemon

// qorHwScalarSync, qorHwIfSync, qorHwDhcpSnoopUserSync: a setting's number in management.h plus its base.
// Order.
constexpr uint32_t QOR_SYNC_GLOBAL = 0x40000, QOR_SYNC_IF = 0x402C000, QOR_SYNC_USER = 0x8CE8000;
constexpr uint32_t QOR_SYNC_SET = 3,
                   QOR_SYNC_PEER = 1;            // mode: a change made here, one that the platform brought
constexpr uint32_t QOR_SYNC_BUFFER = 0x80000000; // added to the mode when the value is a QorBuffer

// qorHwScalarSync of a packet for the peer unit (GLOBAL_SYNC_PACKET), in place of the mode. Order.
constexpr uint32_t QOR_PEER_CHANGE = 3;                    // to the peer, a single change
constexpr uint32_t QOR_PEER_CARD = 1, QOR_PEER_SYSTEM = 2; // a full copy; with the place in the higher bits
constexpr uint8_t SYNC_USER = 1, SYNC_SERVER = 2;          // type of a record in such a packet

// zlog_dispatch_logging. Order.
constexpr int32_t QOR_LOG_MODULE = 7, QOR_LOG_LEVEL = 1;

// qorNetlinkSend and its record. Order.
constexpr uint32_t QOR_NETLINK_KIND = 16, QOR_NETLINK_DESTINATION = 0;
constexpr uint32_t QOR_NETLINK_RECORD = 51; // type of the record
constexpr uint16_t QOR_EVENT_USER_ADDED = 188, QOR_EVENT_USER_DELETED = 189;

// platform_frame_recv, offsets in the packet information. Report.
constexpr uint32_t QOR_INFO_IFINDEX = 0, QOR_INFO_OUTER_VID = 20, QOR_INFO_INNER_VID = 22,
                   QOR_INFO_L2_LEN = 24, QOR_INFO_LEN = 25;

// platform_event_group_join, multicast group of the event socket. Order.
constexpr uint32_t QOR_GROUP_CHECK_ITEMS =
    31; // of changed check items; the meaning of the others is the platform's
constexpr uint32_t QOR_GROUPS[] = {32, QOR_GROUP_CHECK_ITEMS, 40, 1, 56}, QOR_GROUPS_OPTIONAL[] = {57, 40};

// platform_event_recv, type of a message. Report.
enum QorEvent : uint16_t {
    QOR_EVENT_NEW_LINK = 16, // as RTM_NEWLINK, with attributes of QorLinkAttribute
    QOR_EVENT_DEL_LINK = 17, // as RTM_DELLINK
    QOR_EVENT_CARD_UP = 87,  // place in the first words of the datagram; so for the next four
    QOR_EVENT_CARD_DOWN = 88,
    QOR_EVENT_SLOT_UP = 90,
    QOR_EVENT_SLOT_DOWN = 91,
    QOR_EVENT_SUBSYSTEM_UP = 93,
    QOR_EVENT_DAI_START = 123, // interface index, check items
    QOR_EVENT_DAI_STOP = 124,
    QOR_EVENT_USERS_UPDATE = 190, // VLAN: announce its bindings again
    QOR_EVENT_IPSG_ITEMS = 198,   // interface index, check items
    QOR_EVENT_DAI_ITEMS = 199,    // the same
};

// Attribute of QOR_EVENT_NEW_LINK. Report.
enum QorLinkAttribute : uint16_t {
    QOR_LINK_JOINS_AGGREGATE = 38, // the interface joined an aggregate
    QOR_LINK_CONFIGURED = 49,
    QOR_LINK_PORT_ADDED = 52,   // uint32_t: the port that joined this aggregate
    QOR_LINK_PORT_REMOVED = 53, // uint32_t: the port that left it
};

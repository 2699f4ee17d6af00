// Numbers of the management interface, shared by the daemon and the client: functions, attributes, values and
// result codes of the requests on the command socket.
#pragma once

#include <cstdint>

constexpr char DHCPSNOOP_SOCKET_PATH[] = "/tmp/dhcpsnoop.socket";
constexpr char DHCPSNOOP_CONTROL_PATH[] =
    "/run/dhcpsnoop/control"; // the same on Linux, where nobody else can put a file
constexpr char DHCPSNOOP_SOCKET_ENV[] = "DHCPSNOOP_SOCKET";                   // names another path, on Linux
constexpr char DHCPSNOOP_PLATFORM_SOCKET_PATH[] = "/run/dhcpsnoop/platform";  // role and redundancy, on Linux
constexpr char DHCPSNOOP_PLATFORM_SOCKET_ENV[] = "DHCPSNOOP_PLATFORM_SOCKET"; // names another path
constexpr uint32_t DHCPSNOOP_REQUEST_MAX = 1520; // body of a request; the framing length is not counted
constexpr uint32_t DHCPSNOOP_REQUEST_MIN = 26;

enum DhcpsnoopFunc : uint32_t {
    FUNC_GLOBAL_SET,
    FUNC_GLOBAL_SYNC, // the same as FUNC_GLOBAL_SET, and so are the other …_SYNC
    FUNC_GLOBAL_GET,
    FUNC_IF_FIRST,
    FUNC_IF_NEXT,
    FUNC_IF_SET,
    FUNC_IF_SYNC,
    FUNC_IF_GET,
    FUNC_USER_FIRST,
    FUNC_USER_NEXT,
    FUNC_USER_SET,
    FUNC_USER_SYNC,
    FUNC_USER_GET,
    FUNC_VLAN_FIRST,
    FUNC_VLAN_NEXT,
    FUNC_VLAN_SET,
    FUNC_VLAN_GET,
    FUNC_SERVER_IP_FIRST,
    FUNC_SERVER_IP_NEXT,
    FUNC_SERVER_IP_SET,
    FUNC_SERVER_IP_SYNC,
    FUNC_SERVER_IP_GET,
    FUNC_COUNT
};
static_assert(FUNC_COUNT == 22);

// The form in which a value travels (data type of a request).
constexpr uint8_t DATA_BYTES = 0, DATA_WORD = 2, DATA_WORD_PAIR = 4;

enum DhcpsnoopGlobalCmd : uint32_t {
    GLOBAL_ENABLE = 1,
    GLOBAL_ENTERPRISE = 2,
    GLOBAL_USER_COUNT = 3, // read only
    GLOBAL_HW_NOTIFY = 4,
    GLOBAL_SERVER_LEARN = 16,
    GLOBAL_CLEAR_STATS = 17, // set only
    GLOBAL_SYNC_PACKET = 19, // set only, bytes
    GLOBAL_DEBUG = 20,
};

enum DhcpsnoopVlanCmd : uint32_t { VLAN_MAX_USER = 1, VLAN_ENABLE = 3 };

enum DhcpsnoopIfCmd : uint32_t {
    IF_ENABLE = 1,
    IF_VERSION = 2,
    IF_TRUST = 3,
    IF_OPTION82 = 4,
    IF_CIRCUIT_ID = 5,   // bytes; typed (type, length, text) under format 3 and 4
    IF_REMOTE_ID = 6,    // bytes, likewise
    IF_SUBOPT9_TEXT = 7, // bytes
    IF_POLICY = 8,
    IF_SUBOPT9 = 9,
    IF_MODE = 10,
    IF_OPTION18 = 11,
    IF_INTERFACE_ID = 12, // bytes, typed likewise
    IF_OPTION37 = 13,
    IF_REMOTE_ID6 = 14, // bytes, typed likewise
    IF_CHECK_MAC = 16,
    IF_CHECK_BINDING = 17,
    IF_MAX_USER = 18,
    IF_CUR_USER = 19, // read only
    IF_FLAG14 = 20,
    IF_SETTING21 = 21,
    IF_DROP_SOURCE_MAC = 22, // read only, and so are the next two
    IF_DROP_BINDING = 23,
    IF_DROP_UNTRUSTED = 24,
    IF_RESERVED25 = 25, // read: success, nothing written; and so are the next two
    IF_RESERVED26 = 26,
    IF_RESERVED27 = 27,
    IF_CLEAR_STATS = 28, // set only
    IF_CIRCUIT_ID_FORMAT = 30,
    IF_REMOTE_ID_FORMAT = 31,
    IF_INTERFACE_ID_FORMAT = 32,
    IF_REMOTE_ID6_FORMAT = 33,
    IF_RELAY_ADDR = 34,
};

enum DhcpsnoopUserCmd : uint32_t {
    USER_VLAN = 1,
    USER_INTERFACE = 2,
    USER_ATTR = 4,
    USER_MAC = 5,   // bytes
    USER_LEASE = 6, // read only, and so are the next two
    USER_ELAPSED = 7,
    USER_TYPE = 8,
    USER_ACTION = 9, // read: the binding state
};

// Values of the settings.
constexpr uint8_t DHCPSNOOP_IPV4 = 1, DHCPSNOOP_IPV6 = 2; // IP versions of an interface, IP type of a key
constexpr uint8_t DHCPSNOOP_DEBUG_INFO = 0x01, DHCPSNOOP_DEBUG_DUMP = 0x02; // bits of GLOBAL_DEBUG
constexpr uint16_t DHCPSNOOP_MAX_USER_DEFAULT = 32768, DHCPSNOOP_SETTING21_DEFAULT = 100;
constexpr uint32_t DHCPSNOOP_SERVER_SLOTS = 3; // relay servers of an interface
constexpr uint32_t DHCPSNOOP_TEXT_MAX = 128;   // bytes of an interface's option text

// Treatment of a client's message that has option 82 already.
enum DhcpsnoopPolicy : uint32_t {
    DHCPSNOOP_POLICY_KEEP,
    DHCPSNOOP_POLICY_DROP,
    DHCPSNOOP_POLICY_DEFAULT, // kept, too
    DHCPSNOOP_POLICY_APPEND,
};

// How the value of an option is built; another mode builds nothing in option 82.
constexpr uint16_t DHCPSNOOP_FORMAT_GLOBAL = 0;   // of an interface: as the switch's
constexpr uint16_t DHCPSNOOP_FORMAT_TYPED = 3;    // type byte, length byte, text or generated value
constexpr uint16_t DHCPSNOOP_FORMAT_RAW = 4;      // the bare text or generated value
constexpr uint16_t DHCPSNOOP_FORMAT_TEMPLATE = 5; // the text is a template (option_template.h)
constexpr uint16_t DHCPSNOOP_FORMATS = 7;         // a mode is below this
constexpr uint8_t DHCPSNOOP_TYPE_GENERATED = 0, DHCPSNOOP_TYPE_TEXT = 1; // type byte of a typed value

// Values of a binding.
enum DhcpsnoopUserType : uint8_t {
    DHCPSNOOP_USER_DYNAMIC = 1,
    DHCPSNOOP_USER_STATIC = 2,
    DHCPSNOOP_USER_IPSG = 4, // an IP source guard binding, never touched by snooping
};

constexpr uint8_t DHCPSNOOP_BIND_BOUND = 1;     // acknowledged by a server, or made effective by management
constexpr uint8_t DHCPSNOOP_BIND_UNBOUND = 2;   // taken out of effect by management
constexpr uint8_t DHCPSNOOP_BIND_CREATED = 3;   // made by management, not effective yet
constexpr uint8_t DHCPSNOOP_BIND_REQUESTED = 4; // a client asked; provisional lease
constexpr uint32_t DHCPSNOOP_LEASE_FOREVER = 0xFFFFFFFF;

// Values of USER_ACTION.
constexpr uint32_t USER_ACTION_BIND = 1, USER_ACTION_UNBIND = 2, USER_ACTION_UNBIND_KEEP = 3,
                   USER_ACTION_CREATE = 4, USER_ACTION_CREATE_ALSO = 5, USER_ACTION_DELETE = 6;

constexpr uint32_t SERVER_IP_SLOT =
    1; // the only server-ip command; values as USER_ACTION: 1, 4, 5 add, 6 remove

// Result codes of a request. Beside these, plain values: 22, 12 and -1.
constexpr uint32_t NM_OK = 0;
constexpr uint32_t NM_NO_ENTRY = 0x3E80002;    // no such entry or interface
constexpr uint32_t NM_EXISTS = 0x3E80003;      // entry exists, or is an IP source guard binding
constexpr uint32_t NM_HW_REFUSED = 0x3E80004;  // the hardware layer refused
constexpr uint32_t NM_BOUND = 0x3E8000C;       // the binding is bound and cannot be changed
constexpr uint32_t NM_BAD_LENGTH = 0x3E8000D;  // text too short or too long, or no room for the answer
constexpr uint32_t NM_BAD_COMMAND = 0x3E80010; // unknown command or value, or a precondition not met
constexpr uint32_t NM_NULL_KEY = 0x3E8001A;
constexpr uint32_t NM_NO_MEMORY = 12;   // no free entry
constexpr uint32_t NM_INVALID = 22;     // VLAN id or format mode out of range
constexpr uint32_t NM_END = 0xFFFFFFFF; // -1: end of an iteration, or a VLAN without interface

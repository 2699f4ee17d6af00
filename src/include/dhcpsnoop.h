// The records that every module of the daemon shares, and the one global state record.
//
// IPv4 addresses in uint32_t fields are numeric (10.1.2.3 is 0x0A010203) unless a field says "network order";
// addresses in byte arrays are as on the wire. Lengths are in bytes, times in seconds. Entries live in three
// pools that are made once at start-up and move between lists by relinking; nothing here owns memory but
// them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "management.h"
#include "platform_numbers.h"

// A circular list's head and, at the front of every entry, its place in a list. An empty head points at
// itself.
struct DhcpsnoopLink {
    DhcpsnoopLink *next, *prev;
};

constexpr uint32_t DHCPSNOOP_FRAME_MAX = 2048; // no frame is longer, received or grown by an inserted option
constexpr uint32_t DHCPSNOOP_TEMPLATE_MAX = 256; // a global option template
constexpr uint32_t DHCPSNOOP_BUCKETS = 63;       // of each hash table
constexpr uint32_t DHCPSNOOP_IA_MAX = 64;        // IA options recorded per DHCPv6 message

// Drop counters of an interface, by place in DhcpsnoopIf::counters.
enum DhcpsnoopCounter : uint32_t {
    DHCPSNOOP_DROP_UNTRUSTED,  // a server's reply on an untrusted port
    DHCPSNOOP_DROP_SOURCE_MAC, // Ethernet source differs from chaddr
    DHCPSNOOP_DROP_BINDING,    // sender does not match the binding of its address
    DHCPSNOOP_DROP_COUNTERS
};

// DhcpsnoopIf::flags. Masks, not bit-fields: the numbers are the management interface's.
constexpr uint32_t DHCPSNOOP_IF_IN_USE = 1u << 31;
constexpr uint32_t DHCPSNOOP_IF_TRUSTED = 1u << 29;  // server replies are accepted here
constexpr uint32_t DHCPSNOOP_IF_OPTION82 = 1u << 28; // insert option 82 on client messages
constexpr uint32_t DHCPSNOOP_IF_SUBOPT9 = 1u << 27;  // with sub-option 9
constexpr uint32_t DHCPSNOOP_IF_OPTION18 = 1u << 26; // insert DHCPv6 option 18
constexpr uint32_t DHCPSNOOP_IF_OPTION37 = 1u << 25; // insert DHCPv6 option 37
constexpr uint32_t DHCPSNOOP_IF_CHECK_MAC = 1u
                                            << 16; // drop clients whose Ethernet source is not their chaddr
constexpr uint32_t DHCPSNOOP_IF_CHECK_BINDING =
    1u << 15;                                      // drop renewals and releases that contradict the binding
constexpr uint32_t DHCPSNOOP_IF_FLAG14 = 1u << 14; // stored and reported, read by nothing
constexpr uint32_t DHCPSNOOP_IF_ROUTER = 1u << 1;  // works in router mode, else bridge mode

// Fields of more than one bit in DhcpsnoopIf::flags.
struct DhcpsnoopFlagField {
    uint32_t shift, mask; // the mask is that of the value, before shifting
};
constexpr DhcpsnoopFlagField DHCPSNOOP_IF_VERSION = {23, 3}; // DHCPSNOOP_IPV4, DHCPSNOOP_IPV6, both
constexpr DhcpsnoopFlagField DHCPSNOOP_IF_POLICY = {21, 3};  // DhcpsnoopPolicy: a client's own option 82
constexpr DhcpsnoopFlagField DHCPSNOOP_IF_MODE = {17, 15};   // option 82 mode; 0 = the global one
constexpr DhcpsnoopFlagField DHCPSNOOP_IF_VID = {2, 0xFFF};  // VLAN of a VLAN interface

constexpr uint32_t dhcpsnoop_flag_get(uint32_t flags, DhcpsnoopFlagField field)
{
    return (flags >> field.shift) & field.mask;
}

constexpr uint32_t dhcpsnoop_flag_set(uint32_t flags, DhcpsnoopFlagField field, uint32_t value)
{
    return (flags & ~(field.mask << field.shift)) | ((value & field.mask) << field.shift);
}

// One interface with snooping switched on: a port, an aggregate or a VLAN interface.
struct DhcpsnoopIf : DhcpsnoopLink {
    uint32_t ifIndex;
    uint16_t maxUser;   // most dynamic bindings allowed
    uint16_t curUser;   // dynamic bindings there are
    uint16_t setting21; // stored for management, read by nothing
    uint8_t mac[6];
    uint8_t circuitIdLen;
    uint8_t remoteIdLen;
    uint8_t subopt9Len;
    uint8_t isVlanIf; // 1: a VLAN interface, 0: a port or an aggregate
    uint8_t interfaceIdType, interfaceIdLen;
    uint8_t remoteId6Type, remoteId6Len;
    uint8_t circuitId[DHCPSNOOP_TEXT_MAX];                           // option 82 sub-option 1
    uint8_t remoteId[DHCPSNOOP_TEXT_MAX];                            // option 82 sub-option 2
    uint8_t subopt9[DHCPSNOOP_TEXT_MAX];                             // option 82 sub-option 9
    uint8_t interfaceId[DHCPSNOOP_TEXT_MAX];                         // DHCPv6 option 18
    uint8_t remoteId6[DHCPSNOOP_TEXT_MAX];                           // DHCPv6 option 37
    uint32_t flags;                                                  // DHCPSNOOP_IF_…
    uint8_t interfaceIdFmt, remoteId6Fmt, circuitIdFmt, remoteIdFmt; // DHCPSNOOP_FORMAT_…; 0 = the global one
    uint8_t circuitIdType, remoteIdType;                             // only reported back to management
    uint32_t counters[DHCPSNOOP_DROP_COUNTERS];
    uint32_t relayAddr;                        // giaddr of relayed requests; 0 = not relaying
    uint32_t serverIp[DHCPSNOOP_SERVER_SLOTS]; // where requests are relayed to; 0 = free slot
};

// A global option format. `len` counts the bytes of `text`; there is no terminator.
struct DhcpsnoopOptionFormat {
    uint16_t mode, len;
    uint8_t text[DHCPSNOOP_TEMPLATE_MAX];
};

// A DHCP server that answered, or that management named.
struct DhcpsnoopServer : DhcpsnoopLink {
    uint32_t serverIp, ifIndex, vid;
};

// A binding's identity. Compared over 4 address bytes (IPv4) or 16 (everything else); bytes not used are
// zero.
struct DhcpsnoopUserKey {
    uint8_t ipType; // DHCPSNOOP_IPV4, DHCPSNOOP_IPV6
    uint8_t reserved[3];
    uint8_t ipAddr[16]; // network order, IPv4 in the first 4
};
static_assert(sizeof(DhcpsnoopUserKey) == 20);

constexpr uint32_t DHCPSNOOP_RULE_IPSG = 1, DHCPSNOOP_RULE_DAI = 2; // rule kinds
constexpr uint8_t DHCPSNOOP_SOURCE_VLAN = 1,
                  DHCPSNOOP_SOURCE_PORT = 2; // whose check items; 0 = not installed

constexpr uint8_t DHCPSNOOP_MAC_MARK = QOR_MAC_VALID; // DhcpsnoopUser::macMark once a MAC was written
constexpr uint32_t DHCPSNOOP_LEASE_PROVISIONAL = 60;  // until a server acknowledges
constexpr uint32_t DHCPSNOOP_MAC_USER_AGE = 120;

// Who holds an address: one binding.
struct DhcpsnoopUser : DhcpsnoopLink {
    DhcpsnoopUserKey key;
    uint16_t vid;
    uint16_t origVid; // always equal to vid; for the hardware record
    uint32_t ifIndex; // port of the client
    uint32_t leaseTime;
    uint32_t leaseStart;
    uint8_t hwFlags;   // DHCPSNOOP_HW_…: installed for
    uint8_t userType;  // DhcpsnoopUserType
    uint8_t bindState; // DHCPSNOOP_BIND_…
    uint8_t macMark;
    uint16_t userAttr; // management's, handed through
    uint8_t mac[6];
    uint32_t ipsgHwId, daiHwId; // the hardware's, kept for its next call
    uint32_t gateway;           // IPv4 router of the lease, network order; 0 = none
    uint32_t vendorTag;         // from option 60, for the auto-provisioning hook
    uint8_t ipsgSource, daiSource;
    uint8_t ipsgCheckItems, daiCheckItems;
    uint32_t serverId; // option 54 of the request
};

// A client of a relaying interface that waits for a reply. Its nodes come from the bindings' pool.
struct DhcpsnoopMacUser : DhcpsnoopLink {
    uint16_t vid;
    uint32_t ifIndex, ageTime, seenTime;
    uint8_t mac[6];
    uint32_t serverId;
};
static_assert(sizeof(DhcpsnoopMacUser) <= sizeof(DhcpsnoopUser), "both tables draw from one pool");

// One received frame. Bytes of `data` behind `len` are zero.
struct DhcpsnoopRxPkt {
    uint16_t valid; // always 1
    uint16_t len;
    uint8_t data[DHCPSNOOP_FRAME_MAX];
    DhcpsnoopIf *inIf;  // interface the frame is attributed to
    uint32_t ifIndex;   // port it came in on
    uint16_t innerVid;  // 0: no second tag
    uint16_t outerVid;  // the port's own VLAN for an untagged frame
    uint16_t l2HdrLen;  // tags included; may be any number
    uint16_t etherType; // 0x0800 or 0x86DD, by the socket it came from
};

// The result of parsing one frame. Lives as long as the frame's processing. Pointers point into the frame;
// option pointers point at the option's code, null when it is absent. Zeroed before parsing.
struct DhcpsnoopPktInfo {
    DhcpsnoopIf *ifp;
    uint32_t ifIndex;
    uint32_t rxTime;
    uint16_t cvlan, svlan;
    uint8_t *frame; // DHCPSNOOP_FRAME_MAX bytes, always
    uint32_t frameLen;
    uint32_t rxLen; // as captured, never changed
    uint32_t ethType;
    uint8_t *dstMac, *srcMac, *ethHdr;
    uint32_t l2HdrLen;
    uint8_t *ipHdr;
    uint32_t srcIp;
    uint8_t *ipTotLen; // the IPv4 total-length or IPv6 payload-length field
    uint32_t ipHdrLen, ipBodyLen;
    uint8_t *udpHdr, *udpLenField;
    uint32_t udpLen;
    uint8_t *dhcpMsg;
    uint8_t *chaddr; // null after an IPv6 parse, until the DHCPv6 client path sets it
    uint32_t dhcpLen;
    uint8_t clientIp[4]; // network order; 0.0.0.0 = the message speaks of none
    uint32_t giaddr, router, serverId, leaseTime;
    uint32_t msgType; // 0 = the message carries none
    uint8_t *opt82, *circuitId, *remoteId, *subopt9, *optEnd, *opt67, *opt125, *opt60;
    uint32_t opt60Sub1;
    // IPv6
    uint32_t statusCode;
    uint8_t *interfaceIdOpt, *remoteIdOpt;
    uint32_t iaCount;
    uint8_t *iaOpts[DHCPSNOOP_IA_MAX];
};

// A query of dhcpsnoop_user_get. `mask` says which fields must match (DHCPSNOOP_CHECK_…); 0 matches
// anything.
struct DhcpsnoopUserQuery {
    uint8_t ipAddr[16];
    uint32_t ifIndex;
    uint8_t mac[6];
    uint16_t vid;
    uint8_t ipType, mask;
};

// Handed to the auto-provisioning hook. On deletion only `mac` is filled in.
struct DhcpsnoopInstallRecord {
    uint32_t clientIp;
    uint8_t unset[12];
    uint32_t vendorTag;
    uint8_t mac[6];
    uint8_t one, add;
};
static_assert(sizeof(DhcpsnoopInstallRecord) == 28);

struct QorBuffer;

// IP source guard's and ARP inspection's per-interface query, a call of QOR_HOOK_…. 0 = answered.
typedef int32_t (*DhcpsnoopIfHook)(uint32_t ifIndex, uint32_t call, void *reply);
typedef int32_t (*DhcpsnoopInstallHook)(const DhcpsnoopInstallRecord *record, QorBuffer *option125,
                                        QorBuffer *bootFile);

enum DhcpsnoopRole : uint8_t { DHCPSNOOP_ROLE_NONE, DHCPSNOOP_ROLE_MASTER, DHCPSNOOP_ROLE_SLAVE };

// All state of the daemon. Zero-filled at start-up before the defaults are set.
struct DhcpsnoopGlobal {
    DhcpsnoopLink ifFreeList;
    void *ifPool;
    DhcpsnoopLink userFreeList; // of DhcpsnoopUser and DhcpsnoopMacUser
    void *userPool;
    DhcpsnoopLink serverFreeList;
    void *serverPool;
    DhcpsnoopLink userHash[DHCPSNOOP_BUCKETS];
    DhcpsnoopLink macUserHash[DHCPSNOOP_BUCKETS];
    DhcpsnoopLink ifList;     // ascending by interface index
    DhcpsnoopLink serverList; // newest first
    uint32_t semId;           // 0 = none
    uint32_t enterpriseNum;   // IANA private enterprise number in options 82, 125 and 37
    DhcpsnoopOptionFormat circuitIdFmt, remoteIdFmt; // DHCPv4 option 82
    DhcpsnoopOptionFormat interfaceIdFmt;            // DHCPv6 option 18
    DhcpsnoopOptionFormat remoteId6Fmt;              // DHCPv6 option 37
    int32_t dataSock, data6Sock;                     // raw sockets; -1 = closed
    int32_t udpSock;                                 // see dhcpsnoop_init_ex
    int32_t cmdSock, rtSock;
    uint8_t debugFlags;     // DHCPSNOOP_DEBUG_…
    uint8_t globalEnable;   // stored for management; gates no frame
    uint8_t hwNotifyEnable; // stored for management; acts only when it changes
    uint8_t serverLearn;    // 1 = servers that answer are recorded
    DhcpsnoopInstallHook deftinstallCb;
    DhcpsnoopIfHook ipsgIfGet, antiArpIfGet;
    uint16_t ifMax, userMax, serverMax;
    uint8_t daiStarted;
    uint8_t runningRole; // DhcpsnoopRole last seen
};
extern DhcpsnoopGlobal gDhcpsnoop;

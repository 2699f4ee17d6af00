// Services of the switch platform for the daemon: interface attributes, hardware rules, names, logging, and
// the four socket operations in which a switch's kernel differs from a stock one. A platform library
// implements all of it.
//
// Unless said otherwise an int32_t result of 0 means done or answered, and a buffer that is not answered is
// left as it was.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/socket.h>
#include <sys/types.h>

#include "dhcpsnoop.h"
#include "platform_numbers.h"

extern "C" {

// A text, a record or a packet. `length` is the room on entry where the callee fills it, and the used length
// on return.
struct QorBuffer {
    void *data;
    uint32_t length;
};

// The binding record of the hardware layer, in host order; fields that the check items do not name are zero.
struct QorUserRecord {
    uint8_t mac[6];
    uint16_t vid;
    uint32_t ifIndex;
    uint32_t ipsgHwId; // the hardware's own, written by it; the daemon only keeps it
    uint8_t addr[16];  // network order, IPv4 in the first 4
    uint16_t userAttr;
    uint16_t origVid;
    uint8_t ipType;    // DHCPSNOOP_IPV4, DHCPSNOOP_IPV6
    uint8_t ruleFlags; // DHCPSNOOP_HW_IPSG, DHCPSNOOP_HW_DAI
    uint8_t macValid;  // QOR_MAC_VALID or 0
    uint8_t addrKind;  // QOR_ADDRESS_… or 0
    uint32_t daiHwId;  // as ipsgHwId
};
static_assert(sizeof(QorUserRecord) == 44 && offsetof(QorUserRecord, addr) == 16 &&
              offsetof(QorUserRecord, userAttr) == 32 && offsetof(QorUserRecord, daiHwId) == 40);

// qorIfSetApi QOR_IF_BINDING: adds or deletes the QorUserRecord that `record` points at.
struct QorIfRequest {
    uintptr_t operation; // QOR_USER_…
    void *record;
    uintptr_t reserved[2];
};

// qorIfGetApi QOR_IF_NESTED.
struct QorNestedGet {
    uint32_t attribute;
    uint32_t *answer;
    uint8_t count;
};

// sysIFGet: `vid` is the VLAN in which the frame is to leave.
struct SysIfQuery {
    uint32_t vid;
    uint32_t reserved[7];
};

uint32_t OsixCreateMSem(uint32_t options); // a handle; 0 on failure
int32_t OsixDeleteSem(uint32_t semId);
int32_t errnoGet(void); // the calling thread's errno
void qorCatchSegFault(int argc, char **argv);

int32_t qorIfGetApi(uint32_t ifIndex, uint32_t attribute, void *value);
int32_t qorIfSetApi(uint32_t ifIndex, uint32_t command, void *value);
int32_t qorIfUnit2Name(uint32_t ifIndex, char *name, uint32_t size);
// QOR_TRANS_LOCATION: an index to the QOR_LOCATION_WORDS of its location. QOR_TRANS_INDEX: such words, of
// which unit and type count, to the index of a VLAN interface.
int32_t qorIndexTrans(const uint32_t *from, uint32_t kind, uint32_t *to);
int32_t qorVlanGetApi(uint32_t vid, uint32_t attribute, QorBuffer *list);
int32_t qorScalarGetApi(uint32_t unit, uint32_t attribute, QorBuffer *text);
uint32_t qorSelfSysIndex(void);
int32_t sysIFGet(uint32_t ifIndex, uint32_t attribute,
                 void *buffer); // the answer is the result; buffer is a SysIfQuery
int32_t nmGetIfPartDescr(uint32_t ifIndex, char *buffer, uint32_t size);
const char *nmGetHostname(void); // null when the switch has none

uint32_t qorHwScalarGet(uint32_t unit, uint32_t scalar, void *reserved); // the scalar itself
int32_t qorHwScalarSync(void *source, uint32_t code, void *data, uint32_t mode);
int32_t qorHwIfSync(uint32_t ifIndex, uint32_t code, void *value, uint32_t mode);
int32_t qorHwDhcpSnoopUserSync(const void *key, uint32_t code, void *value, uint32_t mode);
int32_t qorHwCardGet(const uint32_t *where, uint32_t property, void *answer);
int32_t qorHwSlotGet(const uint32_t *where, uint32_t property, void *answer);

__attribute__((format(printf, 3, 4))) void zlog_dispatch_logging(int32_t module, int32_t level,
                                                                 const char *format, ...);
__attribute__((format(printf, 1, 2))) void NM_DEBUG_OUTPUT(const char *format, ...);
int32_t qorNetlinkSend(uint32_t kind, uint32_t destination, const void *record, uint32_t length);

// Calls are QOR_HOOK_….
int32_t ipsgIfGetApi(uint32_t ifIndex, uint32_t call, void *reply);
int32_t arpAntiAttackIfGetApi(uint32_t ifIndex, uint32_t call, void *reply);
int32_t deftinstall_client_entry_callback(const DhcpsnoopInstallRecord *record, QorBuffer *option125,
                                          QorBuffer *bootFile);

// Makes a raw packet socket see the trapped DHCP frames of its family, each with the packet information
// below.
int32_t platform_packet_info_enable(int sock);

// One frame as it was on the wire, as recvmsg. Its control data holds a message of level SOL_PACKET with 25
// bytes, big-endian: ingress index (4), outer VLAN (2), inner VLAN (2, 0 = none), length of the layer-2
// header (1), at QOR_INFO_….
ssize_t platform_frame_recv(int sock, struct msghdr *msg);

// Success too where the kernel does not have the group.
int32_t platform_event_group_join(int sock, uint32_t group);

// One datagram of events in the switch's numbering, as recvfrom.
ssize_t platform_event_recv(int sock, void *buffer, size_t size, struct sockaddr *from,
                            socklen_t *fromLength);

// Whether the platform serves the command socket itself, and gives whole requests to dhcpsnoop_cmd_process on
// the daemon's thread. 0: the core opens the socket and serves it. The switch answers 0.
int32_t platform_serves_commands(void);

// Asked about each DHCP message, parsed and of a version that its interface snoops, before its path is taken.
// 0: go on. Anything else: it is dropped without a trace in the tables. A platform that protects bindings
// from other hosts may put the entry of an address right before it answers. The switch answers "go on",
// always.
int32_t platform_message_judge(const DhcpsnoopPktInfo *info);
}

// The management interface: the command server and the platform library read and change settings and bindings
// through it. Numbers and result codes are in management.h. A number travels as a pointer to uint32_t, a
// text or record as a QorBuffer whose length is the room of a read and, on return, the bytes written. A null
// value where one is needed is refused with NM_BAD_COMMAND before anything is called or changed. Set is a
// local change, Sync one from the platform.
#pragma once

#include "management.h"
#include "platform.h"

extern "C" {

int32_t dhcpSnoopSetApi(void *source, uint32_t cmd, void *data);
int32_t dhcpSnoopSyncApi(void *source, uint32_t cmd, void *data);
int32_t dhcpSnoopGetApi(void *source, uint32_t cmd, void *value);
int32_t dhcpSnoop_debug_set(uint32_t mask, uint32_t op); // op 1 sets the bits, 2 clears them; else -1

int32_t dhcpSnoopVlanGetFirst(uint32_t *out);
int32_t dhcpSnoopVlanGetNext(uint32_t from, uint32_t *out);
int32_t dhcpSnoopVlanSetApi(uint32_t vid, uint32_t cmd, void *data);
int32_t dhcpSnoopVlanGetApi(uint32_t vid, uint32_t cmd, void *data);

int32_t dhcpSnoopIfGetFirst(uint32_t *out);
int32_t dhcpSnoopIfGetNext(uint32_t from, uint32_t *out);
int32_t dhcpSnoopIfSetApi(uint32_t ifIndex, uint32_t cmd, void *value);
int32_t dhcpSnoopIfSyncApi(uint32_t ifIndex, uint32_t cmd, void *value);
int32_t dhcpSnoopIfGetApi(uint32_t ifIndex, uint32_t cmd, void *value);

int32_t dhcpSnoopUserGetFirst(DhcpsnoopUserKey *out);
int32_t dhcpSnoopUserGetNext(const DhcpsnoopUserKey *from, DhcpsnoopUserKey *out);
int32_t dhcpSnoopUserSetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value);
int32_t dhcpSnoopUserSyncApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value);
int32_t dhcpSnoopUserGetApi(const DhcpsnoopUserKey *key, uint32_t cmd, void *value);

// A pair is {interface index, server address}.
int32_t dhcpSnoopServerIpGetFirst(uint32_t *outPair);
int32_t dhcpSnoopServerIpGetNext(const uint32_t *from, uint32_t *outPair);
int32_t dhcpSnoopServerIpSetApi(const uint32_t *pair, uint32_t cmd, void *value);
int32_t dhcpSnoopServerIpSyncApi(const uint32_t *pair, uint32_t cmd, void *value);
int32_t dhcpSnoopServerIpGetApi(const uint32_t *pair, uint32_t cmd);

void dhcpsnoop_fake_server_show(void); // the learned servers, on standard output
}

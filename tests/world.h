// The fake platform: a small world of ports, VLANs, hardware and a kernel's sockets in which the daemon runs
// during a test. What it answers is plain data that a test sets; what the daemon did to it stands in one
// journal, in order. Implements all of platform.h; the socket calls and the clock that the core uses directly
// are caught at link time (world_wrap.cpp), so that the core has no seam for tests.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "dhcpsnoop.h"
#include "frame.h"
#include "platform.h"

// A port, an aggregate or a VLAN interface, as the platform describes it.
struct WorldPort {
    std::string name;
    std::array<uint8_t, 6> mac{};
    uint32_t number = 0;   // attribute 5
    uint32_t tpid = 0;     // attribute 45; 0 = 0x8100
    uint32_t workMode = 0; // attribute 193; bit 0 = router mode
    bool isVlanIf = false; // attribute 417
    uint16_t vid = 0;      // attribute 5400, answered for VLAN interfaces only
    std::array<uint32_t, 7> location{};
    std::set<uint32_t> vlans;    // member of; attribute 255 of sysIFGet is non-zero for any other VLAN
    std::set<uint32_t> untagged; // sends these without a tag; attribute 258 is non-zero
};

// What IP source guard or ARP inspection answers for an interface.
struct WorldGuard {
    uint32_t enabled = 1;
    uint8_t items = 0;
};

enum class Did : uint8_t {
    Frame, // sent one on a packet socket
    Relay, // sent a UDP datagram
    Call,  // called the platform, or the kernel, for something that changes it
    Asked, // called the platform for something that changes nothing
    Debug, // NM_DEBUG_OUTPUT
    Log,   // zlog_dispatch_logging
};

// One thing the daemon did. `text` is the whole text of a Debug or Log, else a line such as
// "qorIfSetApi 5 305 23", "frame 2 346" (egress port, length), "relay 10.0.0.1 10.9.9.9:67 300".
struct WorldEntry {
    Did did;
    std::string text;
    Bytes data = {};    // the frame, the datagram's payload, or the record handed over
    uint32_t port = 0;  // Frame: egress interface index
    int socket = -1;    // Frame, Relay
    Bytes address = {}; // Frame: the sockaddr_ll
};

// What platform_frame_recv gives next.
struct WorldArrival {
    Bytes frame, control;               // control messages, as the kernel lays them out
    uint32_t ifIndex = 0;               // of the link-layer source address
    std::optional<ssize_t> result = {}; // instead of the frame's length
};
// A control message at the end of others.
Bytes world_control(Bytes before, int level, int type, const Bytes &data);

struct World {
    // ---- what there is
    int64_t now = 0;
    std::map<uint32_t, WorldPort> ports;
    std::map<uint32_t, Bytes> vlanMembers;       // answer of qorVlanGetApi 5410, as it is copied out
    std::map<uint32_t, std::string> scalarTexts; // qorScalarGetApi
    std::optional<std::string> hostname;
    std::map<uint32_t, uint32_t> hwScalars; // qorHwScalarGet; 53: 0 = master, 54: 0 = slave, 1 when not here
    uint32_t selfSystem = 1;
    std::map<uint32_t, WorldGuard> ipsg, dai;                 // by interface index
    uint32_t newHwId = 0;                                     // the hardware writes it into a record that it installs, and one more for ARP inspection; 0: it does not
    std::optional<Bytes> bootFile, option125;                 // what the auto-provisioning hook fills in
    std::optional<uint32_t> hookLength;                       // instead of the filled lengths
    uint8_t trunkMembers = 1;                                 // that qorIfGetApi 65536285 finds
    int32_t (*judge)(const DhcpsnoopPktInfo *info) = nullptr; // of messages; null: all go on

    // ---- the kernel's side
    std::deque<WorldArrival> arrivals[2];         // by data socket: 0 the first one that is asked (IPv4), 1 IPv6
    std::deque<std::pair<Bytes, ssize_t>> events; // platform_event_recv: datagram and result
    std::set<int> readable;                       // what the next select marks, once
    int nextSocket = 900;                         // WORLD_FIRST_SOCKET; stays below FD_SETSIZE
    int connection = -1;                          // what the next accept gives, a descriptor of the kernel's own
    int failCalloc = 0;                           // the n-th calloc from now gives null; 0 = none

    // ---- what the daemon did
    std::vector<WorldEntry> journal;
    std::vector<DhcpsnoopRxPkt> received; // what the daemon took in, as it was handed on
    bool recording = true;                // false: no journal, for load and fuzzing
    // Sees what is sent (Frame, Relay) and what records the platform is handed (Call) while nothing is
    // recorded; `port` is a frame's egress, a datagram's server.
    void (*sent)(Did did, const uint8_t *bytes, size_t count, uint32_t port) = nullptr;

    // An empty world at the next start time, and a freshly started daemon in it. Start times of successive
    // worlds are a day apart, so that whatever the daemon remembers of the last world is long past.
    void reset(uint16_t ifMax = 0, uint16_t userMax = 0, uint16_t serverMax = 0, uint32_t optionMode = 3);
    void reset_without_daemon();
    void clear(); // the journal and `received`

    // Calls whose line begins with `line` are answered with `result` (-1 with EPERM for the kernel's), the
    // next `times` of them. The latest refusal of a line counts.
    void refuse(const std::string &line, int32_t result = -1, int times = 1 << 30);

    WorldPort &access(uint32_t ifIndex, uint16_t vid);
    WorldPort &trunk(uint32_t ifIndex, std::set<uint32_t> vlans, uint16_t native = 0);
    WorldPort &vlan_interface(uint32_t ifIndex, uint16_t vid);
    void members(uint32_t vid, const std::vector<uint32_t> &ports);
    void role(DhcpsnoopRole role);

    // Entries of that kind, and their texts, that begin with `prefix`.
    std::vector<const WorldEntry *> all(Did did, const std::string &prefix = "") const;
    std::vector<std::string> texts(Did did, const std::string &prefix = "") const;
    std::vector<std::string> calls(const std::string &prefix = "") const { return texts(Did::Call, prefix); }
    std::vector<std::string> questions(const std::string &prefix) const { return texts(Did::Asked, prefix); }

    void enter(WorldEntry entry);
    std::optional<int32_t> refused(const std::string &line);
    bool quiet() const { return !recording && refusals_.empty(); } // no line is of use to anybody

  private:
    struct Refusal {
        std::string line;
        int32_t result;
        int times;
    };
    std::vector<Refusal> refusals_;
};

extern World world;

// Above 0 while the world's own code runs, so that its allocations are not taken for the daemon's.
extern int worldDepth;
struct WorldScope {
    WorldScope() { ++worldDepth; }
    ~WorldScope() { --worldDepth; }
    WorldScope(const WorldScope &) = delete;
    WorldScope &operator=(const WorldScope &) = delete;
};

constexpr int WORLD_FIRST_SOCKET = 900;

// Journals a call and gives its result; errno is set when it is refused.
int32_t world_called(const std::string &line);
// The line of a call. Empty while nobody reads it: writing it out is most of what a call of this world costs.
#define WORLD_LINE(...) (WorldScope(), world.quiet() ? std::string() : world_format(__VA_ARGS__))
std::string world_format(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string world_hex(const uint8_t *bytes, size_t count); // "0a 0b"

// What is wrong with the daemon's lists and pools ("" = nothing): every node on exactly one list, none lost,
// links both ways, buckets right, the interface list ascending. With `counts`, also that the user counts of
// the interfaces are the numbers of dynamic bindings.
std::string world_check_tables(bool counts = false);

// Numbers of an interface or a binding by their names in world_state(); '#' behind a name: hexadecimal.
using WorldMembers = std::vector<std::pair<std::string, std::variant<uint8_t *, uint16_t *, uint32_t *>>>;
WorldMembers world_members(DhcpsnoopIf &ifp);
WorldMembers world_members(DhcpsnoopUser &user);

// Everything of the daemon's state that a refused frame or request must leave as it was, as readable lines:
// interfaces with settings and counters, bindings, MAC users, servers, formats, switches. Words of value 0 are left out;
// '#' stands before a hexadecimal number, and a lease's start is relative to now.
std::string world_state();
// What became of the lines since: " | if5 max=7 | -10.0.0.5 | +server/0a000001/5/10".
std::string world_changes(const std::string &before);

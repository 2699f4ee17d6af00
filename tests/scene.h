// Scenes for rows: a small world made of words, messages of few fields, and one line for everything that was sent,
// called, held, learned and counted, compared whole. Extends daemon_test.h; a test file adds words of its own.
#pragma once

#include <span>

#include "daemon_test.h"

constexpr uint32_t HOST = ip4(10, 0, 0, 50), SERVER = ip4(10, 0, 0, 1), RELAY = ip4(10, 0, 0, 254);
constexpr uint8_t DISCOVER = 1, OFFER = 2, REQUEST = 3, DECLINE = 4, ACK = 5, NAK = 6, RELEASE = 7, INFORM = 8;

constexpr const char *THEN = "then"; // instead of words: the row goes on from the row before it

// A word of a scene and its effect on the world or the daemon.
struct Word {
    const char *word;
    void (*effect)();
};

// A new daemon with ports 1 and 3 in VLAN 10, VLAN interface 110 of it, and trunk 2 (native VLAN 10, also 20). Ports 1 and
// 2 (trusted, the servers') are snooped. Then the effects of the words, one after the other, from `own` or from the table in
// scene.cpp; an unknown word is a failure. The journal is empty afterwards, the traces are on.
void prepare(const std::string &words, std::span<const Word> own = {});

// "2 292, hw +1 .50 f0/80 | .50 bound 1/10 | waits 1 | server .1 2/10 | 1 drops mac 1": frames (port, length), relayed
// datagrams, and calls of the platform, in this order; then bindings, waiting clients, servers and drop counters.
std::string outcome();

// The calls that change something. A rule is written "hw +1 .50 f0/80": add (-: delete), port, address, check items that
// the record carries, rule flags.
std::string calls_summary();

// Every binding: last octet (":1f", two octets, of IPv6), type when not dynamic, state, port/VLAN. Further fields only when they are
// unusual: /original VLAN, lease other than 3600 (bound) or 60 (asked) as "600s", start as "-5s ago", MAC other than
// MAC_CLIENT as "of 02", "hw" flags, "by" the server.
std::string held();

// The first of the texts, separated by '|', that was not printed, or with '!' in front, was.
std::string unsaid(const std::string &texts);

// An IPv4 message; by default client 1 asks for HOST on port 1. OFFER, ACK and NAK come from SERVER on port 2 and give it.
struct Message {
    uint8_t type = REQUEST; // 0: none is sent, time passes
    uint32_t ciaddr = 0, srcIp = 0, giaddr = 0;
    Mac chaddr = MAC_CLIENT; // and the frame's source, if that is not forged
    bool forged = false;
    uint32_t address = HOST; // option 50 of a client, yiaddr of a server; 0: none
    Bytes more = {};         // further options
    std::optional<Arrival> arrival = {};
    uint32_t after = 0; // seconds that pass first
    std::vector<Tag> tags = {};
    uint16_t flags = 0;                     // of BOOTP
    uint32_t server = SERVER, lease = 3600; // options 54 (0: none) and 51 of a server's message

    bool from_server() const { return type == OFFER || type == ACK || type == NAK; }
    Bytes options() const; // without the end option
    Frame frame() const;
    void receive() const;
};

struct Row {
    const char *claim, *before; // words of prepare(), or THEN
    Message message;
    const char *outcome, *said = "";
    const char *unchecked = nullptr;   // outcome without the last word, "check"
    std::optional<Bytes> becomes = {}; // instead of the message's `more`, as sent
    const char *undone = "";           // of the relaying of a reply: to the "client" or by "broadcast"
};
// Plays each row; what leaves untagged or to a server is compared byte for byte. Lists, pools and user counts are right after each row.
void check_rows(std::span<const Row> rows, std::span<const Word> own = {});

// Rows of a function: what it gave, and what is right.
// Text of several cases, " / " between them; of cases that are all alike, the one text.
std::string series(const Lines &cases);
std::string joined(const Lines &lines, const char *between = ", ");

struct Case {
    const char *claim;
    std::string got, right;
};
void check(const std::vector<Case> &cases);

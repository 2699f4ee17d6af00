#include "scene.h"

#include <algorithm>

void set_flag_field(DhcpsnoopIf *ifp, DhcpsnoopFlagField field, uint32_t value)
{
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, field, value);
}

DhcpsnoopIf *snoop(uint32_t ifIndex, uint32_t flags)
{
    if (dhcpsnoop_if_enable(ifIndex) != 0)
        return nullptr;
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(ifIndex);
    ifp->flags |= flags;
    world.clear();
    return ifp;
}

Key::Key(uint32_t address) : DhcpsnoopUserKey()
{
    ipType = DHCPSNOOP_IPV4;
    memcpy(ipAddr, be32(address).data(), 4);
}

Key::Key(const char *address) : DhcpsnoopUserKey()
{
    ipType = DHCPSNOOP_IPV6;
    memcpy(ipAddr, ip6(address).data(), 16);
}

DhcpsnoopUser *binding(const Key &key) { return dhcpsnoop_user_lookup(&key); }

DhcpsnoopUser *make_binding(const Key &key, const Mac &mac, uint32_t ifIndex, uint16_t vid)
{
    DhcpsnoopUser *user = dhcpsnoop_user_table_add(&key);
    if (user == nullptr)
        return nullptr;
    user->vid = user->origVid = vid;
    dhcpsnoop_user_port_set(user, ifIndex);
    user->leaseTime = 3600;
    user->leaseStart = static_cast<uint32_t>(world.now);
    user->userType = DHCPSNOOP_USER_DYNAMIC;
    user->bindState = DHCPSNOOP_BIND_BOUND;
    user->macMark = DHCPSNOOP_MAC_MARK;
    dhcpsnoop_user_mac_set(user, mac.data());
    for (DhcpsnoopIf *ifp : {dhcpsnoop_if_lookup(ifIndex), dhcpsnoop_if_lookup_by_vid(vid)})
        if (ifp != nullptr)
            ifp->curUser++;
    return user;
}

DhcpsnoopRxPkt rx_packet(const Bytes &frame, const Arrival &arrival)
{
    const auto type_at = [&frame](size_t at) { return at + 2 <= frame.size() ? static_cast<uint16_t>(frame[at] << 8 | frame[at + 1]) : uint16_t{0}; };
    uint16_t l2 = 12;
    while (type_at(l2) == 0x8100 || type_at(l2) == 0x88A8 || type_at(l2) == 0x9100)
        l2 = static_cast<uint16_t>(l2 + 4);
    DhcpsnoopRxPkt rx;
    memset(&rx, 0xEE, sizeof rx); // what stands behind the frame's buffer is not zero
    memset(rx.data, 0, sizeof rx.data);
    rx.valid = 1;
    rx.len = static_cast<uint16_t>(frame.size());
    std::copy_n(frame.begin(), std::min(frame.size(), sizeof rx.data), rx.data);
    rx.ifIndex = arrival.port;
    rx.outerVid = arrival.outer;
    rx.innerVid = arrival.inner;
    rx.l2HdrLen = arrival.l2.value_or(static_cast<uint16_t>(l2 + 2));
    rx.etherType = arrival.etherType.value_or(type_at(l2));
    rx.inIf = dhcpsnoop_if_lookup(arrival.inIf.value_or(arrival.port));
    if (rx.inIf == nullptr)
        rx.inIf = dhcpsnoop_if_lookup_by_vid(arrival.outer);
    return rx;
}

void receive(const Bytes &frame, const Arrival &arrival)
{
    DhcpsnoopRxPkt rx = rx_packet(frame, arrival);
    dhcpsnoop_recv(&rx);
}

Parsed::Parsed(const Bytes &frame, const Arrival &arrival) : rx(rx_packet(frame, arrival)), info()
{
    result = dhcpsnoop_packet_parse(&rx, &info, 1);
}

namespace
{

DhcpsnoopIf *port(uint32_t ifIndex = 1) { return dhcpsnoop_if_lookup(ifIndex); }

void bind_host(uint8_t type = DHCPSNOOP_USER_DYNAMIC)
{
    make_binding(HOST, MAC_CLIENT, 1, 10)->userType = type;
    if (type != DHCPSNOOP_USER_DYNAMIC)
        port()->curUser--;
}

void relay()
{
    port()->relayAddr = RELAY;
    port()->serverIp[0] = ip4(10, 1, 1, 1);
    port()->serverIp[2] = ip4(10, 3, 3, 3);
}

void wait_for_reply()
{
    const Parsed earlier(Frame{});
    dhcpsnoop_mac_user_add(&earlier.info);
}

const Word WORDS[] = {
    {"port3", [] { snoop(3); }},
    {"vlan-if", [] { snoop(110); }},
    {"mac-check", [] { port()->flags |= DHCPSNOOP_IF_CHECK_MAC; }},
    {"option82", [] { port()->flags |= DHCPSNOOP_IF_OPTION82; }},
    {"port4", [] { world.access(4, 20), snoop(4); }},
    {"check", [] { for (const uint32_t ifIndex : {1u, 3u}) if (port(ifIndex) != nullptr) port(ifIndex)->flags |= DHCPSNOOP_IF_CHECK_BINDING; }},
    {"82-drop", [] { set_flag_field(port(), DHCPSNOOP_IF_POLICY, 1); }},
    {"relay", relay},
    {"no-users", [] { port()->maxUser = 0; }},
    {"waiting", wait_for_reply},
    {"bound", [] { bind_host(); }},
    {"static", [] { bind_host(DHCPSNOOP_USER_STATIC); }},
    {"ipsg", [] { bind_host(DHCPSNOOP_USER_IPSG); }},
    {"unreachable", [] { world.refuse("relay 10.0.0.254 10.1.1.1"); }},
    {"hook", [] { gDhcpsnoop.deftinstallCb = deftinstall_client_entry_callback; }},
    {"learning", [] { gDhcpsnoop.serverLearn = 1; }},
    {"master", [] { world.role(DHCPSNOOP_ROLE_MASTER); }},
    {"slave", [] { world.role(DHCPSNOOP_ROLE_SLAVE); }},
    {"guarded", [] { gDhcpsnoop.ipsgIfGet = ipsgIfGetApi, world.ipsg[1] = {.items = 0xF0}; }}, // IP source guard on port 1
};

std::string last_octets(const uint8_t *address, uint32_t ipType)
{
    return ipType == DHCPSNOOP_IPV6 ? world_format(":%x", address[14] << 8 | address[15]) : world_format(".%u", address[3]);
}

} // namespace

std::string rule(const WorldEntry &call)
{
    const Bytes &record = call.data;
    const auto carried = [&](size_t at, size_t size, int item) { return record[at] != 0 || record[at + size - 1] != 0 ? item : 0; };
    const int items = carried(39, 1, 0x80) | carried(38, 1, 0x40) | carried(6, 2, 0x20) | carried(8, 4, 0x10);
    const std::string to = call.text.substr(0, call.text.find(':')); // "hw add 1"
    return std::string("hw ") + (to[3] == 'a' ? '+' : '-') + to.substr(to.rfind(' ') + 1) + " " + last_octets(&record[16], record[36]) + world_format(" %02x/%02x", items, record[37]);
}

std::string joined(const Lines &lines, const char *between)
{
    std::string text;
    for (size_t i = 0; i < lines.size(); i++)
        text += (i == 0 ? "" : between) + lines[i];
    return text;
}

std::string series(const Lines &cases)
{
    const bool alike = std::count(cases.begin(), cases.end(), cases.front()) == std::ssize(cases);
    return alike ? cases.front() : joined(cases, " / ");
}

void prepare(const std::string &words, std::span<const Word> own)
{
    world.clear();
    if (words == THEN)
        return;
    world.reset(0, words.find("one-node") != std::string::npos ? 1 : 0); // 1 node for bindings and waiting clients
    for (const uint32_t ifIndex : {1u, 3u})
        world.access(ifIndex, 10);
    world.vlan_interface(110, 10);
    world.trunk(2, {10, 20}, 10);
    snoop(1);
    snoop(2, DHCPSNOOP_IF_TRUSTED);
    for (const std::string &word : parts(words, ' ')) {
        bool known = word == "one-node";
        for (const std::span<const Word> table : {own, std::span<const Word>(WORDS)})
            for (const Word &entry : table)
                if (!known && entry.word == word)
                    known = true, entry.effect();
        EXPECT_TRUE(known) << word;
    }
    world.clear();
    debug(1);
}

std::string calls_summary()
{
    Lines lines;
    for (const WorldEntry *call : world.all(Did::Call))
        lines.push_back(call->text.starts_with("hw ") ? rule(*call) : call->text);
    return joined(lines);
}

std::string held()
{
    Lines lines;
    for (const auto *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        constexpr const char *TYPES[] = {"untyped ", "", "static ", "type3 ", "ipsg "};
        const bool bound = user->bindState == DHCPSNOOP_BIND_BOUND, asked = user->bindState == DHCPSNOOP_BIND_REQUESTED;
        std::string line = " | " + last_octets(user->key.ipAddr, user->key.ipType) + " " + TYPES[user->userType % 5];
        line += bound ? "bound" : asked ? "asked"
                                        : world_format("state %u", user->bindState);
        line += world_format(" %u/%u", user->ifIndex, user->vid);
        line += user->origVid == user->vid ? "" : world_format("/%u", user->origVid);
        line += user->leaseTime == (bound ? 3600 : 60) ? "" : world_format(" %us", user->leaseTime);
        const int64_t age = world.now - user->leaseStart;
        line += age == 0 ? "" : world_format(" %ds ago", static_cast<int>(age));
        line += memcmp(user->mac, MAC_CLIENT.data(), 6) == 0 ? "" : world_format(" of %02x", user->mac[5]);
        line += user->hwFlags == 0 ? "" : world_format(" hw %02x", user->hwFlags);
        line += user->serverId == 0 ? "" : world_format(" by .%u", user->serverId & 0xFF);
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return joined(lines, "");
}

std::string sent_summary()
{
    std::string text;
    for (const WorldEntry *entry : world.all(Did::Frame))
        text += world_format("%s%u %zu", text.empty() ? "" : ", ", entry->port, entry->data.size());
    return text;
}

Bytes sent_frame()
{
    const auto frames = world.all(Did::Frame);
    EXPECT_EQ(frames.size(), 1u) << sent_summary();
    return frames.empty() ? Bytes(342, 0) : frames[0]->data;
}

std::string outcome()
{
    Lines done;
    for (const std::string &text : {sent_summary(), joined(world.texts(Did::Relay)), calls_summary()})
        if (!text.empty())
            done.push_back(text);
    std::string text = joined(done) + held();
    size_t waiting = 0;
    for ([[maybe_unused]] const auto *user : hash_each<DhcpsnoopMacUser>(gDhcpsnoop.macUserHash))
        waiting++;
    text += waiting == 0 ? "" : world_format(" | waits %zu", waiting);
    for (const auto *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
        text += world_format(" | server .%u %u/%u", server->serverIp & 0xFF, server->ifIndex, server->vid);
    for (const auto *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        constexpr const char *DROPS[] = {"untrusted", "mac", "binding"};
        for (int i = 0; i < 3; i++)
            text += ifp->counters[i] == 0 ? "" : world_format(" | %u drops %s %u", ifp->ifIndex, DROPS[i], ifp->counters[i]);
    }
    return text;
}

std::string said()
{
    constexpr std::string_view HEAD = "[DHCPSNOOP] ", END = "\r\n";
    std::string all;
    for (const std::string &text : world.texts(Did::Debug)) {
        const bool usual = text.starts_with(HEAD) && text.ends_with(END);
        all += all.empty() ? "" : "|";
        all += usual ? text.substr(HEAD.size(), text.size() - HEAD.size() - END.size()) : "{" + text + "}";
    }
    return all;
}

std::string unsaid(const std::string &texts)
{
    const std::string all = "|" + said() + "|";
    for (const std::string &text : parts(texts, '|')) {
        const bool unwanted = text.starts_with("!");
        if ((all.find("|" + text.substr(unwanted ? 1 : 0) + "|") != std::string::npos) == unwanted)
            return text;
    }
    return "";
}

Frame Message::frame() const
{
    Frame frame = {.src = forged ? MAC_CLIENT : chaddr, .srcIp = srcIp, .flags = flags, .ciaddr = ciaddr, .giaddr = giaddr, .chaddr = chaddr, .options = opt_type(type)};
    if (type == OFFER || type == ACK || type == NAK) {
        frame.src = MAC_SERVER;
        frame.srcIp = SERVER;
        frame.srcPort = 67;
        frame.dstPort = giaddr != 0 ? 67 : 68;
        frame.dstIp = giaddr != 0 ? giaddr : 0xFFFFFFFF;
        frame.dst = giaddr != 0 ? Mac{2, 0, 0, 0, 0, 9} : MAC_BROADCAST;
        frame.op = 2;
        frame.yiaddr = address;
        frame.options = frame.options + (server != 0 ? opt_ip(54, server) : Bytes{}) + (type != NAK ? opt_lease(lease) : Bytes{});
    } else if (address != 0) {
        frame.options = frame.options + opt_ip(50, address);
    }
    frame.options = frame.options + more + OPT_END;
    return frame;
}

void Message::receive() const
{
    world.now += after;
    if (after != 0)
        dhcpsnoop_user_timer_check();
    const Frame sent = frame();
    if (type != 0)
        ::receive(sent, arrival.value_or(Arrival{.port = sent.op}));
}

// What is sent of a row's message: as it came, but for the option that is put in or taken out and the relaying that is undone.
static Frame as_sent(const Row &row)
{
    Message message = row.message;
    message.more = row.becomes.value_or(message.more);
    Frame frame = message.frame();
    if (*row.undone == '\0')
        return frame;
    const bool broadcast = *row.undone == 'b';
    frame.srcIp = RELAY;
    frame.dstPort = 68;
    frame.dstIp = broadcast ? 0xFFFFFFFF : message.address;
    frame.dst = broadcast ? MAC_BROADCAST : message.chaddr;
    return frame;
}

void check_rows(std::span<const Row> rows, std::span<const Word> own)
{
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.claim) + ": " + row.before);
        prepare(row.before, own);
        row.message.receive();
        EXPECT_EQ(outcome(), row.outcome);
        EXPECT_EQ(unsaid(row.said), "");
        EXPECT_EQ(world_check_tables(true), "");
        Frame sent = as_sent(row);
        for (const WorldEntry *entry : world.all(Did::Frame)) {
            EXPECT_TRUE(std::equal(&entry->data[0], &entry->data[6], &entry->address[12])) << "not sent to the frame's destination";
            if (entry->data.size() == sent.bytes().size()) {
                EXPECT_EQ(dump(entry->data), dump(sent));
            }
        }
        sent.giaddr = RELAY;
        for (const WorldEntry *entry : world.all(Did::Relay))
            EXPECT_EQ(hex(entry->data), hex(sent.message()));
    }
}

void check(const std::vector<Case> &cases)
{
    for (const Case &row : cases)
        EXPECT_EQ(row.got, row.right) << row.claim;
}

#include "daemon_test.h"

#include <algorithm>
#include <cstring>

#include <arpa/inet.h>

DhcpsnoopIf *snoop(uint32_t ifIndex, uint32_t flags)
{
    if (dhcpsnoop_if_enable(ifIndex) != 0)
        return nullptr;
    DhcpsnoopIf *ifp = dhcpsnoop_if_lookup(ifIndex);
    ifp->flags |= flags;
    world.clear();
    return ifp;
}

void DaemonOnPort1::SetUp()
{
    world.reset();
    world.access(1, 10);
    snoop(1);
    debug(1);
}

DhcpsnoopRxPkt rx_packet(const Bytes &frame, const Arrival &arrival)
{
    DhcpsnoopRxPkt rx;
    memset(&rx, 0xEE, sizeof rx); // what stands behind the frame's buffer is not zero
    memset(rx.data, 0, sizeof rx.data);
    rx.valid = 1;
    rx.len = static_cast<uint16_t>(frame.size());
    std::copy_n(frame.begin(), std::min(frame.size(), sizeof rx.data), rx.data);
    rx.ifIndex = arrival.port;
    rx.outerVid = arrival.outer;
    rx.innerVid = arrival.inner;
    size_t l2 = 12;
    while (l2 + 4 <= frame.size() && ((frame[l2] == 0x81 && frame[l2 + 1] == 0) || (frame[l2] == 0x88 && frame[l2 + 1] == 0xA8) || (frame[l2] == 0x91 && frame[l2 + 1] == 0)))
        l2 += 4;
    rx.l2HdrLen = arrival.l2.value_or(static_cast<uint16_t>(l2 + 2));
    const uint16_t own = l2 + 2 <= frame.size() ? static_cast<uint16_t>(frame[l2] << 8 | frame[l2 + 1]) : uint16_t{0};
    rx.etherType = arrival.etherType.value_or(own);
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

bool printed(const std::string &text)
{
    const Lines texts = debug_texts();
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string said()
{
    constexpr std::string_view HEAD = "[DHCPSNOOP] ", END = "\r\n";
    std::string all;
    for (const std::string &text : debug_texts()) {
        const bool usual = text.starts_with(HEAD) && text.ends_with(END);
        all += all.empty() ? "" : "|";
        all += usual ? text.substr(HEAD.size(), text.size() - HEAD.size() - END.size()) : "{" + text + "}";
    }
    return all;
}

static DhcpsnoopUserKey key_of(uint8_t ipType, const void *address, size_t size)
{
    DhcpsnoopUserKey key = {};
    key.ipType = ipType;
    memcpy(key.ipAddr, address, size);
    return key;
}

DhcpsnoopUserKey key4(uint32_t address) { return key_of(DHCPSNOOP_IPV4, be32(address).data(), 4); }

DhcpsnoopUserKey key6(const char *address) { return key_of(DHCPSNOOP_IPV6, ip6(address).data(), 16); }

DhcpsnoopUser *binding(uint32_t address)
{
    const DhcpsnoopUserKey key = key4(address);
    return dhcpsnoop_user_lookup(&key);
}

DhcpsnoopUser *binding(const char *address)
{
    const DhcpsnoopUserKey key = key6(address);
    return dhcpsnoop_user_lookup(&key);
}

namespace
{
size_t count(DhcpsnoopLink (&buckets)[DHCPSNOOP_BUCKETS])
{
    size_t found = 0;
    for (DhcpsnoopLink &bucket : buckets)
        for (const DhcpsnoopLink *at = bucket.next; at != &bucket; at = at->next)
            found++;
    return found;
}
} // namespace

size_t count_bindings() { return count(gDhcpsnoop.userHash); }

size_t count_waiting() { return count(gDhcpsnoop.macUserHash); }

DhcpsnoopUser *make_binding(uint32_t address, const Mac &mac, uint32_t ifIndex, uint16_t vid)
{
    return make_binding(key4(address), mac, ifIndex, vid);
}

DhcpsnoopUser *make_binding(const DhcpsnoopUserKey &key, const Mac &mac, uint32_t ifIndex, uint16_t vid)
{
    DhcpsnoopUser *user = dhcpsnoop_user_table_add(&key);
    if (user == nullptr)
        return nullptr;
    user->vid = user->origVid = vid;
    user->ifIndex = ifIndex;
    user->leaseTime = 3600;
    user->leaseStart = static_cast<uint32_t>(world.now);
    user->userType = DHCPSNOOP_USER_DYNAMIC;
    user->bindState = DHCPSNOOP_BIND_BOUND;
    user->macMark = DHCPSNOOP_MAC_MARK;
    memcpy(user->mac, mac.data(), mac.size());
    if (DhcpsnoopIf *port = dhcpsnoop_if_lookup(ifIndex))
        port->curUser++;
    if (DhcpsnoopIf *vlan = dhcpsnoop_if_lookup_by_vid(vid))
        vlan->curUser++;
    return user;
}

void set_flag_field(DhcpsnoopIf *ifp, DhcpsnoopFlagField field, uint32_t value)
{
    ifp->flags = dhcpsnoop_flag_set(ifp->flags, field, value);
}

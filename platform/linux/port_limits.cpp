#include "port_limits.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "binding_walk.h"
#include "dhcpsnoop_if_table.h"
#include "guard.h"
#include "list.h"
#include "model.h"
#include "vlan_bridge.h"

namespace platform_linux
{
namespace
{

// A part takes 0.4 ms with 65,535 bindings, 0.03 ms with 4096.
constexpr size_t CHAINS_PER_PART = 8;
constexpr Ticks PART = 100;

// The client that an entry of the pool was when it was looked at last.
struct Seen {
    uint32_t ifIndex; // 0 = none that is known
    std::array<uint8_t, 6> mac;
    bool inRound; // of all chains
};

bool doubtful = false;
std::map<uint32_t, bool> told; // the trust of ports
std::vector<Seen> seen;        // by place in the pool
bool round = false;
size_t chain = 0; // the next
Ticks due = 0;

bool is_trusted(const DhcpsnoopIf &ifp)
{
    constexpr uint32_t BOTH = DHCPSNOOP_IF_IN_USE | DHCPSNOOP_IF_TRUSTED;
    return (ifp.flags & BOTH) == BOTH;
}

// A port without an entry of its own goes by the interface of its VLAN. With several VLANs one that is
// trusted is enough: no limit may keep a server's replies back.
void follow_trust()
{
    std::vector<const DhcpsnoopIf *> interfaces; // ascending, as the ports
    VlanSet vlans;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        interfaces.push_back(ifp);
        if (is_trusted(*ifp) && ifp->isVlanIf != 0)
            vlans.set(dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VID));
    }
    auto own = interfaces.begin();
    for (const auto &[ifIndex, port] : model_ports()) {
        while (own != interfaces.end() && (*own)->ifIndex < ifIndex)
            ++own;
        const bool hasOwn = own != interfaces.end() && (*own)->ifIndex == ifIndex;
        const bool trusted = hasOwn ? is_trusted(**own) : (port.members & vlans).any();
        const auto [known, isNew] = told.try_emplace(ifIndex, trusted);
        if (std::exchange(known->second, trusted) != trusted || isNew)
            guard_rate_trust(ifIndex, trusted);
    }
}

void forget(Seen &client)
{
    if (client.ifIndex != 0)
        guard_known_remove(client.ifIndex, client.mac.data());
    client.ifIndex = 0;
}

// A binding that a client only asked for makes it no known one.
void look(const DhcpsnoopUser &user)
{
    const auto place = static_cast<size_t>(&user - static_cast<const DhcpsnoopUser *>(gDhcpsnoop.userPool));
    if (user.bindState != DHCPSNOOP_BIND_BOUND || user.macMark != DHCPSNOOP_MAC_MARK || user.ifIndex == 0 ||
        place >= seen.size())
        return;
    Seen &client = seen[place];
    client.inRound = round;
    if (client.ifIndex == user.ifIndex && memcmp(client.mac.data(), user.mac, sizeof user.mac) == 0)
        return;
    forget(client);
    memcpy(client.mac.data(), user.mac, sizeof user.mac);
    client.ifIndex = guard_known_add(user.ifIndex, user.mac) ? user.ifIndex : 0;
}

void end_round()
{
    for (Seen &client : seen)
        if (client.inRound != round)
            forget(client);
    round = !round;
    chain = 0;
}

void follow_clients()
{
    const size_t count = std::min<size_t>(CHAINS_PER_PART, DHCPSNOOP_BUCKETS - chain);
    walk_bindings(std::span(gDhcpsnoop.userHash).subspan(chain, count), look);
    chain += count;
    if (chain == DHCPSNOOP_BUCKETS)
        end_round();
}

void model_changed(ModelChange change, const Port &port, const Port *before)
{
    if (change == ModelChange::vanished)
        told.erase(port.ifIndex);
    doubtful =
        doubtful || change == ModelChange::appeared || (before != nullptr && port.members != before->members);
}

} // namespace

void port_limits_start(uint32_t bindings)
{
    seen.assign(bindings, Seen{});
    told.clear();
    model_watch(model_changed);
}

void port_limits_doubt() { doubtful = true; }

void port_limits_follow(Ticks now)
{
    if (std::exchange(doubtful, false))
        follow_trust();
    if (now < due)
        return;
    due = now + PART;
    follow_clients();
}

} // namespace platform_linux

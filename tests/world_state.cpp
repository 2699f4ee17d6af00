// What the daemon holds, checked and written out.
#include "world.h"

#include <numeric>
#include <set>

#include "dhcpsnoop_user.h"
#include "list.h"

namespace
{

// Walks a list by hand, both ways; adds each node's address to `seen` (a node met twice is a fault).
std::string walk(const char *name, const DhcpsnoopLink *head, std::set<const void *> &seen, size_t limit, size_t *count)
{
    size_t length = 0;
    for (const DhcpsnoopLink *at = head->next; at != head; at = at->next) {
        if (at == nullptr)
            return world_format("%s: null link after %zu entries\n", name, length);
        if (at->next == nullptr || at->next->prev != at || at->prev->next != at)
            return world_format("%s: entry %zu is not linked both ways\n", name, length);
        if (!seen.insert(at).second)
            return world_format("%s: entry %zu stands on another list too\n", name, length);
        if (++length > limit)
            return world_format("%s: longer than its pool\n", name);
    }
    *count += length;
    return "";
}

std::string in_pool(const char *name, const void *pool, const std::set<const void *> &seen, size_t expected)
{
    if (seen.size() != expected)
        return world_format("%s: %zu nodes on lists, %zu in the pool\n", name, seen.size(), expected);
    if (!seen.empty() && *seen.begin() != pool)
        return world_format("%s: the first node is not the pool's\n", name);
    return "";
}

std::string format_line(const char *name, const DhcpsnoopOptionFormat &format)
{
    return world_format("%s %u %u ", name, format.mode, format.len) + world_hex(format.text, sizeof format.text) + "\n";
}

} // namespace

std::string world_check_tables(bool counts)
{
    WorldScope scope;
    std::string faults;
    std::set<const void *> ifs, users, servers;
    size_t count = 0;
    faults += walk("ifFreeList", &gDhcpsnoop.ifFreeList, ifs, gDhcpsnoop.ifMax, &count);
    faults += walk("ifList", &gDhcpsnoop.ifList, ifs, gDhcpsnoop.ifMax, &count);
    faults += walk("serverFreeList", &gDhcpsnoop.serverFreeList, servers, gDhcpsnoop.serverMax, &count);
    faults += walk("serverList", &gDhcpsnoop.serverList, servers, gDhcpsnoop.serverMax, &count);
    faults += walk("userFreeList", &gDhcpsnoop.userFreeList, users, gDhcpsnoop.userMax, &count);
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        faults += walk("userHash", &bucket, users, gDhcpsnoop.userMax, &count);
    for (DhcpsnoopLink &bucket : gDhcpsnoop.macUserHash)
        faults += walk("macUserHash", &bucket, users, gDhcpsnoop.userMax, &count);
    if (!faults.empty())
        return faults;
    faults += in_pool("ifPool", gDhcpsnoop.ifPool, ifs, gDhcpsnoop.ifMax);
    faults += in_pool("userPool", gDhcpsnoop.userPool, users, gDhcpsnoop.userMax);
    faults += in_pool("serverPool", gDhcpsnoop.serverPool, servers, gDhcpsnoop.serverMax);

    uint32_t last = 0;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (ifp->ifIndex < last)
            faults += world_format("ifList: %u after %u\n", ifp->ifIndex, last);
        last = ifp->ifIndex;
        uint32_t dynamic = 0;
        for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
            for (const DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&bucket))
                if (user->userType == DHCPSNOOP_USER_DYNAMIC && (ifp->isVlanIf == 1 ? user->vid == dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VID) : user->ifIndex == ifp->ifIndex))
                    dynamic++;
        if (counts && dynamic != ifp->curUser)
            faults += world_format("interface %u counts %u users of %u\n", ifp->ifIndex, ifp->curUser, dynamic);
    }
    const auto sum_of = [](const uint8_t *bytes, size_t size) { return std::accumulate(bytes, bytes + size, 0u); };
    for (uint32_t i = 0; i < DHCPSNOOP_BUCKETS; i++) {
        for (const DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&gDhcpsnoop.userHash[i])) {
            const uint32_t sum = sum_of(user->key.ipAddr, user->key.ipType == 1 ? 4 : 16);
            if (sum % DHCPSNOOP_BUCKETS != i)
                faults += world_format("userHash: a binding of bucket %u in bucket %u\n", sum % 63, i);
        }
        for (const DhcpsnoopMacUser *user : list_each<DhcpsnoopMacUser>(&gDhcpsnoop.macUserHash[i]))
            if (sum_of(user->mac, 6) % DHCPSNOOP_BUCKETS != i)
                faults += world_format("macUserHash: a MAC of bucket %u in bucket %u\n", sum_of(user->mac, 6) % 63, i);
    }
    return faults;
}

std::string world_state()
{
    WorldScope scope;
    std::string state;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        state += world_format("interface %u max %u cur %u s21 %u vlanIf %u flags %08x types %u %u %u %u fmt %u %u %u "
                              "%u drops %u %u %u relay %08x servers %08x %08x %08x mac %s\n",
                              ifp->ifIndex, ifp->maxUser, ifp->curUser, ifp->setting21, ifp->isVlanIf, ifp->flags, ifp->interfaceIdType, ifp->remoteId6Type, ifp->circuitIdType, ifp->remoteIdType, ifp->interfaceIdFmt, ifp->remoteId6Fmt, ifp->circuitIdFmt, ifp->remoteIdFmt, ifp->counters[0], ifp->counters[1], ifp->counters[2], ifp->relayAddr, ifp->serverIp[0], ifp->serverIp[1], ifp->serverIp[2], world_hex(ifp->mac, 6).c_str());
        const struct {
            const char *name;
            const uint8_t *text;
            uint8_t length;
        } texts[] = {{"circuitId", ifp->circuitId, ifp->circuitIdLen},
                     {"remoteId", ifp->remoteId, ifp->remoteIdLen},
                     {"subopt9", ifp->subopt9, ifp->subopt9Len},
                     {"interfaceId", ifp->interfaceId, ifp->interfaceIdLen},
                     {"remoteId6", ifp->remoteId6, ifp->remoteId6Len}};
        for (const auto &text : texts)
            state += world_format("  %s %u ", text.name, text.length) + world_hex(text.text, DHCPSNOOP_TEXT_MAX) + "\n";
    }
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        for (const DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&bucket))
            state += world_format("binding %u %s vid %u/%u if %u lease %u from %u hw %02x type %u state %u mark %02x attr %u mac %s "
                                  "ids %u %u gw %08x tag %08x source %u %u items %02x %02x server %08x\n",
                                  user->key.ipType, world_hex(user->key.ipAddr, 16).c_str(), user->vid, user->origVid, user->ifIndex, user->leaseTime, user->leaseStart, user->hwFlags, user->userType, user->bindState, user->macMark, user->userAttr, world_hex(user->mac, 6).c_str(), user->ipsgHwId, user->daiHwId, user->gateway, user->vendorTag, user->ipsgSource, user->daiSource, user->ipsgCheckItems, user->daiCheckItems, user->serverId);
    for (DhcpsnoopLink &bucket : gDhcpsnoop.macUserHash)
        for (const DhcpsnoopMacUser *user : list_each<DhcpsnoopMacUser>(&bucket))
            state += world_format("waiting %s vid %u if %u age %u seen %u server %08x\n", world_hex(user->mac, 6).c_str(), user->vid, user->ifIndex, user->ageTime, user->seenTime, user->serverId);
    for (const DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
        state += world_format("server %08x if %u vid %u\n", server->serverIp, server->ifIndex, server->vid);
    state += format_line("circuitIdFmt", gDhcpsnoop.circuitIdFmt);
    state += format_line("remoteIdFmt", gDhcpsnoop.remoteIdFmt);
    state += format_line("interfaceIdFmt", gDhcpsnoop.interfaceIdFmt);
    state += format_line("remoteId6Fmt", gDhcpsnoop.remoteId6Fmt);
    state += world_format("global %u %u %u debug %02x enterprise %u dai %u role %u\n", gDhcpsnoop.globalEnable,
                          gDhcpsnoop.hwNotifyEnable, gDhcpsnoop.serverLearn, gDhcpsnoop.debugFlags,
                          gDhcpsnoop.enterpriseNum, gDhcpsnoop.daiStarted, gDhcpsnoop.runningRole);
    return state;
}

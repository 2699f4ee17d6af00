// What the daemon holds, checked and written out.
#include "world.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <sstream>

#include "dhcpsnoop_user.h"
#include "list.h"
#include "user_index.h"

namespace
{

// A pool, and the lists that its nodes stand on.
struct Pool {
    const char *name;
    const void *first;
    size_t size;
    std::vector<const DhcpsnoopLink *> lists;
};

// Walks the lists by hand, both ways: every node of the pool stands on one of them, once.
std::string check_pool(const Pool &pool)
{
    std::set<const void *> seen;
    for (size_t i = 0; i < pool.lists.size(); i++)
        for (const DhcpsnoopLink *head = pool.lists[i], *at = head->next; at != head; at = at->next)
            if (at == nullptr || at->next == nullptr || at->next->prev != at || at->prev->next != at || !seen.insert(at).second || seen.size() > pool.size)
                return world_format("%s: list %zu is broken at node %zu\n", pool.name, i, seen.size());
    if (seen.size() != pool.size || (pool.size > 0 && *seen.begin() != pool.first))
        return world_format("%s: %zu nodes on lists, %zu in the pool, or another's\n", pool.name, seen.size(), pool.size);
    return "";
}

// A walk along the chains, and what is found without one: of an address, of a MAC address, of the order of keys.
std::string check_index()
{
    const auto bytes = [](const auto &key, const uint8_t *at = nullptr) { return at = reinterpret_cast<const uint8_t *>(&key), Bytes(at, at + sizeof key); };
    std::map<Bytes, const void *> keys, dynamic, waiting;
    std::set<Bytes> listed;
    uint32_t taken = 0;
    for (const DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        const DhcpsnoopUserKey key = dhcpsnoop_user_key(user->key.ipType, user->key.ipAddr);
        keys.emplace(bytes(key), user);
        listed.insert(bytes(user->key));
        taken++;
        const void *&first = dynamic[Bytes(user->mac, user->mac + 6)];
        first = first == nullptr && user->userType == DHCPSNOOP_USER_DYNAMIC ? user : first;
    }
    for (const DhcpsnoopMacUser *user : hash_each<DhcpsnoopMacUser>(gDhcpsnoop.macUserHash)) {
        waiting.emplace(Bytes(user->mac, user->mac + 6), user);
        taken++;
    }
    bool same = gDhcpsnoop.userPool == nullptr || user_index_free() == gDhcpsnoop.userMax - taken;
    for (const auto &[key, user] : keys)
        same = same && dhcpsnoop_user_lookup(reinterpret_cast<const DhcpsnoopUserKey *>(key.data())) == user;
    for (const auto &[mac, user] : dynamic)
        same = same && dhcpsnoop_user_lookup_dynamic(mac.data()) == user && (waiting.contains(mac) || dhcpsnoop_mac_user_lookup(mac.data()) == nullptr);
    for (const auto &[mac, user] : waiting)
        same = same && dhcpsnoop_mac_user_lookup(mac.data()) == user && (dynamic.contains(mac) || dhcpsnoop_user_lookup_dynamic(mac.data()) == nullptr);
    const DhcpsnoopUser *at = dhcpsnoop_user_next(nullptr);
    for (const Bytes &key : listed)
        if (same = same && at != nullptr && memcmp(&at->key, key.data(), key.size()) == 0; same)
            at = dhcpsnoop_user_next(&at->key);
    return same && at == nullptr ? "" : "the index finds others than the chains hold\n";
}

// "61 62" as "6162", nine and more of the same as "78*128"; zeros at the end are left out.
std::string brief(const uint8_t *bytes, size_t count)
{
    while (count > 0 && bytes[count - 1] == 0)
        count--;
    std::string text;
    for (size_t i = 0, same = 1; i < count; i += same) {
        for (same = 1; i + same < count && bytes[i + same] == bytes[i];)
            same++;
        same = same < 9 ? 1 : same;
        text += same == 1 ? world_format("%02x", bytes[i]) : world_format("%02x*%zu", bytes[i], same);
    }
    return text;
}

// " name=5", or " name#ff" where the name says so; nothing for 0.
std::string numbers(const WorldMembers &members)
{
    std::string text;
    for (const auto &[name, member] : members)
        if (const uint32_t value = std::visit([](const auto *at) { return uint32_t{*at}; }, member); value != 0)
            text += " " + std::string(name) + world_format(name.ends_with('#') ? "%x" : "=%u", value);
    return text;
}

std::string bytes_of(const std::string &name, const uint8_t *bytes, size_t count)
{
    const std::string text = brief(bytes, count);
    return text.empty() ? "" : " " + name + ":" + text;
}

// Words of each line by its first word.
std::map<std::string, std::vector<std::string>> state_lines(const std::string &state)
{
    std::map<std::string, std::vector<std::string>> lines;
    std::istringstream stream(state);
    for (std::string line, key; std::getline(stream, line);) {
        std::istringstream words(line);
        words >> key;
        lines[key] = {std::istream_iterator<std::string>(words), {}};
    }
    return lines;
}

std::string name_of(const std::string &word) { return word.substr(0, word.find_first_of("=#:")); }

} // namespace

std::string world_check_tables(bool counts)
{
    WorldScope scope;
    std::string faults;
    Pool pools[] = {{"interfaces", gDhcpsnoop.ifPool, gDhcpsnoop.ifMax, {&gDhcpsnoop.ifFreeList, &gDhcpsnoop.ifList}},
                    {"servers", gDhcpsnoop.serverPool, gDhcpsnoop.serverMax, {&gDhcpsnoop.serverFreeList, &gDhcpsnoop.serverList}},
                    {"users", gDhcpsnoop.userPool, gDhcpsnoop.userMax, {&gDhcpsnoop.userFreeList}}};
    for (uint32_t i = 0; i < DHCPSNOOP_BUCKETS; i++)
        pools[2].lists.insert(pools[2].lists.end(), {&gDhcpsnoop.userHash[i], &gDhcpsnoop.macUserHash[i]});
    for (const Pool &pool : pools)
        faults += check_pool(pool);
    if (!faults.empty())
        return faults;

    std::map<uint32_t, uint32_t> onPort, inVlan; // dynamic bindings
    const auto check_bucket = [&faults](uint32_t bucket, const uint8_t *bytes, size_t size) {
        if (const uint32_t sum = std::accumulate(bytes, bytes + size, 0u); sum % DHCPSNOOP_BUCKETS != bucket)
            faults += world_format("an address of bucket %u in bucket %u\n", sum % DHCPSNOOP_BUCKETS, bucket);
    };
    for (uint32_t i = 0; i < DHCPSNOOP_BUCKETS; i++) {
        for (const DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&gDhcpsnoop.userHash[i])) {
            check_bucket(i, user->key.ipAddr, user->key.ipType == 1 ? 4 : 16);
            onPort[user->ifIndex] += user->userType == DHCPSNOOP_USER_DYNAMIC;
            inVlan[user->vid] += user->userType == DHCPSNOOP_USER_DYNAMIC;
        }
        for (const DhcpsnoopMacUser *user : list_each<DhcpsnoopMacUser>(&gDhcpsnoop.macUserHash[i]))
            check_bucket(i, user->mac, 6);
    }
    faults += check_index();
    uint32_t last = 0;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        const uint32_t dynamic = ifp->isVlanIf == 1 ? inVlan[dhcpsnoop_flag_get(ifp->flags, DHCPSNOOP_IF_VID)] : onPort[ifp->ifIndex];
        if (ifp->ifIndex < last || (counts && dynamic != ifp->curUser))
            faults += world_format("interface %u behind %u counts %u users of %u\n", ifp->ifIndex, last, ifp->curUser, dynamic);
        last = ifp->ifIndex;
    }
    return faults;
}

WorldMembers world_members(DhcpsnoopIf &ifp)
{
    return {{"max", &ifp.maxUser}, {"cur", &ifp.curUser}, {"s21", &ifp.setting21}, {"vlanIf", &ifp.isVlanIf}, {"flags#", &ifp.flags}, {"untrusted", &ifp.counters[0]}, {"forged", &ifp.counters[1]}, {"unbound", &ifp.counters[2]}, {"relay#", &ifp.relayAddr}, {"server0#", &ifp.serverIp[0]}, {"server1#", &ifp.serverIp[1]}, {"server2#", &ifp.serverIp[2]}};
}

WorldMembers world_members(DhcpsnoopUser &user)
{
    return {{"vid", &user.vid}, {"orig", &user.origVid}, {"if", &user.ifIndex}, {"lease", &user.leaseTime}, {"hw#", &user.hwFlags}, {"type", &user.userType}, {"state", &user.bindState}, {"mark#", &user.macMark}, {"attr", &user.userAttr}, {"ipsgId", &user.ipsgHwId}, {"daiId", &user.daiHwId}, {"gw#", &user.gateway}, {"tag#", &user.vendorTag}, {"ipsgFrom", &user.ipsgSource}, {"daiFrom", &user.daiSource}, {"ipsg#", &user.ipsgCheckItems}, {"dai#", &user.daiCheckItems}, {"server#", &user.serverId}};
}

std::string world_state()
{
    WorldScope scope;
    std::string state;
    for (DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        state += world_format("if%u", ifp->ifIndex) + bytes_of("mac", ifp->mac, 6) + numbers(world_members(*ifp));
        const struct {
            std::string name;
            uint8_t *text, *length, *type, *format;
        } texts[] = {{"circuit", ifp->circuitId, &ifp->circuitIdLen, &ifp->circuitIdType, &ifp->circuitIdFmt},
                     {"remote", ifp->remoteId, &ifp->remoteIdLen, &ifp->remoteIdType, &ifp->remoteIdFmt},
                     {"sub9", ifp->subopt9, &ifp->subopt9Len, {}, {}},
                     {"id18", ifp->interfaceId, &ifp->interfaceIdLen, &ifp->interfaceIdType, &ifp->interfaceIdFmt},
                     {"id37", ifp->remoteId6, &ifp->remoteId6Len, &ifp->remoteId6Type, &ifp->remoteId6Fmt}};
        for (const auto &text : texts) {
            for (const auto &[name, at] : {std::pair{"Fmt", text.format}, {"Type", text.type}, {"Len", text.length}})
                state += at == nullptr ? "" : numbers({{text.name + name, at}});
            state += bytes_of(text.name, text.text, DHCPSNOOP_TEXT_MAX);
        }
        state += "\n";
    }
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        for (DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&bucket)) {
            const uint8_t *ip = user->key.ipAddr;
            state += user->key.ipType == 1 ? world_format("%u.%u.%u.%u", ip[0], ip[1], ip[2], ip[3]) : world_format("type%u/", user->key.ipType) + brief(ip, 16);
            const auto since = static_cast<int>(user->leaseStart - static_cast<uint32_t>(world.now));
            state += user->leaseStart == 0 ? "" : std::abs(since) < 1'000'000 ? world_format(" from:%+d", since)
                                                                              : world_format(" from#%x", user->leaseStart);
            state += numbers(world_members(*user)) + bytes_of("mac", user->mac, 6) + "\n";
        }
    for (DhcpsnoopLink &bucket : gDhcpsnoop.macUserHash)
        for (DhcpsnoopMacUser *user : list_each<DhcpsnoopMacUser>(&bucket))
            state += "waiting/" + brief(user->mac, 6) + numbers({{"vid", &user->vid}, {"if", &user->ifIndex}, {"age", &user->ageTime}, {"seen", &user->seenTime}, {"server#", &user->serverId}}) + "\n";
    for (const DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
        state += world_format("server/%08x/%u/%u\n", server->serverIp, server->ifIndex, server->vid);
    for (const auto &[name, format] : {std::pair{"circuitIdFmt", &gDhcpsnoop.circuitIdFmt}, {"remoteIdFmt", &gDhcpsnoop.remoteIdFmt}, {"interfaceIdFmt", &gDhcpsnoop.interfaceIdFmt}, {"remoteId6Fmt", &gDhcpsnoop.remoteId6Fmt}})
        state += name + numbers({{"mode", &format->mode}, {"len", &format->len}}) + bytes_of("text", format->text, sizeof format->text) + "\n";
    return state + "global" + numbers({{"on", &gDhcpsnoop.globalEnable}, {"notify", &gDhcpsnoop.hwNotifyEnable}, {"learn", &gDhcpsnoop.serverLearn}, {"debug#", &gDhcpsnoop.debugFlags}, {"enterprise", &gDhcpsnoop.enterpriseNum}, {"dai", &gDhcpsnoop.daiStarted}, {"role", &gDhcpsnoop.runningRole}}) + "\n";
}

std::string world_changes(const std::string &before)
{
    WorldScope scope;
    const auto was = state_lines(before), is = state_lines(world_state());
    std::string changes;
    for (const auto &[key, words] : was)
        changes += is.contains(key) ? "" : " | -" + key;
    for (const auto &[key, words] : is) {
        std::string line;
        const auto known = was.find(key);
        std::vector<std::string> gone = known != was.end() ? known->second : std::vector<std::string>();
        for (const std::string &word : words) {
            if (std::find(gone.begin(), gone.end(), word) == gone.end())
                line += " " + word;
            std::erase_if(gone, [&](const std::string &other) { return name_of(other) == name_of(word); });
        }
        for (const std::string &word : gone)
            line += " " + name_of(word) + "=0";
        if (known == was.end() || !line.empty())
            changes += (known == was.end() ? " | +" : " | ") + key + line;
    }
    return changes;
}

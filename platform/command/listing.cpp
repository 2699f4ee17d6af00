#include "listing.h"

#include <algorithm>

#include "protocol.h"

namespace
{

// All indexes (or VLAN ids) that First and Next give. They must rise, or a daemon could keep us for ever.
std::vector<uint32_t> listIndexes(const Daemon &daemon, DhcpsnoopFunc first, DhcpsnoopFunc next,
                                  const std::string &what)
{
    std::vector<uint32_t> found;
    for (;;) {
        Reply reply = found.empty() ? daemon.ask({first, 0, 0u}) : daemon.ask({next, 0, found.back()});
        if (reply.result() == NM_END)
            return found;
        if (reply.result() != NM_OK)
            throw Refusal(reply.result(), "listing " + what);
        uint32_t index = reply.word();
        if (!found.empty() && index <= found.back())
            throw NoDaemon("malformed reply: the list of " + what + " does not go forward");
        found.push_back(index);
    }
}

// Every relay server; null when the list changed under the walk. The daemon goes on only from a pair that is
// still there, and says "end" otherwise, so the last pair is looked up again.
std::optional<std::vector<ServerKey>> tryListServers(const Daemon &daemon)
{
    std::vector<ServerKey> found;
    for (;;) {
        Reply reply = found.empty()
                          ? daemon.ask({FUNC_SERVER_IP_FIRST, 0, ServerKey{}, Bytes(SERVER_KEY_ROOM)})
                          : daemon.ask({FUNC_SERVER_IP_NEXT, 0, found.back(), Bytes(SERVER_KEY_ROOM)});
        if (reply.result() == NM_END) {
            bool whole = found.empty() ||
                         daemon.ask({FUNC_SERVER_IP_GET, SERVER_IP_SLOT, found.back()}).result() == NM_OK;
            return whole ? std::optional(found) : std::nullopt;
        }
        if (reply.result() != NM_OK)
            throw Refusal(reply.result(), "listing relay servers");
        ServerKey key = reply.serverKey();
        bool forward = found.empty() || key.ifIndex >= found.back().ifIndex;
        bool room = found.size() < DHCPSNOOP_SERVER_SLOTS ||
                    found[found.size() - DHCPSNOOP_SERVER_SLOTS].ifIndex != key.ifIndex;
        if (!forward || !room)
            throw NoDaemon("malformed reply: the list of relay servers does not go forward");
        found.push_back(key);
    }
}

} // namespace

std::vector<uint32_t> listInterfaces(const Daemon &daemon)
{
    return listIndexes(daemon, FUNC_IF_FIRST, FUNC_IF_NEXT, "interfaces");
}

// Ascending. The daemon lists VLANs in the order of their interfaces' indexes and skips a VLAN below its last
// answer. The VLANs in between are therefore asked for one by one.
std::vector<uint32_t> listVlans(const Daemon &daemon)
{
    const std::vector<uint32_t> given = listIndexes(daemon, FUNC_VLAN_FIRST, FUNC_VLAN_NEXT, "VLANs");
    const uint32_t last = given.empty() ? 0 : given.back();
    if (last > VLAN_ID_MAX)
        throw NoDaemon("malformed reply: " + std::to_string(last) + " is no VLAN");
    std::vector<uint32_t> vlans;
    for (uint32_t vid = VLAN_ID_MIN; vid <= last; vid++)
        if (std::binary_search(given.begin(), given.end(), vid) ||
            daemon.ask({FUNC_VLAN_GET, VLAN_ENABLE, vid}).result() == NM_OK)
            vlans.push_back(vid);
    return vlans;
}

std::optional<UserKey> nextUser(const Daemon &daemon, const std::optional<UserKey> &last)
{
    Reply reply = daemon.ask(
        {last ? FUNC_USER_NEXT : FUNC_USER_FIRST, 0, last.value_or(UserKey{}), Bytes(USER_KEY_ROOM)});
    if (reply.result() == NM_END)
        return std::nullopt;
    if (reply.result() != NM_OK)
        throw Refusal(reply.result(), "listing bindings");
    UserKey key = reply.userKey();
    if (last && key <= *last)
        throw NoDaemon("malformed reply: the list of bindings does not go forward");
    return key;
}

std::vector<ServerKey> listServers(const Daemon &daemon)
{
    for (int tries = 0; tries < 10; tries++)
        if (auto found = tryListServers(daemon))
            return *found;
    throw CtlError(EXIT_REFUSED, "listing relay servers: they change faster than they can be read");
}

std::optional<std::vector<ServerKey>> listServersIfKnown(const Daemon &daemon)
{
    try {
        return listServers(daemon);
    } catch (const Refusal &refusal) {
        if (refusal.code != NM_BAD_COMMAND)
            throw;
        return std::nullopt;
    }
}

// The tables are walked by the tests' own checker; what more must hold after any input, and of any frame, is
// here.
#include "invariants.h"

#include <cstring>
#include <set>
#include <string>

#include "dhcpsnoop.h"
#include "fault.h"
#include "frame.h"
#include "list.h"
#include "world.h"

namespace
{

constexpr size_t TAG_LEN = 4, SENT_MAX = DHCPSNOOP_FRAME_MAX + TAG_LEN;

uint32_t get16(const uint8_t *p) { return uint32_t{p[0]} << 8 | p[1]; }

std::string key_of(const DhcpsnoopUserKey &key)
{
    const size_t length = key.ipType == DHCPSNOOP_IPV4 ? 4 : sizeof key.ipAddr;
    return std::string(1, static_cast<char>(key.ipType)) +
           std::string(reinterpret_cast<const char *>(key.ipAddr), length);
}

void check_bindings()
{
    std::set<std::string> keys, macs;
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        for (const DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&bucket))
            if (!keys.insert(key_of(user->key)).second)
                fault("two bindings of one address");
    for (DhcpsnoopLink &bucket : gDhcpsnoop.macUserHash)
        for (const DhcpsnoopMacUser *waiting : list_each<DhcpsnoopMacUser>(&bucket))
            if (!macs.insert(std::string(reinterpret_cast<const char *>(waiting->mac), 6)).second)
                fault("a client waits twice");
}

void check_interfaces()
{
    const DhcpsnoopIf *last = nullptr;
    for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList)) {
        if (last != nullptr && last->ifIndex >= ifp->ifIndex)
            fault("interface %u stands behind %u", ifp->ifIndex, last->ifIndex);
        last = ifp;
        if ((ifp->flags & DHCPSNOOP_IF_IN_USE) == 0)
            fault("interface %u is on the list and not in use", ifp->ifIndex);
        for (const uint8_t length :
             {ifp->circuitIdLen, ifp->remoteIdLen, ifp->subopt9Len, ifp->interfaceIdLen, ifp->remoteId6Len})
            if (length > DHCPSNOOP_TEXT_MAX)
                fault("interface %u: a text of %u bytes", ifp->ifIndex, length);
        for (const uint8_t mode :
             {ifp->circuitIdFmt, ifp->remoteIdFmt, ifp->interfaceIdFmt, ifp->remoteId6Fmt})
            if (mode > 6)
                fault("interface %u: a format mode %u", ifp->ifIndex, mode);
    }
}

// Where the IP header begins, behind at most three tags.
size_t ip_offset(const uint8_t *frame, size_t count)
{
    const auto is_ip = [frame](size_t at) {
        return get16(frame + at) == 0x0800 || get16(frame + at) == 0x86DD;
    };
    size_t at = 12;
    while (at + 2 <= count && at <= 12 + 3 * TAG_LEN && !is_ip(at))
        at += TAG_LEN;
    if (at + 2 + 20 > count || !is_ip(at))
        fault("a sent frame without an IP header");
    return at + 2;
}

void check_udp(const Bytes &addresses, const uint8_t *udp, size_t length)
{
    if (get16(udp + 4) != length)
        fault("a sent frame has a UDP length of %u in %zu bytes", get16(udp + 4), length);
    if (get16(udp + 6) == 0)
        return;
    if (internet_checksum(addresses + Bytes{0, 17, udp[4], udp[5]} + Bytes(udp, udp + length)) != 0)
        fault("a sent frame has a wrong UDP checksum");
}

void check_ipv6(const uint8_t *ip, size_t rest)
{
    if (rest < 48 || get16(ip + 4) != rest - 40)
        fault("a sent frame says another length of IPv6 payload than the %zu bytes that are there", rest);
    check_udp(Bytes(ip + 8, ip + 40), ip + 40, rest - 40);
}

} // namespace

void invariants_check(bool counts)
{
    const std::string faults = world_check_tables(counts);
    if (!faults.empty())
        fault("%s", faults.c_str());
    check_bindings();
    check_interfaces();
}

void invariants_check_frame(const uint8_t *frame, size_t count, bool whole)
{
    if (count < 12 || count > SENT_MAX)
        fault("a frame of %zu bytes was sent", count);
    if (!whole)
        return;
    const size_t offset = ip_offset(frame, count);
    const uint8_t *ip = frame + offset;
    const size_t rest = count - offset;
    if (get16(ip - 2) == 0x86DD) {
        check_ipv6(ip, rest);
        return;
    }
    const size_t header = (ip[0] & 15u) * 4, total = get16(ip + 2);
    if (header < 20 || header + 8 > rest || total != rest)
        fault("a sent frame says %zu bytes of IPv4 header, %zu in all; %zu are there", header, total, rest);
    if (internet_checksum(Bytes(ip, ip + header)) != 0)
        fault("a sent frame has a wrong IPv4 header checksum");
    check_udp(Bytes(ip + 12, ip + 20), ip + header, total - header);
}

// Limits of ports, and the clients that have a share of their own (rate_limit.h, guard.h). The words of the
// buckets are the classifier's: whoever changes a limit fills the port's buckets.
#include "rate_limit.h"

#include <cerrno>
#include <cstring>
#include <set>

#include <bpf/bpf.h>

#include "fd.h"
#include "guard.h"
#include "guard_rules.h"
#include "map_keys.h"

namespace platform_linux
{
namespace
{

constexpr uint64_t SECOND = 1000000000;

// Of each bucket of all ports together. On a busy machine of two processors the daemon takes 70,000 to 90,000
// frames a second, 6 to 8 microseconds each (scripts/bench): both buckets, and as many answers of servers,
// are 65,536. A socket of the daemon holds 6,500 frames, more than both bursts.
constexpr uint32_t SUM_RATE = 16384, SUM_BURST = 2048;

constexpr GuardRate DEFAULT_RATE = {256, 128, 128, true}, OFF = {0, 0, 0, true};

struct Rates {
    RateMaps maps = {-1, -1, -1};
    std::set<uint32_t> inherited; // indexes of ports with known clients of an earlier run
} rates;

guard_buckets buckets_of(const GuardRate &rate)
{
    const uint64_t interval = rate.rate != 0 ? SECOND / rate.rate : 0;
    return {0, 0, interval, rate.burst * interval, rate.reserved * interval};
}

guard_rate element_of(const GuardRate &rate, bool trusted)
{
    const GuardRate said = rate.isDefault ? guard_rate_default(trusted) : rate;
    guard_rate element = {};
    element.buckets = buckets_of(said);
    element.rate = said.rate;
    element.burst = said.burst;
    element.reserved = said.reserved;
    element.is_default = said.isDefault ? 1 : 0;
    element.trusted = trusted ? 1 : 0;
    return element;
}

GuardRate rate_of(const guard_rate &element)
{
    return {element.rate, element.burst, element.reserved, element.is_default != 0};
}

// The daemon's own map, else the pinned one.
int ports_map()
{
    static Fd pinned;
    if (rates.maps.ports >= 0)
        return rates.maps.ports;
    if (!pinned)
        pinned = guard_config_map("guard_rates");
    return pinned.get();
}

// Writes an element that is another than before.
int change(uint32_t ifIndex, const GuardRate &rate, bool trusted, const guard_rate &before)
{
    const guard_rate element = element_of(rate, trusted);
    if (rate_of(element) == rate_of(before) && element.trusted == before.trusted)
        return 0;
    return -bpf_map_update_elem(rates.maps.ports, &ifIndex, &element, BPF_EXIST);
}

guard_known_key key_of(uint32_t ifIndex, const uint8_t *mac)
{
    guard_known_key key = {};
    key.ifindex = ifIndex;
    memcpy(key.mac, mac, sizeof key.mac);
    return key;
}

// Known clients of an earlier run: of one port, or of all when there is no room.
template <class Which> void drop_inherited(const Which &which)
{
    for (const guard_known_key &key : map_keys<guard_known_key>(rates.maps.known)) {
        guard_known known = {};
        if (which(key) && bpf_map_lookup_elem(rates.maps.known, &key, &known) == 0 && known.until != 0)
            bpf_map_delete_elem(rates.maps.known, &key);
    }
}

void inherit_known()
{
    const uint64_t now = guard_clock();
    for (const guard_known_key &key : map_keys<guard_known_key>(rates.maps.known)) {
        guard_known known = {};
        bpf_map_lookup_elem(rates.maps.known, &key, &known);
        const bool isOver = known.until != 0 && known.until <= now;
        if (known.until == 0)
            known = {now + RATE_INHERIT_SECONDS * SECOND, 0};
        if (isOver)
            bpf_map_delete_elem(rates.maps.known, &key);
        else if (bpf_map_update_elem(rates.maps.known, &key, &known, BPF_EXIST) == 0)
            rates.inherited.insert(static_cast<uint32_t>(key.ifindex));
    }
}

} // namespace

void rates_open(const RateMaps &maps)
{
    const uint32_t zero = 0;
    const guard_buckets sum = buckets_of({SUM_RATE, SUM_BURST, SUM_BURST, true});
    rates = {maps, {}};
    bpf_map_update_elem(maps.sum, &zero, &sum, BPF_ANY);
    inherit_known();
}

void rates_close() { rates = Rates(); }

int rate_port_add(uint32_t ifIndex, bool another)
{
    if (another && rates.inherited.erase(ifIndex) != 0)
        drop_inherited([ifIndex](const guard_known_key &key) { return key.ifindex == ifIndex; });
    const guard_rate element = element_of(DEFAULT_RATE, false);
    const int error =
        -bpf_map_update_elem(rates.maps.ports, &ifIndex, &element, another ? BPF_ANY : BPF_NOEXIST);
    return error == EEXIST ? 0 : error;
}

GuardRate guard_rate_default(bool trusted) { return trusted ? OFF : DEFAULT_RATE; }

std::optional<GuardRate> guard_rate_get(uint32_t ifIndex)
{
    guard_rate element = {};
    if (bpf_map_lookup_elem(ports_map(), &ifIndex, &element) != 0)
        return {};
    return rate_of(element);
}

int guard_rate_set(uint32_t ifIndex, const GuardRate &rate)
{
    guard_rate before = {};
    if (rates.maps.ports < 0)
        return EOPNOTSUPP;
    if (bpf_map_lookup_elem(rates.maps.ports, &ifIndex, &before) != 0)
        return ENODEV;
    return change(ifIndex, rate, before.trusted != 0, before);
}

void guard_rate_trust(uint32_t ifIndex, bool trusted)
{
    guard_rate before = {};
    if (rates.maps.ports >= 0 && bpf_map_lookup_elem(rates.maps.ports, &ifIndex, &before) == 0)
        change(ifIndex, rate_of(before), trusted, before);
}

bool guard_known_add(uint32_t ifIndex, const uint8_t mac[6])
{
    if (rates.maps.known < 0)
        return false;
    const guard_known_key key = key_of(ifIndex, mac);
    guard_known known = {};
    bpf_map_lookup_elem(rates.maps.known, &key, &known);
    known = {0, known.references + 1};
    if (bpf_map_update_elem(rates.maps.known, &key, &known, BPF_ANY) == 0)
        return true;
    if (errno == E2BIG)
        drop_inherited([](const guard_known_key &) { return true; });
    return bpf_map_update_elem(rates.maps.known, &key, &known, BPF_ANY) == 0;
}

void guard_known_remove(uint32_t ifIndex, const uint8_t mac[6])
{
    const guard_known_key key = key_of(ifIndex, mac);
    guard_known known = {};
    if (rates.maps.known < 0 || bpf_map_lookup_elem(rates.maps.known, &key, &known) != 0 || known.until != 0)
        return;
    if (--known.references != 0)
        bpf_map_update_elem(rates.maps.known, &key, &known, BPF_EXIST);
    else
        bpf_map_delete_elem(rates.maps.known, &key);
}

} // namespace platform_linux

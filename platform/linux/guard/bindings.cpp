// From the 44-byte record to a rule of the guard and back (bindings.h). All room is made at the start:
// bindings come and go with frames.
#include "bindings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "classifier.h"
#include "guard.h"
#include "model.h"
#include "refusals.h"
#include "report.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t NONE = UINT32_MAX;

// A handle is a rule's place, from 1, and how often the place has been given away, so that a spent one is
// known.
constexpr uint32_t PLACE_BITS = 18, PLACE_MASK = (1u << PLACE_BITS) - 1;
constexpr uint32_t BINDINGS_MAX = UINT16_MAX;
static_assert(BINDINGS_MAX * RULES_OF_A_BINDING < PLACE_MASK);

struct Rule {
    guard_rule_key key;
    uint32_t ifIndex; // the port that it was asked for on; 0 = none in particular
    uint32_t handle;  // 0 = free
    uint32_t next;    // in its chain, or of the free ones
    uint32_t uses;    // how often the place was given away
    bool installed;   // not while its port is away
    bool withdrawn;   // by the daemon, during a hold
};

std::vector<Rule> rules;
std::vector<uint32_t> chains; // by content; a power of two of them
uint32_t firstFree = NONE;
uint8_t holds = 0; // those that are on, as Hold

bool holding() { return holds != 0; }

uint32_t &chain_of(uint32_t ifIndex, const guard_rule_key &key)
{
    uint32_t words[sizeof key / 4], hash = ifIndex;
    memcpy(words, &key, sizeof words);
    for (const uint32_t word : words)
        hash = (hash ^ word) * 0x9E3779B1u;
    return chains[hash >> 7 & (chains.size() - 1)];
}

bool says(const Rule &rule, uint32_t ifIndex, const guard_rule_key &key)
{
    return rule.ifIndex == ifIndex && memcmp(&rule.key, &key, sizeof key) == 0;
}

// Other check items than before are the same binding's. Whether its port is a port still, and of which VLAN,
// may have changed since.
bool same_host(const Rule &rule, uint32_t ifIndex, const guard_rule_key &key)
{
    const uint8_t both = rule.key.mask & key.mask;
    return rule.ifIndex == ifIndex && rule.key.kind == key.kind &&
           (!(both & GUARD_CHECK_MAC) || memcmp(rule.key.mac, key.mac, sizeof key.mac) == 0) &&
           (!(both & GUARD_CHECK_ADDRESS) || memcmp(rule.key.addr, key.addr, sizeof key.addr) == 0);
}

// Null for a spent handle, and for another host's: the handle may be the peer unit's, which came with its
// binding.
Rule *find_handle(uint32_t handle, uint32_t ifIndex, const guard_rule_key &key)
{
    const uint32_t place = (handle & PLACE_MASK) - 1;
    if (handle == 0 || place >= rules.size() || rules[place].handle != handle)
        return nullptr;
    return same_host(rules[place], ifIndex, key) ? &rules[place] : nullptr;
}

Rule *find_content(uint32_t ifIndex, const guard_rule_key &key)
{
    for (uint32_t place = chain_of(ifIndex, key); place != NONE; place = rules[place].next)
        if (says(rules[place], ifIndex, key))
            return &rules[place];
    return nullptr;
}

Rule *take(uint32_t ifIndex, const guard_rule_key &key)
{
    if (firstFree == NONE)
        return nullptr;
    const uint32_t place = firstFree;
    Rule &rule = rules[place];
    firstFree = rule.next;
    uint32_t &chain = chain_of(ifIndex, key);
    rule = {key, ifIndex, ++rule.uses << PLACE_BITS | (place + 1), chain, rule.uses, false, false};
    chain = place;
    return &rule;
}

void give_back(Rule &rule)
{
    const auto place = static_cast<uint32_t>(&rule - rules.data());
    uint32_t *link = &chain_of(rule.ifIndex, rule.key);
    while (*link != place)
        link = &rules[*link].next;
    *link = rule.next;
    rule.handle = 0;
    rule.next = firstFree;
    firstFree = place;
}

bool is_guarded_itself(const Port &port) { return port.aggregate == 0; }

void suspend(uint32_t ifIndex)
{
    for (Rule &rule : rules) {
        if (rule.handle == 0 || rule.ifIndex != ifIndex || !rule.installed)
            continue;
        guard_rule_remove(rule.key);
        rule.installed = false;
    }
}

void model_changed(ModelChange change, const Port &port, const Port *)
{
    if (change == ModelChange::vanished || !is_guarded_itself(port))
        suspend(port.ifIndex);
    else
        bindings_resume(port);
}

// The record names what is checked by giving it. A binding of a VLAN interface holds on the ports of its
// VLAN.
guard_rule_key key_of(const QorUserRecord &record, bool arp, const Port *port)
{
    guard_rule_key key = {};
    key.kind = arp ? GUARD_ARP : record.ipType == DHCPSNOOP_IPV6 ? GUARD_IPV6 : GUARD_IPV4;
    if (record.addrKind != 0) {
        key.mask |= GUARD_CHECK_ADDRESS;
        memcpy(key.addr, record.addr, record.ipType == DHCPSNOOP_IPV6 ? sizeof key.addr : 4);
    }
    if (record.macValid != 0) {
        key.mask |= GUARD_CHECK_MAC;
        memcpy(key.mac, record.mac, sizeof key.mac);
    }
    const bool ofVlan = port != nullptr && port->kind == PortKind::vlanInterface && record.ifIndex != 0;
    if (record.vid != 0 || ofVlan) {
        key.mask |= GUARD_CHECK_VLAN;
        key.vid = ofVlan ? port->vlan : record.vid;
    }
    if (record.ifIndex != 0 && !ofVlan) {
        key.mask |= GUARD_CHECK_PORT;
        key.ifindex = record.ifIndex;
    }
    return key;
}

int32_t count_full(int error, const Port *port)
{
    if (error == ENOSPC)
        refusal_count(Refused::guardFull, port != nullptr ? port->name : "");
    return error;
}

void remove(Rule &rule)
{
    if (rule.installed)
        guard_rule_remove(rule.key);
    give_back(rule);
}

// During a hold it stays in force, to its end or until it is given again.
void retire(Rule &rule)
{
    if (holding())
        rule.withdrawn = true;
    else
        remove(rule);
}

void remove_withdrawn()
{
    for (Rule &rule : rules)
        if (rule.handle != 0 && rule.withdrawn)
            remove(rule);
}

// The rule that is there already; its port may have come back while it was withdrawn.
int32_t install_again(Rule &rule)
{
    rule.withdrawn = false;
    const int error = rule.installed ? 0 : guard_rule_add(rule.key);
    rule.installed = error == 0;
    return error;
}

// Gives the rule, which the classifier has, its place. ENOSPC takes it out again.
int32_t keep(uint32_t ifIndex, const guard_rule_key &key, uint32_t &handle)
{
    Rule *rule = take(ifIndex, key);
    if (rule == nullptr) {
        guard_rule_remove(key);
        return ENOSPC;
    }
    rule->installed = true;
    handle = rule->handle;
    return 0;
}

int32_t install(uint32_t ifIndex, const guard_rule_key &key, Rule *replaced, uint32_t &handle)
{
    int error = guard_rule_add(key); // the new before the old: no packet is lost in between
    if (replaced != nullptr && (error == 0 || (error == ENOSPC && holding())))
        retire(*replaced);
    if (holding() && (error == ENOSPC || firstFree == NONE)) {
        remove_withdrawn(); // the held rules are in the way
        error = error == ENOSPC ? guard_rule_add(key) : error;
    }
    return error != 0 ? error : keep(ifIndex, key, handle);
}

} // namespace

void bindings_start(uint32_t bindings)
{
    rules.assign(size_t{std::min(bindings, BINDINGS_MAX)} * RULES_OF_A_BINDING, Rule{});
    size_t count = 1;
    while (count < rules.size())
        count *= 2;
    chains.assign(count, NONE);
    firstFree = NONE;
    holds = 0;
    for (auto place = static_cast<uint32_t>(rules.size()); place-- != 0;) {
        rules[place].next = firstFree;
        firstFree = place;
    }
    model_watch(model_changed);
}

void bindings_resume(const Port &port)
{
    uint32_t refused = 0;
    for (Rule &rule : rules) {
        if (rule.handle == 0 || rule.ifIndex != port.ifIndex || rule.installed || rule.withdrawn)
            continue;
        rule.installed = guard_rule_add(rule.key) == 0;
        refused += rule.installed ? 0 : 1;
    }
    if (refused != 0)
        platform_report(LOG_ERR, "%s: %u of its bindings cannot be installed again", port.name, refused);
}

void bindings_hold(Hold hold, bool on)
{
    const auto bit = static_cast<uint8_t>(hold);
    const bool before = holding();
    holds = static_cast<uint8_t>(on ? holds | bit : holds & ~bit);
    if (before && !holding())
        remove_withdrawn();
}

void bindings_hold_all()
{
    bindings_hold(Hold::takeOver, true);
    for (Rule &rule : rules)
        rule.withdrawn = rule.handle != 0;
}

int32_t binding_set(uint32_t ifIndex, const QorIfRequest *request)
{
    if (request == nullptr || request->record == nullptr ||
        (request->operation != QOR_USER_ADD && request->operation != QOR_USER_DELETE))
        return EINVAL;
    if (chains.empty())
        return EOPNOTSUPP;
    auto &record = *static_cast<QorUserRecord *>(request->record);
    // Without a flag it is for ARP inspection, which the daemon takes for stopped. It is installed all the
    // same: the daemon does not give it again when inspection starts. It carries no handle; look it up by
    // content.
    const bool unnamed = (record.ruleFlags & (DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI)) == 0;
    const bool arp = (record.ruleFlags & DHCPSNOOP_HW_IPSG) == 0;
    uint32_t &handle = arp ? record.daiHwId : record.ipsgHwId;
    const Port *port = model_port(ifIndex);
    const guard_rule_key key = key_of(record, arp, port);
    Rule *known = unnamed ? find_content(ifIndex, key) : find_handle(handle, ifIndex, key);

    if (request->operation == QOR_USER_DELETE) {
        if (known != nullptr) // else the daemon withdraws an aggregate's binding for a port that leaves it
            retire(*known);
        return 0;
    }
    handle = known != nullptr ? known->handle : 0;
    if (port == nullptr && ifIndex != 0)
        return ENODEV;
    if ((arp && record.ipType == DHCPSNOOP_IPV6) || (port != nullptr && !is_guarded_itself(*port)))
        return 0;
    const bool unchanged = known != nullptr && says(*known, ifIndex, key);
    return count_full(unchanged ? install_again(*known) : install(ifIndex, key, known, handle), port);
}

} // namespace platform_linux

#include "judge.h"

#include <algorithm>
#include <cstring>

#include "dhcpsnoop_if_table.h"
#include "dhcpsnoop_user.h"
#include "judged_message.h"
#include "keyed_hash.h"
#include "protocol.h"
#include "questions.h"
#include "recent_table.h"
#include "transactions.h"
#include "user_index.h"

namespace platform_linux
{
namespace
{

constexpr uint32_t TRANSACTIONS_MIN = 1024, TRANSACTIONS_MAX = 16384;
constexpr Ticks TRANSACTION_AGE = 120'000; // a server's answer comes earlier
constexpr Ticks OWNED = 10'000;            // by the place that a transaction was seen at
constexpr uint32_t WAITING_GROUPS = 64, WAITING_MIN = 16, WAITING_MAX = 1024; // clients, by port
constexpr uint32_t BINDINGS_LOOKED_AT = 16;                                   // of one MAC address
constexpr uint32_t DHCP6_RENEW = 5, DHCP6_REBIND = 6;                         // RFC 8415 7.3

// Of a bound address: as its server acknowledged it, whatever requests came after.
struct Holder {
    HostMac mac;
    uint64_t clientId;
    uint32_t since, lease;
};

struct Nothing {
};

bool is_over(uint32_t since, uint32_t lease, uint32_t now) { return int64_t{now} - since >= lease; }

Host host_of(const DhcpsnoopUser &user)
{
    Host host = {
        {        },
        { user.ifIndex, user.vid}
    };
    std::copy_n(user.mac, host.mac.size(), host.mac.begin());
    return host;
}

// Whether the message of a client is about the addresses that it names.
bool claims_addresses(const JudgedMessage &message)
{
    return message.ipv6 || message.type == DHCP_REQUEST || message.type == DHCP_DECLINE ||
           message.type == DHCP_RELEASE || message.type == DHCP_INFORM;
}

// Whether the daemon makes entries of the addresses that it names.
bool makes_entry(const JudgedMessage &message)
{
    return message.type == DHCP_REQUEST || (message.ipv6 && message.type == DHCP6_SOLICIT);
}
static_assert(DHCP6_REQUEST == uint32_t{DHCP_REQUEST});

// Whether the answer to it gives addresses.
bool is_answered_with_binding(const Transaction &transaction)
{
    if (!transaction.ipv6)
        return transaction.type == DHCP_REQUEST || (transaction.type == DHCP_DISCOVER && transaction.rapid);
    return transaction.type == DHCP6_REQUEST || transaction.type == DHCP6_RENEW ||
           transaction.type == DHCP6_REBIND || (transaction.type == DHCP6_SOLICIT && transaction.rapid);
}

} // namespace

class Judge::Records
{
  public:
    Records(JudgeSwitch &around, uint32_t bindings, uint64_t seed)
        : around_(around), seed_(seed),
          transactions_(std::clamp(bindings, TRANSACTIONS_MIN, TRANSACTIONS_MAX)),
          offers_(std::clamp(bindings, TRANSACTIONS_MIN, TRANSACTIONS_MAX)), holders_(bindings * 2),
          waiting_(WAITING_GROUPS * std::clamp(bindings / 8, WAITING_MIN, WAITING_MAX)), questions_(around)
    {
    }

    bool passes(const DhcpsnoopPktInfo &info)
    {
        JudgedMessage message;
        if (!judged_message_read(info, seed_, message))
            return true;
        now_ = around_.now();
        return message.isReply ? reply_passes(message) : request_passes(message);
    }

    void forget()
    {
        transactions_.clear();
        offers_.clear();
        holders_.clear();
        questions_.clear();
        std::ranges::fill(waiting_, HostMac{});
    }

  private:
    // Who claims: the sender of a message, or of the message that a reply answers.
    struct Claimant {
        bool ipv6;
        Host host;
        uint64_t clientId;
        uint32_t time; // as the daemon's, in seconds
    };

    uint64_t offer_key(const Claimant &claimant, const DhcpsnoopUserKey &address) const
    {
        KeyedHash hash(seed_);
        hash.add(address.ipAddr, sizeof address.ipAddr).add(claimant.host.mac.data(), ETH_ADDR_LEN);
        hash.add(claimant.host.place.ifIndex).add(claimant.host.place.vid);
        return hash.add(claimant.ipv6 ? claimant.clientId : 0).value();
    }

    uint64_t holder_key(const DhcpsnoopUserKey &address) const
    {
        return KeyedHash(seed_).add(address.ipType).add(address.ipAddr, sizeof address.ipAddr).value();
    }

    const Holder *holder_of(const DhcpsnoopUser &user) const
    {
        const Holder *holder = holders_.find(holder_key(user.key));
        return holder != nullptr && memcmp(holder->mac.data(), user.mac, ETH_ADDR_LEN) == 0 ? holder
                                                                                            : nullptr;
    }

    // Null when the address is nobody's, or management's.
    static const DhcpsnoopUser *holder_at(const DhcpsnoopUserKey &address, uint32_t time)
    {
        const DhcpsnoopUser *user = dhcpsnoop_user_lookup(&address);
        const bool holds = user != nullptr && user->userType == DHCPSNOOP_USER_DYNAMIC &&
                           user->bindState == DHCPSNOOP_BIND_BOUND &&
                           !is_over(user->leaseStart, user->leaseTime, time);
        return holds ? user : nullptr;
    }

    bool is_other_duid(const Claimant &claimant, const DhcpsnoopUser &user) const
    {
        const Holder *known = claimant.ipv6 ? holder_of(user) : nullptr;
        return known != nullptr && known->clientId != claimant.clientId;
    }

    static bool is_at(const DhcpsnoopUser &user, const Host &host)
    {
        return dhcpsnoop_user_is_at(&user, host.mac.data(), {host.place.ifIndex, host.place.vid});
    }

    Verdict decide(const Claimant &claimant, const DhcpsnoopUserKey &address, bool offered)
    {
        const DhcpsnoopUser *user = holder_at(address, claimant.time);
        if (user == nullptr)
            return Verdict::his;
        const Host holder = host_of(*user);
        const bool isHere = is_at(*user, claimant.host);
        if (isHere && (offered || !is_other_duid(claimant, *user))) {
            questions_.hear(address, now_);
            return Verdict::his;
        }
        const Holder *known = holder_of(*user);
        const bool isSameId =
            known != nullptr && claimant.clientId != 0 && known->clientId == claimant.clientId;
        const bool moves = isSameId || (!isHere && holder.mac == claimant.host.mac);
        if (!moves && !offered)
            return Verdict::refused;
        if (!moves && known != nullptr && is_over(known->since, known->lease, claimant.time))
            return Verdict::his;
        return around_.is_alive(holder.place) ? questions_.ask({address, claimant.host, holder}, now_)
                                              : Verdict::his;
    }

    // And reports a refusal.
    Verdict claim(const Claimant &claimant, const DhcpsnoopUserKey &address, bool offered)
    {
        const Verdict verdict = decide(claimant, address, offered);
        if (verdict == Verdict::refused)
            around_.refuse(Refused::bindingTheft,
                           {address, claimant.host, host_of(*dhcpsnoop_user_lookup(&address))});
        return verdict;
    }

    // ---- Messages of clients

    // A binding of that MAC address at another port of the VLAN: a message in its name, of no address that
    // is bound here, makes a server end it.
    Verdict claim_name(const Claimant &claimant)
    {
        const DhcpsnoopUser *first = user_index_mac_first(claimant.host.mac.data()), *user = first;
        for (uint32_t i = 0; i < BINDINGS_LOOKED_AT && user != nullptr; i++) {
            if (user->key.ipType == DHCPSNOOP_IPV4 && user->vid == claimant.host.place.vid &&
                user->ifIndex != claimant.host.place.ifIndex)
                if (const Verdict verdict = claim(claimant, user->key, false); verdict != Verdict::his)
                    return verdict;
            user = user_index_mac_next(user, first);
        }
        return Verdict::his;
    }

    // Where nobody has set max-users, a port leaves as much free as it has, also one that a VLAN interface
    // snoops for. A full table is the daemon's to tell of.
    static bool has_room(const DhcpsnoopIf &ifp, uint32_t port)
    {
        const uint32_t free = user_index_free();
        if (ifp.maxUser != DHCPSNOOP_MAX_USER_DEFAULT || free == 0)
            return true;
        return ifp.isVlanIf != 0 ? user_index_on_port(port) < free
                                 : (ifp.flags & DHCPSNOOP_IF_TRUSTED) != 0 || ifp.curUser < free;
    }

    // Clients that wait for a relayed answer take entries too: as many at a port as it has room here, the
    // oldest gives way.
    void limit_waiting(const JudgedMessage &message)
    {
        const DhcpsnoopPktInfo &info = *message.info;
        const DhcpsnoopUserKey key = dhcpsnoop_user_key(DHCPSNOOP_IPV4, info.clientIp);
        if (message.ipv6 || info.giaddr != 0 || info.ifp->relayAddr == 0 ||
            dhcpsnoop_mac_user_lookup(info.chaddr) != nullptr || dhcpsnoop_user_lookup(&key) != nullptr)
            return;
        const uint32_t group = message.host.place.ifIndex % WAITING_GROUPS;
        const size_t most = waiting_.size() / WAITING_GROUPS;
        HostMac &oldest = waiting_[group * most + newestWaiting_[group]++ % most];
        DhcpsnoopMacUser *client = dhcpsnoop_mac_user_lookup(oldest.data());
        if (client != nullptr && client->ifIndex == message.host.place.ifIndex)
            dhcpsnoop_mac_user_delete(client);
        oldest = message.host.mac;
    }

    // Whether a message from there may belong to the transaction.
    bool may_go_on(const Transaction &transaction, const Host &host) const
    {
        return transaction.host.place == host.place || now_ - transaction.seen >= OWNED ||
               (!transaction.trusted && !around_.is_alive(transaction.host.place));
    }

    bool untrusted_passes(const JudgedMessage &message, const Claimant &claimant, const Transaction *before)
    {
        if (!message.unambiguous) {
            around_.refuse(Refused::ambiguous, {{}, claimant.host, {}});
            return false;
        }
        if (before != nullptr && !may_go_on(*before, claimant.host)) {
            around_.refuse(Refused::bindingTheft, {{}, claimant.host, before->host});
            return false;
        }
        if (!claims_addresses(message)) {
            if (message.type == DHCP_DISCOVER) // so that the answer is there when the client requests
                claim_name(claimant);
            return true;
        }
        bool hasBinding = false;
        for (size_t i = 0; i < message.count; i++) {
            const DhcpsnoopUserKey &address = message.named[i].key;
            if (makes_entry(message) && dhcpsnoop_user_lookup(&address) == nullptr &&
                !has_room(*message.info->ifp, claimant.host.place.ifIndex)) {
                around_.refuse(Refused::usersLimit, {address, claimant.host, {}});
                return false;
            }
            const bool offered =
                offers_.find(offer_key(claimant, address), now_ - TRANSACTION_AGE) != nullptr;
            if (claim(claimant, address, offered) != Verdict::his)
                return false;
            const DhcpsnoopUser *user = holder_at(address, claimant.time);
            hasBinding = hasBinding || (user != nullptr && is_at(*user, claimant.host));
        }
        return message.ipv6 || message.type == DHCP_INFORM || hasBinding ||
               claim_name(claimant) == Verdict::his;
    }

    bool request_passes(const JudgedMessage &message)
    {
        const DhcpsnoopPktInfo &info = *message.info;
        const Claimant claimant = {message.ipv6, message.host, message.clientId, info.rxTime};
        const Transaction *before = transactions_.find(message.transaction);
        if (!message.trusted && !untrusted_passes(message, claimant, before))
            return false;
        // As a relay agent sends it on, the message comes in again.
        if (message.trusted && before != nullptr && !may_go_on(*before, claimant.host))
            return true;
        limit_waiting(message);
        transactions_.put({message.transaction, message.clientId, now_, message.host, info.ifp->ifIndex,
                           info.serverId, info.opt60Sub1, message.type, message.ipv6, message.trusted,
                           message.rapid});
        return true;
    }

    // ---- Messages of trusted servers

    bool reply_passes(const JudgedMessage &message)
    {
        const Transaction *answered = transactions_.find(message.transaction);
        if (answered != nullptr && now_ - answered->seen >= TRANSACTION_AGE)
            answered = nullptr;
        if (message.type == (message.ipv6 ? uint32_t{DHCP6_ADVERTISE} : uint32_t{DHCP_OFFER}))
            take_offer(message, answered);
        else if (message.type == (message.ipv6 ? uint32_t{DHCP6_REPLY} : uint32_t{DHCP_ACK}))
            return answer_passes(message, answered);
        else if (!message.ipv6 && message.type == DHCP_NAK)
            return nak_passes(message, answered);
        return true;
    }

    void take_offer(const JudgedMessage &message, const Transaction *answered)
    {
        if (answered == nullptr)
            return;
        const Claimant client = client_of(*answered, message);
        for (size_t i = 0; i < message.count; i++)
            if (!message.named[i].ends)
                offers_.put(offer_key(client, message.named[i].key), {}, now_);
    }

    static Claimant client_of(const Transaction &answered, const JudgedMessage &message)
    {
        return {answered.ipv6, answered.host, answered.clientId, message.info->rxTime};
    }

    bool is_own(const DhcpsnoopUser &user, const Claimant &client) const
    {
        return is_at(user, client.host) && !is_other_duid(client, user);
    }

    // Of an answer to nobody that is known here: whether it is about its client's own binding.
    bool is_renewal(const DhcpsnoopUser &user, const JudgedMessage &message) const
    {
        if (user.bindState != DHCPSNOOP_BIND_BOUND)
            return false;
        const Holder *known = holder_of(user);
        return message.ipv6 ? known != nullptr && known->clientId == message.clientId
                            : memcmp(user.mac, message.host.mac.data(), ETH_ADDR_LEN) == 0;
    }

    bool refuse_reply(const JudgedMessage &message, const DhcpsnoopUser &user)
    {
        around_.refuse(
            Refused::strayReply,
            {
                user.key, {message.ipv6 ? HostMac{} : message.host.mac, message.host.place},
                 host_of(user)
        });
        return false;
    }

    // Looks only.
    bool address_passes(const JudgedMessage &message, const NamedAddress &named, const Transaction *answered)
    {
        const DhcpsnoopUser *user = dhcpsnoop_user_lookup(&named.key);
        if (user != nullptr && user->userType != DHCPSNOOP_USER_DYNAMIC)
            return true;
        const bool binds = !named.ends && answered != nullptr && is_answered_with_binding(*answered);
        if (binds)
            return claim(client_of(*answered, message), named.key, true) == Verdict::his;
        if (user == nullptr ||
            (answered != nullptr ? is_own(*user, client_of(*answered, message)) : is_renewal(*user, message)))
            return true;
        return refuse_reply(message, *user);
    }

    bool answer_passes(const JudgedMessage &message, const Transaction *answered)
    {
        for (size_t i = 0; i < message.count; i++)
            if (!address_passes(message, message.named[i], answered))
                return false;
        if (answered == nullptr || !is_answered_with_binding(*answered))
            return true;
        for (size_t i = 0; i < message.count; i++)
            if (!message.named[i].ends && !put_right(message, message.named[i], *answered) && !message.ipv6)
                return false;
        return true;
    }

    // The address has an entry of the client that the server gives it to; none for a client behind a trusted
    // port. False when there is no room for it.
    bool put_right(const JudgedMessage &message, const NamedAddress &named, const Transaction &answered)
    {
        DhcpsnoopUser *user = dhcpsnoop_user_lookup(&named.key);
        if (user != nullptr && user->userType != DHCPSNOOP_USER_DYNAMIC)
            return true;
        Host host = answered.host;
        if (user == nullptr || !is_at(*user, host)) {
            dhcpsnoop_user_delete(user);
            DhcpsnoopPktInfo request = {};
            request.ifp = dhcpsnoop_if_lookup(answered.interface);
            request.ifIndex = host.place.ifIndex;
            request.svlan = host.place.vid;
            request.chaddr = host.mac.data();
            request.rxTime = message.info->rxTime;
            request.serverId = answered.serverId;
            request.opt60Sub1 = answered.vendorTag;
            if (request.ifp == nullptr || !has_room(*request.ifp, host.place.ifIndex) ||
                dhcpsnoop_user_add(&named.key, nullptr, &request) != 0)
                return false;
        }
        if (named.lease != 0) // else the daemon leaves the lease as it is
            holders_.put(holder_key(named.key),
                         {host.mac, answered.clientId, message.info->rxTime, named.lease}, now_);
        return true;
    }

    // The daemon unbinds the first dynamic binding of the client's MAC address.
    bool nak_passes(const JudgedMessage &message, const Transaction *answered)
    {
        const DhcpsnoopUser *user = dhcpsnoop_user_lookup_dynamic(message.host.mac.data());
        if (user == nullptr || user->serverId != message.info->serverId ||
            (answered != nullptr && answered->type == DHCP_REQUEST && is_at(*user, answered->host)))
            return true;
        return refuse_reply(message, *user);
    }

    JudgeSwitch &around_;
    const uint64_t seed_;
    Ticks now_ = 0;
    Transactions transactions_;
    RecentTable<Nothing> offers_;
    RecentTable<Holder> holders_;
    std::vector<HostMac> waiting_; // rings, one behind the other
    std::array<uint32_t, WAITING_GROUPS> newestWaiting_ = {};
    Questions questions_;
};

Judge::Judge(JudgeSwitch &around, uint32_t bindings, uint64_t seed)
    : records_(std::make_unique<Records>(around, bindings, seed))
{
}

Judge::~Judge() = default;

bool Judge::passes(const DhcpsnoopPktInfo &info) { return records_->passes(info); }

void Judge::forget() { records_->forget(); }

} // namespace platform_linux

// The table of bridge_gate.h, through libnftnl. Ports are known by interface index, as a set of names would
// not stop a renamed port. For each bridge there is a chain, because the bridge of a frame cannot be asked
// for on every kernel (CONFIG_NFT_BRIDGE_META):
//
//   table bridge dhcpsnoop { flags owner
//     chain heard { type filter hook prerouting; iif @heard accept; counter drop }
//     chain forwarded { type filter hook forward; iif vmap @bridges; counter drop }
//     chain bridge7 { oif @bridge7 accept }
//     set heard { ports }
//     map bridges { port : jump bridge7 }
//     set bridge7 { its ports }
//   }
#include "bridge_gate.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include <libmnl/libmnl.h>
#include <libnftnl/batch.h>
#include <libnftnl/chain.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter_bridge.h>

namespace platform_linux
{
namespace
{

constexpr char TABLE[] = "dhcpsnoop", HEARD[] = "heard", FORWARDED[] = "forwarded", BRIDGES[] = "bridges";
constexpr uint32_t IFINDEX = 20, HOST_ORDER = 1;          // nft's numbers, for its listing alone
constexpr int32_t FIRST = -400;                           // in front of the filters of others
constexpr size_t MESSAGE_MAX = 1024;                      // ours have 300 bytes at most
constexpr int SEND_BUFFER = 4 << 20, REPLY_MAX = 1 << 16; // room for some 20,000 messages

template <auto FREE> struct Freed {
    template <typename T> void operator()(T *object) const { FREE(object); }
};
using Table = std::unique_ptr<nftnl_table, Freed<nftnl_table_free>>;
using Set = std::unique_ptr<nftnl_set, Freed<nftnl_set_free>>;
using Chain = std::unique_ptr<nftnl_chain, Freed<nftnl_chain_free>>;
using Rule = std::unique_ptr<nftnl_rule, Freed<nftnl_rule_free>>;
using Notes = std::unique_ptr<nftnl_udata_buf, Freed<nftnl_udata_buf_free>>;
using Socket = std::unique_ptr<mnl_socket, Freed<mnl_socket_close>>;

Socket netlink;          // the table is its own
bool standing = false;   // the table
bool impossible = false; // no nftables for bridges here
bool unsure = false;     // what it has in it
GatePasses inForce;

// The messages of one transaction.
class Batch
{
  public:
    Batch() { nftnl_batch_begin(next(), 0), took(); }

    template <typename Build, typename Object>
    void put(uint16_t type, uint16_t flags, Build build, Object *object)
    {
        build(nftnl_nlmsg_build_hdr(next(), type, NFPROTO_BRIDGE, flags, 0), object);
        took();
    }

    // The kernel has answered when the transaction is sent: one error for each message that failed, else
    // nothing.
    int commit()
    {
        nftnl_batch_end(next(), 0), took();
        while (mnl_socket_sendto(netlink.get(), bytes_.data(), used_) < 0)
            if (errno != EINTR)
                return errno;
        return replies();
    }

  private:
    char *next()
    {
        bytes_.resize(used_ + MESSAGE_MAX);
        return bytes_.data() + used_;
    }

    void took() { used_ += reinterpret_cast<const nlmsghdr *>(bytes_.data() + used_)->nlmsg_len; }

    // The first error counts: others may follow from it.
    static int replies()
    {
        alignas(nlmsghdr) static std::array<char, REPLY_MAX> reply;
        int first = 0;
        for (;;) {
            const ssize_t length =
                recv(mnl_socket_get_fd(netlink.get()), reply.data(), reply.size(), MSG_DONTWAIT);
            if (length < 0 && errno == EINTR)
                continue;
            if (length < 0)
                return first != 0 || errno == EAGAIN ? first : errno;
            int left = static_cast<int>(length);
            for (const auto *header = reinterpret_cast<const nlmsghdr *>(reply.data());
                 mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left)) {
                const auto *error = static_cast<const nlmsgerr *>(mnl_nlmsg_get_payload(header));
                if (header->nlmsg_type == NLMSG_ERROR && mnl_nlmsg_get_payload_len(header) >= sizeof *error &&
                    first == 0)
                    first = -error->error;
            }
        }
    }

    std::vector<char> bytes_; // resized before a message begins
    size_t used_ = 0;
};

std::string of_bridge(uint32_t bridge) { return "bridge" + std::to_string(bridge); }

Set set_of(const std::string &name)
{
    Set set(nftnl_set_alloc());
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, TABLE);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name.c_str());
    return set;
}

void put_set(Batch &batch, const std::string &name, uint32_t number, bool ofVerdicts = false)
{
    const Set set = set_of(name);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, number); // where it is told apart in the transaction
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, IFINDEX);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(uint32_t));
    const Notes notes(nftnl_udata_buf_alloc(NFT_USERDATA_MAXLEN));
    nftnl_udata_put_u32(notes.get(), NFTNL_UDATA_SET_KEYBYTEORDER, HOST_ORDER);
    nftnl_set_set_data(set.get(), NFTNL_SET_USERDATA, nftnl_udata_buf_data(notes.get()),
                       nftnl_udata_buf_len(notes.get()));
    if (ofVerdicts) {
        nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_MAP);
        nftnl_set_set_u32(set.get(), NFTNL_SET_DATA_TYPE, NFT_DATA_VERDICT);
    }
    batch.put(NFT_MSG_NEWSET, NLM_F_CREATE, nftnl_set_nlmsg_build_payload, set.get());
}

Chain chain_of(const std::string &name)
{
    Chain chain(nftnl_chain_alloc());
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, TABLE);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
    return chain;
}

void put_base_chain(Batch &batch, const char *name, uint32_t hook)
{
    const Chain chain = chain_of(name);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter");
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, hook);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, FIRST);
    batch.put(NFT_MSG_NEWCHAIN, NLM_F_CREATE, nftnl_chain_nlmsg_build_payload, chain.get());
}

class Expressions
{
  public:
    explicit Expressions(const std::string &chain) : rule_(nftnl_rule_alloc())
    {
        nftnl_rule_set_str(rule_.get(), NFTNL_RULE_TABLE, TABLE);
        nftnl_rule_set_str(rule_.get(), NFTNL_RULE_CHAIN, chain.c_str());
    }

    // Looks the port up, NFT_META_IIF or NFT_META_OIF.
    void look(uint32_t port, const std::string &set, bool ofVerdicts = false)
    {
        nftnl_expr *expression = add("meta");
        nftnl_expr_set_u32(expression, NFTNL_EXPR_META_KEY, port);
        nftnl_expr_set_u32(expression, NFTNL_EXPR_META_DREG, NFT_REG_1);
        expression = add("lookup");
        nftnl_expr_set_u32(expression, NFTNL_EXPR_LOOKUP_SREG, NFT_REG_1);
        nftnl_expr_set_str(expression, NFTNL_EXPR_LOOKUP_SET, set.c_str());
        if (ofVerdicts)
            nftnl_expr_set_u32(expression, NFTNL_EXPR_LOOKUP_DREG, NFT_REG_VERDICT);
    }

    void decide(uint32_t verdict)
    {
        nftnl_expr *expression = add("immediate");
        nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
        nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_VERDICT, verdict);
    }

    nftnl_expr *add(const char *kind)
    {
        nftnl_expr *expression = nftnl_expr_alloc(kind);
        nftnl_rule_add_expr(rule_.get(), expression);
        return expression;
    }

    void put(Batch &batch)
    {
        batch.put(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, nftnl_rule_nlmsg_build_payload, rule_.get());
    }

  private:
    Rule rule_;
};

void put_table(Batch &batch)
{
    const Table table(nftnl_table_alloc());
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, TABLE);
    if (standing)
        batch.put(NFT_MSG_DELTABLE, 0, nftnl_table_nlmsg_build_payload, table.get());
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, NFT_TABLE_F_OWNER);
    batch.put(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL, nftnl_table_nlmsg_build_payload, table.get());
    put_set(batch, HEARD, 1);
    put_set(batch, BRIDGES, 2, true);
    put_base_chain(batch, HEARD, NF_BR_PRE_ROUTING);
    put_base_chain(batch, FORWARDED, NF_BR_FORWARD);
    Expressions heard(HEARD), forwarded(FORWARDED);
    heard.look(NFT_META_IIF, HEARD);
    heard.decide(NF_ACCEPT);
    heard.put(batch);
    forwarded.look(NFT_META_IIF, BRIDGES, true);
    forwarded.put(batch);
    for (const char *chain : {HEARD, FORWARDED}) {
        Expressions refused(chain);
        refused.add("counter");
        refused.decide(NF_DROP);
        refused.put(batch);
    }
}

void put_bridge(Batch &batch, uint32_t bridge)
{
    const std::string name = of_bridge(bridge);
    put_set(batch, name, 2 + bridge);
    batch.put(NFT_MSG_NEWCHAIN, NLM_F_CREATE, nftnl_chain_nlmsg_build_payload, chain_of(name).get());
    Expressions accepted(name);
    accepted.look(NFT_META_OIF, name);
    accepted.decide(NF_ACCEPT);
    accepted.put(batch);
}

// Behind its ports' elements.
void put_bridge_gone(Batch &batch, uint32_t bridge)
{
    const std::string name = of_bridge(bridge);
    batch.put(NFT_MSG_DELCHAIN, 0, nftnl_chain_nlmsg_build_payload, chain_of(name).get());
    batch.put(NFT_MSG_DELSET, 0, nftnl_set_nlmsg_build_payload, set_of(name).get());
}

void put_element(Batch &batch, uint16_t type, const std::string &name, uint32_t port,
                 const std::string &jump = "")
{
    const Set set = set_of(name);
    nftnl_set_elem *element = nftnl_set_elem_alloc();
    nftnl_set_elem_set(element, NFTNL_SET_ELEM_KEY, &port, sizeof port);
    if (!jump.empty()) {
        nftnl_set_elem_set_u32(element, NFTNL_SET_ELEM_VERDICT, static_cast<uint32_t>(NFT_JUMP));
        nftnl_set_elem_set_str(element, NFTNL_SET_ELEM_CHAIN, jump.c_str());
    }
    nftnl_set_elem_add(set.get(), element);
    batch.put(type, type == NFT_MSG_NEWSETELEM ? NLM_F_CREATE : 0, nftnl_set_elems_nlmsg_build_payload,
              set.get());
}

// Adds (NFT_MSG_NEWSETELEM) or takes out all that stands for a port.
void put_pass(Batch &batch, uint16_t type, uint32_t port, const GatePass &pass)
{
    put_element(batch, type, HEARD, port);
    put_element(batch, type, of_bridge(pass.bridge), port);
    if (pass.forwards)
        put_element(batch, type, BRIDGES, port, of_bridge(pass.bridge));
}

// The bridges of the passes.
std::set<uint32_t> bridges_of(const GatePasses &passes)
{
    std::set<uint32_t> bridges;
    for (const auto &[port, pass] : passes)
        bridges.insert(pass.bridge);
    return bridges;
}

// From `before` to `passes`, which differ for `changed` at most.
void put_changes(Batch &batch, const GatePasses &before, const GatePasses &passes,
                 const std::set<uint32_t> &changed)
{
    const std::set<uint32_t> had = bridges_of(before), has = bridges_of(passes);
    for (const uint32_t bridge : has)
        if (!had.contains(bridge))
            put_bridge(batch, bridge);
    for (const uint32_t port : changed) {
        const auto was = before.find(port), is = passes.find(port);
        if (was != before.end() && is != passes.end() && was->second == is->second)
            continue;
        if (was != before.end())
            put_pass(batch, NFT_MSG_DELSETELEM, port, was->second);
        if (is != passes.end())
            put_pass(batch, NFT_MSG_NEWSETELEM, port, is->second);
    }
    for (const uint32_t bridge : had)
        if (!has.contains(bridge))
            put_bridge_gone(batch, bridge);
}

int open_netlink()
{
    Socket sock(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    if (!sock || mnl_socket_bind(sock.get(), 0, MNL_SOCKET_AUTOPID) < 0)
        return errno;
    const int fd = mnl_socket_get_fd(sock.get());
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) < 0 ||
        setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &SEND_BUFFER, sizeof SEND_BUFFER) < 0)
        return errno;
    netlink = std::move(sock);
    return 0;
}

// Why the table was not made: want of memory, or of a name that is free, may end. Else the kernel has no such
// socket, no nftables, no hook for bridges, or refuses them to this process.
bool is_impossible(int error) { return error != ENOMEM && error != ENOBUFS && error != EEXIST; }

} // namespace

int bridge_gate_set(const GatePasses &passes, const std::set<uint32_t> &changed)
{
    int error = 0;
    if (impossible)
        return EOPNOTSUPP;
    if (!netlink)
        error = open_netlink();
    if (error == 0) {
        Batch batch;
        if (!standing || unsure) {
            put_table(batch);
            std::set<uint32_t> all;
            for (const auto &[port, pass] : passes)
                all.insert(port);
            put_changes(batch, {}, passes, all);
        } else {
            put_changes(batch, inForce, passes, changed);
        }
        error = batch.commit();
    }
    unsure = error != 0;
    if (error == 0) {
        inForce = passes;
        standing = true;
    } else if (!standing) {
        netlink.reset();
        impossible = is_impossible(error);
    }
    return impossible ? EOPNOTSUPP : error;
}

void bridge_gate_remove()
{
    netlink.reset();
    standing = unsure = false;
    inForce.clear();
}

} // namespace platform_linux

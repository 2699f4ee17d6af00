// Prints how bindings come, are renewed and go, one line each, until a signal or the daemon's end. The daemon
// announces IPv4 leases with a gateway as they change; a comparison of all bindings each second finds the
// others.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <map>
#include <net/if.h>
#include <ostream>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

#include "binding_view.h"
#include "event_record.h"
#include "platform_numbers.h"
#include "table.h"

namespace
{

using platform_linux::EventRecord;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds LOOK_AGAIN(1);

volatile std::sig_atomic_t stopped;

// During its lifetime SIGINT and SIGTERM are delivered in wait() only, and end it.
class StopSignals
{
  public:
    StopSignals()
    {
        stopped = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { stopped = 1; };
        sigset_t both;
        sigemptyset(&both);
        for (size_t i = 0; i < std::size(SIGNALS); i++) {
            sigaddset(&both, SIGNALS[i]);
            sigaction(SIGNALS[i], &action, &before_[i]);
        }
        sigprocmask(SIG_BLOCK, &both, &mask_);
        open_ = mask_;
        for (int number : SIGNALS)
            sigdelset(&open_, number);
    }
    ~StopSignals()
    {
        for (size_t i = 0; i < std::size(SIGNALS); i++)
            sigaction(SIGNALS[i], &before_[i], nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
    }
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    // Returns when the descriptor is readable, a signal came or the time is over.
    void wait(int descriptor, Clock::duration most) const
    {
        const auto nanos = std::chrono::nanoseconds(std::max(most, Clock::duration::zero())).count();
        const timespec limit = {nanos / 1'000'000'000, nanos % 1'000'000'000};
        pollfd readable = {descriptor, POLLIN, 0};
        ppoll(&readable, 1, &limit, &open_);
    }

  private:
    static constexpr int SIGNALS[] = {SIGINT, SIGTERM};
    struct sigaction before_[std::size(SIGNALS)];
    sigset_t mask_, open_;
};

std::string addressText(const uint8_t *address)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, address, text, sizeof(text));
}

// "2026-11-22T12:30:59+0100".
std::string timeText()
{
    const time_t now = time(nullptr);
    tm local = {};
    char text[32];
    strftime(text, sizeof(text), "%FT%T%z", localtime_r(&now, &local));
    return text;
}

Binding bindingOf(const EventRecord &record)
{
    Binding binding = {};
    binding.key.ipType = DHCPSNOOP_IPV4;
    std::copy_n(record.user.address, 4, binding.key.ipAddr.begin());
    binding.vlan = record.user.vid;
    binding.ifIndex = record.user.ifIndex;
    binding.type = DHCPSNOOP_USER_DYNAMIC; // no other is announced
    binding.state = DHCPSNOOP_BIND_BOUND;
    binding.mac.assign(std::begin(record.user.mac), std::end(record.user.mac));
    return binding;
}

bool isBound(const Binding &binding) { return binding.state == DHCPSNOOP_BIND_BOUND; }

bool isPlaceSame(const Binding &one, const Binding &other)
{
    return one.ifIndex == other.ifIndex && one.vlan == other.vlan && one.mac == other.mac;
}

// A change that no announcement told.
struct Change {
    const char *word;
    Binding binding;
};

// The bound bindings, by announcements and as they were at the last look.
class Known
{
  public:
    // `now` is the daemon's clock then.
    Known(std::vector<Binding> bindings, uint32_t now)
        : bindings_(std::move(bindings)), lookedAt_(now), offset_(offsetOf(now))
    {
        std::erase_if(bindings_, std::not_fn(isBound));
        for (const Binding &binding : bindings_)
            portOf(binding.ifIndex);
    }

    const char *announced(uint16_t event, const Binding &binding)
    {
        const bool isAdded = event == QOR_EVENT_USER_ADDED;
        if (!isAdded && event != QOR_EVENT_USER_DELETED)
            return "unknown";
        const auto told = told_.find(binding.key);
        const Binding *before = told == told_.end()      ? find(binding.key)
                                : told->second.isPresent ? &told->second.binding
                                                         : nullptr;
        const bool isRenewed =
            isAdded && before != nullptr && before->ifIndex == binding.ifIndex && before->mac == binding.mac;
        told_[binding.key] = {binding, isAdded, 0};
        return isRenewed ? "renew" : isAdded ? "add" : "delete";
    }

    // `now` is the daemon's clock then. Announcements made before were taken in, and maybe later ones.
    std::vector<Change> look(std::vector<Binding> bindings, uint32_t now)
    {
        std::erase_if(bindings, std::not_fn(isBound));
        const bool isSteady = followClock(now);
        std::vector<Change> changes;
        const auto compare = [&](const Binding *was, const Binding *is) {
            const auto told = told_.find((is ? is : was)->key);
            if (told != told_.end())
                compareTold(told->second, is, changes);
            else if (!is)
                changes.push_back({"delete", *was});
            else if (!was || !isPlaceSame(*was, *is))
                changes.push_back({"add", *is});
            else if (isSteady && isRenewed(*was, *is, now))
                changes.push_back({"renew", *is});
        };
        auto was = bindings_.begin();
        for (const Binding &is : bindings) {
            for (; was != bindings_.end() && was->key < is.key; ++was)
                compare(&*was, nullptr);
            const bool isSame = was != bindings_.end() && was->key == is.key;
            compare(isSame ? &*was : nullptr, &is);
            was += isSame;
        }
        for (; was != bindings_.end(); ++was)
            compare(&*was, nullptr);
        for (auto &[key, told] : told_) {
            if (!told.isCompared) // in neither list
                compareTold(told, nullptr, changes);
            told.isCompared = false;
            told.looks++;
        }
        std::erase_if(told_, [](const auto &each) { return each.second.looks == 2; });
        bindings_ = std::move(bindings);
        lookedAt_ = now;
        return changes;
    }

    // Of a port that is gone the last name.
    std::string portOf(uint32_t ifIndex)
    {
        const std::string text = interfaceText(ifIndex);
        const auto known = names_.try_emplace(ifIndex, text).first;
        if (text != std::to_string(ifIndex))
            known->second = text;
        return known->second;
    }

  private:
    // Announced since the last look, or the one before it: maybe later than the list of that look.
    struct Told {
        Binding binding;
        bool isPresent;
        int looks;
        bool isCompared = false;
    };

    const Binding *find(const UserKey &key) const
    {
        const auto at = std::ranges::lower_bound(bindings_, key, {}, &Binding::key);
        return at != bindings_.end() && at->key == key ? &*at : nullptr;
    }

    static void compareTold(Told &told, const Binding *is, std::vector<Change> &changes)
    {
        told.isCompared = true;
        if (told.looks == 0 || told.isPresent == (is != nullptr))
            return;
        changes.push_back({is ? "add" : "delete", is ? *is : told.binding});
    }

    // A lease that has just ended keeps its age.
    bool isRenewed(const Binding &was, const Binding &is, uint32_t now) const
    {
        return was.lease != is.lease ||
               (is.elapsed < is.lease && lookedAt_ - was.elapsed != now - is.elapsed);
    }

    // False for some seconds after a step of the clock, when leases begin anew by it.
    bool followClock(uint32_t now)
    {
        constexpr int SETTLES = 5; // looks
        const int64_t offset = offsetOf(now);
        unsettled_ = std::abs(offset - offset_) > 1 ? SETTLES : std::max(unsettled_ - 1, 0);
        offset_ = offset;
        return unsettled_ == 0;
    }

    // To the time since the machine's start, which nobody sets.
    static int64_t offsetOf(uint32_t now)
    {
        return now -
               std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
    }

    std::vector<Binding> bindings_; // by key
    std::map<UserKey, Told> told_;
    std::map<uint32_t, std::string> names_;
    uint32_t lookedAt_;
    int64_t offset_;    // of the daemon's clock
    int unsettled_ = 0; // looks
};

Json bindingJson(const char *word, const Binding &binding, const std::string &port,
                 const std::string &gateway = "")
{
    Json json;
    json["event"] = word;
    json["interface"] = port;
    json["index"] = binding.ifIndex;
    json["vlan"] = binding.vlan;
    json["mac"] = macText(binding.mac);
    json["address"] = userKeyText(binding.key);
    if (!gateway.empty())
        json["gateway"] = gateway;
    json["family"] = binding.key.ipType == DHCPSNOOP_IPV4 ? "ipv4" : "ipv6";
    json["type"] = wordOf(USER_TYPES, binding.type);
    return json;
}

void printEvent(const Context &context, Json json)
{
    json["time"] = timeText();
    if (context.json) {
        context.out << json.dump(-1, ' ', false, Json::error_handler_t::replace) << std::endl;
        return;
    }
    context.out << timeText().substr(11, 8) << ' ' << json["event"].get<std::string>();
    for (const auto &[key, value] : json.items()) {
        if (key == "event" || key == "index" || key == "number" || key == "time")
            continue;
        context.out << ' ' << key << ' ' << (value.is_string() ? value.get<std::string>() : value.dump());
    }
    context.out << std::endl;
}

class Monitor
{
  public:
    Monitor(const Context &context, const BindingFilter &wanted)
        : context_(context), wanted_(wanted), sock_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
    }

    // Until a signal, or nobody reads.
    void run()
    {
        uint32_t now = 0;
        auto bindings = readSnapshot(wanted_, &now);
        Known known(bindings ? *std::move(bindings) : readBindings(context_.daemon), now);
        connectTo(sock_, platform_linux::event_socket_path()); // the first look finds what changed meanwhile
        const StopSignals signals;
        for (Clock::time_point next = Clock::now() + LOOK_AGAIN; context_.out;) {
            signals.wait(sock_.get(), next - Clock::now());
            if (stopped)
                return;
            printAnnounced(known);
            if (Clock::now() < next)
                continue;
            look(known);
            next = Clock::now() + LOOK_AGAIN;
        }
    }

  private:
    void printAnnounced(Known &known) const
    {
        for (;;) {
            EventRecord record;
            const ssize_t length = recv(sock_.get(), &record, sizeof(record), MSG_DONTWAIT | MSG_TRUNC);
            if (length < 0 && (errno == EAGAIN || errno == EINTR))
                return;
            if (length <= 0)
                throw NoDaemon("the daemon has ended, or serves as many subscribers as it can");
            if (length != sizeof(record) || record.length != sizeof(record))
                throw NoDaemon("malformed event of " + std::to_string(length) + " bytes");
            print(record, known);
        }
    }

    void print(const EventRecord &record, Known &known) const
    {
        if (record.event == platform_linux::EVENT_LOST) {
            Json json;
            json["event"] = "lost";
            json["count"] = record.lost;
            printEvent(context_, json);
            return;
        }
        const Binding binding = bindingOf(record);
        const std::string port = known.portOf(binding.ifIndex);
        const char *word = known.announced(record.event, binding);
        if (!wanted_(binding, port))
            return;
        Json json = bindingJson(word, binding, port, addressText(record.user.gateway));
        json["number"] = record.event;
        printEvent(context_, json);
    }

    // Announcements of changes that the list has are waiting at the socket when it comes.
    void look(Known &known) const
    {
        uint32_t now = 0;
        std::optional<std::vector<Binding>> bindings;
        try {
            bindings = readSnapshot(wanted_, &now);
        } catch (const NoDaemon &) {
            printAnnounced(known); // which says it better when the daemon has ended
            throw;
        }
        printAnnounced(known);
        if (!bindings)
            return;
        std::erase_if(*bindings, [&](const Binding &binding) {
            return !wanted_.words().empty() && !wanted_(binding, known.portOf(binding.ifIndex));
        });
        for (const auto &[word, binding] : known.look(*std::move(bindings), now))
            printEvent(context_, bindingJson(word, binding, known.portOf(binding.ifIndex)));
    }

    const Context &context_;
    const BindingFilter &wanted_;
    const Socket sock_;
};

} // namespace

ExitStatus monitor(const Context &context, std::span<const std::string> arguments)
{
    const BindingFilter wanted(arguments);
    for (const std::string &name : wanted.names())
        if (if_nametoindex(name.c_str()) == 0)
            context.err << "dhcpsnoopctl: note: there is no interface " << quoted(name) << " yet\n";
    Monitor(context, wanted).run();
    return context.out ? EXIT_DONE : EXIT_REFUSED; // runClient judges the failed write
}

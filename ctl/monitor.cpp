// Prints the daemon's events, one line each, until a signal or the daemon's end.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <map>
#include <ostream>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

#include "binding_filter.h"
#include "binding_view.h"
#include "event_record.h"
#include "platform_numbers.h"
#include "table.h"

namespace
{

using platform_linux::EventRecord;

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

    // Returns when the descriptor is readable or a signal came.
    void wait(int descriptor) const
    {
        pollfd readable = {descriptor, POLLIN, 0};
        ppoll(&readable, 1, nullptr, &open_);
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

// The bound bindings that are known, by which the renewal of one is told from a new one.
class Known
{
  public:
    explicit Known(const Daemon &daemon)
    {
        for (const Binding &binding : readBindings(daemon))
            if (binding.state == DHCPSNOOP_BIND_BOUND)
                bindings_[binding.key] = {binding.ifIndex, binding.mac};
    }

    const char *eventWord(const EventRecord &record)
    {
        const Binding binding = bindingOf(record);
        const std::pair place(binding.ifIndex, binding.mac);
        switch (record.event) {
        case platform_linux::EVENT_LOST:
            return "lost";
        case QOR_EVENT_USER_ADDED:
            return std::exchange(bindings_[binding.key], place) == place ? "renew" : "add";
        case QOR_EVENT_USER_DELETED:
            bindings_.erase(binding.key);
            return "delete";
        default:
            return "unknown";
        }
    }

  private:
    std::map<UserKey, std::pair<uint32_t, Bytes>> bindings_;
};

Json eventJson(const EventRecord &record, const char *word)
{
    Json json;
    json["event"] = word;
    if (record.event == platform_linux::EVENT_LOST) {
        json["count"] = record.lost;
    } else {
        json["number"] = record.event;
        json["interface"] = interfaceText(record.user.ifIndex);
        json["index"] = record.user.ifIndex;
        json["vlan"] = record.user.vid;
        json["mac"] = macText({record.user.mac, record.user.mac + sizeof(record.user.mac)});
        json["address"] = addressText(record.user.address);
        json["gateway"] = addressText(record.user.gateway);
    }
    json["time"] = timeText();
    return json;
}

void printEvent(const Context &context, const Json &json)
{
    if (context.json) {
        context.out << json.dump() << std::endl;
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

} // namespace

ExitStatus monitor(const Context &context, std::span<const std::string> arguments)
{
    const BindingFilter wanted(arguments);
    Known known(context.daemon);
    const Socket sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    connectTo(sock, platform_linux::event_socket_path());
    const StopSignals signals;
    for (;;) {
        signals.wait(sock.get());
        if (stopped)
            return EXIT_DONE;
        EventRecord record;
        const ssize_t length = recv(sock.get(), &record, sizeof(record), MSG_DONTWAIT | MSG_TRUNC);
        if (length < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (length <= 0)
            throw NoDaemon("the daemon has ended, or serves as many subscribers as it can");
        if (length != sizeof(record) || record.length != sizeof(record))
            throw NoDaemon("malformed event of " + std::to_string(length) + " bytes");
        const char *word = known.eventWord(record);
        if (record.event != platform_linux::EVENT_LOST &&
            !wanted(bindingOf(record), interfaceText(record.user.ifIndex)))
            continue;
        printEvent(context, eventJson(record, word));
        if (!context.out)
            return EXIT_REFUSED; // runClient judges the failed write
    }
}

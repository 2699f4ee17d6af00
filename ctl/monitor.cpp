// Prints the daemon's events, one line each, until a signal or the daemon's end.
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ostream>
#include <poll.h>
#include <sys/socket.h>

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

const char *eventWord(const EventRecord &record)
{
    switch (record.event) {
    case platform_linux::EVENT_LOST:
        return "lost";
    case QOR_EVENT_USER_ADDED:
        return "add";
    case QOR_EVENT_USER_DELETED:
        return "delete";
    default:
        return "unknown";
    }
}

Json eventJson(const EventRecord &record)
{
    Json json;
    json["event"] = eventWord(record);
    if (record.event == platform_linux::EVENT_LOST) {
        json["count"] = record.lost;
        return json;
    }
    json["number"] = record.event;
    json["interface"] = interfaceText(record.user.ifIndex);
    json["index"] = record.user.ifIndex;
    json["vlan"] = record.user.vid;
    json["mac"] = macText({record.user.mac, record.user.mac + sizeof(record.user.mac)});
    json["address"] = addressText(record.user.address);
    json["gateway"] = addressText(record.user.gateway);
    return json;
}

void printEvent(const Context &context, const EventRecord &record)
{
    const Json json = eventJson(record);
    if (context.json) {
        context.out << json.dump() << std::endl;
        return;
    }
    context.out << json["event"].get<std::string>();
    for (const auto &[key, value] : json.items()) {
        if (key == "event" || key == "index" || key == "number")
            continue;
        context.out << ' ' << key << ' ' << (value.is_string() ? value.get<std::string>() : value.dump());
    }
    context.out << std::endl;
}

} // namespace

ExitStatus monitor(const Context &context, std::span<const std::string>)
{
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
        printEvent(context, record);
        if (!context.out)
            return EXIT_REFUSED; // runClient judges the failed write
    }
}

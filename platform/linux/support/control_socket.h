// Local sockets of the platform: one request a connection, one answer. Only root can ask. A client that says
// nothing, or reads nothing, holds nobody up: it has a second, and a place that others take when all are
// taken.
#pragma once

#include <functional>
#include <list>
#include <poll.h>
#include <string>
#include <vector>

#include "clock.h"
#include "fd.h"

namespace platform_linux
{

// A text, and a descriptor that goes with it where it is not -1. The caller keeps the descriptor.
struct ControlReply {
    ControlReply(std::string said, int handed = -1) : text(std::move(said)), descriptor(handed) {}
    ControlReply(const char *said) : text(said) {}
    std::string text;
    int descriptor = -1;
};

constexpr size_t CONTROL_REQUEST_MAX = 2048; // bytes; a longer one is refused
constexpr size_t CONTROL_CLIENTS_MAX = 64;

// packets: a request and its answer are a packet each. framed: both follow their length in a stream, 4 bytes
// in host order, and have at most DHCPSNOOP_REQUEST_MAX bytes.
enum class ControlKind { packets, framed };

class ControlSocket
{
  public:
    // Answers a request, now or later, by calling `answer` once. Never called again: the connection stays
    // open for as long as its client wants.
    using Answer = std::function<void(const ControlReply &)>;
    using Handler = std::function<void(const std::string &request, Answer answer)>;

    explicit ControlSocket(Handler handler, ControlKind kind = ControlKind::packets)
        : handler_(std::move(handler)), kind_(kind)
    {
    }

    // Listens at `path`, beside others.
    bool open(const char *path, std::string &error);

    void watch(std::vector<pollfd> &descriptors) const;
    void serve(const std::vector<pollfd> &descriptors, Ticks now);
    Ticks deadline() const;

  private:
    struct Client {
        Fd fd;
        uint64_t number;
        bool asked;
        Ticks until; // dropped then if it has not asked
        std::string received;
    };
    bool has_room() const;
    bool make_room();
    void accept_all(int listener, Ticks now);
    void ask_framed(Client &client);
    void ask_packet(Client &client);
    void ask(Client &client, const std::string &request);
    void answer(uint64_t number, const ControlReply &reply);
    void drop(uint64_t number);

    Handler handler_;
    ControlKind kind_;
    std::vector<Fd> listeners_;
    std::list<Client> clients_;
    uint64_t numbers_ = 0;
    Ticks rest_ = 0; // nobody is let in before: the process had no descriptor left
};

} // namespace platform_linux

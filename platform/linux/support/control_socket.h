// The platform's own local socket, beside the daemon's: one request of a line, one answer. Only root can ask.
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

class ControlSocket
{
  public:
    // Answers a request, now or later, by calling `answer` once.
    using Answer = std::function<void(const ControlReply &)>;
    using Handler = std::function<void(const std::string &request, Answer answer)>;

    explicit ControlSocket(Handler handler) : handler_(std::move(handler)) {}

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
    };
    void accept_all(Ticks now);
    void ask(Client &client);
    void answer(uint64_t number, const ControlReply &reply);
    void drop(uint64_t number);

    Handler handler_;
    Fd listener_;
    std::list<Client> clients_;
    uint64_t numbers_ = 0;
};

} // namespace platform_linux

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

class ControlSocket
{
  public:
    // Answers a request, now or later, by calling `answer` once.
    using Answer = std::function<void(const std::string &)>;
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
    void answer(uint64_t number, const std::string &text);
    void drop(uint64_t number);

    Handler handler_;
    Fd listener_;
    std::list<Client> clients_;
    uint64_t numbers_ = 0;
};

} // namespace platform_linux

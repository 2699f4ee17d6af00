// The platform's own local socket, beside the daemon's: one request of a line, one answer. Only root may ask.
#pragma once

#include <functional>
#include <list>
#include <poll.h>
#include <string>
#include <vector>

#include "clock.h"

namespace platform_linux
{

constexpr const char *CONTROL_PATH = "/run/dhcpsnoop/platform";
constexpr const char *CONTROL_ENV = "DHCPSNOOP_PLATFORM_SOCKET"; // names another path

class ControlSocket
{
  public:
    // Answers a request, now or later, by calling `answer` once.
    using Answer = std::function<void(const std::string &)>;
    using Handler = std::function<void(const std::string &request, Answer answer)>;

    explicit ControlSocket(Handler handler) : handler_(std::move(handler)) {}
    ~ControlSocket();
    ControlSocket(const ControlSocket &) = delete;
    ControlSocket &operator=(const ControlSocket &) = delete;

    bool open(const std::string &path, std::string &error);

    void watch(std::vector<pollfd> &descriptors) const;
    void serve(const std::vector<pollfd> &descriptors, Ticks now);
    Ticks deadline() const;

  private:
    struct Client {
        int fd;
        uint64_t number;
        bool asked;
        Ticks until; // it asks, or it goes
    };
    void accept_all(Ticks now);
    void ask(Client &client);
    void answer(uint64_t number, const std::string &text);
    void drop(uint64_t number);

    Handler handler_;
    int listener_ = -1;
    std::list<Client> clients_;
    uint64_t numbers_ = 0;
};

} // namespace platform_linux

// Requests to the daemon over its own command socket, one after the other, without ever waiting: the daemon
// is this process, and may be busy with a client that stalls.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <poll.h>
#include <span>
#include <string>
#include <vector>

#include "clock.h"

namespace platform_linux
{

class DaemonRequests
{
  public:
    using Done = std::function<void(bool accepted)>;

    explicit DaemonRequests(std::string path) : path_(std::move(path)) {}
    ~DaemonRequests();
    DaemonRequests(const DaemonRequests &) = delete;
    DaemonRequests &operator=(const DaemonRequests &) = delete;

    // A global setting, as a number or as bytes. What cannot be delivered is tried again until it is.
    void set_number(uint32_t attribute, uint32_t value, Done done);
    void set_bytes(uint32_t attribute, std::span<const uint8_t> bytes, Done done);

    // Binds a binding once more: installed by all check items, whatever its port has.
    void bind(uint8_t ipType, std::span<const uint8_t, 16> address, Done done);

    size_t waiting() const { return queue_.size(); }

    // What to wait for, -1 in `fd` for nothing; when, at the latest, serve is to be called.
    pollfd watch() const { return {connection_, POLLIN, 0}; }
    Ticks deadline() const { return queue_.empty() ? NEVER : deadline_; }
    void serve(short events, Ticks now);

  private:
    struct Item {
        std::vector<uint8_t> bytes; // framing length and body
        Done done;
    };
    void add(uint32_t function, uint32_t attribute, std::span<const uint8_t> index, uint8_t type,
             std::span<const uint8_t> value, Done done);
    void send(Ticks now);
    void give_up(Ticks now);

    std::string path_;
    std::deque<Item> queue_;
    std::vector<uint8_t> reply_;
    int connection_ = -1;
    Ticks deadline_ = 0;
};

} // namespace platform_linux

// Requests to the daemon over its own command socket, one after the other. No call waits: the daemon is this
// process, and may be busy.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <poll.h>
#include <string>

#include "adr_request.h"
#include "clock.h"
#include "fd.h"

namespace platform_linux
{

class DaemonRequests
{
  public:
    using Done = std::function<void()>;

    explicit DaemonRequests(std::string path) : path_(std::move(path)) {}

    // A request that cannot be delivered is tried again until it is. `done` is called for a refused one too.
    void ask(AdrRequest request, Done done);

    // The descriptor to poll, -1 for none; and the latest time at which serve is to be called.
    pollfd watch() const { return {connection_.get(), POLLIN, 0}; }
    Ticks deadline() const { return queue_.empty() ? NEVER : deadline_; }
    void serve(short events, Ticks now);

  private:
    struct Item {
        AdrRequest request;
        Done done;
    };
    void send(Ticks now);
    void give_up(Ticks now);

    std::string path_;
    std::deque<Item> queue_;
    AdrBytes framed_;     // the first request
    size_t received_ = 0; // of its reply
    Fd connection_;
    Ticks deadline_ = 0;
};

} // namespace platform_linux

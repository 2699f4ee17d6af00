// A request waits for the daemon's thread in a line, and its reply for the gate's thread in another. Both are
// as long as the gate has clients at most. A request is carried out also for a client that has gone
// meanwhile.
#include "command_gate.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <utility>
#include <vector>

#include "control_socket.h"
#include "dhcpsnoop_cmd.h"
#include "management.h"
#include "platform.h"
#include "report.h"
#include "wake.h"

namespace platform_linux
{
namespace
{
constexpr Ticks WAKE_AGAIN = 100; // while the event socket has no room

struct Command {
    std::string bytes; // the request, then the reply
    ControlSocket::Answer answer;
};

std::mutex lineMutex;
std::deque<Command> requests, replies;
Fd replied; // an eventfd

class Gate
{
  public:
    std::string open()
    {
        const char *named = getenv(DHCPSNOOP_SOCKET_ENV);
        if (named != nullptr && *named != 0) {
            if (listen(named))
                return named;
            platform_report(LOG_ERR, "no commands could be taken: %s", error_.c_str());
            return {};
        }
        const bool real = listen(DHCPSNOOP_CONTROL_PATH);
        const std::string first = error_;
        const bool old = listen(DHCPSNOOP_SOCKET_PATH);
        if (!real && !old)
            platform_report(LOG_ERR, "no commands could be taken: %s; %s", first.c_str(), error_.c_str());
        else if (!real)
            platform_report(LOG_WARNING, "commands are taken at %s alone: %s", DHCPSNOOP_SOCKET_PATH,
                            first.c_str());
        else if (!old)
            platform_report(LOG_WARNING, "commands are taken at %s alone: %s", DHCPSNOOP_CONTROL_PATH,
                            error_.c_str());
        return real ? DHCPSNOOP_CONTROL_PATH : old ? DHCPSNOOP_SOCKET_PATH : "";
    }

    [[noreturn]] void run(int eventSocket)
    {
        for (;;) {
            std::vector<pollfd> descriptors = {
                {replied.get(), POLLIN, 0}
            };
            control_.watch(descriptors);
            const Ticks now = ticks();
            Ticks until = control_.deadline();
            if (command_gate_pending()) {
                wake_event_socket(eventSocket);
                until = std::min(until, now + WAKE_AGAIN);
            }
            poll(descriptors.data(), descriptors.size(),
                 until == NEVER ? -1 : static_cast<int>(std::max<Ticks>(until - now, 0)));
            answer();
            descriptors.erase(descriptors.begin());
            control_.serve(descriptors, ticks());
        }
    }

  private:
    bool listen(const char *path) { return control_.open(path, error_); }

    void answer()
    {
        uint64_t count = 0;
        if (read(replied.get(), &count, sizeof count) != sizeof count)
            return;
        std::deque<Command> ready;
        {
            const std::scoped_lock lock(lineMutex);
            ready.swap(replies);
        }
        for (const Command &command : ready)
            command.answer(command.bytes);
    }

    std::string error_;
    ControlSocket control_{[](const std::string &request, ControlSocket::Answer answer) {
                               const std::scoped_lock lock(lineMutex);
                               requests.push_back({request, std::move(answer)});
                           },
                           ControlKind::framed};
};

std::unique_ptr<Gate> gate; // from the opening to the start
} // namespace

std::string command_gate_open()
{
    gate = std::make_unique<Gate>();
    replied.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (replied)
        return gate->open();
    platform_report(LOG_ERR, "no commands could be taken: %s", strerror(errno));
    return {};
}

void command_gate_start(int eventSocket)
{
    if (gate)
        std::thread([eventSocket, served = std::move(gate)] { served->run(eventSocket); }).detach();
}

bool command_gate_pending()
{
    const std::scoped_lock lock(lineMutex);
    return !requests.empty();
}

void command_gate_take()
{
    Command command;
    {
        const std::scoped_lock lock(lineMutex);
        if (requests.empty())
            return;
        command = std::move(requests.front());
        requests.pop_front();
    }
    uint8_t buffer[DHCPSNOOP_REQUEST_MAX] = {}; // an empty request is answered from it too
    std::copy(command.bytes.begin(), command.bytes.end(), buffer);
    const uint32_t length = dhcpsnoop_cmd_process(buffer, static_cast<uint32_t>(command.bytes.size()));
    command.bytes.assign(buffer, buffer + std::min(length, DHCPSNOOP_REQUEST_MAX));
    {
        const std::scoped_lock lock(lineMutex);
        replies.push_back(std::move(command));
    }
    constexpr uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(replied.get(), &one, sizeof one); // full is awake too
}

} // namespace platform_linux

int32_t platform_serves_commands() { return 1; }

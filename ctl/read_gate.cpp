#include "read_gate.h"

#include <cstring>
#include <ostream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>

namespace
{

constexpr size_t LINE_MAX_BYTES = 4096;
constexpr std::chrono::milliseconds PATIENCE(60000);       // a listing of many bindings
constexpr std::chrono::seconds ASK_TIME(1), TAKE_TIME(30); // a reader that dawdles holds nothing longer

using Time = std::chrono::steady_clock;

// False when the time is over.
bool waitFor(int connection, short events, Time::time_point until)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Time::now()).count();
    pollfd ready = {connection, events, 0};
    return left > 0 && poll(&ready, 1, static_cast<int>(left)) == 1;
}

// In front of an answer: the exit status and the size of the results; diagnosis follows them.
struct Head {
    uint32_t status, size;
};

bool onlyShows(const Words &line)
{
    const Command *command = findCommand(line);
    return command && command->shows && command->run != monitor;
}

} // namespace

std::optional<int> readThroughGate(const Words &line, std::ostream &out, std::ostream &err)
{
    if (!onlyShows(line))
        return std::nullopt;
    std::string request;
    for (const std::string &word : line)
        request.append(word).push_back('\0');
    std::optional<Connection> gate;
    try {
        gate.emplace(SOCK_STREAM, READ_GATE_PATH, PATIENCE);
    } catch (const NoDaemon &) {
        return std::nullopt;
    }
    gate->send(request.data(), request.size());
    gate->finish();
    Head head = {};
    gate->receiveAll(&head, sizeof head);
    const std::string answer = gate->receiveRest();
    if (head.size > answer.size())
        throw NoDaemon("the answer of " + std::string(READ_GATE_PATH) + " is broken off");
    out << answer.substr(0, head.size) << std::flush;
    err << answer.substr(head.size);
    return static_cast<int>(head.status);
}

ExitStatus serveReader(int connection, const Daemon &daemon)
{
    const auto asked = Time::now() + ASK_TIME;
    char request[LINE_MAX_BYTES];
    size_t size = 0;
    for (ssize_t got = 1; got > 0 && size < sizeof request; size += static_cast<size_t>(got))
        if (!waitFor(connection, POLLIN, asked) ||
            (got = recv(connection, request + size, sizeof request - size, MSG_DONTWAIT)) < 0)
            return EXIT_USAGE;
    if (size == sizeof request)
        return EXIT_USAGE;
    Words line;
    for (const char *word = request; word < request + size; word += line.back().size() + 1)
        line.emplace_back(word, strnlen(word, static_cast<size_t>(request + size - word)));
    std::ostringstream out, err;
    ExitStatus status = EXIT_USAGE;
    if (onlyShows(line))
        status = runClient(line, daemon, out, err);
    else
        err << "dhcpsnoopctl: the group may only read\n";
    const std::string results = std::move(out).str(), diagnosis = std::move(err).str();
    const Head head = {static_cast<uint32_t>(status), static_cast<uint32_t>(results.size())};
    const std::string answer =
        std::string(reinterpret_cast<const char *>(&head), sizeof head) + results + diagnosis;
    const auto taken = Time::now() + TAKE_TIME;
    for (size_t at = 0; at < answer.size();) {
        const ssize_t sent =
            waitFor(connection, POLLOUT, taken)
                ? send(connection, answer.data() + at, answer.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT)
                : -1;
        if (sent <= 0)
            return EXIT_NO_DAEMON;
        at += static_cast<size_t>(sent);
    }
    return EXIT_DONE;
}

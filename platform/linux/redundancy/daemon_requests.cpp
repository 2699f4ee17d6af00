#include "daemon_requests.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "management.h"
#include "wire.h"

namespace platform_linux
{
namespace
{
constexpr Ticks RETRY = 20;        // the daemon has not come up yet, or its backlog is full
constexpr Ticks PATIENCE = 20'000; // longer than the daemon waits for a client that stalls
constexpr size_t RESULT_OFFSET = 4 + 12;
constexpr uint8_t GLOBAL_INDEX[] = {0, DATA_WORD, 0, 4, 0, 0, 0, 0}; // none counted, yet one word of it

// A path that somebody else has taken over would have his daemon fed with our records.
bool is_ourselves(int connection)
{
    ucred peer = {};
    socklen_t length = sizeof peer;
    return getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.pid == getpid();
}

int connect_to(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (connection < 0)
        return -1;
    if (connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        !is_ourselves(connection)) {
        close(connection);
        return -1;
    }
    return connection;
}

void put_word_item(std::vector<uint8_t> &bytes, uint32_t value)
{
    const uint8_t header[] = {0, DATA_WORD, 0, 4};
    bytes.insert(bytes.end(), std::begin(header), std::end(header));
    uint8_t word[4];
    wire_put32(word, value);
    bytes.insert(bytes.end(), std::begin(word), std::end(word));
}
} // namespace

DaemonRequests::~DaemonRequests()
{
    if (connection_ >= 0)
        close(connection_);
}

void DaemonRequests::add(uint32_t function, uint32_t attribute, std::span<const uint8_t> index, uint8_t type,
                         std::span<const uint8_t> value, Done done)
{
    std::vector<uint8_t> bytes(4);
    for (const uint32_t word : {function, 0U, attribute})
        put_word_item(bytes, word);
    bytes.push_back(1);
    bytes.insert(bytes.end(), index.begin(), index.end());
    bytes.push_back(3);
    bytes.push_back(type);
    uint8_t length[2];
    wire_put16(length, static_cast<uint32_t>(value.size()));
    bytes.insert(bytes.end(), std::begin(length), std::end(length));
    bytes.insert(bytes.end(), value.begin(), value.end());
    const auto body = static_cast<uint32_t>(bytes.size() - 4);
    memcpy(bytes.data(), &body, sizeof body);
    queue_.push_back({std::move(bytes), std::move(done)});
    if (queue_.size() == 1)
        deadline_ = 0;
}

void DaemonRequests::set_number(uint32_t attribute, uint32_t value, Done done)
{
    uint8_t word[4];
    wire_put32(word, value);
    add(FUNC_GLOBAL_SET, attribute, GLOBAL_INDEX, DATA_WORD, word, std::move(done));
}

void DaemonRequests::set_bytes(uint32_t attribute, std::span<const uint8_t> bytes, Done done)
{
    add(FUNC_GLOBAL_SET, attribute, GLOBAL_INDEX, DATA_BYTES, bytes, std::move(done));
}

void DaemonRequests::bind(uint8_t ipType, std::span<const uint8_t, 16> address, Done done)
{
    uint8_t index[1 + 4 + 6 + 3 + 16] = {3, DATA_BYTES, 0, 1, ipType,     DATA_BYTES, 0,
                                         3, 0,          0, 0, DATA_BYTES, 0,          16};
    std::copy(address.begin(), address.end(), std::end(index) - 16);
    uint8_t word[4];
    wire_put32(word, USER_ACTION_BIND);
    add(FUNC_USER_SET, USER_ACTION, index, DATA_WORD, word, std::move(done));
}

void DaemonRequests::give_up(Ticks now)
{
    if (connection_ >= 0)
        close(connection_);
    connection_ = -1;
    deadline_ = now + RETRY;
}

void DaemonRequests::send(Ticks now)
{
    const std::vector<uint8_t> &bytes = queue_.front().bytes;
    connection_ = connect_to(path_);
    reply_.clear();
    if (connection_ < 0 ||
        ::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
        give_up(now);
        return;
    }
    deadline_ = now + PATIENCE;
}

void DaemonRequests::serve(short events, Ticks now)
{
    if (queue_.empty())
        return;
    if (connection_ < 0) {
        if (now >= deadline_)
            send(now);
        return;
    }
    if (events == 0) {
        if (now >= deadline_)
            give_up(now);
        return;
    }
    uint8_t bytes[DHCPSNOOP_REQUEST_MAX + 4];
    const ssize_t got = recv(connection_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got <= 0) {
        give_up(now);
        return;
    }
    reply_.insert(reply_.end(), bytes, bytes + got);
    // The reply is as long as the request.
    const size_t whole = queue_.front().bytes.size();
    if (reply_.size() < whole)
        return;
    const bool accepted = wire_get32(&reply_[RESULT_OFFSET]) == NM_OK;
    close(connection_);
    connection_ = -1;
    const Done done = std::move(queue_.front().done);
    queue_.pop_front();
    done(accepted);
    if (!queue_.empty())
        send(now);
}

} // namespace platform_linux

// Requests to the daemon and its replies: one exchange over the command socket, and the values of a reply.
// The daemon need not be ours or of this version: every reply is checked before it is read, and waiting ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "adr_request.h"
#include "error.h"

using Bytes = AdrBytes;
using UserKey = AdrUserKey;
using ServerKey = AdrServerKey;
using RequestIndex = AdrIndex;
using Request = AdrRequest;

// Room that a request must bring for the key that a First or Next writes over its data item.
constexpr size_t USER_KEY_ROOM = 28, SERVER_KEY_ROOM = 12;

// A reply as the daemon wrote it over the request. The constructor throws NoDaemon when it cannot be the
// answer to `request`, and so do the readers when the item asked for is not there; a reply of length 0, by
// which the daemon says that it could not decode the request, is a CtlError of status refused.
class Reply
{
  public:
    Reply(const Request &request, Bytes body);
    Reply(Reply &&) = default;

    uint32_t result() const { return result_; } // NM_OK or a result code
    uint32_t word();
    Bytes bytes();
    UserKey userKey();
    ServerKey serverKey();

  private:
    Bytes item(uint8_t type);

    Bytes body_;
    AdrMsg rest_; // in it, at the next data item
    uint32_t result_ = 0;
};

// The daemon refused: carries the result code, and says its name and meaning. `note` stands at the end.
struct Refusal : CtlError {
    Refusal(uint32_t resultCode, const std::string &what, const std::string &note = "");
    uint32_t code;
};

// "NM_NO_ENTRY (0x3E80002): no such entry or interface"; a code without a name is given as a number.
std::string resultText(uint32_t code);

// Takes the body of a request to a daemon and brings the body of the reply; throws NoDaemon.
using Exchange = std::function<Bytes(const Bytes &body)>;

// A descriptor that is closed at the end of its life.
class Socket
{
  public:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    ~Socket();
    Socket(const Socket &) = delete;
    Socket &operator=(const Socket &) = delete;
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

// Connects to a socket that the daemon, root or the caller serves; throws NoDaemon.
void connectTo(const Socket &sock, const std::string &path);

// A connection for one request. Each call throws NoDaemon when it cannot be done, or `timeout` has passed.
class Connection
{
  public:
    Connection(int type, const std::string &path, std::chrono::milliseconds timeout);
    // In one piece, as the daemon receives it.
    void send(const void *bytes, size_t size) const;
    // The bytes that have come, 1 to `size` of them.
    size_t receive(void *out, size_t size) const;
    void receiveAll(void *out, size_t size) const;

  private:
    Socket sock_;
    std::chrono::steady_clock::time_point deadline_;
};

// Over the daemon's command socket, one connection for each request. By default it waits longer than the
// daemon waits for another client that stalls, 10 seconds.
Exchange socketExchange(std::string path,
                        std::chrono::milliseconds timeout = std::chrono::milliseconds(15000));

class Daemon
{
  public:
    explicit Daemon(Exchange exchange) : exchange_(std::move(exchange)) {}

    // Throws NoDaemon; a refusal is the reply's result.
    Reply ask(const Request &request) const;

    // The same, with a refusal thrown as such. `what` names the request in its message.
    Reply demand(const Request &request, const std::string &what) const;

  private:
    Exchange exchange_;
};

// Whether anybody listens at the daemon's socket; throws NoDaemon when it does and cannot be asked.
bool isDaemonRunning(const Daemon &daemon);

// The daemon's socket, or the one that the environment variable DHCPSNOOP_SOCKET names.
std::string daemonSocketPath();

// Connections to the daemon and to the platform: waiting ends after the time that is given.
#pragma once

#include <chrono>
#include <string>

#include "request.h"

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
    // The whole file that came with a packet; throws the packet's text when none did.
    Bytes receiveFile() const;
    // Says that nothing more is sent.
    void finish() const;
    // All that comes until the other side closes.
    std::string receiveRest() const;

  private:
    size_t receiveSome(void *out, size_t size) const; // 0 at the end
    Socket sock_;
    std::chrono::steady_clock::time_point deadline_;
};

// Over the daemon's command socket, one connection for each request. By default it waits longer than the
// daemon waits for another client that stalls, 10 seconds.
Exchange socketExchange(std::string path,
                        std::chrono::milliseconds timeout = std::chrono::milliseconds(15000));

// Whether anybody listens at the daemon's socket; throws NoDaemon when it does and cannot be asked.
bool isDaemonRunning(const Daemon &daemon);

// The daemon's socket, or the one that the environment variable DHCPSNOOP_SOCKET names. The old name in /tmp
// where there is nothing at the new one, and it is root's or the caller's.
std::string daemonSocketPath();

// The answer of the Linux platform, which has a local socket of its own beside the daemon's; throws NoDaemon.
std::string askPlatform(const std::string &request);

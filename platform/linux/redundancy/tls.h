// TLS 1.3 between the units, each of which shows the certificate that the other expects. What does it is a
// module of its own, loaded when a peer is configured: without one, the daemon does not carry the library's
// 2 MiB.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "redundancy_conf.h"

namespace platform_linux
{

enum class TlsResult { done, wantsRead, wantsWrite, closed, failed };

// One connection's. Nothing here waits: `wantsRead` and `wantsWrite` say what the descriptor must become
// before the same call gets further. The descriptor stays the caller's.
class TlsSession
{
  public:
    TlsSession() = default;
    virtual ~TlsSession() = default;
    TlsSession(const TlsSession &) = delete;
    TlsSession &operator=(const TlsSession &) = delete;

    // Done once the peer is known to be who it should be.
    virtual TlsResult shake_hands() = 0;
    // After shake_hands is done. `count` is how many bytes were moved, at least one when done.
    virtual TlsResult read(std::span<uint8_t> room, size_t &count) = 0;
    virtual TlsResult write(std::span<const uint8_t> bytes, size_t &count) = 0;
    // Why the last of these failed.
    virtual std::string trouble() const = 0;
};

class Tls
{
  public:
    Tls() = default;
    virtual ~Tls() = default;
    Tls(const Tls &) = delete;
    Tls &operator=(const Tls &) = delete;

    // For a connected or connecting descriptor. Null when there is no memory.
    virtual std::unique_ptr<TlsSession> session(int fd, bool accepting) = 0;
};

// Loads the module, for good, and reads certificate, key and authority. Null with what is wrong.
std::unique_ptr<Tls> tls_load(const PeerConf &conf, std::string &error);

// The module's way in, with C linkage. What it gives is the caller's.
constexpr const char *TLS_OPEN = "dhcpsnoop_tls_open";
using TlsOpen = Tls *(const PeerConf &conf, std::string &error);

} // namespace platform_linux

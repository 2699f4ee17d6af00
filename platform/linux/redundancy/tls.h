// TLS 1.3 between the units, each of which shows the certificate that the other expects. It is in a module
// that is loaded when a peer is configured: a daemon without a peer does not carry the library's 2 MiB.
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

// The TLS of one connection. No call waits: `wantsRead` and `wantsWrite` ask for a readable or writable
// descriptor before the next call. The caller keeps the descriptor.
class TlsSession
{
  public:
    TlsSession() = default;
    virtual ~TlsSession() = default;
    TlsSession(const TlsSession &) = delete;
    TlsSession &operator=(const TlsSession &) = delete;

    // Done when the peer has proved its name.
    virtual TlsResult shake_hands() = 0;
    // After shake_hands is done. `count` is the number of bytes moved, at least one when done.
    virtual TlsResult read(std::span<uint8_t> room, size_t &count) = 0;
    virtual TlsResult write(std::span<const uint8_t> bytes, size_t &count) = 0;
    // The reason of the last failure.
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

// Loads the module, for good, and reads certificate, key and authority. Null with `error`.
std::unique_ptr<Tls> tls_load(const PeerConf &conf, std::string &error);

// The module's entry, with C linkage. The caller owns the result.
constexpr const char *TLS_OPEN = "dhcpsnoop_tls_open";
using TlsOpen = Tls *(const PeerConf &conf, std::string &error);

} // namespace platform_linux

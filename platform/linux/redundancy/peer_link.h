// The link to the peer unit: TCP with TLS 1.3; each side shows the certificate that the other expects. No
// call waits. Records that a slow peer has no room for are left out and counted. A silent peer is given up,
// and the connection is made again.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <poll.h>
#include <string>
#include <vector>

#include "clock.h"
#include "fd.h"
#include "peer_frame.h"
#include "redundancy_conf.h"
#include "tls.h"

namespace platform_linux
{

class PeerLink
{
  public:
    struct Handlers {
        std::function<DhcpsnoopRole()> role;          // ours, for the first message
        std::function<void()> up, down;               // the peer said hello; it is gone
        std::function<void(const PeerFrame &)> frame; // from a peer that is up
    };

    PeerLink(PeerConf conf, Handlers handlers) : conf_(std::move(conf)), handlers_(std::move(handlers)) {}
    PeerLink(const PeerLink &) = delete;
    PeerLink &operator=(const PeerLink &) = delete;

    // Reads certificate, key and authority. False with what is wrong.
    bool start(std::string &error);

    // Queues a message. False when the peer is not up, or has no room.
    bool send(PeerMessage type, std::span<const uint8_t> payload = {});

    // Tells it our role, which has changed.
    bool send_role();

    // All queued messages are sent.
    bool is_idle() const { return current_ != nullptr && current_->out.empty(); }

    // While held, the peer's records stay with the peer.
    void hold(bool held);

    std::string address() const { return (conf_.listens ? "listen " : "connect ") + conf_.addressText; }
    bool is_up() const { return current_ != nullptr; }
    DhcpsnoopRole peer_role() const { return peerRole_; }   // while it is up
    const std::string &trouble() const { return trouble_; } // the reason when it is down, if known

    void watch(std::vector<pollfd> &descriptors) const;
    Ticks deadline() const;
    // `descriptors` as watch made them, after poll.
    void serve(const std::vector<pollfd> &descriptors, Ticks now);

  private:
    struct Connection {
        Connection(Fd descriptor, Ticks now) : fd(std::move(descriptor)), heard(now), moved(now), since(now)
        {
        }

        Fd fd;
        std::unique_ptr<TlsSession> tls; // goes before the descriptor
        bool connecting = false;         // TCP's own handshake
        bool secured = false;            // TLS's is done
        bool replaced = false;           // by a newer one of the peer's
        bool wantsWrite = false, hasMore = false;
        PeerFrameReader reader;
        std::vector<uint8_t> out;
        size_t sent = 0; // of `out`
        DhcpsnoopRole toldRole = DHCPSNOOP_ROLE_NONE;
        Ticks heard, moved, since; // last byte in, out; made
    };

    bool listen_now(Ticks now);
    void accept_all(Ticks now);
    void connect_now(Ticks now);
    bool make_tls(Connection &connection, bool accepting);
    // Each gives false, with trouble_ set, when the connection must be dropped.
    bool progress(Connection &connection, short events, Ticks now);
    bool shake_hands(Connection &connection, Ticks now);
    bool read_some(Connection &connection, Ticks now);
    bool write_some(Connection &connection, Ticks now);
    bool take(Connection &connection, const PeerFrame &frame);
    bool is_late(const Connection &connection, Ticks now);
    bool tls_failed(Connection &connection, TlsResult result, const char *doing);
    bool put_hello(Connection &connection);
    bool put(Connection &connection, PeerMessage type, std::span<const uint8_t> payload);
    void drop(Connection *connection, Ticks now);
    void say(const std::string &trouble);

    PeerConf conf_;
    Handlers handlers_;
    std::unique_ptr<Tls> tls_;
    Fd listener_;
    std::list<Connection> connections_;
    Connection *current_ = nullptr; // whose peer said hello
    DhcpsnoopRole peerRole_ = DHCPSNOOP_ROLE_NONE;
    bool held_ = false;
    Ticks retryAt_ = 0, backoff_ = 0;
    std::string trouble_, said_;
};

} // namespace platform_linux

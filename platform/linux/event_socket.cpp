// The daemon's event socket: the kernel's datagrams in, one message of the switch's numbering a call out.
// What a datagram makes more of is delivered before the next one is read; an acknowledgement that the socket
// asks the kernel for keeps it readable until then. RFC 3549, rtnetlink(7).
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/rtnetlink.h>
#include <utility>

#include "clock.h"
#include "command_gate.h"
#include "desired_state.h"
#include "dhcpsnoop_cmd.h"
#include "facts.h"
#include "guard.h"
#include "guard_hour.h"
#include "platform.h"
#include "redundancy.h"
#include "report.h"
#include "runtime_paths.h"
#include "snapshot.h"
#include "switch_model.h"
#include "wake.h"

namespace platform_linux
{
namespace
{
constexpr size_t DATAGRAM_MAX = 32768;  // the kernel's largest
constexpr int RECEIVE_BUFFER = 2 << 20; // some 500 link messages; the default holds 50
constexpr int READS_PER_CALL = 64;      // datagrams that mean nothing to the daemon
constexpr Ticks READ_TIME = 5; // each may make the classifier wait for the kernel; a frame waits as long
constexpr Ticks REFRESH_AGAIN = 1000, TELL_AGAIN = 60'000;
constexpr int DRAIN_MAX = 65536; // datagrams thrown away before a dump

alignas(nlmsghdr) std::array<uint8_t, DATAGRAM_MAX> datagram;
DaemonEvents queue;
bool awake = false;         // an acknowledgement was asked for and not read yet
bool outdated = false;      // the model needs a dump
Ticks refreshAt = 0;        // not before
Ticks tellAt = 0;           // of a failure of it, not before
bool mending = false;       // the classifier may be missing on some device
bool guardOutdated = false; // the guard's configuration, or what it stands on, may have changed

// Nothing older than the dump that follows may be left to be read after it.
void drain(int sock)
{
    for (int i = 0; i < DRAIN_MAX; i++)
        if (recv(sock, datagram.data(), datagram.size(), MSG_DONTWAIT) < 0 && errno != ENOBUFS &&
            errno != EINTR)
            break;
    awake = false;
}

// select wakes for what has not been handed over yet.
void stay_readable(int sock)
{
    if ((!queue.empty() || guard_follow_pending() || config_pending() || command_gate_pending() || mending) &&
        !awake)
        awake = wake_event_socket(sock);
}

void refresh(int sock)
{
    if (ticks() < refreshAt)
        return;
    trap_put_off(true);
    outdated = !model_dump(switch_model(), queue);
    const int error = errno;
    trap_put_off(false);
    if (outdated && error != EAGAIN) { // no memory, no descriptor
        refreshAt = ticks() + REFRESH_AGAIN;
        wake_event_socket_later(sock);
        if (ticks() >= tellAt)
            platform_report(LOG_WARNING, "the kernel's links cannot be listed, tried again every second: %s",
                            strerror(error));
        tellAt = ticks() + TELL_AGAIN;
        return;
    }
    guardOutdated = true; // what was lost may have said so
    trap_messages_lost();
    mending = true;
}

void follow_guard()
{
    if (std::exchange(guardOutdated, false))
        guard_follow(queue);
}

// The daemon has handled all that it was given. While a change of role is under way, bindings are installed
// at its end only.
void guard_handled()
{
    if (!redundancy_role_changes())
        guard_follow_handled();
}

// A management request of the platform's own. A load makes thousands, which would bury the trace of frames.
AdrBytes ask_core(const AdrBytes &body)
{
    AdrBytes reply = body;
    const uint8_t traced = std::exchange(gDhcpsnoop.debugFlags, uint8_t{0});
    reply.resize(dhcpsnoop_cmd_process(reply.data(), static_cast<uint32_t>(reply.size())));
    gDhcpsnoop.debugFlags = traced;
    return reply;
}

// Settings of a port go to the daemon when it has handled the events before.
void configuration()
{
    guardOutdated = config_work() || guardOutdated;
    follow_guard();
    guard_gate_follow();
}

void role_events()
{
    if (redundancy_takeover_ends())
        bindings_hold(Hold::takeOver, false);
    redundancy_events(queue);
}

void model_changed(ModelChange change, const Port &, const Port *)
{
    guardOutdated = guardOutdated || change != ModelChange::changed;
}

// False when the socket has nothing more, or an error that stays.
bool read_datagram(int sock)
{
    sockaddr_nl sender{};
    iovec vector = {datagram.data(), datagram.size()};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    const ssize_t length = recvmsg(sock, &message, MSG_DONTWAIT);
    if (length < 0 && errno == EINTR)
        return true;
    // Messages were lost, or one could not be made.
    if (length < 0 && (errno == ENOBUFS || errno == EMSGSIZE || errno == ENOMEM)) {
        drain(sock);
        outdated = true;
    } else if (length < 0) {
        return false;
    } else if (sender.nl_pid != 0) {
        // Only those who may administer the network can send to the socket, and still nothing that they say
        // is passed on.
        guardOutdated =
            is_guard_announcement({datagram.data(), static_cast<size_t>(length)}) || guardOutdated;
    } else if ((message.msg_flags & MSG_TRUNC) != 0) {
        outdated = true;
    } else {
        const std::span<const uint8_t> bytes(datagram.data(), static_cast<size_t>(length));
        std::span<const uint8_t> rest = bytes;
        if (const nlmsghdr *first = next_message(rest); first != nullptr && first->nlmsg_type == NLMSG_ERROR)
            awake = false;
        outdated = !switch_model().feed(bytes, queue) || outdated;
        mending = trap_heard(bytes) || mending;
    }
    if (outdated)
        refresh(sock);
    follow_guard();
    return true;
}

} // namespace

} // namespace platform_linux

using namespace platform_linux;

int32_t platform_event_group_join(int sock, uint32_t group)
{
    if (setsockopt(sock, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0)
        return errno == EINVAL ? 0 : -1; // a group of the switch's kernel
    if (group != RTNLGRP_LINK)
        return 0;
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) < 0)
        setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    const int filters = RTNLGRP_TC;
    setsockopt(sock, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &filters, sizeof filters);
    model_watch(model_changed);
    // What changed between the first dump and this moment was told to nobody.
    refresh(sock);
    follow_guard();
    stay_readable(sock);
    guard_hour_start();
    redundancy_event_socket(sock);
    config_begin(sock, ask_core, facts_text);
    snapshot_start(config_runtime("bindings"), sock);
    command_gate_start(sock);
    return 0;
}

ssize_t platform_event_recv(int sock, void *buffer, size_t size, struct sockaddr *from, socklen_t *fromLength)
{
    snapshot_take();
    command_gate_take();
    // The daemon asks again when it has handled what it was given last.
    if (queue.empty()) {
        guard_handled();
        configuration();
    }
    role_events();
    const Ticks until = ticks() + READ_TIME;
    for (int i = 0; i < READS_PER_CALL && queue.empty() && ticks() <= until; i++)
        if (!read_datagram(sock))
            break;
    if (queue.empty()) {
        role_events(); // the wake-up for it may have been read just now
        guard_handled();
    }
    if (queue.empty()) {
        mending = trap_mend();
        configuration(); // what a message has just said
        stay_readable(sock);
    }
    if (queue.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const DaemonEvent event = queue.front();
    queue.pop_front();
    stay_readable(sock);
    const size_t length = std::min<size_t>(event.length, size);
    memcpy(buffer, event.bytes.data(), length);
    if (from != nullptr && fromLength != nullptr) {
        sockaddr_nl kernel{};
        kernel.nl_family = AF_NETLINK;
        memcpy(from, &kernel, std::min<size_t>(*fromLength, sizeof kernel));
        *fromLength = sizeof kernel;
    }
    return static_cast<ssize_t>(length);
}

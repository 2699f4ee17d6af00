#include "redundancy.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

#include "management.h"
#include "model.h"
#include "platform_numbers.h"
#include "report.h"
#include "unit_thread.h"

namespace platform_linux
{
namespace
{
UnitShared *shared = nullptr; // as long as the process lives; null while the thread does not run
bool reinstalling = false;    // all bindings
bool copyOpen = false;        // the last event asked the daemon for a full copy
bool portsOpen = false;       // the daemon has not handled the events of all changes of ports

// A port as a record names it.
struct PortName {
    char name[IFNAMSIZ];
    uint64_t identity;
};
constexpr size_t GONE_MAX = 4096;
std::map<uint32_t, PortName> gone; // by index: the daemon may have bindings there

// The alias, where the operator or the virtual machine's manager gave one, else the MAC address.
uint64_t identity_of(const Port &port)
{
    constexpr uint64_t ALIAS = uint64_t{1} << 63;
    uint64_t mac = 0;
    for (const uint8_t byte : port.mac)
        mac = mac << 8 | byte;
    return port.aliasSum != 0 ? port.aliasSum | ALIAS : mac;
}

PortName name_of(const Port &port)
{
    PortName name{};
    memcpy(name.name, port.name, sizeof name.name);
    name.identity = identity_of(port);
    return name;
}

// The thread learns of ports after the daemon: what the daemon deletes because a port went comes first.
void publish_ports()
{
    portsOpen = false;
    {
        const std::scoped_lock lock(shared->portsMutex);
        shared->ports.clear();
        for (const auto &[ifIndex, port] : model_ports())
            shared->ports.emplace(port.name, UnitPort{ifIndex, identity_of(port)});
    }
    shared->portsVersion++;
    shared->wake();
}

void ports_changed(ModelChange change, const Port &port, const Port *before)
{
    if (before != nullptr && strcmp(port.name, before->name) == 0 &&
        identity_of(port) == identity_of(*before))
        return;
    if (change == ModelChange::vanished)
        gone[port.ifIndex] = name_of(port);
    else
        gone.erase(port.ifIndex);
    if (gone.size() > GONE_MAX)
        gone.erase(gone.begin()); // indexes ascend
    if (!std::exchange(portsOpen, true))
        shared->wake_daemon(); // for redundancy_events
}

PortName port_name(uint32_t ifIndex)
{
    if (const Port *port = model_port(ifIndex))
        return name_of(*port);
    if (const auto it = gone.find(ifIndex); it != gone.end())
        return it->second;
    PortName name{};
    if (ifIndex != 0) // waits for its port on the other side, where there is none either
        snprintf(name.name, sizeof name.name, "#%u", ifIndex);
    return name;
}

void push(std::span<const Change> changes)
{
    if (shared->changes.push(changes))
        shared->wake();
}

void push(const Change &change) { push(std::span(&change, 1)); }

bool directory_exists(const std::string &file)
{
    struct stat status = {};
    return stat(file.substr(0, file.rfind('/')).c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}
} // namespace

bool redundancy_start(const RedundancyConf &conf, uint32_t bindings, const std::string &commandSocket)
{
    auto state = std::make_unique<UnitShared>();
    state->room = bindings;
    state->wakeup = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    auto thread = std::make_unique<UnitThread>(*state, model_role(), commandSocket);
    if (conf.peer && !thread->open_peer(*conf.peer))
        return false;
    shared = state.release();
    const std::string journal = conf.journal.value_or(directory_exists(JOURNAL_PATH) ? JOURNAL_PATH : "");
    if (!journal.empty())
        thread->open_journal(journal);
    const char *control = getenv(DHCPSNOOP_PLATFORM_SOCKET_ENV);
    thread->open_control(control != nullptr && *control != 0 ? control : DHCPSNOOP_PLATFORM_SOCKET_PATH);
    model_watch(ports_changed);
    publish_ports();
    thread->begin();
    std::thread([unit = thread.release()] { unit->run(); }).detach();
    return true;
}

// The wall clock was set, and the daemon goes by what it was. A change of role that is under way ends first.
// Asked several times a frame, so both clocks are read in another second only: a scan sees no more.
static bool clock_is_wrong()
{
    static time_t second = 0;
    static bool wrong = false;
    if (shared == nullptr || shared->enforcement != Enforcement::normal)
        return false;
    const time_t now = time(nullptr);
    if (wrong || now != second)
        wrong = shared->clock.set_ahead() != 0;
    second = now;
    return wrong;
}

// The daemon's lease scan asks for the role before it reads the clock, and a standby does not scan.
DhcpsnoopRole redundancy_role()
{
    if (shared == nullptr)
        return model_role();
    if (!clock_is_wrong())
        return shared->daemonRole;
    if (!shared->clockSeen.exchange(true))
        shared->wake();
    return DHCPSNOOP_ROLE_SLAVE;
}

int32_t redundancy_sync(const QorBuffer &packet)
{
    if (shared == nullptr)
        return ENOTCONN;
    const auto *bytes = static_cast<const uint8_t *>(packet.data);
    std::array<Change, 32> changes; // a full copy's packet has fewer
    size_t count = 0;
    for (uint32_t at = 0; at + sizeof(SyncHeader) <= packet.length;) {
        SyncHeader header;
        memcpy(&header, bytes + at, sizeof header);
        const uint32_t size = static_cast<uint32_t>(sizeof header) + header.length;
        if (size > packet.length - at)
            break;
        if (header.type == SYNC_USER && size == sizeof(SyncUserRecord)) {
            SyncUserRecord user;
            memcpy(&user, bytes + at, sizeof user);
            const PortName port = port_name(user.ifIndex);
            changes[count++] = {Change::Kind::record, unit_from_user(user, port.name), user.ifIndex,
                                port.identity};
        } else if (header.type == SYNC_SERVER && size == sizeof(SyncServerRecord)) {
            SyncServerRecord server;
            memcpy(&server, bytes + at, sizeof server);
            const PortName port = port_name(server.ifIndex);
            changes[count++] = {Change::Kind::record, unit_from_server(server, port.name), server.ifIndex,
                                port.identity};
        }
        at += size;
        if (count == changes.size()) {
            push(changes);
            count = 0;
        }
    }
    push(std::span(changes).first(count));
    return 0;
}

void redundancy_binding_changed()
{
    if (shared == nullptr)
        return;
    shared->bindingChanged = true;
    shared->wake();
}

bool redundancy_decides(const QorIfRequest &request, int32_t &result)
{
    const bool add = request.operation == QOR_USER_ADD;
    const Enforcement now = shared != nullptr ? shared->enforcement.load() : Enforcement::normal;
    const bool refused = add && now != Enforcement::normal;
    result = refused ? EBUSY : 0;
    return refused || (!add && now == Enforcement::clearMarks);
}

bool redundancy_takeover_begins()
{
    if (shared == nullptr || shared->enforcement != Enforcement::clearMarks)
        return false;
    reinstalling = true;
    return true;
}

bool redundancy_takeover_ends()
{
    if (shared == nullptr || !shared->installed.exchange(false))
        return false;
    reinstalling = false;
    return true;
}

bool redundancy_role_changes()
{
    return reinstalling || clock_is_wrong() ||
           (shared != nullptr && shared->enforcement != Enforcement::normal);
}

void redundancy_event_socket(int sock)
{
    if (shared == nullptr)
        return;
    shared->eventSocket = sock;
    if (portsOpen)
        shared->wake_daemon();
}

void redundancy_events(DaemonEvents &events)
{
    if (shared == nullptr)
        return;
    if (portsOpen && events.empty()) // the daemon has handled all that it was given
        publish_ports();
    const bool master = redundancy_role() == DHCPSNOOP_ROLE_MASTER;
    if (copyOpen) { // the daemon has served that event whole
        copyOpen = false;
        Change end{Change::Kind::copyEnd, {}, 0, 0};
        end.record.add = master;
        push(end);
    }
    if (!master || !shared->copyWanted.exchange(false))
        return;
    // The daemon reads the number of the subsystem that came up from the datagram's first word, its length.
    // It ignores its own number.
    DaemonEvent event{};
    nlmsghdr header{};
    header.nlmsg_len = sizeof header;
    if (header.nlmsg_len == model_system())
        header.nlmsg_len += 4;
    header.nlmsg_type = QOR_EVENT_SUBSYSTEM_UP;
    memcpy(event.bytes.data(), &header, sizeof header);
    event.length = header.nlmsg_len;
    events.push_front(event);
    copyOpen = true;
    push({Change::Kind::copyBegin, {}, 0, 0});
    shared->wake_daemon(); // for the end
}

} // namespace platform_linux

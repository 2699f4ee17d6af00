#include "platform_start.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sysexits.h>
#include <unistd.h>

#include "command_gate.h"
#include "config_thread.h"
#include "desired_state.h"
#include "guard.h"
#include "judgement.h"
#include "logging.h"
#include "platform.h"
#include "port_limits.h"
#include "redundancy.h"
#include "report.h"
#include "subscribers.h"
#include "switch_model.h"

namespace platform_linux
{
namespace
{
struct Capability {
    uint32_t number;
    const char *text;
    bool rootMayLack; // in a container, where what it is for is then reported as missing and done without
};
constexpr Capability CAPABILITIES[] = {
    {CAP_NET_RAW,   "CAP_NET_RAW (packet sockets)",            false},
    {CAP_NET_ADMIN, "CAP_NET_ADMIN (traps on the ports)",      false},
    {CAP_BPF,       "CAP_BPF (the program that traps frames)", true },
};

// Some 40 are open as a rule; the rest is for clients, and for files that are open for a moment.
constexpr rlim_t DESCRIPTORS_MIN = 128;

// From the preparation to the start.
Room roomOfPools = {INTERFACES_DEFAULT, BINDINGS_DEFAULT};
RedundancyConf redundancy;

// A descriptor below 3 that is free would be given to a packet socket, which then gets what is printed.
void claim_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR | O_CLOEXEC) < 0)
            return;
}

// False, with a report, when the process may have too few for a daemon with its clients.
bool enough_descriptors()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return true;
    limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, FD_SETSIZE));
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= DESCRIPTORS_MIN)
        return true;
    platform_report(
        LOG_ERR,
        "%llu open files are allowed and the daemon needs %llu: raise the limit (ulimit -n, LimitNOFILE)",
        static_cast<unsigned long long>(limit.rlim_cur), static_cast<unsigned long long>(DESCRIPTORS_MIN));
    return false;
}

// 0 or an exit status, as platform_linux_start.
int load_model()
{
    DaemonEvents told; // nothing has changed yet that the daemon knows of
    if (!model_dump(switch_model(), told)) {
        platform_report(LOG_ERR, "the kernel's links cannot be listed: %s", strerror(errno));
        return EXIT_FAILURE;
    }
    return 0;
}

void report_absent()
{
    const SwitchConf &conf = switch_model().conf();
    if (!conf.describes_ports() && model_ports().empty())
        platform_report(LOG_NOTICE, "there is no bridge with ports: no ports until there are some");
    std::string absent;
    const auto look = [&absent](const std::string &name) {
        for (const auto &[ifIndex, port] : model_ports())
            if (name == port.name)
                return;
        absent += " " + name;
    };
    for (const auto &[name, port] : conf.ports)
        look(name);
    for (const auto &[name, vid] : conf.vlanInterfaces)
        look(name);
    if (!absent.empty())
        platform_report(LOG_NOTICE, "configured, but not there yet:%s", absent.c_str());
}
} // namespace

std::string missing_capabilities()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    std::string missing;
    if (syscall(SYS_capget, &header, data) < 0)
        return missing; // unknown: whatever is missing will say so itself
    const auto has = [&data](uint32_t number) {
        return (data[CAP_TO_INDEX(number)].effective & CAP_TO_MASK(number)) != 0;
    };
    for (const Capability &capability : CAPABILITIES) {
        if (has(capability.number) || (capability.rootMayLack && geteuid() == 0) ||
            (capability.number == CAP_BPF && has(CAP_SYS_ADMIN)))
            continue;
        missing += missing.empty() ? "" : ", ";
        missing += capability.text;
    }
    return missing;
}

int platform_linux_prepare(const Options &options, Room &room)
{
    claim_standard_descriptors();
    logging_start();
    config_signals_block();
    if (!enough_descriptors())
        return EXIT_FAILURE;
    ConfigStart start;
    if (!config_start(options.directory, start))
        return EX_CONFIG;
    const auto first = [](uint16_t one, uint16_t other, uint16_t last) {
        return one != 0 ? one : other != 0 ? other : last;
    };
    room = {first(options.interfaces, start.interfaces, INTERFACES_DEFAULT),
            first(options.bindings, start.bindings, BINDINGS_DEFAULT)};
    roomOfPools = room;
    redundancy = start.redundancy;
    switch_model().configure(start.model);
    return 0;
}

// The file-level state of the platform is made ready here, once in a process, each part after the parts that
// it asks:
//
//   standard streams, system log   logging.cpp, report.cpp
//   configuration                  config.cpp, desired_state.cpp: the file
//   switch model                   switch_model.cpp: a dump of the kernel's links
//   guard                          guard.cpp, trap.cpp, bindings.cpp: first to watch the model
//   subscribers                    subscribers.cpp
//   command socket                 command_gate.cpp: listens from here on
//   limits of ports                port_limits.cpp
//   judge                          judgement.cpp: its thread runs from here on
//   redundancy                     redundancy.cpp: second to watch the model; a thread of its own
//
// The first two before the daemon's start-up (platform_linux_prepare). The event socket (event_socket.cpp)
// follows when the daemon joins its groups and watches the model last: the classifier stands on a port before
// an event tells of it. The configuration is brought about then (desired_state.cpp). All other state begins
// as zero. Nothing is taken back: the process ends by exit() until a thread runs, then by _exit().
int platform_linux_start()
{
    if (const std::string missing = missing_capabilities(); !missing.empty()) {
        platform_report(LOG_ERR, "missing %s: start as root, or grant what is missing", missing.c_str());
        return EXIT_FAILURE;
    }
    if (const int status = load_model(); status != 0)
        return status;
    report_absent();
    if (trap_start(roomOfPools.bindings) != 0) // before anything is taken that another daemon may have
        return EXIT_FAILURE;
    if (const int error = subscribers_open(event_socket_path()); error != 0)
        platform_report(LOG_WARNING, "%s: nobody can subscribe to events: %s", event_socket_path(),
                        strerror(error));
    const std::string commands = command_gate_open();
    if (commands.empty())
        return EXIT_FAILURE;
    port_limits_start(roomOfPools.bindings);
    if (!judgement_start(roomOfPools.bindings))
        return EXIT_FAILURE;
    return redundancy_start(redundancy, roomOfPools.bindings, commands) ? 0 : EX_CONFIG;
}

} // namespace platform_linux

// The daemon's first platform call once its start-up has begun, before it has opened anything.
uint32_t OsixCreateMSem(uint32_t)
{
    static bool started = false;
    static uint32_t handle = 0;
    if (const int status = started ? 0 : platform_linux::platform_linux_start(); status != 0)
        exit(status); // main would go on into a loop without sockets
    started = true;
    return ++handle;
}

// Called when start-up failed, and only then, before anything else is undone. The core would go on into a
// loop without sockets: a process that does nothing and that no service manager would start again.
int32_t OsixDeleteSem(uint32_t semId)
{
    if (semId == 0)
        return EINVAL;
    // Some steps have told why, and errno is of the telling then; the others are silent.
    platform_linux::platform_report(
        LOG_ERR, "start-up failed, the daemon ends (if nothing above says why: %s)", strerror(errno));
    _exit(EXIT_FAILURE); // the platform's thread runs, and uses what exit would destroy
}

int32_t errnoGet() { return errno; }

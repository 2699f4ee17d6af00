#include "platform_start.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <string_view>
#include <sys/syscall.h>
#include <sysexits.h>
#include <unistd.h>

#include "event_socket.h"
#include "guard.h"
#include "logging.h"
#include "platform.h"
#include "redundancy.h"
#include "relay_socket.h"
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

// The daemon's second argument: how many bindings it has room for, read as it does.
constexpr int USER_COUNT_ARGUMENT = 2;
constexpr uint16_t BINDINGS_DEFAULT = 256;
uint16_t bindings = BINDINGS_DEFAULT;

constexpr const char *USAGE = R"(usage: dhcpsnoop [INTERFACES [BINDINGS [GUARD [ARP [PROVISIONING]]]]]
       dhcpsnoop --help | --version

The DHCP snooping daemon. It runs in the foreground.

  INTERFACES    number of interfaces that can have snooping; 0: 20
  BINDINGS      number of bindings and waiting clients; 0: 256
  GUARD         1: IP source guard can be used
  ARP           1: ARP inspection can be used
  PROVISIONING  1: ask for options 67 and 125 (never given on this platform)

dhcpsnoopctl configures it. The switch is described in /etc/dhcpsnoop/switch.conf.
)";

// A descriptor below 3 that is free would be given to a packet socket, which then gets what is printed.
void claim_standard_descriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR | O_CLOEXEC) < 0)
            return;
}

// 0 or an exit status, as platform_linux_start.
int load_model()
{
    SwitchConf conf;
    std::string error;
    switch (switch_conf_read(conf, error)) {
    case ConfFile::read:
        switch_model().configure(std::move(conf));
        break;
    case ConfFile::absent:
        break;
    case ConfFile::wrong:
        platform_report(LOG_ERR, "%s", error.c_str());
        return EX_CONFIG;
    }
    DaemonEvents told; // nothing has changed yet that the daemon knows of
    if (!events_dump(switch_model(), told)) {
        platform_report(LOG_ERR, "the kernel's links cannot be listed: %s", strerror(errno));
        return EXIT_FAILURE;
    }
    return 0;
}

void report_absent()
{
    const auto &conf = switch_model().conf();
    if (!conf) {
        if (model_ports().empty())
            platform_report(LOG_NOTICE, "no %s and no bridge with ports: no ports until there are some",
                            SWITCH_CONF_PATH);
        return;
    }
    std::string absent;
    const auto look = [&absent](const std::string &name) {
        for (const auto &[ifIndex, port] : model_ports())
            if (name == port.name)
                return;
        absent += " " + name;
    };
    for (const auto &[name, port] : conf->ports)
        look(name);
    for (const auto &[name, vid] : conf->vlanInterfaces)
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

void arguments_take(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        const std::string_view argument = argv[i];
        if (!argument.starts_with('-') || isdigit(static_cast<unsigned char>(argv[i][1])) != 0)
            continue; // a number, as the daemon reads it
        if (argument == "--help" || argument == "--version") {
            fputs(argument == "--help" ? USAGE : "dhcpsnoop " DHCPSNOOP_VERSION "\n", stdout);
            exit(EXIT_SUCCESS);
        }
        fprintf(stderr, "dhcpsnoop: unknown option '%s'; try 'dhcpsnoop --help'\n", argv[i]);
        exit(EX_USAGE);
    }
    const long value = argc > USER_COUNT_ARGUMENT ? strtol(argv[USER_COUNT_ARGUMENT], nullptr, 10) : 0;
    const auto count = static_cast<uint16_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
    bindings = count != 0 ? count : BINDINGS_DEFAULT;
}

// The file-level state of the platform is made ready here, once in a process, each part after the parts that
// it asks:
//
//   standard streams, system log   logging.cpp, report.cpp
//   switch model                   switch_model.cpp: the file, then a dump of the kernel's links
//   guard                          guard.cpp, trap.cpp, bindings.cpp: first to watch the model
//   subscribers, relay socket      subscribers.cpp, descriptor 0
//   redundancy                     redundancy.cpp: second to watch the model; its thread runs from here on
//
// The event socket (event_socket.cpp) follows when the daemon joins its groups and watches the model last:
// the classifier stands on a port before an event tells of it. All other state begins as zero. Nothing is
// taken back: the process ends by exit() until the thread runs, then by _exit().
int platform_linux_start()
{
    claim_standard_descriptors();
    logging_start();
    if (const std::string missing = missing_capabilities(); !missing.empty()) {
        platform_report(LOG_ERR, "missing %s: start as root, or grant what is missing", missing.c_str());
        return EXIT_FAILURE;
    }
    if (const int status = load_model(); status != 0)
        return status;
    report_absent();
    if (trap_start(bindings) != 0) // before anything is taken that another daemon may have
        return EXIT_FAILURE;
    if (const int error = subscribers_open(event_socket_path()); error != 0)
        platform_report(LOG_WARNING, "%s: nobody can subscribe to events: %s", event_socket_path(),
                        strerror(error));
    if (relay_socket_start() != 0)
        return EXIT_FAILURE;
    return redundancy_start() ? 0 : EX_CONFIG;
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

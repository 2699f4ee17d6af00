// The Linux platform around the daemon: the kernel's links in namespaces of the test's own, events and their subscribers,
// standard streams and system log, descriptor 0, crash reporter and start.
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sys/stat.h>
#include <sys/un.h>

#include "bounded_writer.h"
#include "linux_switch.h"
#include "list.h"
#include "logging.h"
#include "netns_test.h"
#include "options.h"
#include "platform.h"
#include "platform_start.h"
#include "relay_socket.h"
#include "report.h"
#include "subscribers.h"

using namespace platform_linux;

namespace
{
struct Step {
    std::string command, outcome; // messages for the daemon, then the ports. "?" before a command: without it, skip
    int room = 1 << 20;           // of the socket
};

class Kernel : public NetnsTest
{
  protected:
    // As the daemon's start-up does; `before`: between its first look at the kernel and the socket.
    void open_socket(const std::string &before = "true")
    {
        DaemonEvents events;
        ASSERT_TRUE(model_dump(switch_model(), events));
        run(before);
        sock_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0);
        const sockaddr_nl self = {AF_NETLINK, 0, 0, 0};
        bind(sock_, reinterpret_cast<const sockaddr *>(&self), sizeof self);
        for (const uint32_t group : {32u, 31u, 40u, 1u, 56u, 57u, 40u})
            EXPECT_EQ(platform_event_group_join(sock_, group), 0) << group;
    }

    // Until nothing more comes, one message a call, as long as select would wake the daemon.
    std::string told()
    {
        DaemonEvents events;
        for (pollfd wait = {sock_, POLLIN, 0}; poll(&wait, 1, events.empty() ? 300 : 50) == 1;) {
            DaemonEvent event = {};
            sockaddr_nl from = {};
            socklen_t size = sizeof from;
            const ssize_t length = platform_event_recv(sock_, event.bytes.data(), event.bytes.size(), reinterpret_cast<sockaddr *>(&from), &size);
            EXPECT_TRUE(length < 0 ? errno == EAGAIN : length > 0 && from.nl_family == AF_NETLINK && from.nl_pid == 0);
            event.length = static_cast<uint32_t>(std::max<ssize_t>(length, 0));
            if (length > 0)
                events.push_back(event);
        }
        return describe(events);
    }

    // Each step leaves the model that a fresh look at the kernel gives.
    void play(std::initializer_list<Step> steps)
    {
        for (const auto &[command, outcome, room] : steps) {
            setsockopt(sock_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
            if (command[0] != '?')
                run(command);
            else if (system((command.substr(1) + " 2>/dev/null").c_str()) != 0)
                GTEST_SKIP() << "this kernel cannot: " << command;
            std::string text = told();
            // The kernel tells a lost carrier a second later at most, and an emulated machine takes its time.
            for (int wait = 0; wait < 20 && text + describe(model_ports()) != outcome; wait++)
                text += told();
            EXPECT_EQ(text + describe(model_ports()), outcome) << command;
            SwitchModel fresh;
            DaemonEvents events;
            fresh.configure(switch_model().conf());
            EXPECT_TRUE(model_dump(fresh, events) && model_ports() == fresh.ports()) << command;
        }
        EXPECT_TRUE(platform_event_recv(sock_, nullptr, 0, nullptr, nullptr) == -1 && errno == EAGAIN);
    }

    int sock_ = -1;
};

#define PAIR(name, index, other) "ip link add " name " index " #index " type veth peer name " other " index " #index "0 && "
// clang-format off
TEST_F(Kernel, PortsOfABridge)
{
    open_socket();
    play({{PAIR("swp1", 31, "h1") "ip link add br0 type bridge mcast_snooping 0 forward_delay 3000 && ip link set br0 up", ""},
          {"ip link set swp1 master br0", "swp1#1 1 t u1 down disabled"},
          {"ip link set swp1 up && ip link set h1 up", "swp1#1 1 t u1 up forwarding"},
          {"ip link set br0 type bridge stp_state 1 && ip link set swp1 down && ip link set swp1 up", "swp1#1 1 t u1 up listening"},
          {"ip link set swp1 nomaster && ip link add br1 type bridge && ip link set swp1 master br1", "swp1#1 1 t u1 up disabled"},
          {"ip link set swp1 down && ip link set swp1 name uplink", "uplink#1 1 t u1 down disabled"},
          {"ip link del uplink", "31 gone, 310 gone, "},
          {PAIR("p1", 41, "q1") PAIR("p2", 42, "q2") PAIR("p3", 43, "q3") "ip link set p1 master br0", "p1#1 1 t u1 down disabled"},
          {"ip link set p1 mtu 1400; for i in 1 2 3 4 5 6 7 8; do ip link set br0 up; ip link set br0 down; done; ip link del p1; ip link del p3; ip link set p2 master br0; ip link set p2 up; ip link set q2 up", "41 gone, 43 gone, 410 gone, 430 gone, p2#1 1 t u1 up disabled", 1}});
}

TEST_F(Kernel, VlansOfABridge)
{
    SwitchConf conf;
    conf.hosts = {"br0"};
    switch_model().configure(conf);
    open_socket();
    play({{"?ip link add br0 index 20 type bridge vlan_filtering 1 mcast_snooping 0", "br0#0 1 t u1 host up forwarding"},
          {PAIR("swp1", 31, "h1") "ip link set br0 up && ip link set swp1 up master br0 && ip link set h1 up", "br0#0 1 t u1 host up forwarding; swp1#1 1 t u1 up forwarding"},
          {"bridge vlan add dev swp1 vid 10 pvid untagged && bridge vlan del dev swp1 vid 1 && bridge vlan add dev swp1 vid 20-29", "br0#0 1 t u1 host up forwarding; swp1#1 10 t20-29 u10 up forwarding"},
          {"bridge vlan add dev br0 vid 10-12 self && bridge vlan add dev br0 vid 20 pvid untagged self && bridge vlan del dev br0 vid 1 self && bridge vlan add dev swp1 vid 2-4094", "br0#0 20 t10-12 u20 host up forwarding; swp1#1 0 t2-4094 u up forwarding"},
          {"bridge vlan del dev br0 vid 2-4094 self && bridge vlan add dev br0 vid 1 pvid untagged self && bridge vlan del dev swp1 vid 2-4094 && bridge vlan add dev swp1 vid 1 pvid untagged && ip link set br0 type bridge vlan_default_pvid 5", "br0#0 5 t u5 host up forwarding; swp1#1 5 t u5 up forwarding"},
          {"ip link set br0 type bridge vlan_filtering 0", "br0#0 1 t u1 host up forwarding; swp1#1 1 t u1 up forwarding"},
          {"ip link set br0 type bridge vlan_filtering 1 vlan_protocol 802.1ad", "br0#0 5 t u5 host up forwarding 88a8; swp1#1 5 t u5 up forwarding 88a8"},
          {"ip link set br0 down && ip link set br0 name br1 && ip link set br1 up", "swp1#1 5 t u5 up forwarding 88a8"},
          {"?ip link add link br1 name br0.5 index 50 type vlan id 5", "swp1#1 5 t u5 up forwarding 88a8; br0.5#5 =5 down forwarding 88a8"},
          {"ip link del br0.5 && ip link del br1 && ip link add br0 index 21 type bridge vlan_filtering 1", "50 gone, 20 gone, br0#0 1 t u1 host up forwarding"}});
    switch_model().configure({});
}

TEST_F(Kernel, MembersOfABond)
{
    open_socket();
    play({{"?ip link add bond0 index 20 type bond mode active-backup miimon 50", ""},
          {PAIR("swp1", 31, "h1") "ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up && ip link set h1 up && ip link set bond0 up master br0", "bond0#1 1 t u1 aggregate down disabled"},
          {"ip link set swp1 master bond0", "31 joined, 20 + 31, bond0#1 1 t u1 aggregate up forwarding"},
          {"ip link set swp1 nomaster", "20 - 31, bond0#1 1 t u1 aggregate down disabled"},
          {"ip link set swp1 down && ip link set swp1 master bond0", "31 joined, 20 + 31, bond0#1 1 t u1 aggregate up forwarding"},
          {"ip link del bond0", "20 - 31, 20 gone, "}});
}
// clang-format on

TEST_F(Kernel, PortsOfTheModelFile)
{
    SwitchConf conf;
    std::string error;
    switch_conf_parse("f", "port swp1 trunk 10,20-22 native 1\nport swp2 routed\nvlan 10 interface v10\n", conf, error);
    switch_model().configure(conf);
    run(PAIR("pa", 31, "pb") "true");
    open_socket("ip link del pa");
    play({{PAIR("swp2", 41, "v10") "ip link set v10 up", "31 gone, 310 gone, swp2#2 routed down forwarding; v10#10 =10 down forwarding"},
          {"ip link set v10 down && ip link set v10 name swp1", "swp2#2 routed down forwarding; swp1#1 1 t10,20-22 u1 down forwarding"}});
    const Fd other(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0)); // anybody's, not the kernel's
    const Bytes forged = link_message("new 4 name=v10 in=8 info{ slave=bond }");
    sockaddr_nl daemon = {};
    socklen_t size = sizeof daemon;
    getsockname(sock_, reinterpret_cast<sockaddr *>(&daemon), &size);
    EXPECT_GT(sendto(other.get(), forged.data(), forged.size(), 0, reinterpret_cast<sockaddr *>(&daemon), size), 0);
    EXPECT_EQ(told(), "");
    EXPECT_TRUE(platform_event_group_join(-1, 1) != 0 && platform_event_recv(-1, nullptr, 0, nullptr, nullptr) == -1);
}

std::string events_path() { return testing::TempDir() + "events." + std::to_string(getpid()) + "/socket"; }

Fd subscribe()
{
    sockaddr_un address = {AF_UNIX, {}};
    events_path().copy(address.sun_path, sizeof address.sun_path - 1);
    Fd sock(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(sock.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return sock;
}

void publish(uint16_t event, uint16_t mark)
{
    EventRecord record = {0, 51, sizeof record, event, {}, {}};
    record.user.vid = mark;
    EXPECT_EQ(qorNetlinkSend(16, 0, &record, sizeof record), 0);
}

// "188:7 188:8 lost 3 end", of the event 188 with the marks 7 and 8.
std::string got(const Fd &sock)
{
    EventRecord record;
    std::string text;
    ssize_t length;
    while ((length = recv(sock.get(), &record, sizeof record, MSG_DONTWAIT | MSG_TRUNC)) > 0) {
        EXPECT_TRUE(length == 72 && record.zero == 0 && record.type == 51 && record.length == 72);
        text += record.event == 0 ? "lost " + std::to_string(record.lost) + " " : std::to_string(record.event) + ":" + std::to_string(record.user.vid) + " ";
    }
    return text + (length == 0 ? "end" : "");
}

TEST(Subscribers, GetEveryEventSinceTheyConnected)
{
    const std::string path = events_path();
    ASSERT_EQ(subscribers_open(path.c_str()), 0);
    struct stat found;
    EXPECT_TRUE(stat(path.c_str(), &found) == 0 && (found.st_mode & 07777) == 0600);
    publish(188, 1);
    Fd first = subscribe();
    publish(188, 2);
    const Fd second = subscribe();
    publish(189, 3);
    EXPECT_EQ(got(first) + "| " + got(second), "188:2 189:3 | 189:3 ");
    first.reset();
    for (size_t i = 0; i < 3 * SUBSCRIBERS_MAX; i++)
        subscribe();
    publish(188, 4);
    std::vector<Fd> full;
    for (size_t i = 1; i <= SUBSCRIBERS_MAX; i++)
        full.push_back(subscribe());
    publish(188, 5);
    EXPECT_EQ(got(full[SUBSCRIBERS_MAX - 2]) + "| " + got(full[SUBSCRIBERS_MAX - 1]), "188:5 | end") << "no place is left";
    int before = 0, lost = 0; // of the second one, which does not read
    for (int i = 0; i < 20000; i++) {
        publish(188, 6);
        before += got(full[0]).ends_with("188:6 ") ? 1 : 0;
    }
    EXPECT_EQ(before, 20000) << "the slow one costs the other nothing";
    const std::string taken = got(second);
    publish(189, 7);
    EXPECT_EQ(sscanf(got(second).c_str(), "lost %d 189:7 ", &lost), 1);
    EXPECT_TRUE(lost > 0 && std::ranges::count(taken, '6') + lost == 20000) << lost;
    EventRecord record = {};
    EXPECT_EQ(subscribers_open(path.c_str()), 0) << "in place of an earlier run's";
    EXPECT_EQ(got(second), "end");
    subscribers_close();
    EXPECT_EQ(qorNetlinkSend(16, 0, &record, sizeof record), ENOTCONN);
    unlink(path.c_str());
    close(creat(path.c_str(), 0600));
    EXPECT_EQ(subscribers_open(path.c_str()), EADDRINUSE) << "no file but a socket is taken away";
    unlink(path.c_str());
    rmdir(path.substr(0, path.rfind('/')).c_str());
}

// What a descriptor has now.
std::string read_now(int fd)
{
    fcntl(fd, F_SETFL, O_NONBLOCK);
    std::string text;
    char piece[65536];
    for (ssize_t length; (length = read(fd, piece, sizeof piece)) > 0;)
        text.append(piece, static_cast<size_t>(length));
    return text;
}

uint64_t testTime;
void put(BoundedWriter &writer, std::string_view text) { writer.write(text.data(), text.size()); }

TEST(BoundedWriter, LinesPassWholeOrAreCounted)
{
    int pipes[2], sockets[2];
    ASSERT_TRUE(pipe(pipes) == 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) == 0);
    BoundedWriter fast(pipes[1], 3, [] { return testTime; });
    testTime = 5'000'000'000;
    put(fast, "a\r\nb\n\rc\nd\ne");
    put(fast, "e\nf\n");
    testTime = 6'000'000'000;
    put(fast, "g");
    put(fast, "g\nh\r\n\r\n");
    EXPECT_EQ(read_now(pipes[0]), "a\nb\nc\ndhcpsnoop: 3 lines suppressed\ngg\nh\n\n");
    for (const auto &[writes, reads] : {std::pair{pipes[1], pipes[0]}, {sockets[0], sockets[1]}, {-1, pipes[0]}}) {
        BoundedWriter writer(writes, UINT32_MAX, [] { return testTime; });
        const std::string line = std::string(6000, 'x') + "\n"; // in two pieces, of which the second may not fit
        for (size_t i = 0; i < 400; i++)
            put(writer, line);
        std::string text = read_now(reads);
        const uint64_t lost = writer.suppressed();
        put(writer, "last\n");
        text += read_now(reads);
        std::string whole; // behind which one line may be cut
        for (size_t i = lost; i < 400; i++)
            whole += line;
        const std::string end = writes < 0 ? "" : "\ndhcpsnoop: " + std::to_string(lost) + " lines suppressed\nlast\n";
        EXPECT_TRUE(lost > 0 && text.starts_with(whole) && text.ends_with(end) && text.size() < whole.size() + line.size() + end.size()) << lost;
        EXPECT_EQ(writer.suppressed(), writes < 0 ? 401u : 0u);
    }
}

// The system log's socket, which is read only by all(). The head of a line is RFC 3164's, without the host.
struct SystemLog {
    std::string path = testing::TempDir() + "log." + std::to_string(getpid());
    Fd sock;

    SystemLog()
    {
        start();
        report_start(path.c_str());
    }
    ~SystemLog() { unlink(path.c_str()); }

    void start()
    {
        unlink(path.c_str());
        sockaddr_un address = {AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        sock.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(sock.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }

    // "30 text|28 text": priority and text of each line.
    std::string all() const
    {
        std::string text;
        char head[99], line[4096];
        const time_t now = time(nullptr);
        strftime(head, sizeof head, "^<(\\d+)>%b %e %H:[\\d:]{5} dhcpsnoop\\[", localtime(&now));
        const std::regex right(head + std::to_string(getpid()) + "\\]:");
        for (ssize_t length; (length = recv(sock.get(), line, sizeof line, MSG_DONTWAIT)) >= 0;)
            text += (text.empty() ? "" : "|") + std::regex_replace(std::string(line, static_cast<size_t>(length)), right, "$1");
        return text;
    }
};

TEST(Logging, ALogThatDoesNotReadStopsNothing)
{
    SystemLog log;
    zlog_dispatch_logging(7, 1, "Add %s\r\n", "10.0.0.1 \x1b[31m on\nswp1\x7f.");
    zlog_dispatch_logging(7, 1, "%s", std::string(3000, 'y').c_str());
    EXPECT_EQ(log.all(), "30 Add 10.0.0.1  [31m on swp1 .|30 " + std::string(1023, 'y'));
    alarm(20); // a call that waits would wait for ever
    for (int i = 0; i < 5000; i++)
        zlog_dispatch_logging(7, 1, "flood");
    alarm(0);
    const auto passed = std::ranges::count(log.all(), 'f');
    zlog_dispatch_logging(7, 1, "next");
    EXPECT_EQ(log.all(), "28 " + std::to_string(5000 - passed) + " lines suppressed|30 next");
    log.sock.reset();
    zlog_dispatch_logging(7, 1, "gone");
    zlog_dispatch_logging(7, 1, "gone");
    log.start();
    zlog_dispatch_logging(7, 1, "back");
    EXPECT_EQ(log.all(), "28 2 lines suppressed|30 back");
    for (const bool isJournal : {false, true}) { // which reads standard error and the log
        testing::internal::CaptureStderr();
        struct stat status = {};
        fstat(STDERR_FILENO, &status);
        setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + (isJournal ? 0 : 1))).c_str(), 1);
        platform_report(LOG_WARNING, "disk %d", 1);
        unsetenv("JOURNAL_STREAM");
        EXPECT_EQ(testing::internal::GetCapturedStderr() + log.all(), isJournal ? "28 disk 1" : "dhcpsnoop: disk 1\n28 disk 1");
    }
}

// Nobody reads the pipe while the daemon traces a flood of frames and complains.
TEST(Logging, TracingNeverWaitsForItsReader)
{
    const std::string text = in_child([] {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        logging_start();
        for (int i = 0; i < 50'000; i++) {
            NM_DEBUG_OUTPUT("[DHCPSNOOP] traced %d\r\n", i);
            errno = EAGAIN;
            perror("[DHCPSNOOP] failed");
        }
    });
    EXPECT_TRUE(text.ends_with("\nstatus 99")) << text.substr(text.size() - 100);
    EXPECT_TRUE(text.starts_with("[DHCPSNOOP] traced 0\n[DHCPSNOOP] failed: Resource temporarily unavailable\n")) << text.substr(0, 100);
}

volatile int *volatile nowhere = reinterpret_cast<volatile int *>(16);

int overflow(volatile char *above, uint32_t depth)
{
    volatile char room[4096];
    room[0] = *above;
    return depth == 0 ? 0 : overflow(room, depth - 1) + room[0];
}

// The platform's part of main, up to the daemon's first call.
void start(std::vector<const char *> arguments)
{
    Room room = {};
    arguments.insert(arguments.begin(), "dhcpsnoop");
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const Options options = options_take(static_cast<int>(arguments.size()), const_cast<char **>(arguments.data()));
    qorCatchSegFault(0, nullptr);
    if (const int status = platform_linux_prepare(options, room); status != 0)
        _exit(status);
    if (arguments.size() > 1)
        dprintf(2, "%u %u ", room.interfaces, room.bindings);
}

void start_with(const char *text)
{
    std::filesystem::create_directory("/run/conf");
    std::ofstream("/run/conf/dhcpsnoop.conf") << text;
    start({"--config", "/run/conf", "--interfaces", "7"});
    OsixCreateMSem(9);
}

void fail_behind_the_ports()
{
    close(STDIN_FILENO);
    start_with("port swp1 access 10\nport swp2 access 10\nvlan 10 interface v10\nbindings 99\n");
    const uint32_t handle = OsixCreateMSem(9);
    if (describe(model_ports()) != "swp1#1 10 t u10 down disabled" || handle != 2 || fcntl(STDIN_FILENO, F_GETFD) < 0)
        _exit(98);
    errno = EADDRINUSE; // a step of start-up after this one failed
    OsixDeleteSem(handle);
}

// Descriptor 0 without, with, and again without a relay server: its port, and whether it receives what is sent there. An ICMP
// error would fail the second datagram.
void relay(bool taken)
{
    static DhcpsnoopIf port = {};
    sockaddr_in address = {AF_INET, htons(67), {htonl(INADDR_LOOPBACK)}, {}};
    port.serverIp[2] = 1;
    list_init(&gDhcpsnoop.ifList);
    const Fd other(socket(AF_INET, SOCK_DGRAM, 0)), client(socket(AF_INET, SOCK_DGRAM, 0));
    if (taken && bind(other.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        _exit(1);
    for (const bool wanted : {false, true, false}) {
        wanted ? list_insert_after(&gDhcpsnoop.ifList, &port) : list_init(&gDhcpsnoop.ifList);
        usleep(20'000);
        relay_socket_follow();
        sockaddr_in own = {};
        socklen_t length = sizeof own;
        const bool open = getsockname(0, reinterpret_cast<sockaddr *>(&own), &length) == 0;
        dprintf(2, "port %u ", ntohs(own.sin_port));
        connect(client.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        for (int i = 0; open && i < 2; i++)
            dprintf(2, send(client.get(), "x", 1, 0) == 1 && recv(0, &own, 1, MSG_DONTWAIT) < 0 ? "sent " : "wrong ");
    }
}

// clang-format off
const struct { const char *claim; void (*body)(); const char *begin, *end; } PROCESSES[] = {
    {"a wild pointer", [] { start({}); *nowhere = 1; }, "dhcpsnoop: killed by SIGSEGV at address 0x10, called from:\n", "]\nsignal 11"},
    {"a signal from outside", [] { start({}); kill(getpid(), SIGBUS); }, "dhcpsnoop: killed by SIGBUS at address 0x", "]\nsignal 7"},
    {"a stack that ran out", [] { start({}); volatile char top = 0; overflow(&top, UINT32_MAX); }, "dhcpsnoop: killed by SIGSEGV at address 0x", "]\nsignal 11"},
    {"a report that nobody reads", [] { start({}); const std::string full(65536, 'x'); ssize_t all = write(STDERR_FILENO, full.data(), full.size()); *nowhere = static_cast<int>(all); }, "xxx", "xsignal 14"},
    {"five numbers; 0 is the default", [] { start({"0", "300", "1", "1", "0"}); }, "256 300 ", "status 99"},
    {"a number that is too large or too small, and one too many", [] { start({"70000"}); }, "dhcpsnoop: expected a number up to 65535, not '70000'; try 'dhcpsnoop --help'\n", "status 64"},
    {"", [] { start({"--bindings", "0"}); }, "dhcpsnoop: expected a number from 1 to 65535, not '0'; try 'dhcpsnoop --help'\n", "status 64"},
    {"", [] { start({"1", "2", "1", "1", "0", "1"}); }, "dhcpsnoop: there are only five numbers; unexpected '1'; try 'dhcpsnoop --help'\n", "status 64"},
    {"help", [] { start({"0", "--help"}); }, "usage: dhcpsnoop [", "(8).\nstatus 0"},
    {"version", [] { start({"--version"}); }, "dhcpsnoop 0.", "\nstatus 0"},
    {"another option", [] { start({"-v"}); }, "dhcpsnoop: unknown option '-v'; try 'dhcpsnoop --help'\n", "status 64"},
    {"a file that is wrong", [] { start_with("# one\nbridge\n"); }, "dhcpsnoop: /run/conf/dhcpsnoop.conf:2: expected: bridge NAME [uplink PORTS] [host server|client|relay ...] [guard ITEMS [family 4|6|both]]\n", "status 78"},
    {"without rights", [] { if (setresuid(65534, 65534, 65534) == 0) OsixCreateMSem(9); }, "dhcpsnoop: missing CAP_NET_RAW (packet sockets), CAP_NET_ADMIN (traps on the ports), CAP_BPF (the program that traps frames): start as root, or grant what is missing\n", "status 1"},
    {"port 67 is taken with the first relay server, and given back with the last", [] { relay(false); }, "port 0 port 67 sent sent port 0 ", "status 99"},
    {"another program has it", [] { relay(true); }, "port 0 dhcpsnoop: UDP port 67 cannot be opened, nothing is relayed: Address already in use (another DHCP server", "port 0 port 0 status 99"},
    {"ports that are not there yet; a later step fails", fail_behind_the_ports, "7 99 dhcpsnoop: configured, but not there yet: swp2 v10\n", "dhcpsnoop: start-up failed, the daemon ends (if nothing above says why: Address already in use)\nstatus 1"},
};
// clang-format on

TEST_F(Kernel, Processes)
{
    run("ip link set lo up && ip link add br0 type bridge && ip link add swp1 type veth peer name h1 && ip link set swp1 master br0");
    for (const auto &row : PROCESSES) {
        const std::string text = in_child(row.body);
        EXPECT_TRUE(text.starts_with(row.begin) && text.ends_with(row.end)) << row.claim << ": " << text.substr(0, 2000);
    }
}

} // namespace

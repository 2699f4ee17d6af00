// The Linux platform against a real kernel: the switch model and the daemon's events in network namespaces of
// the test's own, the system log, standard output, the crash reporter, the start.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include "event_socket.h"
#include "linux_switch.h"
#include "bounded_writer.h"
#include "logging.h"
#include "netns_test.h"
#include "platform.h"
#include "platform_start.h"
#include "report.h"

using namespace platform_linux;
using namespace linux_test;

namespace
{
class Namespace : public NetnsTest
{
  protected:
    void SetUp() override
    {
        NetnsTest::SetUp();
        if (IsSkipped())
            return;
        switch_model().configure({});
        DaemonEvents events;
        ASSERT_TRUE(events_dump(switch_model(), events)) << strerror(errno);
    }

    void TearDown() override
    {
        if (sock_ >= 0)
            close(sock_);
    }

    // As the daemon's start-up does.
    void open_event_socket()
    {
        sock_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0);
        sockaddr_nl self{};
        self.nl_family = AF_NETLINK;
        ASSERT_EQ(bind(sock_, reinterpret_cast<sockaddr *>(&self), sizeof self), 0);
        for (const uint32_t group : {32u, 31u, 40u, 1u, 56u, 57u, 40u})
            ASSERT_EQ(platform_event_group_join(sock_, group), 0) << group;
    }

    bool readable(int wait) const
    {
        pollfd events = {sock_, POLLIN, 0};
        return poll(&events, 1, wait) == 1;
    }

    // What the daemon is told until nothing more comes, one message a call, as long as select would wake it.
    std::string told()
    {
        DaemonEvents events;
        while (readable(events.empty() ? 300 : 50)) {
            DaemonEvent event;
            sockaddr_nl from;
            memset(&from, 0xEE, sizeof from);
            socklen_t fromLength = sizeof from;
            const ssize_t length = platform_event_recv(sock_, event.bytes.data(), event.bytes.size(),
                                                       reinterpret_cast<sockaddr *>(&from), &fromLength);
            EXPECT_NE(length, 0) << "0 is an error to the daemon";
            if (length < 0) {
                EXPECT_EQ(errno, EAGAIN);
                continue;
            }
            EXPECT_EQ(from.nl_family, AF_NETLINK);
            EXPECT_EQ(from.nl_pid, 0u);
            EXPECT_EQ(fromLength, sizeof from);
            event.length = static_cast<uint32_t>(length);
            events.push_back(event);
        }
        return linux_test::describe(events);
    }

    // The model after a command, which must be the same that a fresh look at the kernel gives.
    std::string ports(const std::string &command, const char *toldThen = "")
    {
        run(command);
        EXPECT_EQ(told(), toldThen) << command;
        SwitchModel fresh;
        fresh.configure(switch_model().conf());
        DaemonEvents events;
        EXPECT_TRUE(events_dump(fresh, events));
        EXPECT_EQ(linux_test::describe(model_ports()), linux_test::describe(fresh.ports())) << command;
        EXPECT_TRUE(std::ranges::equal(model_ports(), fresh.ports()))
            << command << ": numbers or addresses differ";
        return linux_test::describe(model_ports());
    }

    bool has(const std::string &command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

    int sock_ = -1;
};

TEST_F(Namespace, PortsOfABridgeAppearMoveAndVanish)
{
    open_event_socket();
    EXPECT_EQ(ports("ip link add br0 type bridge mcast_snooping 0 forward_delay 3000 && ip link set br0 up && "
                    "ip link add swp1 type veth peer name h1"),
              "");
    EXPECT_EQ(ports("ip link set swp1 master br0"), "swp1: native 1, tagged none, untagged 1, down, disabled\n");
    EXPECT_EQ(ports("ip link set swp1 up"), "swp1: native 1, tagged none, untagged 1, down, disabled\n")
        << "without carrier";
    EXPECT_EQ(ports("ip link set h1 up"), "swp1: native 1, tagged none, untagged 1, up, forwarding\n");
    EXPECT_EQ(ports("ip link set swp1 down"), "swp1: native 1, tagged none, untagged 1, down, disabled\n");
    EXPECT_EQ(ports("ip link set br0 type bridge stp_state 1 && ip link set swp1 up"),
              "swp1: native 1, tagged none, untagged 1, up, listening\n");
    EXPECT_EQ(ports("ip link set swp1 nomaster"), "");
    EXPECT_EQ(ports("ip link add br1 type bridge && ip link set swp1 master br1"),
              "swp1: native 1, tagged none, untagged 1, up, disabled\n")
        << "a bridge that is down";
    EXPECT_EQ(ports("ip link set swp1 down && ip link set swp1 name uplink"),
              "uplink: native 1, tagged none, untagged 1, down, disabled\n");
    const std::string index = std::to_string(model_ports().begin()->first);
    const std::string peer = std::to_string(if_nametoindex("h1"));
    run("ip link del uplink");
    const std::string gone = told();
    EXPECT_TRUE(gone == index + " gone, " + peer + " gone" || gone == peer + " gone, " + index + " gone")
        << gone;
    EXPECT_EQ(linux_test::describe(model_ports()), "");
    EXPECT_FALSE(readable(0));
    EXPECT_EQ(platform_event_recv(sock_, nullptr, 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Namespace, ConfiguredPortsAppearWhenTheirDeviceDoes)
{
    SwitchConf conf;
    std::string error;
    ASSERT_TRUE(switch_conf_parse(
        "f", "port swp1 trunk 10,20 native 1\nport swp2 routed\nvlan 10 interface v10\n", conf, error));
    switch_model().configure(conf);
    open_event_socket();
    EXPECT_EQ(ports("ip link add swp2 type veth peer name v10 && ip link set v10 up"),
              "v10 is vlan 10: native 10, down, forwarding\nswp2: routed, down, forwarding\n");
    EXPECT_EQ(model_vlan_interface(10), if_nametoindex("v10"));
    EXPECT_EQ(ports("ip link set v10 down && ip link set v10 name other"), "swp2: routed, down, forwarding\n");
    EXPECT_EQ(model_vlan_interface(10), 0u);
    EXPECT_EQ(ports("ip link set other name swp1"),
              "swp1: native 1, tagged 10,20, untagged 1, down, forwarding\nswp2: routed, down, forwarding\n");
}

TEST_F(Namespace, VlansOfABridge)
{
    open_event_socket();
    if (!has("ip link add br0 type bridge vlan_filtering 1 mcast_snooping 0"))
        GTEST_SKIP() << "this kernel has no VLAN-aware bridges";
    EXPECT_EQ(ports("ip link set br0 up && ip link add swp1 type veth peer name h1 && ip link set swp1 up master br0 && "
                    "ip link set h1 up"),
              "swp1: native 1, tagged none, untagged 1, up, forwarding\n");
    EXPECT_EQ(ports("bridge vlan add dev swp1 vid 10 pvid untagged && bridge vlan del dev swp1 vid 1 && "
                    "bridge vlan add dev swp1 vid 20-29"),
              "swp1: native 10, tagged 20-29, untagged 10, up, forwarding\n");
    EXPECT_EQ(ports("bridge vlan add dev swp1 vid 2-4094"),
              "swp1: native 0, tagged 2-4094, untagged none, up, forwarding\n");
    EXPECT_EQ(ports("bridge vlan del dev swp1 vid 2-4094 && bridge vlan add dev swp1 vid 1 pvid untagged && ip link set br0 type bridge vlan_default_pvid 5"), "swp1: native 5, tagged none, untagged 5, up, forwarding\n")
        << "of which no message tells";
    EXPECT_EQ(ports("ip link set br0 type bridge vlan_filtering 0"),
              "swp1: native 1, tagged none, untagged 1, up, forwarding\n");
    EXPECT_EQ(ports("ip link set br0 type bridge vlan_filtering 1 vlan_protocol 802.1ad"),
              "swp1: native 5, tagged none, untagged 5, up, forwarding, 802.1ad\n");
    if (!has("ip link add link br0 name br0.5 type vlan id 5"))
        GTEST_SKIP() << "this kernel has no 802.1Q devices";
    EXPECT_EQ(ports("ip link set br0.5 up"),
              "swp1: native 5, tagged none, untagged 5, up, forwarding, 802.1ad\n"
              "br0.5 is vlan 5: native 5, up, forwarding, 802.1ad\n");
    EXPECT_EQ(model_vlan_interface(5), if_nametoindex("br0.5"));
    EXPECT_EQ(ports("ip link set br0 type bridge vlan_protocol 802.1Q && ip link del br0.5",
                    (std::to_string(if_nametoindex("br0.5")) + " gone").c_str()),
              "swp1: native 5, tagged none, untagged 5, up, forwarding\n");
}

TEST_F(Namespace, MembersOfABond)
{
    open_event_socket();
    if (!has("ip link add bond0 type bond mode active-backup miimon 50"))
        GTEST_SKIP() << "this kernel has no bonding";
    run("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up && ip link add swp1 type veth peer name h1 && "
        "ip link set h1 up && ip link set bond0 up master br0");
    ASSERT_EQ(told(), "");
    const std::string port = std::to_string(if_nametoindex("swp1")),
                      bond = std::to_string(if_nametoindex("bond0"));
    const std::string joined = "port " + port + " joined, aggregate " + bond + " + " + port,
                      left = "aggregate " + bond + " - " + port;
    EXPECT_EQ(ports("ip link set swp1 master bond0", joined.c_str()),
              "bond0 (aggregate): native 1, tagged none, untagged 1, up, forwarding\n");
    EXPECT_EQ(ports("ip link set swp1 nomaster", left.c_str()),
              "bond0 (aggregate): native 1, tagged none, untagged 1, down, disabled\n");
    EXPECT_EQ(ports("ip link set swp1 down && ip link set swp1 master bond0", joined.c_str()),
              "bond0 (aggregate): native 1, tagged none, untagged 1, up, forwarding\n");
    EXPECT_EQ(ports("ip link del bond0", (left + ", " + bond + " gone").c_str()), "");
}

TEST_F(Namespace, WhatHappenedBeforeTheSocketJoinedIsTold)
{
    run("ip link add pa type veth peer name pb && ip link add pc type veth peer name pd");
    DaemonEvents seed;
    ASSERT_TRUE(events_dump(switch_model(), seed));
    EXPECT_EQ(linux_test::describe(seed), "");
    std::string gone;
    for (const char *name : {"pb", "pa"}) // by index: a pair's second end is made first
        gone += (gone.empty() ? "" : ", ") + std::to_string(if_nametoindex(name)) + " gone";
    run("ip link del pa");
    open_event_socket();
    EXPECT_EQ(told(), gone);
}

TEST_F(Namespace, LostMessagesAreMadeUpFor)
{
    run("ip link add br0 type bridge && for i in 1 2 3; do ip link add p$i type veth peer name q$i; done; ip link set p1 master br0");
    open_event_socket();
    ASSERT_EQ(told(), "");
    std::vector<uint32_t> indexes;
    for (const char *name : {"p1", "q1", "p3", "q3"})
        indexes.push_back(if_nametoindex(name));
    std::ranges::sort(indexes);
    std::string gone;
    for (const uint32_t index : indexes)
        gone += (gone.empty() ? "" : ", ") + std::to_string(index) + " gone";
    const int small = 1;
    ASSERT_EQ(setsockopt(sock_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
    // The first message finds room, and is out of date when it is read.
    run("ip link set p1 mtu 1400; for i in 1 2 3 4 5 6 7 8; do ip link set br0 up; ip link set br0 down; done; "
        "ip link del p1; ip link del p3; ip link set p2 master br0; ip link set p2 up; ip link set q2 up");
    EXPECT_EQ(told(), gone);
    EXPECT_EQ(ports("true"), "p2: native 1, tagged none, untagged 1, up, disabled\n");
    EXPECT_FALSE(readable(0)) << "nothing is left that would keep the daemon awake";
}

TEST_F(Namespace, OthersCannotTellTheDaemonAnything)
{
    open_event_socket();
    ASSERT_EQ(told(), "");
    sockaddr_nl daemon{};
    socklen_t length = sizeof daemon;
    ASSERT_EQ(getsockname(sock_, reinterpret_cast<sockaddr *>(&daemon), &length), 0);
    const int other = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0);
    LinkMessage message(RTM_NEWLINK, AF_UNSPEC, 3, 0x10003);
    message.text(IFLA_IFNAME, "p").number(IFLA_MASTER, 8).begin(IFLA_LINKINFO);
    message.text(IFLA_INFO_SLAVE_KIND, "bond").end();
    EXPECT_EQ(sendto(other, message.bytes().data(), message.bytes().size(), 0, reinterpret_cast<sockaddr *>(&daemon),
                     sizeof daemon),
              static_cast<ssize_t>(message.bytes().size()));
    close(other);
    EXPECT_TRUE(readable(0));
    EXPECT_EQ(told(), "");
}

TEST(Events, ASocketThatIsNoneKeepsItsErrors)
{
    EXPECT_NE(platform_event_group_join(-1, 1), 0);
    uint8_t buffer[64];
    EXPECT_EQ(platform_event_recv(-1, buffer, sizeof buffer, nullptr, nullptr), -1);
}

// Standard output and the system log

uint64_t testTime;
uint64_t test_clock() { return testTime; }

struct Pipe {
    Pipe() { EXPECT_EQ(pipe(ends), 0); }
    ~Pipe()
    {
        close(ends[0]);
        close(ends[1]);
    }

    std::string read_all() const
    {
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
        std::string text;
        std::array<char, 65536> piece;
        for (ssize_t length; (length = read(ends[0], piece.data(), piece.size())) > 0;)
            text.append(piece.data(), static_cast<size_t>(length));
        return text;
    }

    int ends[2];
};

void put(BoundedWriter &writer, std::string_view text) { writer.write(text.data(), text.size()); }

TEST(BoundedWriter, LinesThatComeTooFastAreCountedAndTheCountPrecedesTheNext)
{
    const Pipe pipe;
    BoundedWriter writer(pipe.ends[1], 3, test_clock);
    testTime = 5'000'000'000;
    put(writer, "a\nb\nc\nd\ne");
    put(writer, "e\nf\n");
    testTime = 6'000'000'000;
    put(writer, "g");
    put(writer, "g\nh\n");
    EXPECT_EQ(pipe.read_all(), "a\nb\nc\ndhcpsnoop: 3 lines suppressed\ngg\nh\n");
}

TEST(BoundedWriter, TheConsolesLineEndsBecomeOne)
{
    const Pipe pipe;
    BoundedWriter writer(pipe.ends[1], 1000, test_clock);
    put(writer, "one\r\ntwo\n\rthree\n\r");
    put(writer, "\r\n");
    EXPECT_EQ(pipe.read_all(), "one\ntwo\nthree\n\n");
}

TEST(BoundedWriter, WholeLinesOrNoneWhenNobodyReads)
{
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    const Pipe pipe;
    for (const int fd : {pipe.ends[1], sockets[0]}) {
        const int reader = fd == sockets[0] ? sockets[1] : pipe.ends[0];
        fcntl(reader, F_SETFL, O_NONBLOCK);
        BoundedWriter writer(fd, UINT32_MAX, test_clock);
        // 6000 bytes a line: two pieces, of which the second may be the one that does not fit.
        const std::string line(6000, 'x');
        constexpr size_t COUNT = 400;
        for (size_t i = 0; i < COUNT; i++)
            put(writer, line + "\n");
        std::string text;
        std::array<char, 65536> piece;
        ssize_t length;
        while ((length = read(reader, piece.data(), piece.size())) > 0)
            text.append(piece.data(), static_cast<size_t>(length));
        const uint64_t suppressed = writer.suppressed();
        put(writer, "last\n");
        while ((length = read(reader, piece.data(), piece.size())) > 0)
            text.append(piece.data(), static_cast<size_t>(length));
        size_t whole = 0;
        for (size_t at = text.find(line + "\n"); at != std::string::npos;
             at = text.find(line + "\n", at + line.size()))
            whole++;
        EXPECT_GT(suppressed, 0u);
        EXPECT_GT(whole, 0u);
        EXPECT_EQ(whole + suppressed, COUNT);
        EXPECT_TRUE(text.ends_with("\ndhcpsnoop: " + std::to_string(suppressed) + " lines suppressed\nlast\n"))
            << text.substr(text.size() - 100);
    }
    close(sockets[0]);
    close(sockets[1]);
}

TEST(BoundedWriter, ADescriptorThatIsClosedLosesLinesOnly)
{
    BoundedWriter writer(-1, 1000, test_clock);
    put(writer, "a\nb\n");
    EXPECT_EQ(writer.suppressed(), 2u);
}

// In place of the system log: its socket, which is read only by all(). RFC 3164 5.4; time and process are checked here.
class SystemLog
{
  public:
    SystemLog()
    {
        restart();
        report_start(path_.c_str());
    }
    ~SystemLog()
    {
        close(sock_);
        unlink(path_.c_str());
    }

    void restart()
    {
        close(sock_);
        unlink(path_.c_str());
        sockaddr_un address = {AF_UNIX, {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        sock_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(sock_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }

    // "30 text|28 text": priority and text of each line; "(30 text) x 10" for lines that repeat.
    std::string all() const
    {
        std::vector<std::pair<std::string, size_t>> lines;
        std::array<char, 4096> line;
        for (ssize_t length; (length = recv(sock_, line.data(), line.size() - 1, MSG_DONTWAIT)) >= 0;) {
            line[static_cast<size_t>(length)] = 0;
            char stamp[16] = "", ident[64] = "";
            int priority = 0, at = 0;
            EXPECT_EQ(sscanf(line.data(), "<%d>%15c %63s%n", &priority, stamp, ident, &at), 3) << line.data();
            tm then = {};
            const time_t now = time(nullptr);
            localtime_r(&now, &then);
            EXPECT_NE(strptime(stamp, "%b %e %T", &then), nullptr) << stamp;
            EXPECT_TRUE(now - mktime(&then) >= 0 && now - mktime(&then) < 60) << stamp;
            EXPECT_EQ(ident, "dhcpsnoop[" + std::to_string(getpid()) + "]:");
            const std::string text = std::to_string(priority) + (line.data() + at);
            if (lines.empty() || lines.back().first != text)
                lines.emplace_back(text, 0);
            lines.back().second++;
        }
        std::string text;
        for (const auto &[what, count] : lines)
            text += (text.empty() ? "" : "|") + (count == 1 ? what : "(" + what + ") x " + std::to_string(count));
        return text;
    }

  private:
    std::string path_ = testing::TempDir() + "log." + std::to_string(getpid());
    int sock_ = -1;
};

TEST(Logging, OneLineWithoutControlCharacters)
{
    const SystemLog log;
    zlog_dispatch_logging(7, 1, "Add %s\r\n", "10.0.0.1 \x1b[31m on\nswp1");
    EXPECT_EQ(log.all(), "30 Add 10.0.0.1  [31m on swp1");
    zlog_dispatch_logging(7, 1, "%s", std::string(3000, 'y').c_str());
    EXPECT_EQ(log.all(), "30 " + std::string(1023, 'y'));
}

// A flood far past what the socket's queue holds ends at once; what was lost is said when there is room again.
TEST(Logging, ALogThatDoesNotReadStopsNothing)
{
    SystemLog log;
    alarm(20); // a call that waits would wait for ever
    for (int i = 0; i < 5000; i++)
        zlog_dispatch_logging(7, 1, "flood\r\n");
    alarm(0);
    size_t passed = 0;
    const std::string before = log.all();
    ASSERT_EQ(sscanf(before.c_str(), "(30 flood) x %zu", &passed), 1) << before;
    zlog_dispatch_logging(7, 1, "next\r\n");
    EXPECT_EQ(log.all(), "28 " + std::to_string(5000 - passed) + " lines suppressed|30 next");
    log.restart();
    zlog_dispatch_logging(7, 1, "last\r\n");
    EXPECT_EQ(log.all(), "30 last");
}

// Under systemd both ways end in the journal.
TEST(Logging, ReportedOnceToTheJournal)
{
    const SystemLog log;
    for (const bool isJournal : {false, true}) {
        testing::internal::CaptureStderr();
        struct stat status = {};
        fstat(STDERR_FILENO, &status);
        const auto stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + (isJournal ? 0 : 1));
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
        platform_report(LOG_WARNING, "disk %d", 1);
        unsetenv("JOURNAL_STREAM");
        EXPECT_EQ(testing::internal::GetCapturedStderr(), isJournal ? "" : "dhcpsnoop: disk 1\n");
        EXPECT_EQ(log.all(), "28 disk 1");
    }
}

// Child processes: what they print and how they end.

struct Ended {
    int status;
    std::string output;
};

Ended run_child(const std::function<void()> &body, int descriptor)
{
    fflush(nullptr);
    const Pipe pipe;
    const pid_t child = fork();
    if (child == 0) {
        const rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        alarm(30);
        dup2(pipe.ends[1], descriptor);
        body();
        _exit(99);
    }
    Ended ended{};
    waitpid(child, &ended.status, 0);
    ended.output = pipe.read_all();
    return ended;
}

// A pipe that nobody reads while the daemon traces a flood of frames.
TEST(Logging, TracingNeverWaitsForItsReader)
{
    constexpr int LINES = 100'000;
    const Pipe done, go, output;
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        dup2(output.ends[1], STDOUT_FILENO);
        logging_start();
        for (int i = 0; i < LINES / 2; i++) {
            NM_DEBUG_OUTPUT("[DHCPSNOOP] traced %d\r\n", i);
            printf("%02x %02x %02x\n\r", i & 0xFF, 1, 2);
        }
        fflush(stdout);
        char byte = 0;
        if (write(done.ends[1], &byte, 1) != 1 || read(go.ends[0], &byte, 1) != 1)
            _exit(1);
        usleep(1'100'000); // another second
        NM_DEBUG_OUTPUT("end\r\n");
        _exit(0);
    }
    int status = 0;
    std::string text;
    pollfd more = {done.ends[0], POLLIN, 0};
    ASSERT_EQ(poll(&more, 1, 20'000), 1) << "it waits for its reader";
    more.fd = output.ends[0];
    const auto read_some = [&] {
        std::array<char, 65536> piece;
        const ssize_t length = read(output.ends[0], piece.data(), piece.size());
        text.append(piece.data(), length > 0 ? static_cast<size_t>(length) : 0);
    };
    while (poll(&more, 1, 0) == 1)
        read_some();
    ASSERT_EQ(write(go.ends[1], "g", 1), 1);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    while (poll(&more, 1, 0) == 1)
        read_some();
    uint64_t shown = 0, suppressed = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        unsigned long long count = 0;
        if (sscanf(line.c_str(), "dhcpsnoop: %llu lines suppressed", &count) == 1)
            suppressed += count;
        else
            shown += line != "end" ? 1 : 0;
    }
    EXPECT_GT(suppressed, 0u);
    EXPECT_EQ(shown + suppressed, uint64_t{LINES});
    EXPECT_TRUE(text.ends_with("end\n"));
}

volatile int *volatile nowhere = reinterpret_cast<volatile int *>(16);

int overflow(volatile char *above, uint32_t depth)
{
    volatile char room[4096];
    room[0] = *above;
    return depth == 0 ? 0 : overflow(room, depth - 1) + room[0];
}

TEST(CrashReporter, SaysWhatAndWhereAndDiesOfIt)
{
    struct Row {
        const char *claim;
        void (*crash)();
        int signal;
        const char *text;
    } const rows[] = {
        {"a wild pointer", [] { *nowhere = 1; }, SIGSEGV,
         "dhcpsnoop: killed by SIGSEGV at address 0x10, called from:\n"},
        {"an abort", [] { abort(); }, SIGABRT, "dhcpsnoop: killed by SIGABRT at address "},
        {"a signal from outside", [] { kill(getpid(), SIGBUS); }, SIGBUS, "dhcpsnoop: killed by SIGBUS at address "},
        {"a stack that ran out",
         [] {
             volatile char start = 0;
             overflow(&start, UINT32_MAX);
         },
         SIGSEGV, "dhcpsnoop: killed by SIGSEGV at address "},
    };
    for (const Row &row : rows) {
        const Ended ended = run_child(
            [&row] {
                const rlimit stack = {1 << 20, 1 << 20};
                setrlimit(RLIMIT_STACK, &stack);
                qorCatchSegFault(0, nullptr);
                row.crash();
            },
            STDERR_FILENO);
        EXPECT_TRUE(WIFSIGNALED(ended.status) && WTERMSIG(ended.status) == row.signal)
            << row.claim << ended.status;
        EXPECT_TRUE(ended.output.starts_with(row.text)) << row.claim << ": " << ended.output;
        EXPECT_GT(std::ranges::count(ended.output, '\n'), 1) << row.claim << ": no call in " << ended.output;
    }
}

TEST(Start, Arguments)
{
    const struct {
        const char *claim;
        std::vector<const char *> arguments;
        int status; // 99: the daemon would start
        const char *said;
    } rows[] = {
        {"five numbers", {"0", "256", "1", "1", "0"}, 99, ""},
        {"a number below zero", {"0", "0", "0", "0", "-1"}, 99, ""},
        {"help", {"--help"}, 0, "usage: dhcpsnoop ["},
        {"help, behind numbers", {"0", "256", "--help"}, 0, "usage: dhcpsnoop ["},
        {"version", {"--version"}, 0, "dhcpsnoop 0."},
        {"another option", {"--verbose"}, EX_USAGE, "dhcpsnoop: unknown option '--verbose'; try 'dhcpsnoop --help'\n"},
        {"a dash alone", {"-"}, EX_USAGE, "dhcpsnoop: unknown option '-'; try 'dhcpsnoop --help'\n"},
    };
    for (const auto &row : rows) {
        std::vector<char *> argv = {const_cast<char *>("dhcpsnoop")};
        for (const char *argument : row.arguments)
            argv.push_back(const_cast<char *>(argument));
        const Ended ended = run_child([&argv] {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            qorCatchSegFault(static_cast<int>(argv.size()), argv.data());
        }, STDERR_FILENO);
        EXPECT_EQ(WEXITSTATUS(ended.status), row.status) << row.claim;
        EXPECT_TRUE(ended.output.starts_with(row.said) && (*row.said != 0 || ended.output.empty())) << row.claim << ": " << ended.output;
    }
}

TEST(Start, RefusesAWrongModelFile)
{
    if (!missing_capabilities().empty())
        GTEST_SKIP() << "the start gets as far as the file only with " << missing_capabilities();
    const std::string path = testing::TempDir() + "switch.conf." + std::to_string(getpid());
    std::ofstream(path) << "port swp1 access 10\nport swp1 access 11\n";
    const Ended ended = run_child(
        [&path] {
            setenv("DHCPSNOOP_SWITCH_CONF", path.c_str(), 1);
            OsixCreateMSem(9);
        },
        STDERR_FILENO);
    unlink(path.c_str());
    EXPECT_EQ(WEXITSTATUS(ended.status), EX_CONFIG);
    EXPECT_EQ(ended.output, "dhcpsnoop: " + path + ":2: 'swp1' is a port already\n");

    const Ended absent = run_child(
        [] {
            setenv("DHCPSNOOP_SWITCH_CONF", "/nonexistent/switch.conf", 1);
            OsixCreateMSem(9);
        },
        STDERR_FILENO);
    EXPECT_EQ(WEXITSTATUS(absent.status), EX_CONFIG) << "a file that was named is not optional";
    EXPECT_EQ(absent.output, "dhcpsnoop: /nonexistent/switch.conf: No such file or directory\n");
}

TEST(Start, NamesTheCapabilitiesItLacks)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to give its rights away";
    const Ended ended = run_child(
        [] {
            if (setresuid(65534, 65534, 65534) == 0)
                OsixCreateMSem(9);
        },
        STDERR_FILENO);
    EXPECT_EQ(WEXITSTATUS(ended.status), EXIT_FAILURE);
    EXPECT_EQ(ended.output,
              "dhcpsnoop: missing CAP_NET_RAW (packet sockets), CAP_NET_ADMIN (traps on the ports), CAP_BPF "
              "(the program that traps frames): start as root, or grant what is missing\n");
}

TEST_F(Namespace, StartLoadsTheModelBeforeAnythingElseAndEndsWhenTheRestFails)
{
    run("ip link add br0 type bridge && ip link add swp1 type veth peer name h1 && ip link set swp1 master br0");
    const std::string path = testing::TempDir() + "switch.conf." + std::to_string(getpid());
    std::ofstream(path) << "port swp1 access 10\nport swp2 access 10\nvlan 10 interface v10\n";
    const Ended ended = run_child(
        [&path] {
            close(STDIN_FILENO);
            setenv("DHCPSNOOP_SWITCH_CONF", path.c_str(), 1);
            const uint32_t first = OsixCreateMSem(9), second = OsixCreateMSem(9);
            const bool ok = first != 0 && second != first && model_ports().size() == 1 &&
                            model_ports().begin()->second.nativeVid == 10 && fcntl(STDIN_FILENO, F_GETFD) >= 0;
            errno = EADDRINUSE; // a step of start-up after this one failed
            if (ok)
                OsixDeleteSem(first);
            _exit(0);
        },
        STDERR_FILENO);
    unlink(path.c_str());
    EXPECT_EQ(WEXITSTATUS(ended.status), EXIT_FAILURE) << ended.output;
    EXPECT_EQ(ended.output, "dhcpsnoop: configured, but not there yet: swp2 v10\n"
                            "dhcpsnoop: start-up failed, the daemon ends (if nothing above says why: Address already in use)\n");
}

} // namespace

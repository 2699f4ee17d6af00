// Start-up and shutdown: what is opened, in which order, and that a failure at any point undoes it all.
#include "scene.h"

namespace
{

// No daemon, and a call that fails the next time.
void nothing(const char *refused = "-", int32_t result = -1, int failCalloc = 0)
{
    world.reset_without_daemon();
    world.clear();
    world.refuse(refused, result, 1);
    world.failCalloc = failCalloc;
    debug(3);
}

const std::string GROUPS = "platform_event_group_join 903 32, platform_event_group_join 903 31, platform_event_group_join 903 40, platform_event_group_join 903 1, platform_event_group_join 903 56, platform_event_group_join 903 57, platform_event_group_join 903 40";
const std::string WHOLE = "OsixCreateMSem 9, socket AF_PACKET 3 0x0800, platform_packet_info_enable 900, socket AF_PACKET 3 0x86dd, platform_packet_info_enable 901, unlink /tmp/dhcpsnoop.socket, socket AF_UNIX 1 0x0000, umask 0177, bind AF_UNIX /tmp/dhcpsnoop.socket 110, umask 0022, listen 10, socket AF_NETLINK 3 0x0000, bind AF_NETLINK 0 0 12, " + GROUPS + ", ioctl FIONBIO 1";

std::string state()
{
    const auto hook = [](const void *given) { return given == nullptr ? "" : " hook"; };
    return world_format(" sizes %u %u %u sockets %d %d %d %d udp %d sem %u debug %u", gDhcpsnoop.ifMax, gDhcpsnoop.userMax, gDhcpsnoop.serverMax, gDhcpsnoop.dataSock, gDhcpsnoop.data6Sock, gDhcpsnoop.cmdSock, gDhcpsnoop.rtSock, gDhcpsnoop.udpSock, gDhcpsnoop.semId, gDhcpsnoop.debugFlags) +
           hook(reinterpret_cast<const void *>(gDhcpsnoop.deftinstallCb)) + (gDhcpsnoop.ipsgIfGet == ipsgIfGetApi ? " ipsg" : hook(reinterpret_cast<const void *>(gDhcpsnoop.ipsgIfGet))) + (gDhcpsnoop.antiArpIfGet == arpAntiAttackIfGetApi ? " arp" : hook(reinterpret_cast<const void *>(gDhcpsnoop.antiArpIfGet)));
}

// A failing start: after how many of the whole start's bytes it is undone, how, and what perror was told.
std::string failing(const char *refused, int32_t result = -1, int failCalloc = 0)
{
    nothing(refused, result, failCalloc);
    PrintedError error;
    std::string text = dhcpsnoop_init_ex(4, 8, 2, 3, nullptr, nullptr, nullptr) == -1 ? "" : "started! ";
    const std::string all = joined(world.calls()), undone = all.substr(std::min({all.find("OsixDeleteSem"), all.find("close"), all.size()}));
    text += (WHOLE + ", ").starts_with(all.substr(0, all.size() - undone.size())) ? "" : "otherwise! ";
    text += undone + "; " + error.text().substr(0, error.text().rfind("\r\n"));
    // The record has just been zero-filled, so no debug text can appear.
    text += said().empty() && gDhcpsnoop.ifPool == nullptr && gDhcpsnoop.userPool == nullptr && gDhcpsnoop.serverPool == nullptr && gDhcpsnoop.cmdSock == -1 && gDhcpsnoop.rtSock == -1 ? "" : " not all undone!";
    world.now += 1000;
    dhcpsnoop_user_timer_check(); // the loop runs all the same, and walks its tables
    return text + (dhcpsnoop_init(4, 8) == 0 ? world_check_tables() : "no second attempt!");
}

std::string relay_socket(const char *refused)
{
    nothing(refused);
    const int sock = dhcpsnoop_udp_socket_init();
    const Lines calls = world.calls();
    return world_format("%d after %zu: ", sock, calls.size()) + (sock == 900 ? joined(calls) : calls.back() + " " + said());
}

std::string formats(uint32_t optionMode)
{
    nothing();
    dhcpsnoop_init_ex(4, 8, 2, optionMode, nullptr, nullptr, nullptr);
    std::string text;
    for (const DhcpsnoopOptionFormat *format : {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt, &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt})
        text += world_format("%u %u %s; ", format->mode, format->len, reinterpret_cast<const char *>(format->text));
    return text;
}

#define SEM "OsixDeleteSem 77, "
#define DATA SEM "close 900, "
#define BOTH DATA "close 901, "
#define PATH "unlink /tmp/dhcpsnoop.socket"
#define EARLY "close 0, " PATH ", close 0; "
#define COMMAND "close 902, " PATH
TEST(Start, Rows)
{
    nothing();
    const auto start = [](uint16_t ifs, uint16_t users, uint16_t servers) {
        const int32_t result = dhcpsnoop_init_ex(ifs, users, servers, 3, deftinstall_client_entry_callback, ipsgIfGetApi, arpAntiAttackIfGetApi);
        return std::to_string(result) + state() + world_check_tables(true);
    };
    const auto undone = [] {
        world.clear();
        dhcpsnoop_shutdown();
        return joined(world.calls());
    };
    const auto hooked = [](const char *sizes, int first) { return world_format("0 sizes %s sockets %d %d %d %d udp 0 sem 77 debug 0 hook ipsg arp", sizes, first, first + 1, first + 2, first + 3); };
    check({
        {"Kept: udpSock stays at the 0 of the zero-fill; sockets in order", series({start(0, 0, 0), joined(world.calls())}), series({hooked("20 256 256", 900), WHOLE})},
        {"a second call changes nothing, and does nothing", series({(world.clear(), gDhcpsnoop.serverLearn = 1, start(1, 2, 3)), joined(world.calls()) + std::to_string(gDhcpsnoop.serverLearn)}), hooked("20 256 256", 900) + " / 1"},
        {"shut down; once; sizes as given; the short form has the defaults; typed; templates; an unknown mode is stored as it is", series({(gDhcpsnoop.udpSock = 950, undone()), undone(), start(1, 2, 3), (nothing(), dhcpsnoop_init(5, 6), state()), formats(0), formats(5), formats(9)}), series({BOTH "close 950, close 902, " PATH ", close 903", "", hooked("1 2 3", 904), " sizes 5 6 256 sockets 900 901 902 903 udp 0 sem 77 debug 0", "3 0 ; 3 0 ; 3 0 ; 3 0 ; ", "5 11 %s.%c.%d:%N; 5 2 %d; 5 11 %d %N:%s.%c; 5 11 %s.%c.%d:%N; ", "9 0 ; 9 0 ; 9 0 ; 9 0 ; "})},
        // Failures. Kept: an early one closes descriptor 0 twice and removes the path.
        {"no semaphore", failing("OsixCreateMSem 9"), EARLY},
        {"no memory for interfaces, their index, users, their index, servers; no IPv4 socket", series({failing("-", 0, 1), failing("-", 0, 2), failing("-", 0, 3), failing("-", 0, 4), failing("-", 0, 5), failing("socket AF_PACKET 3 0x0800")}), SEM EARLY},
        {"no packet information on it; no IPv6 socket; no packet information on it", series({failing("platform_packet_info_enable 900"), failing("socket AF_PACKET 3 0x86dd"), failing("platform_packet_info_enable 901")}), DATA EARLY "[DHCPSNOOP]dataSock setsockopt failed! / " DATA EARLY " / " BOTH EARLY "[DHCPSNOOP] data6_socket setsockopt failed"},
        {"no command socket: its -1 is not closed; one of 0 counts as failure; not bound; does not listen", series({failing("socket AF_UNIX"), failing("socket AF_UNIX", 0), failing("bind AF_UNIX"), failing("listen")}), BOTH "close 0; [DHCPSNOOP] Create cmd_socket ERROR! / " BOTH EARLY "[DHCPSNOOP] Create cmd_socket ERROR! / " BOTH COMMAND ", close 0; [DHCPSNOOP] Bind cmd_socket failed! / " BOTH COMMAND ", close 0; [DHCPSNOOP] Listen cmdSock error"},
        {"no event socket; one of 0 counts as failure", series({failing("socket AF_NETLINK"), failing("socket AF_NETLINK", 0)}), BOTH COMMAND ";  / " BOTH COMMAND ", close 0; "},
        {"it is not bound, or blocking; group 32 must be joined, 40 the first time, 56", series({failing("bind AF_NETLINK"), failing("ioctl FIONBIO"), failing("platform_event_group_join 903 32"), failing("platform_event_group_join 903 40"), failing("platform_event_group_join 903 56")}), BOTH COMMAND ", close 903; "},
        {"group 57 need not", failing("platform_event_group_join 903 57"), "started! ;  not all undone!"},
        // The socket that relayed requests leave through.
        {"sends from port 67; no socket", series({relay_socket("-"), relay_socket("socket AF_INET")}), "900 after 5: socket AF_INET 2 0x0000, setsockopt SO_BROADCAST 1, setsockopt SO_REUSEADDR 1, setsockopt SO_RCVBUF 1, bind AF_INET 00000000:67 16 / -1 after 1: socket AF_INET 2 0x0000 Create server socket ERROR,errno 0x1!"},
        {"no broadcasts; no reuse; no buffer; not bound", series({relay_socket("setsockopt SO_BROADCAST"), relay_socket("setsockopt SO_REUSEADDR"), relay_socket("setsockopt SO_RCVBUF"), relay_socket("bind AF_INET")}), "-1 after 3: close 900 Set socket BROADCAST option ERROR,errno 0x1! / -1 after 4: close 900 Set socket REUSEPORT option ERROR,errno 0x1! / -1 after 5: close 900 Set socket SO_RCVBUF option ERROR,errno 0x1! / -1 after 6: close 900 Udp socket bind ERROR, errorno 0x1!"},
    });
    world.reset_without_daemon();
}

} // namespace

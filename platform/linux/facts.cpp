#include "facts.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include "clock.h"
#include "dhcpsnoop.h"
#include "guard_hour.h"
#include "list.h"

namespace platform_linux
{
namespace
{

const Ticks started = ticks();

// The kernel counts from one reading to the next.
uint64_t frames = 0, framesLost = 0;

void read_statistics(int sock)
{
    tpacket_stats statistics = {};
    socklen_t length = sizeof statistics;
    if (getsockopt(sock, SOL_PACKET, PACKET_STATISTICS, &statistics, &length) != 0)
        return;
    frames += statistics.tp_packets;
    framesLost += statistics.tp_drops;
}

std::string server_text(const DhcpsnoopServer &server)
{
    const in_addr address = {htonl(server.serverIp)};
    char text[INET_ADDRSTRLEN];
    return std::string(inet_ntop(AF_INET, &address, text, sizeof text)) + " " +
           std::to_string(server.ifIndex) + " " + std::to_string(server.vid);
}

} // namespace

std::string facts_text()
{
    for (const int sock : {gDhcpsnoop.dataSock, gDhcpsnoop.data6Sock})
        read_statistics(sock);
    std::string text = "version " DHCPSNOOP_VERSION "\n";
    const auto number = [&text](const char *name, uint64_t value) {
        text += std::string(name) + " " + std::to_string(value) + "\n";
    };
    number("uptime", static_cast<uint64_t>(ticks() - started) / 1000);
    number("bindings", gDhcpsnoop.userMax);
    number("interfaces", gDhcpsnoop.ifMax);
    number("frames", frames);
    number("frames-lost", framesLost);
    for (const DhcpsnoopServer *server : list_each<DhcpsnoopServer>(&gDhcpsnoop.serverList))
        text += "server " + server_text(*server) + "\n";
    return text + guard_hour_text();
}

} // namespace platform_linux

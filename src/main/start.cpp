// Start-up and shutdown: arguments' meaning, pools, defaults and the four sockets that the loop serves.
// Any failure releases everything made before it. Nothing is opened later.
#include "dhcpsnoop_start.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "debug.h"
#include "dhcp6snoop_msg.h"
#include "dhcpsnoop_state.h"
#include "dhcpsnoop_user.h"
#include "list.h"
#include "management.h"
#include "protocol.h"

static uint32_t init; // 1 once start-up has succeeded

static constexpr uint16_t IF_MAX_DEFAULT = 20, USER_MAX_DEFAULT = 256, SERVER_MAX_DEFAULT = 256;
static constexpr int COMMAND_BACKLOG = 10;

static_assert(sizeof(sockaddr_un) == 110 && sizeof(sockaddr_nl) == 12);

static void format_default(DhcpsnoopOptionFormat *format, uint32_t optionMode, const char *templateText)
{
    format->mode = optionMode == 0 ? DHCPSNOOP_FORMAT_TYPED : static_cast<uint16_t>(optionMode);
    if (format->mode != DHCPSNOOP_FORMAT_TEMPLATE)
        return;
    format->len = static_cast<uint16_t>(std::strlen(templateText));
    std::memcpy(format->text, templateText, format->len);
}

static void tables_init(void)
{
    list_init(&gDhcpsnoop.ifList);
    list_init(&gDhcpsnoop.serverList);
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash)
        list_init(&bucket);
    for (DhcpsnoopLink &bucket : gDhcpsnoop.macUserHash)
        list_init(&bucket);
}

static int32_t pools_init(uint16_t ifCount, uint16_t userCount, uint16_t serverCount)
{
    gDhcpsnoop.ifMax = ifCount != 0 ? ifCount : IF_MAX_DEFAULT;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.ifFreeList, sizeof(DhcpsnoopIf), gDhcpsnoop.ifMax) != 0 ||
        dhcp6snoop_port_index_init(gDhcpsnoop.ifMax) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Failed to allocate memory for interface free list\r\n");
        return -1;
    }
    gDhcpsnoop.userMax = userCount != 0 ? userCount : USER_MAX_DEFAULT;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.userFreeList, sizeof(DhcpsnoopUser), gDhcpsnoop.userMax) != 0 ||
        dhcpsnoop_user_index_init(gDhcpsnoop.userMax) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Failed to allocate memory for user free list\r\n");
        return -1;
    }
    gDhcpsnoop.serverMax = serverCount != 0 ? serverCount : SERVER_MAX_DEFAULT;
    if (dhcpsnoop_memlist_init(&gDhcpsnoop.serverFreeList, sizeof(DhcpsnoopServer), gDhcpsnoop.serverMax) !=
        0) {
        DEBUG_EVENT("[DHCPSNOOP] Failed to allocate memory for server free list\r\n");
        return -1;
    }
    return 0;
}

// The complaints are about the socket and about its packet information.
static int32_t data_socket_open(int32_t *sock, uint16_t etherType, const char *noSocket, const char *noInfo)
{
    *sock = socket(AF_PACKET, SOCK_RAW, htons(etherType));
    if (*sock < 0) {
        DEBUG_EVENT("%s", noSocket);
        return -1;
    }
    if (platform_packet_info_enable(*sock) == 0)
        return 0;
    perror(noInfo);
    return -1;
}

// Root's alone: the mode is narrowed before the path exists, so nobody else ever finds it open.
static int32_t bind_private(int sock)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    static_assert(sizeof DHCPSNOOP_SOCKET_PATH <= sizeof address.sun_path);
    std::memcpy(address.sun_path, DHCPSNOOP_SOCKET_PATH, sizeof DHCPSNOOP_SOCKET_PATH);

    const mode_t before = umask(0177);
    const int result = bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(before);
    return result;
}

static int32_t command_socket_open(void)
{
    gDhcpsnoop.cmdSock = -1;
    if (platform_serves_commands() != 0)
        return 0;
    unlink(DHCPSNOOP_SOCKET_PATH);
    gDhcpsnoop.cmdSock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (gDhcpsnoop.cmdSock <= 0) {
        perror("[DHCPSNOOP] Create cmd_socket ERROR!\r\n");
        return -1;
    }
    if (bind_private(gDhcpsnoop.cmdSock) != 0) {
        perror("[DHCPSNOOP] Bind cmd_socket failed!\r\n");
        return -1;
    }
    if (listen(gDhcpsnoop.cmdSock, COMMAND_BACKLOG) != 0) {
        perror("[DHCPSNOOP] Listen cmdSock error\r\n");
        return -1;
    }
    return 0;
}

static int32_t event_group_join(uint32_t group)
{
    if (platform_event_group_join(gDhcpsnoop.rtSock, group) == 0)
        return 0;
    DEBUG_EVENT("[DHCPSNOOP] rtSock setsockopt nl_group %d failed\r\n", group);
    return -1;
}

static int32_t event_socket_open(void)
{
    gDhcpsnoop.rtSock = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (gDhcpsnoop.rtSock <= 0) {
        DEBUG_EVENT("[DHCPSNOOP] Create rt_socket failed\r\n");
        return -1;
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    if (bind(gDhcpsnoop.rtSock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Bind rtSock failed\r\n");
        return -1;
    }
    for (uint32_t group : QOR_GROUPS) {
        if (event_group_join(group) != 0)
            return -1;
    }
    for (uint32_t group : QOR_GROUPS_OPTIONAL)
        event_group_join(group);

    int on = 1;
    if (ioctl(gDhcpsnoop.rtSock, FIONBIO, &on) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] rtSock set ioctl failed\r\n");
        return -1;
    }
    return 0;
}

static int32_t start(uint16_t ifCount, uint16_t userCount, uint16_t serverCount, uint32_t optionMode,
                     DhcpsnoopInstallHook deftinstallHook, DhcpsnoopIfHook ipsgHook,
                     DhcpsnoopIfHook antiArpHook)
{
    std::memset(&gDhcpsnoop, 0, sizeof gDhcpsnoop);
    // The loop runs, and walks these, also after a start that failed.
    tables_init();

    gDhcpsnoop.semId = OsixCreateMSem(QOR_SEM_OPTIONS);
    if (gDhcpsnoop.semId == 0) {
        DEBUG_EVENT("[DHCPSNOOP] Failed to create semaphore for dhcpSnoop\n\r");
        return -1;
    }
    if (pools_init(ifCount, userCount, serverCount) != 0)
        return -1;

    gDhcpsnoop.enterpriseNum = DHCPSNOOP_ENTERPRISE_NUMBER;
    format_default(&gDhcpsnoop.circuitIdFmt, optionMode, "%s.%c.%d:%N");
    format_default(&gDhcpsnoop.remoteIdFmt, optionMode, "%d");
    format_default(&gDhcpsnoop.interfaceIdFmt, optionMode, "%d %N:%s.%c");
    format_default(&gDhcpsnoop.remoteId6Fmt, optionMode, "%s.%c.%d:%N");

    if (data_socket_open(&gDhcpsnoop.dataSock, ETHER_TYPE_IPV4, "[DHCPSNOOP] Create data_socket ERROR!\n\r",
                         "[DHCPSNOOP]dataSock setsockopt failed!\r\n") != 0 ||
        data_socket_open(&gDhcpsnoop.data6Sock, ETHER_TYPE_IPV6, "[DHCPSNOOP] Create data6_socket ERROR!\n\r",
                         "[DHCPSNOOP] data6_socket setsockopt failed\r\n") != 0)
        return -1;
    gDhcpsnoop.deftinstallCb = deftinstallHook;
    gDhcpsnoop.ipsgIfGet = ipsgHook;
    gDhcpsnoop.antiArpIfGet = antiArpHook;
    if (command_socket_open() != 0)
        return -1;
    return event_socket_open();
}

int32_t dhcpsnoop_init_ex(uint16_t ifCount, uint16_t userCount, uint16_t serverCount, uint32_t optionMode,
                          DhcpsnoopInstallHook deftinstallHook, DhcpsnoopIfHook ipsgHook,
                          DhcpsnoopIfHook antiArpHook)
{
    if (init != 0)
        return 0;
    if (start(ifCount, userCount, serverCount, optionMode, deftinstallHook, ipsgHook, antiArpHook) != 0) {
        dhcpsnoop_shutdown();
        return -1;
    }
    init = 1;
    return 0;
}

int32_t dhcpsnoop_init(uint16_t ifCount, uint16_t userCount)
{
    return dhcpsnoop_init_ex(ifCount, userCount, 0, DHCPSNOOP_FORMAT_TYPED, nullptr, nullptr, nullptr);
}

static void pool_free(DhcpsnoopLink *head, void **pool)
{
    list_init(head);
    std::free(*pool);
    *pool = nullptr;
}

void dhcpsnoop_shutdown(void)
{
    if (gDhcpsnoop.semId != 0) {
        OsixDeleteSem(gDhcpsnoop.semId);
        gDhcpsnoop.semId = 0;
    }

    for (int32_t *sock : {&gDhcpsnoop.dataSock, &gDhcpsnoop.data6Sock, &gDhcpsnoop.udpSock}) {
        if (*sock > 0) {
            close(*sock);
            *sock = -1;
        }
    }
    // Kept: these two are tested against -1, so a start that failed before they were opened closes descriptor
    // 0 for each.
    if (gDhcpsnoop.cmdSock != -1) {
        close(gDhcpsnoop.cmdSock);
        unlink(DHCPSNOOP_SOCKET_PATH);
        gDhcpsnoop.cmdSock = -1;
    }
    if (gDhcpsnoop.rtSock != -1) {
        close(gDhcpsnoop.rtSock);
        gDhcpsnoop.rtSock = -1;
    }

    pool_free(&gDhcpsnoop.ifFreeList, &gDhcpsnoop.ifPool);
    pool_free(&gDhcpsnoop.userFreeList, &gDhcpsnoop.userPool);
    dhcpsnoop_user_index_free();
    dhcp6snoop_port_index_free();
    pool_free(&gDhcpsnoop.serverFreeList, &gDhcpsnoop.serverPool);
    init = 0;
}

static int32_t udp_socket_prepare(int sock)
{
    const int one = 1;
    if (setsockopt(sock, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Set socket BROADCAST option ERROR,errno 0x%0x!\r\n", errnoGet());
        return -1;
    }
    if (setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Set socket REUSEPORT option ERROR,errno 0x%0x!\r\n", errnoGet());
        return -1;
    }
    // One byte, which the kernel raises to its minimum: the socket only sends.
    if (setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &one, sizeof one) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Set socket SO_RCVBUF option ERROR,errno 0x%0x!\r\n", errnoGet());
        return -1;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(DHCP_SERVER_PORT);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        DEBUG_EVENT("[DHCPSNOOP] Udp socket bind ERROR, errorno 0x%0x!\r\n", errnoGet());
        return -1;
    }
    return 0;
}

int32_t dhcpsnoop_udp_socket_init(void)
{
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) {
        DEBUG_EVENT("[DHCPSNOOP] Create server socket ERROR,errno 0x%0x!\r\n", errnoGet());
        return -1;
    }
    if (udp_socket_prepare(sock) != 0) {
        close(sock);
        return -1;
    }
    return sock;
}

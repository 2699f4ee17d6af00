// The command socket: one connection is accepted, one length-prefixed request read, its reply sent and the
// connection closed. The wait for a slow client has a limit; a request that is too long gets no answer. The
// length before a request and a reply is in host order. cmd_process.cpp handles their content.
#include "dhcpsnoop_cmd.h"

#include <cstdio>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include "debug.h"
#include "management.h"

// The shortest request with its length. The kernel caps the mark at the size of each recv, so nothing here
// depends on it.
static constexpr int RECEIVE_LOW_WATER = 30;
static constexpr timeval CLIENT_PATIENCE = {10, 0};

static bool connection_prepare(int connection)
{
    return setsockopt(connection, SOL_SOCKET, SO_RCVLOWAT, &RECEIVE_LOW_WATER, sizeof RECEIVE_LOW_WATER) ==
               0 &&
           setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &CLIENT_PATIENCE, sizeof CLIENT_PATIENCE) == 0 &&
           setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &CLIENT_PATIENCE, sizeof CLIENT_PATIENCE) == 0;
}

// The request into `buffer`, which holds DHCPSNOOP_REQUEST_MAX bytes.
static bool request_receive(int connection, uint8_t *buffer, uint32_t *length)
{
    if (recv(connection, length, sizeof *length, 0) != static_cast<ssize_t>(sizeof *length)) {
        perror("[DHCPSNOOP] Command server recv buflen failed!\r\n");
        return false;
    }
    // Reading no bytes would wait for some: an empty request is complete as it is.
    if (*length == 0)
        return true;
    if (*length > DHCPSNOOP_REQUEST_MAX ||
        recv(connection, buffer, *length, 0) != static_cast<ssize_t>(*length)) {
        perror("[DHCPSNOOP] Command server recv buf failed!\r\n");
        return false;
    }
    return true;
}

static bool reply_send(int connection, uint8_t *buffer, uint32_t length)
{
    iovec pieces[2] = {
        {&length, sizeof length},
        {buffer,  length       }
    };
    msghdr message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;

    const ssize_t whole = static_cast<ssize_t>(sizeof length + length);
    const ssize_t sent = sendmsg(connection, &message, MSG_NOSIGNAL);
    if (sent == whole)
        return true;
    DEBUG_EVENT("[DHCPSNOOP] Command server: send %d bytes was different from %d!\r\n",
                static_cast<int>(sent), static_cast<int>(whole));
    perror("[DHCPSNOOP] Command server sendto failed!\r\n");
    return false;
}

static bool connection_serve(int connection)
{
    if (!connection_prepare(connection)) {
        perror("[DHCPSNOOP] Command server setsockopt failed!\r\n");
        return false;
    }

    uint8_t buffer[DHCPSNOOP_REQUEST_MAX] = {}; // an empty request is answered from it too
    uint32_t length = 0;
    if (!request_receive(connection, buffer, &length))
        return false;

    const uint32_t replyLength = dhcpsnoop_cmd_process(buffer, length);
    if (replyLength == 0)
        DEBUG_EVENT("[DHCPSNOOP] Command server: call cmd process failed!\r\n");
    return reply_send(connection, buffer, replyLength);
}

int32_t dhcpsnoop_cmd_server(void)
{
    const int connection = accept(gDhcpsnoop.cmdSock, nullptr, nullptr);
    if (connection <= 0) {
        perror("[DHCPSNOOP] Command server accept failed!\r\n");
        return -1;
    }
    const bool served = connection_serve(connection);
    close(connection);
    return served ? 0 : -1;
}

#include "private_listener.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace platform_linux
{

Fd private_listener(const char *path, int backlog)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return {};
    }
    memcpy(address.sun_path, path, strlen(path));
    const std::string_view text = path;
    if (const size_t slash = text.rfind('/'); slash != std::string_view::npos && slash != 0)
        mkdir(std::string(text.substr(0, slash)).c_str(), 0755); // /run/dhcpsnoop may have to be made

    Fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener)
        return {};
    // Only a socket: the path may have been mistyped.
    struct stat there = {};
    if (lstat(path, &there) == 0 && S_ISSOCK(there.st_mode))
        unlink(path);
    // Nobody can connect before it listens, so the mode is right by then.
    if (bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(path, S_IRUSR | S_IWUSR) != 0 || listen(listener.get(), backlog) != 0)
        return {};
    return listener;
}

} // namespace platform_linux

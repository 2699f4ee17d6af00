#include "private_listener.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace platform_linux
{
namespace
{
using FileNumber = std::pair<dev_t, ino_t>;

std::mutex boundMutex;
std::map<std::string, FileNumber> bound; // by path

// Of the socket there, that this user owns. In a directory of everybody, where nobody removes another's
// files, it stays what it is.
bool own_socket(const char *path, FileNumber &number)
{
    struct stat there = {};
    if (lstat(path, &there) != 0 || !S_ISSOCK(there.st_mode) || there.st_uid != geteuid())
        return false;
    number = {there.st_dev, there.st_ino};
    return true;
}
} // namespace

Fd private_listener(const char *path, int backlog, int type)
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

    Fd listener(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener)
        return {};
    // Only such a socket: the path may have been mistyped, or be another's.
    FileNumber number;
    if (own_socket(path, number))
        unlink(path);
    // The file gets the mode of the socket, and never had another.
    if (fchmod(listener.get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener.get(), backlog) != 0)
        return {};
    const std::scoped_lock lock(boundMutex);
    if (own_socket(path, number))
        bound[path] = number;
    return listener;
}

void private_listeners_unlink()
{
    const std::scoped_lock lock(boundMutex);
    FileNumber number;
    for (const auto &[path, ours] : bound)
        if (own_socket(path.c_str(), number) && number == ours)
            unlink(path.c_str());
}

} // namespace platform_linux

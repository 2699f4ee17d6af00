// bpffs directories by network namespace (guard_pins.h): files of it are pinned maps and nothing else.
#include "guard_pins.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <linux/magic.h>

#include "fd.h"
#include "guard_maps.h"

namespace platform_linux
{
namespace
{

// `ip netns exec` mounts a new /sys, which hides the usual bpffs.
constexpr char RUN_DIR[] = "/run/dhcpsnoop", PIN_ROOT[] = "/run/dhcpsnoop/bpf";

constexpr int CLAIM_TRIES = 50; // a daemon that was just killed may be ending still
constexpr useconds_t CLAIM_PAUSE_USEC = 20000;
Fd claim; // the directory, locked

bool is_bpffs(const char *path)
{
    struct statfs found;
    return statfs(path, &found) == 0 && static_cast<uint32_t>(found.f_type) == BPF_FS_MAGIC;
}

} // namespace

bool namespace_own(Namespace &own)
{
    struct stat inode;
    const Fd sock(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    socklen_t length = sizeof own.cookie;
    const bool known = sock &&
                       getsockopt(sock.get(), SOL_SOCKET, SO_NETNS_COOKIE, &own.cookie, &length) == 0 &&
                       stat("/proc/self/ns/net", &inode) == 0;
    if (known)
        own.inode = inode.st_ino;
    return known;
}

std::string pins_directory(const Namespace &own, std::string &why)
{
    mkdir(RUN_DIR, 0755);
    mkdir(PIN_ROOT, 0700);
    if (!is_bpffs(PIN_ROOT) &&
        mount("bpf", PIN_ROOT, "bpf", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=0700") != 0) {
        why = std::string("no bpffs at ") + PIN_ROOT + " and none can be mounted: " + strerror(errno);
        return "";
    }
    std::string path =
        std::string(PIN_ROOT) + "/" + std::to_string(own.inode) + "-" + std::to_string(GUARD_LAYOUT);
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        why = path + ": " + strerror(errno);
        return "";
    }
    return path;
}

std::vector<std::string> pins_all()
{
    std::vector<std::string> found;
    Namespace own;
    DIR *root = is_bpffs(PIN_ROOT) && namespace_own(own) ? opendir(PIN_ROOT) : nullptr;
    const std::string prefix = std::to_string(own.inode) + "-";
    for (const dirent *entry; root != nullptr && (entry = readdir(root)) != nullptr;) {
        if (strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0)
            found.push_back(std::string(PIN_ROOT) + "/" + entry->d_name);
    }
    if (root != nullptr)
        closedir(root);
    return found;
}

bool pins_claim()
{
    Namespace own;
    std::string why;
    if (claim || !namespace_own(own))
        return true;
    const std::string directory = pins_directory(own, why);
    claim.reset(directory.empty() ? -1 : open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int tries = 0; claim && flock(claim.get(), LOCK_EX | LOCK_NB) != 0; tries++) {
        if (tries == CLAIM_TRIES || errno != EWOULDBLOCK) {
            claim.reset();
            return false;
        }
        usleep(CLAIM_PAUSE_USEC);
    }
    return true;
}

void pins_claim_again()
{
    if (!claim)
        return;
    claim.reset();
    pins_claim();
}

int pins_remove(const std::string &directory)
{
    DIR *opened = opendir(directory.c_str());
    if (opened == nullptr)
        return errno;
    for (const dirent *entry; (entry = readdir(opened)) != nullptr;) {
        if (entry->d_name[0] != '.')
            unlinkat(dirfd(opened), entry->d_name, 0);
    }
    closedir(opened);
    return rmdir(directory.c_str()) == 0 ? 0 : errno;
}

} // namespace platform_linux

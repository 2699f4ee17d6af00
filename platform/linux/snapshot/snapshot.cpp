// One walk serves all who asked before it began; who asks later waits for the next one, and so sees every
// change made before. The file's memory is there before the daemon's thread writes to it.
#include "snapshot.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <thread>
#include <utility>
#include <vector>

#include "clock.h"
#include "control_socket.h"
#include "dhcpsnoop.h"
#include "fd.h"
#include "report.h"
#include "snapshot_record.h"
#include "wake.h"

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 8U // Linux 6.3; older kernels refuse it
#endif

namespace platform_linux
{
namespace
{

constexpr Ticks WAKE_AGAIN = 100; // while the event socket has no room

std::atomic<SnapshotHeader *> wanted; // by the socket's thread; the daemon's thread takes it away
Fd written;                           // signalled by the daemon's thread

// A file with room for all bindings, mapped until it is sealed.
class Snapshot
{
  public:
    Snapshot() : size_(sizeof(SnapshotHeader) + gDhcpsnoop.userMax * sizeof(SnapshotRecord))
    {
        constexpr unsigned flags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
        file_.reset(memfd_create("dhcpsnoop-bindings", flags | MFD_NOEXEC_SEAL));
        if (!file_ && errno == EINVAL)
            file_.reset(memfd_create("dhcpsnoop-bindings", flags));
        if (!file_ || ftruncate(file_.get(), static_cast<off_t>(size_)) != 0)
            return;
        void *memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
        if (memory == MAP_FAILED)
            return;
        memset(memory, 0, size_);
        header_ = ::new (memory) SnapshotHeader{
            SNAPSHOT_VERSION, sizeof(SnapshotHeader), sizeof(SnapshotRecord), 0, gDhcpsnoop.userMax, 0};
    }
    ~Snapshot() { unmap(); }
    Snapshot(const Snapshot &) = delete;
    Snapshot &operator=(const Snapshot &) = delete;

    SnapshotHeader *header() const { return header_; } // null with errno when there is no memory

    // For reading only from now on; no reader ever finds it shorter.
    int sealed()
    {
        const size_t used = sizeof(SnapshotHeader) + header_->count * sizeof(SnapshotRecord);
        unmap();
        if (ftruncate(file_.get(), static_cast<off_t>(used)) != 0 ||
            fcntl(file_.get(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
            return -1;
        return file_.get();
    }

  private:
    void unmap()
    {
        if (header_ != nullptr)
            munmap(std::exchange(header_, nullptr), size_);
    }

    size_t size_;
    Fd file_;
    SnapshotHeader *header_ = nullptr;
};

class Server
{
  public:
    explicit Server(int eventSocket) : eventSocket_(eventSocket) {}

    bool open(const std::string &path, std::string &error) { return control_.open(path.c_str(), error); }

    [[noreturn]] void run()
    {
        for (;;) {
            begin();
            std::vector<pollfd> descriptors = {
                {written.get(), POLLIN, 0}
            };
            control_.watch(descriptors);
            const Ticks now = ticks(), until = snapshot_ ? now + WAKE_AGAIN : control_.deadline();
            poll(descriptors.data(), descriptors.size(),
                 until == NEVER ? -1 : static_cast<int>(std::max<Ticks>(until - now, 0)));
            uint64_t count = 0;
            if (read(written.get(), &count, sizeof count) == sizeof count)
                hand_out();
            descriptors.erase(descriptors.begin());
            control_.serve(descriptors, ticks());
        }
    }

  private:
    void ask(const std::string &request, ControlSocket::Answer answer)
    {
        if (request == SNAPSHOT_REQUEST)
            asking_.push_back(std::move(answer));
        else
            answer({"unknown request"});
    }

    void answer_all(const ControlReply &reply)
    {
        for (const ControlSocket::Answer &answer : std::exchange(waiting_, {}))
            answer(reply);
        snapshot_.reset();
    }

    void begin()
    {
        if (!snapshot_ && !asking_.empty()) {
            waiting_ = std::exchange(asking_, {});
            snapshot_.emplace();
            if (snapshot_->header() == nullptr)
                answer_all({std::string("no memory for the bindings: ") + strerror(errno)});
            else
                wanted = snapshot_->header();
        }
        if (snapshot_)
            wake_event_socket(eventSocket_);
    }

    void hand_out()
    {
        const int file = snapshot_->sealed();
        answer_all(file >= 0
                       ? ControlReply{"ok", file}
                       : ControlReply{std::string("the bindings cannot be sealed: ") + strerror(errno)});
    }

    const int eventSocket_;
    std::vector<ControlSocket::Answer> asking_, waiting_; // for the next walk, for the present one
    std::optional<Snapshot> snapshot_;                    // while a walk is wanted
    ControlSocket control_{[this](const std::string &request, ControlSocket::Answer answer) {
        ask(request, std::move(answer));
    }};
};

void put(const DhcpsnoopUser &user, SnapshotRecord &record)
{
    memcpy(record.address, user.key.ipAddr, sizeof record.address);
    record.ipType = user.key.ipType;
    record.type = user.userType;
    record.state = user.bindState;
    record.installed = user.hwFlags;
    memcpy(record.mac, user.mac, sizeof record.mac);
    record.vlan = user.vid;
    record.ifIndex = user.ifIndex;
    record.attribute = user.userAttr;
    record.lease = user.leaseTime;
    record.leaseStart = user.leaseStart;
}

} // namespace

void snapshot_start(const std::string &path, int eventSocket)
{
    written.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    auto server = std::make_unique<Server>(eventSocket);
    std::string error = strerror(errno);
    if (!written || !server->open(path, error)) {
        platform_report(LOG_WARNING, "bindings are listed one by one: %s", error.c_str());
        return;
    }
    std::thread([server = server.release()] { server->run(); }).detach();
}

void snapshot_take()
{
    SnapshotHeader *header = wanted.load(std::memory_order_acquire);
    if (header == nullptr)
        return;
    wanted = nullptr;
    auto *records = reinterpret_cast<SnapshotRecord *>(header + 1);
    // One binding of each chain in turn: the next one of a chain is on its way from memory meanwhile.
    const DhcpsnoopLink *next[DHCPSNOOP_BUCKETS];
    for (uint32_t i = 0; i < DHCPSNOOP_BUCKETS; i++)
        next[i] = gDhcpsnoop.userHash[i].next;
    for (bool more = true; more;) {
        more = false;
        for (uint32_t i = 0; i < DHCPSNOOP_BUCKETS; i++) {
            if (next[i] == &gDhcpsnoop.userHash[i])
                continue;
            more = true;
            const auto *user = static_cast<const DhcpsnoopUser *>(std::exchange(next[i], next[i]->next));
            __builtin_prefetch(next[i]);
            __builtin_prefetch(&static_cast<const DhcpsnoopUser *>(next[i])->mac);
            if (user->userType != DHCPSNOOP_USER_IPSG)
                put(*user, records[header->count++]); // never more than the pool has
        }
    }
    header->now = static_cast<uint32_t>(time(nullptr));
    constexpr uint64_t one = 1;
    while (write(written.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
}

} // namespace platform_linux

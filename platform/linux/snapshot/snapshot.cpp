// One walk serves all who asked before it began; who asks later waits for the next one, and so sees every
// change made before. The file's memory is there before the daemon's thread writes to it. The socket's thread
// chooses from it, for each asker by himself.
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
#include <sys/uio.h>
#include <thread>
#include <utility>
#include <vector>

#include "binding_filter.h"
#include "binding_walk.h"
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

Fd memory_file()
{
    constexpr unsigned flags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
    Fd file(memfd_create("dhcpsnoop-bindings", flags | MFD_NOEXEC_SEAL));
    if (!file && errno == EINVAL)
        file.reset(memfd_create("dhcpsnoop-bindings", flags));
    return file;
}

// For reading only from now on.
bool seal(const Fd &file)
{
    return fcntl(file.get(), F_ADD_SEALS, F_SEAL_WRITE | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
}

// A file with room for all bindings, mapped until it is sealed.
class Snapshot
{
  public:
    Snapshot()
        : size_(sizeof(SnapshotHeader) + gDhcpsnoop.userMax * sizeof(SnapshotRecord)), file_(memory_file())
    {
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

    // No reader ever finds it shorter.
    int sealed()
    {
        const size_t used = sizeof(SnapshotHeader) + header_->count * sizeof(SnapshotRecord);
        unmap();
        return ftruncate(file_.get(), static_cast<off_t>(used)) == 0 && seal(file_) ? file_.get() : -1;
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

// A file of the bindings that are wanted.
Fd choose(const SnapshotHeader &all, const BindingFilter &filter, bool onlyCounts)
{
    const auto *records = reinterpret_cast<const SnapshotRecord *>(&all + 1);
    std::vector<SnapshotRecord> chosen;
    SnapshotHeader header = all;
    header.count = 0;
    header.recordSize = onlyCounts ? 0 : all.recordSize;
    PortNames names;
    Binding binding = {};
    for (const SnapshotRecord &record : std::span(records, all.count)) {
        snapshot_binding(record, all.now, binding);
        if (!filter(binding, names.of(binding.ifIndex)))
            continue;
        header.count++;
        if (!onlyCounts)
            chosen.push_back(record);
    }
    Fd file = memory_file();
    const size_t size = chosen.size() * sizeof(SnapshotRecord);
    const iovec parts[] = {
        {&header,       sizeof header},
        {chosen.data(), size         }
    };
    if (!file || writev(file.get(), parts, 2) != static_cast<ssize_t>(sizeof header + size) || !seal(file))
        return {};
    return file;
}

// What one client wants.
struct Asker {
    std::optional<BindingFilter> filter; // none: the whole file
    bool onlyCounts;
    ControlSocket::Answer answer;
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
        Asker asker = {std::nullopt, false, std::move(answer)};
        std::string fault = "unknown request";
        if (request != SNAPSHOT_REQUEST)
            asker.filter = read_filter(request, asker.onlyCounts, fault);
        if (request == SNAPSHOT_REQUEST || asker.filter)
            asking_.push_back(std::move(asker));
        else
            asker.answer(fault);
    }

    static std::optional<BindingFilter> read_filter(const std::string &request, bool &onlyCounts,
                                                    std::string &fault)
    try {
        Words words;
        for (size_t at = 0, end = 0; at <= request.size(); at = end + 1) {
            end = std::min(request.find('\0', at), request.size());
            words.push_back(request.substr(at, end - at));
        }
        if (words[0] != SNAPSHOT_FILTER)
            return std::nullopt;
        onlyCounts = words.size() > 1 && words[1] == SNAPSHOT_COUNT;
        words.erase(words.begin(), words.begin() + (onlyCounts ? 2 : 1));
        return BindingFilter(words);
    } catch (const UsageError &error) {
        fault = error.what();
        return std::nullopt;
    }

    void answer_all(const ControlReply &reply)
    {
        for (const Asker &asker : std::exchange(waiting_, {}))
            asker.answer(reply);
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
        for (const Asker &asker : waiting_)
            if (asker.filter)
                answer_chosen(asker);
        std::erase_if(waiting_, [](const Asker &asker) { return asker.filter.has_value(); });
        const int file = snapshot_->sealed();
        answer_all(file >= 0
                       ? ControlReply{"ok", file}
                       : ControlReply{std::string("the bindings cannot be sealed: ") + strerror(errno)});
    }

    void answer_chosen(const Asker &asker)
    {
        if (const Fd file = choose(*snapshot_->header(), *asker.filter, asker.onlyCounts))
            asker.answer({"ok", file.get()});
        else
            asker.answer(std::string("no file for the bindings: ") + strerror(errno));
    }

    const int eventSocket_;
    std::vector<Asker> asking_, waiting_; // for the next walk, for the present one
    std::optional<Snapshot> snapshot_;    // while a walk is wanted
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
    walk_bindings(gDhcpsnoop.userHash, [header, records](const DhcpsnoopUser &user) {
        if (user.userType != DHCPSNOOP_USER_IPSG)
            put(user, records[header->count++]); // never more than the pool has
    });
    header->now = static_cast<uint32_t>(time(nullptr));
    constexpr uint64_t one = 1;
    while (write(written.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
}

} // namespace platform_linux

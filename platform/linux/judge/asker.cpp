#include "asker.h"

#include <algorithm>
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>

#include "protocol.h"
#include "wire.h"

namespace platform_linux
{
namespace
{

constexpr int TRIES = 2;
constexpr Ticks PATIENCE = 500; // for each
constexpr int READS = 64;       // of one holder's frames in a row

// Frames from that MAC address only.
bool filter(int sock, const HostMac &mac)
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, ETH_SRC),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, wire_get32(mac.data()), 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, ETH_SRC + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, wire_get16(mac.data() + 4), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, UINT32_MAX),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog attached = {std::size(program), program};
    return setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &attached, sizeof attached) == 0;
}

} // namespace

bool Asker::start()
{
    wakeup_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (!wakeup_)
        return false;
    std::thread([this] { run(); }).detach();
    return true;
}

void Asker::ask(size_t number, const JudgedClaim &claim, const AskFrame &frame)
{
    Slot &slot = slots_[number];
    const std::scoped_lock lock(mutex_);
    slot.answer = Answer::awaited;
    slot.newClaim = claim;
    slot.newFrame = frame;
    slot.isNew = true;
    constexpr uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wakeup_.get(), &one, sizeof one); // full is awake too
}

void Asker::settle(size_t number, Answer answer)
{
    const std::scoped_lock lock(mutex_);
    slots_[number].isNew = false;
    slots_[number].answer = answer;
}

bool Asker::open(Slot &slot)
{
    constexpr int on = 1;
    sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(slot.claim.holder.place.ifIndex);
    slot.sock.reset(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    return slot.sock && filter(slot.sock.get(), slot.claim.holder.mac) &&
           setsockopt(slot.sock.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) == 0 &&
           bind(slot.sock.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
}

// A holder that cannot be asked keeps its binding, unless its device is gone.
void Asker::take_new()
{
    for (Slot &slot : slots_) {
        {
            const std::scoped_lock lock(mutex_);
            if (!std::exchange(slot.isNew, false))
                continue;
            slot.claim = slot.newClaim;
            slot.frame = slot.newFrame;
        }
        slot.tries = 0;
        slot.due = ticks();
        if (!open(slot))
            end(slot,
                errno == ENODEV || errno == ENXIO || errno == ENETDOWN ? Answer::silent : Answer::heard);
    }
}

void Asker::end(Slot &slot, Answer answer)
{
    slot.sock.reset();
    slot.due = NEVER;
    const std::scoped_lock lock(mutex_);
    if (!slot.isNew) // else it is the answer to the question before
        slot.answer = answer;
}

void Asker::send(Slot &slot, Ticks now)
{
    if (slot.tries++ == TRIES) {
        end(slot, Answer::silent);
        return;
    }
    ::send(slot.sock.get(), slot.frame.bytes.data(), slot.frame.length, 0);
    slot.due = now + PATIENCE;
}

bool Asker::hears(Slot &slot)
{
    uint8_t frame[128];
    for (int i = 0; i < READS; i++) {
        const ssize_t length = recv(slot.sock.get(), frame, sizeof frame, 0);
        if (length < 0)
            return false;
        if (is_answer(frame, static_cast<size_t>(length), slot.claim.address, slot.claim.holder.mac))
            return true;
    }
    return false;
}

void Asker::run()
{
    for (;;) {
        std::array<pollfd, JUDGE_QUESTIONS + 1> descriptors;
        Ticks due = NEVER;
        for (size_t i = 0; i < slots_.size(); i++) {
            descriptors[i] = {slots_[i].sock.get(), POLLIN, 0};
            due = std::min(due, slots_[i].due);
        }
        descriptors.back() = {wakeup_.get(), POLLIN, 0};
        poll(descriptors.data(), descriptors.size(),
             due == NEVER ? -1 : static_cast<int>(std::max<Ticks>(due - ticks(), 0)));
        uint64_t count = 0;
        if (read(wakeup_.get(), &count, sizeof count) == sizeof count)
            take_new();
        const Ticks now = ticks();
        for (Slot &slot : slots_) {
            if (!slot.sock)
                continue;
            if (hears(slot)) {
                heard_(slot.claim);
                end(slot, Answer::heard);
            } else if (now >= slot.due) {
                send(slot, now);
            }
        }
    }
}

} // namespace platform_linux

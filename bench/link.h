// A packet socket on one device, many frames a call. A fault of the machine's own ends the program with a
// message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

constexpr size_t FRAME_ROOM = 2048;

[[noreturn]] void die(const std::string &what); // with errno's text

// A raw socket for frames of that EtherType that come in, never those that go out, on `device` or, when that
// is null, on every device. Its receive buffer takes 4 MiB.
int open_packet_socket(const char *device, uint16_t etherType);

class Link
{
  public:
    static constexpr size_t BATCH = 64;

    Link(const std::string &device, uint16_t etherType);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    const uint8_t *address() const { return address_; }

    // Puts a frame in line. Sends the line when it is full.
    void send(std::span<const uint8_t> frame);
    void flush();

    // Hands every frame that is there, at most BATCH, to `take`, and gives their number. Does not wait.
    template <class Take> size_t receive(Take take)
    {
        const size_t count = receive_batch();
        for (size_t i = 0; i < count; i++)
            take(std::span<const uint8_t>(room_[i], lengths_[i]));
        return count;
    }

  private:
    size_t receive_batch();

    int socket_;
    uint8_t address_[6];
    std::vector<std::vector<uint8_t>> line_;
    uint8_t room_[BATCH][FRAME_ROOM];
    size_t lengths_[BATCH];
};

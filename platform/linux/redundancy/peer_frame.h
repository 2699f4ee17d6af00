// What travels between two units, inside TLS: a header of 8 bytes (magic "DSNP", version, type, length;
// network order) and a payload whose length its type fixes. The first message that is none ends the
// connection.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "unit_record.h"

namespace platform_linux
{

enum class PeerMessage : uint8_t {
    hello = 1,   // the sender's role (DhcpsnoopRole) and 3 zero bytes; first, and whenever the role changes
    record,      // a UnitRecord
    copyBegin,   // the records up to copyEnd are a full copy, but for changes between them
    copyEnd,     // how many records stood in between, 4 bytes
    copyRequest, // please send a full copy
    alive,       // nothing else to say
};

constexpr size_t PEER_HEADER_LEN = 8, PEER_FRAME_MAX = PEER_HEADER_LEN + UNIT_RECORD_LEN;

struct PeerFrame {
    PeerMessage type;
    std::array<uint8_t, UNIT_RECORD_LEN> payload; // as much of it as the type has
};

// The payload's length; none for a type that there is not.
std::optional<size_t> peer_payload_length(uint8_t type);

// Writes one frame, PEER_FRAME_MAX bytes at most, and gives its length.
size_t peer_frame_write(uint8_t *out, PeerMessage type, std::span<const uint8_t> payload);

// Takes the stream in pieces of any size.
class PeerFrameReader
{
  public:
    // The next frame, of which bytes are taken off `bytes`; none when more are needed or the stream is no
    // good.
    std::optional<PeerFrame> next(std::span<const uint8_t> &bytes);

    // What is wrong with the stream, null when nothing is.
    const char *fault() const { return fault_; }

  private:
    std::array<uint8_t, PEER_FRAME_MAX> buffer_{};
    size_t used_ = 0;
    const char *fault_ = nullptr;
};

} // namespace platform_linux

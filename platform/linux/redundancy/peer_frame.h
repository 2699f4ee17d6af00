// The messages between two units, inside TLS: a header of 8 bytes (magic "DSNP", version, type, length;
// network order) and a payload whose length depends on the type. A malformed message ends the connection.
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
    copyBegin,   // the records up to copyEnd are a full copy, with changes among them
    copyEnd,     // the number of records in between, 4 bytes
    copyRequest, // please send a full copy
    alive,       // sent when nothing else is
};

constexpr size_t PEER_HEADER_LEN = 8, PEER_FRAME_MAX = PEER_HEADER_LEN + UNIT_RECORD_LEN;

struct PeerFrame {
    PeerMessage type;
    std::array<uint8_t, UNIT_RECORD_LEN> payload; // the type has its length
};

// The payload's length; none for an unknown type.
std::optional<size_t> peer_payload_length(uint8_t type);

// Writes one frame, PEER_FRAME_MAX bytes at most, and gives its length.
size_t peer_frame_write(uint8_t *out, PeerMessage type, std::span<const uint8_t> payload);

// Takes the stream in pieces of any size.
class PeerFrameReader
{
  public:
    // The next frame, taken off `bytes`; none when more bytes are needed or the stream has a fault.
    std::optional<PeerFrame> next(std::span<const uint8_t> &bytes);

    // The fault of the stream, or null.
    const char *fault() const { return fault_; }

  private:
    std::array<uint8_t, PEER_FRAME_MAX> buffer_{};
    size_t used_ = 0;
    const char *fault_ = nullptr;
};

} // namespace platform_linux

#include "peer_frame.h"

#include <algorithm>
#include <cstring>

#include "wire.h"

namespace platform_linux
{
namespace
{
constexpr uint32_t MAGIC = 0x44534E50; // "DSNP"
constexpr uint8_t VERSION = 1;
constexpr size_t OFFSET_VERSION = 4, OFFSET_TYPE = 5, OFFSET_LENGTH = 6;

// The fault of a header, or null.
const char *header_fault(const uint8_t *header)
{
    if (wire_get32(header) != MAGIC)
        return "not our protocol";
    if (header[OFFSET_VERSION] != VERSION)
        return "another version of the protocol";
    const auto length = peer_payload_length(header[OFFSET_TYPE]);
    if (!length)
        return "a message of no known type";
    return wire_get16(header + OFFSET_LENGTH) != *length ? "a message of the wrong length" : nullptr;
}
} // namespace

std::optional<size_t> peer_payload_length(uint8_t type)
{
    switch (static_cast<PeerMessage>(type)) {
    case PeerMessage::hello:
    case PeerMessage::copyEnd:
        return 4;
    case PeerMessage::record:
        return UNIT_RECORD_LEN;
    case PeerMessage::copyBegin:
    case PeerMessage::copyRequest:
    case PeerMessage::alive:
        return 0;
    }
    return {};
}

size_t peer_frame_write(uint8_t *out, PeerMessage type, std::span<const uint8_t> payload)
{
    const auto number = static_cast<uint8_t>(type);
    const size_t length = peer_payload_length(number).value_or(0);
    wire_put32(out, MAGIC);
    out[OFFSET_VERSION] = VERSION;
    out[OFFSET_TYPE] = number;
    wire_put16(out + OFFSET_LENGTH, static_cast<uint32_t>(length));
    memset(out + PEER_HEADER_LEN, 0, length);
    std::copy_n(payload.begin(), std::min(length, payload.size()), out + PEER_HEADER_LEN);
    return PEER_HEADER_LEN + length;
}

std::optional<PeerFrame> PeerFrameReader::next(std::span<const uint8_t> &bytes)
{
    const auto fill = [&](size_t wanted) {
        const size_t count = std::min(wanted - used_, bytes.size());
        std::copy_n(bytes.begin(), count, buffer_.begin() + static_cast<ptrdiff_t>(used_));
        bytes = bytes.subspan(count);
        used_ += count;
        return used_ == wanted;
    };
    if (fault_ != nullptr || (used_ < PEER_HEADER_LEN && !fill(PEER_HEADER_LEN)))
        return {};
    fault_ = header_fault(buffer_.data());
    if (fault_ != nullptr)
        return {};
    const size_t length = wire_get16(&buffer_[OFFSET_LENGTH]);
    if (!fill(PEER_HEADER_LEN + length))
        return {};
    PeerFrame frame{};
    frame.type = static_cast<PeerMessage>(buffer_[OFFSET_TYPE]);
    std::copy_n(buffer_.begin() + PEER_HEADER_LEN, length, frame.payload.begin());
    used_ = 0;
    return frame;
}

} // namespace platform_linux

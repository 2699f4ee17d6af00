// The journal reader, and the reader of the peer's stream, on bytes of any content and in pieces of any size. Both find the same
// records however it is cut, and each is one that would be written again as it is. The first byte of an input says what it is
// (bit 7: the peer's stream, bit 6: slots with true sums) and how it is cut.
#include <algorithm>
#include <cstring>
#include <zlib.h>

#include "input.h"
#include "journal.h"
#include "peer_frame.h"
#include "report.h"
#include "wire.h"

using namespace platform_linux;

namespace
{
constexpr uint32_t NOW = 1'700'000'000;
using Bytes = std::vector<uint8_t>;
using Records = std::vector<UnitRecord>;

Records read_journal(const Bytes &bytes, size_t piece)
{
    Records records;
    JournalReader reader([&records](const JournalRecord &read) { records.push_back(read.record); });
    for (size_t at = 0; at < bytes.size(); at += piece)
        reader.feed({&bytes[at], std::min(piece, bytes.size() - at)});
    reader.finish();
    if (reader.records() != records.size() || records.size() * JOURNAL_SLOT > bytes.size() ||
        (reader.damaged() != 0) != (records.size() * JOURNAL_SLOT < bytes.size()))
        fault("%zu records and damage %u in %zu bytes", records.size(), static_cast<unsigned>(reader.damaged()), bytes.size());
    return records;
}

Records read_stream(const Bytes &bytes, size_t piece)
{
    Records records;
    PeerFrameReader reader;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        std::span<const uint8_t> rest(&bytes[at], std::min(piece, bytes.size() - at));
        while (const auto frame = reader.next(rest))
            if (frame->type == PeerMessage::record)
                if (const auto record = unit_decode(frame->payload, NOW, UnitClock::peers))
                    records.push_back(*record);
        if (!rest.empty() && reader.fault() == nullptr)
            fault("bytes left in a sound stream");
    }
    return records;
}

} // namespace

// The platform's own log.
void platform_linux::platform_report(int, const char *, ...) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t how = size != 0 ? data[0] : 0;
    Bytes bytes(data + (size != 0 ? 1 : 0), data + size);
    for (size_t at = 0; (how & 0x40) != 0 && at + JOURNAL_SLOT <= bytes.size(); at += JOURNAL_SLOT)
        wire_put32(&bytes[at + JOURNAL_SLOT - 4], static_cast<uint32_t>(crc32(0, &bytes[at], JOURNAL_SLOT - 4)));
    const auto read = (how & 0x80) != 0 ? read_stream : read_journal;
    const Records whole = read(bytes, bytes.size() + 1);
    if (read(bytes, (how & 0x3F) + size_t{1}) != whole)
        fault("other records in other pieces");
    for (const UnitRecord &record : whole) {
        const auto again = unit_decode(unit_encode(record, NOW), NOW, UnitClock::own);
        if (!again || *again != record || memchr(record.port, 0, sizeof record.port) == nullptr)
            fault("a record that is not its own bytes");
        if (record.type != SYNC_USER)
            continue;
        const SyncUserRecord user = unit_to_user(record, 1);
        if (user.hwFlags != 0 || user.key.ipType < 1 || user.key.ipType > 2 || user.key.reserved[0] != 0 ||
            (user.key.ipType == 1 && user.key.ipAddr[4] != 0) || user.userType > DHCPSNOOP_USER_STATIC)
            fault("a binding that there is not");
    }
    return 0;
}

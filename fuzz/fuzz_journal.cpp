// The journal reader, and the reader of the peer's stream, on bytes of any content and in pieces of any size.
// Whatever comes in, both find the same records however it is cut, no more of them than there is room for,
// and each is one that would be written again as it is. The first byte of an input says what it is and how it
// is cut.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <zlib.h>

#include "journal.h"
#include "peer_frame.h"
#include "report.h"
#include "wire.h"

using namespace platform_linux;

namespace
{
constexpr uint32_t NOW = 1'700'000'000;
constexpr uint8_t STREAM = 0x80;    // the peer's; else a journal
constexpr uint8_t TRUE_SUMS = 0x40; // of the slots where they belong, so that what stands in them counts

using Bytes = std::vector<uint8_t>;
using Records = std::vector<UnitRecord>;

void demand(bool holds, const char *what)
{
    if (holds)
        return;
    fprintf(stderr, "FAULT: %s\n", what);
    abort();
}

void check(const UnitRecord &record)
{
    const UnitBytes bytes = unit_encode(record, NOW);
    const auto again = unit_decode(bytes, NOW, UnitClock::own);
    demand(again && *again == record, "a record that is not its own bytes");
    demand(memchr(record.port, 0, sizeof record.port) != nullptr, "a port's name without an end");
    if (record.type == SYNC_USER) {
        const SyncUserRecord user = unit_to_user(record, 1);
        demand(user.hwFlags == 0 && user.key.ipType >= 1 && user.key.ipType <= 2, "a key that there is not");
        demand(user.key.reserved[0] == 0 && (user.key.ipType == 2 || user.key.ipAddr[4] == 0),
               "a key with bytes that count for nothing");
        demand(user.userType <= DHCPSNOOP_USER_STATIC, "an IP source guard binding");
    }
}

Records read_journal(const Bytes &bytes, size_t piece)
{
    Records records;
    JournalReader reader(NOW, [&records](const UnitRecord &record) { records.push_back(record); });
    for (size_t at = 0; at < bytes.size(); at += piece)
        reader.feed({&bytes[at], std::min(piece, bytes.size() - at)});
    reader.finish();
    demand(reader.records() == records.size(), "records that were not given");
    const size_t rest = bytes.size() - records.size() * JOURNAL_SLOT;
    demand(records.size() * JOURNAL_SLOT <= bytes.size(), "more records than bytes");
    demand((reader.damaged() != 0) == (rest != 0) && reader.damaged() <= rest, "damage that is none");
    return records;
}

Records read_stream(const Bytes &bytes, size_t piece)
{
    Records records;
    PeerFrameReader reader;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        std::span<const uint8_t> rest(&bytes[at], std::min(piece, bytes.size() - at));
        while (const auto frame = reader.next(rest)) {
            demand(peer_payload_length(static_cast<uint8_t>(frame->type)).has_value(),
                   "a type that there is not");
            if (frame->type != PeerMessage::record)
                continue;
            if (const auto record = unit_decode(frame->payload, NOW, UnitClock::peers))
                records.push_back(*record);
        }
        demand(rest.empty() || reader.fault() != nullptr, "bytes left in a sound stream");
    }
    demand(records.size() * PEER_FRAME_MAX <= bytes.size(), "more records than bytes");
    return records;
}

} // namespace

// The platform's own log.
void platform_linux::platform_report(int, const char *, ...) {}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const uint8_t how = data[0];
    Bytes bytes(data + 1, data + size);
    if ((how & TRUE_SUMS) != 0)
        for (size_t at = 0; at + JOURNAL_SLOT <= bytes.size(); at += JOURNAL_SLOT)
            wire_put32(&bytes[at + JOURNAL_SLOT - 4],
                       static_cast<uint32_t>(crc32(0, &bytes[at], JOURNAL_SLOT - 4)));
    const auto read = (how & STREAM) != 0 ? read_stream : read_journal;
    const Records whole = read(bytes, bytes.size() + 1);
    demand(read(bytes, (how & 0x3F) + size_t{1}) == whole, "other records in other pieces");
    for (const UnitRecord &record : whole)
        check(record);
    return 0;
}

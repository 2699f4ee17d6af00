// The Linux platform's redundancy: records as they travel and lie in the journal (bytes laid out by hand, their
// checksum from Python's zlib), a journal of any content, the peer's stream, the file that configures both.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include "change_queue.h"
#include "journal.h"
#include "peer_frame.h"
#include "redundancy_conf.h"

using namespace platform_linux;

namespace
{
using Bytes = std::vector<uint8_t>;
constexpr uint32_t WRITTEN = 1500; // clock's reading in RECORD

Bytes unhex(const std::string &text)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

// 10.0.10.2, dynamic, bound, VLAN 10 on swp1, leased for 3600 s at 1000.
const Bytes RECORD = unhex("01010101"                         // user, add, IPv4, dynamic
                           "0a000a02000000000000000000000000" // address
                           "73777031000000000000000000000000" // port
                           "000a000a"                         // VLAN, original VLAN
                           "00000e10000003e8000005dc"         // lease time, start, clock
                           "013012340200000001020000");       // state, MAC mark, attribute, MAC
const Bytes SLOT = unhex("44534a31010101010a000a0200000000000000000000000073777031000000000000000000000000"
                         "000a000a00000e10000003e8000005dc013012340200000001020000d8d6b8b8");

UnitRecord record_made()
{
    UnitRecord record{};
    record.type = SYNC_USER;
    record.add = true;
    record.ipType = record.userType = record.bindState = 1;
    record.macMark = 0x30;
    record.userAttr = 0x1234;
    const uint8_t address[] = {10, 0, 10, 2}, mac[] = {2, 0, 0, 0, 1, 2};
    memcpy(record.address, address, sizeof address);
    memcpy(record.mac, mac, sizeof mac);
    strcpy(record.port, "swp1");
    record.vid = record.origVid = 10;
    record.leaseTime = 3600;
    record.leaseStart = 1000;
    return record;
}

std::optional<UnitRecord> decode(const Bytes &bytes, uint32_t now = WRITTEN, UnitClock clock = UnitClock::own)
{
    return unit_decode(std::span<const uint8_t, UNIT_RECORD_LEN>(bytes.data(), UNIT_RECORD_LEN), now, clock);
}

TEST(UnitRecord, IsItsBytes)
{
    const UnitBytes bytes = unit_encode(record_made(), WRITTEN);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), RECORD);
    EXPECT_EQ(decode(RECORD), record_made());
    // To the daemon without the marks of another data plane.
    const SyncUserRecord user = unit_to_user(record_made(), 7);
    EXPECT_EQ(user.ifIndex, 7U);
    EXPECT_EQ(user.hwFlags, 0);
    EXPECT_EQ(unit_from_user(user, "swp1"), record_made());
}

TEST(UnitRecord, RefusesWhatIsNone)
{
    struct Case {
        const char *claim;
        size_t offset;
        uint8_t value;
    };
    const Case CASES[] = {
        {"a type that there is not", 0, 3},
        {"neither add nor delete", 1, 2},
        {"no IP version", 2, 3},
        {"an IPv4 address of 5 bytes", 8, 1},
        {"an IP source guard binding", 3, 4},
        {"no type of binding", 3, 0},
        {"a port's name with a slash", 22, '/'},
        {"a port's name with a blank", 22, ' '},
        {"bytes behind the end of the name", 30, 'x'},
        {"a control character in the name", 21, '\n'},
        {"an IPv6 server", 0, 2},
    };
    for (const Case &row : CASES) {
        Bytes bytes = RECORD;
        bytes[row.offset] = row.value;
        if (row.value == 2 && row.offset == 0)
            bytes[2] = DHCPSNOOP_IPV6;
        EXPECT_FALSE(decode(bytes)) << row.claim;
    }
    Bytes endless = RECORD;
    std::fill_n(endless.begin() + 20, IFNAMSIZ, 'x');
    EXPECT_FALSE(decode(endless)) << "a name without an end";
}

TEST(UnitRecord, CountsTheTimeThatPassed)
{
    struct Case {
        const char *claim;
        UnitClock clock;
        uint32_t now, start;
    };
    const Case CASES[] = {
        {"the journal's clock went on", UnitClock::own, 2500, 1000},
        {"it was set back before the record was made", UnitClock::own, 1400, 900},
        {"the peer's clock is far ahead", UnitClock::peers, 100, static_cast<uint32_t>(100 - 500)},
        {"the peer's clock is behind", UnitClock::peers, 9000, 8500},
    };
    for (const Case &row : CASES)
        EXPECT_EQ(decode(RECORD, row.now, row.clock)->leaseStart, row.start) << row.claim;
    Bytes future = RECORD;
    future[46] = 0xFF; // started long after it was written
    EXPECT_EQ(decode(future, 9000, UnitClock::peers)->leaseStart, 9000U);

    UnitRecord record = record_made();
    EXPECT_FALSE(record.expired(4599));
    EXPECT_TRUE(record.expired(4600));
    EXPECT_FALSE(record.expired(900)) << "the clock was set back";
    record.userType = DHCPSNOOP_USER_STATIC;
    EXPECT_FALSE(record.expired(1 << 30));
    record = record_made();
    record.leaseTime = DHCPSNOOP_LEASE_FOREVER;
    EXPECT_FALSE(record.expired(1000U + INT32_MAX));
}

// ---- the journal

Bytes slots(int count)
{
    Bytes bytes;
    for (int i = 0; i < count; i++)
        bytes.insert(bytes.end(), SLOT.begin(), SLOT.end());
    return bytes;
}

struct JournalCase {
    const char *claim;
    std::function<void(Bytes &)> damage; // of three records
    uint64_t records, damaged;
};
const JournalCase JOURNAL_CASES[] = {
    {"whole", [](Bytes &) {}, 3, 0},
    {"empty", [](Bytes &b) { b.clear(); }, 0, 0},
    {"torn in the last record", [](Bytes &b) { b.pop_back(); }, 2, 1},
    {"torn after its first byte", [](Bytes &b) { b.resize(2 * JOURNAL_SLOT + 1); }, 2, 1},
    {"a flipped bit", [](Bytes &b) { b[JOURNAL_SLOT + 30] ^= 4; }, 2, 1},
    {"a flipped bit in the mark", [](Bytes &b) { b[JOURNAL_SLOT] ^= 4; }, 2, 1},
    {"a flipped bit in the sum", [](Bytes &b) { b[JOURNAL_SLOT - 1] ^= 4; }, 2, 1},
    {"a byte too many before", [](Bytes &b) { b.insert(b.begin(), 'D'); }, 3, 1},
    {"a byte lost in the middle", [](Bytes &b) { b.erase(b.begin() + JOURNAL_SLOT + 9); }, 2, 1},
    {"two records zeroed", [](Bytes &b) { std::fill_n(b.begin(), 2 * JOURNAL_SLOT, uint8_t{}); }, 1, 2},
    {"nothing but marks", [](Bytes &b) {
         for (size_t i = 0; i < b.size(); i++)
             b[i] = SLOT[i % 4];
     },
     0, 3},
};

TEST(JournalReader, LosesTheDamagedRecordOnly)
{
    for (const JournalCase &row : JOURNAL_CASES) {
        for (const size_t piece : {size_t{1}, size_t{71}, size_t{1} << 16}) {
            Bytes bytes = slots(3);
            row.damage(bytes);
            uint64_t right = 0;
            JournalReader reader(WRITTEN, [&](const UnitRecord &record) { right += record == record_made(); });
            for (size_t at = 0; at < bytes.size(); at += piece)
                reader.feed({&bytes[at], std::min(piece, bytes.size() - at)});
            reader.finish();
            EXPECT_EQ(right, row.records) << row.claim << ", pieces of " << piece;
            EXPECT_EQ(reader.records(), row.records) << row.claim << ", pieces of " << piece;
            EXPECT_EQ(reader.damaged(), row.damaged) << row.claim << ", pieces of " << piece;
        }
    }
}

UnitRecord numbered(uint32_t number)
{
    UnitRecord record = record_made();
    const uint32_t address = htonl(0x0A000000 + number);
    memcpy(record.address, &address, sizeof address);
    return record;
}

class JournalFile : public testing::Test
{
  protected:
    void SetUp() override
    {
        char path[] = "/tmp/journal-XXXXXX";
        directory_ = mkdtemp(path);
        path_ = directory_ + "/journal";
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }

    // What a restart finds.
    UnitTable reopened()
    {
        UnitTable table;
        Journal journal;
        std::string error;
        EXPECT_TRUE(journal.open(path_, 1 << 30, table, error)) << error;
        return table;
    }

    std::string directory_, path_;
};

TEST_F(JournalFile, KeepsWhatWasWrittenAndStaysSmall)
{
    UnitTable table;
    auto owner = std::make_unique<Journal>();
    Journal &journal = *owner;
    std::string error;
    ASSERT_TRUE(journal.open(path_, WRITTEN, table, error)) << error;
    UnitRecord record = numbered(1);
    ASSERT_TRUE(table.apply(record));
    journal.append(unit_encode(record, WRITTEN));
    journal.write(table, WRITTEN, false); // not on the disk, but no longer the process's
    UnitTable other;
    Journal second;
    EXPECT_FALSE(second.open(path_, WRITTEN, other, error)) << "two daemons with one journal";
    EXPECT_NE(error.find("another daemon's"), std::string::npos) << error;

    // 100,000 renewals of one lease, a delete, and a file that is no longer than what it holds.
    for (uint32_t i = 0; i < 100'000; i++) {
        record.leaseStart = WRITTEN + i;
        table.apply(record);
        journal.append(unit_encode(record, WRITTEN + i));
        if (i % 100 == 0)
            journal.write(table, WRITTEN + i, false);
        ASSERT_LT(std::filesystem::file_size(path_), size_t{3} << 20);
    }
    EXPECT_TRUE(table.apply(numbered(2)));
    journal.append(unit_encode(numbered(2), WRITTEN));
    UnitRecord gone = numbered(2);
    gone.add = false;
    EXPECT_TRUE(table.apply(gone));
    journal.append(unit_encode(gone, WRITTEN));
    journal.write(table, WRITTEN, true);
    EXPECT_FALSE(journal.is_dirty());
    owner.reset();
    const UnitTable found = reopened();
    ASSERT_EQ(found.held().size(), 1U);
    EXPECT_EQ(found.held().begin()->second.record.leaseStart, WRITTEN + 99'999);
}

TEST_F(JournalFile, GoesOnBehindATornEnd)
{
    Bytes bytes = slots(1);
    bytes.resize(JOURNAL_SLOT + 10);
    bytes.insert(bytes.begin(), SLOT.begin(), SLOT.end());
    bytes[2 * JOURNAL_SLOT - 20] ^= 1;
    std::ofstream(path_, std::ios::binary).write(reinterpret_cast<char *>(bytes.data()), static_cast<long>(bytes.size()));
    {
        UnitTable table;
        Journal journal;
        std::string error;
        ASSERT_TRUE(journal.open(path_, WRITTEN, table, error)) << error;
        EXPECT_EQ(journal.damaged(), 2U);
        EXPECT_EQ(table.held().size(), 1U);
        table.apply(numbered(5));
        journal.append(unit_encode(numbered(5), WRITTEN));
        journal.write(table, WRITTEN, true);
    }
    EXPECT_EQ(reopened().held().size(), 2U);
}

TEST_F(JournalFile, KeepsWhatIsNoJournal)
{
    std::ofstream(path_) << "another version's, or the operator's";
    EXPECT_EQ(reopened().held().size(), 0U);
    std::string kept;
    std::getline(std::ifstream(path_ + ".damaged"), kept);
    EXPECT_EQ(kept, "another version's, or the operator's");
    EXPECT_EQ(std::filesystem::file_size(path_), 0U);
}

// ---- the table and the queue

TEST(UnitTable, ForgetsWhatAFullCopyHasNot)
{
    UnitTable table;
    for (uint32_t i = 0; i < 4; i++)
        table.apply(numbered(i), i == 3); // the last one waits for its port
    EXPECT_FALSE(table.apply(numbered(0))) << "nothing new";
    table.copy_begin();
    table.apply(numbered(1));
    table.apply(numbered(9)); // new within the copy
    const auto gone = table.copy_end();
    ASSERT_EQ(gone.size(), 2U);
    for (const UnitRecord &record : gone)
        EXPECT_TRUE(!record.add && (record.address[3] == 0 || record.address[3] == 2));
    EXPECT_EQ(table.held().size(), 3U);
    EXPECT_EQ(table.expire_parked(4599).size(), 0U);
    EXPECT_EQ(table.expire_parked(4600).size(), 1U) << "only the one that waits: the others are the daemon's";
    for (uint32_t i = 0; i < UNIT_TABLE_MAX + 10; i++)
        table.apply(numbered(i));
    EXPECT_EQ(table.held().size(), UNIT_TABLE_MAX);
}

TEST(ChangeQueue, CountsWhatFindsNoRoom)
{
    ChangeQueue queue(2);
    const Change change{Change::Kind::record, numbered(1)};
    EXPECT_TRUE(queue.push({&change, 1})) << "the taker waits";
    EXPECT_FALSE(queue.push({&change, 1})) << "it is awake already";
    queue.push({&change, 1});
    const auto taken = queue.take();
    EXPECT_EQ(taken.changes.size(), 2U);
    EXPECT_EQ(taken.dropped, 1U);
    EXPECT_FALSE(queue.push({&change, 1})) << "it looks again before it waits";
    EXPECT_EQ(queue.take().changes.size(), 1U);
    EXPECT_EQ(queue.take().changes.size(), 0U);
    EXPECT_TRUE(queue.push({&change, 1}));
}

// ---- the peer's stream

Bytes frame_of(PeerMessage type, const Bytes &payload = {})
{
    Bytes bytes(PEER_FRAME_MAX);
    bytes.resize(peer_frame_write(bytes.data(), type, payload));
    return bytes;
}

TEST(PeerFrames, AreCutAnywhere)
{
    EXPECT_EQ(frame_of(PeerMessage::copyEnd, {0, 0, 1, 2}), unhex("44534e5001040004"
                                                                  "00000102"));
    EXPECT_EQ(frame_of(PeerMessage::alive), unhex("44534e5001060000"));
    Bytes stream = frame_of(PeerMessage::hello, {1, 0, 0, 0});
    for (const Bytes &next : {frame_of(PeerMessage::record, RECORD), frame_of(PeerMessage::copyBegin)})
        stream.insert(stream.end(), next.begin(), next.end());
    for (const size_t piece : {size_t{1}, size_t{7}, size_t{8}, size_t{13}, stream.size()}) {
        PeerFrameReader reader;
        std::vector<PeerFrame> frames;
        for (size_t at = 0; at < stream.size(); at += piece) {
            std::span<const uint8_t> bytes(&stream[at], std::min(piece, stream.size() - at));
            while (const auto frame = reader.next(bytes))
                frames.push_back(*frame);
        }
        ASSERT_EQ(frames.size(), 3U) << piece;
        EXPECT_EQ(frames[0].payload[0], 1);
        EXPECT_TRUE(std::equal(RECORD.begin(), RECORD.end(), frames[1].payload.begin()));
        EXPECT_EQ(frames[2].type, PeerMessage::copyBegin);
    }
}

TEST(PeerFrames, OfAnotherKindEndTheStream)
{
    struct Case {
        const char *claim, *bytes, *fault;
    };
    const Case CASES[] = {
        {"another protocol", "474554202f20485454", "not our protocol"},
        {"a newer version", "44534e5002060000", "another version of the protocol"},
        {"an unknown type", "44534e5001070000", "a message of no known type"},
        {"type 0", "44534e5001000000", "a message of no known type"},
        {"a record that is short", "44534e500102003f", "a message of the wrong length"},
        {"the largest length", "44534e500102ffff", "a message of the wrong length"},
    };
    for (const Case &row : CASES) {
        PeerFrameReader reader;
        Bytes stream = unhex(row.bytes);
        const Bytes more = frame_of(PeerMessage::alive);
        stream.insert(stream.end(), more.begin(), more.end());
        std::span<const uint8_t> bytes = stream;
        EXPECT_FALSE(reader.next(bytes)) << row.claim;
        EXPECT_STREQ(reader.fault(), row.fault) << row.claim;
        EXPECT_FALSE(reader.next(bytes)) << row.claim << ": nothing behind it counts";
    }
}

// ---- the file

TEST(RedundancyConf, SaysWhereAndWhatIsWrong)
{
    const std::string FILES = "certificate /a\nkey /b\nauthority /c\npeer right\n";
    const std::pair<std::string, const char *> CASES[] = {
        {"", nullptr},
        {"journal off # here\n", nullptr},
        {"listen 192.0.2.1:4747\n" + FILES, nullptr},
        {"connect [2001:db8::1]:4747\n" + FILES, nullptr},
        {"\nlisten 192.0.2.1\n", "f:2: expected: listen ADDRESS:PORT, an IPv6 address in [brackets]"},
        {"connect peer.example:1\n", "f:1: expected: connect ADDRESS:PORT, an IPv6 address in [brackets]"},
        {"connect 192.0.2.1:65536\n", "f:1: expected: connect ADDRESS:PORT, an IPv6 address in [brackets]"},
        {"listen 192.0.2.1:1\nconnect 192.0.2.2:1\n",
         "f:2: the peer's address is set already: one unit listens, the other connects"},
        {"journal here\n", "f:1: expected: journal /FILE, or journal off"},
        {"journal off\njournal off\n", "f:2: the journal is set already"},
        {"key b\n", "f:1: 'b' is no absolute path"},
        {"peer a b\n", "f:1: expected: peer NAME"},
        {"key /a\nkey /b\n", "f:2: the key is set already"},
        {"keys /a\n", "f:1: 'keys' is none of listen, connect, certificate, key, authority, peer and journal"},
        {FILES, "f:4: a peer takes all of listen or connect, certificate, key, authority and peer"},
        {"listen 192.0.2.1:1\n", "f:1: a peer takes all of listen or connect, certificate, key, authority and peer"},
    };
    for (const auto &[text, wanted] : CASES) {
        RedundancyConf conf;
        std::string error;
        EXPECT_EQ(redundancy_conf_parse("f", text, conf, error), wanted == nullptr) << text << error;
        EXPECT_EQ(error, wanted == nullptr ? "" : wanted) << text;
    }
    RedundancyConf conf;
    std::string error;
    ASSERT_TRUE(redundancy_conf_parse("f", "listen 192.0.2.1:4747\n" + FILES + "journal /j\n", conf, error));
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, &conf.peer->address.sin6_addr, text, sizeof text);
    EXPECT_STREQ(text, "::ffff:192.0.2.1");
    EXPECT_TRUE(conf.peer->listens && ntohs(conf.peer->address.sin6_port) == 4747 && conf.journal == "/j");
}
} // namespace

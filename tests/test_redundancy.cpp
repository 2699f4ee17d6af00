// The Linux platform's redundancy without its thread: records as they travel and lie in the journal (bytes laid out by
// hand, their checksum from Python's zlib), the journal, the table, the queue, a full copy's states and the
// peer's stream. Steps in words; what came of a row's steps, and of the log, is one line.
#include <gtest/gtest.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numeric>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "change_queue.h"
#include "frame.h"
#include "full_copy.h"
#include "journal.h"
#include "peer_frame.h"
#include "report.h"

using namespace platform_linux;

static std::string said;

void platform_linux::platform_report(int, const char *format, ...)
{
    char line[300];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    said += std::string(" '") + line + "'";
}

namespace
{
// 10.0.10.2, dynamic, bound, VLAN 10 on swp1, leased for 3600 s at 1000; the clock read 1500.
const std::string RECORD = "01010101"                         // user, add, IPv4, dynamic
                           "0a000a02000000000000000000000000" // address
                           "73777031000000000000000000000000" // port
                           "000a000a"                         // VLAN, original VLAN
                           "00000e10000003e8000005dc"         // lease time, start, clock
                           "013012340200000001020000";        // state, MAC mark, attribute, MAC
const std::string MARK = "44534a32";
const std::string SLOT = MARK + RECORD + "0000020000000209" // identity of the port
                                         "00000000"         // it is there
                                         "00000007000001f4" // boot, seconds since
                                         "e9476b64";
constexpr Moment NOW = {1500, 500, 7}, LATER = {1600, 600, 7};
const std::string USER = "user 1 56 v1 0a000a02000000000000000000000000 swp1/7 vlan 10/10 3600 from 1000 type 1 state 1 mark 48 attr 4660 mac 020000000102 hw 0";
const std::string FRAME = "44534e5001020040" + RECORD;

template <class... Words>
std::string text(const Words &...words)
{
    std::ostringstream out;
    (out << ... << words);
    return out.str();
}

std::string hex(std::span<const uint8_t> bytes)
{
    std::string out;
    for (const uint8_t byte : bytes)
        out += text("0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 15]);
    return out;
}

// Of type 0 when it is refused.
UnitRecord record_of(const Bytes &bytes, long now = 1500, UnitClock clock = UnitClock::own)
{
    const std::span<const uint8_t, UNIT_RECORD_LEN> record(bytes.data(), UNIT_RECORD_LEN);
    return unit_decode(record, static_cast<uint32_t>(now), clock).value_or(UnitRecord{});
}

struct World {
    std::string directory = text("/tmp/journal-", getpid()), path = directory + "/journal";
    UnitTable table;
    std::unique_ptr<Journal> journal;
    ChangeQueue queue{2};
    FullCopy copy;
    uint8_t userType = DHCPSNOOP_USER_DYNAMIC;
    Bytes bytes; // of a file, a record or a stream

    bool disk = true; // the small one could be had

    World() { std::filesystem::create_directory(directory); }
    ~World()
    {
        umount2(directory.c_str(), MNT_DETACH);
        std::filesystem::remove_all(directory);
    }

    std::string open(Journal &file)
    {
        std::string error;
        const bool opened = file.open(path, NOW, table, error);
        return opened ? text(table.held().size(), " held, ", file.damaged(), " damaged") : error;
    }

    // The binding of 10.0.0.n, from then on.
    std::string apply(long n, bool add, const UnitPlace &place = {}, long start = 1000)
    {
        static const UnitRecord made = record_of(hex_bytes(RECORD));
        UnitRecord record = made;
        std::ranges::copy(be32(static_cast<uint32_t>(0x0A000000 + n)), record.address);
        record.add = add;
        record.userType = userType;
        record.leaseStart = static_cast<uint32_t>(start);
        if (journal)
            journal->append(record, place, NOW);
        return table.apply(record, place) ? "" : "same";
    }

    // As the daemon gets it on port 7.
    std::string own() const
    {
        const UnitRecord record = record_of(bytes);
        const SyncServerRecord s = unit_to_server(record, 7);
        const SyncUserRecord u = unit_to_user(record, 7);
        const bool same = !record.add || (record.type == SYNC_SERVER ? unit_from_server(s, record.port) : unit_from_user(u, record.port)) == record;
        const char *end = same && hex(unit_encode(record, 1500)) == hex(bytes) ? "" : ", other bytes back";
        if (record.type == 0)
            return "none";
        if (record.type == SYNC_SERVER)
            return text("server ", +s.header.add, " ", s.header.length, " ", s.serverIp, " ", record.port, "/", s.ifIndex, " vlan ", s.vid, end);
        return text("user ", +u.header.add, " ", u.header.length, " v", +u.key.ipType, " ", hex(u.key.ipAddr), " ", record.port, "/", u.ifIndex, " vlan ", u.vid, "/", u.origVid, " ", u.leaseTime, " from ", u.leaseStart, " type ", +u.userType, " state ", +u.bindState, " mark ", +u.macMark, " attr ", u.userAttr, " mac ", hex(u.mac), " hw ", u.hwFlags | u.ipsgHwId | u.daiHwId, end);
    }

    // As a journal and, each frame written again, as the peer's stream.
    std::string read(bool asStream, size_t piece) const
    {
        size_t right = 0;
        std::string frames;
        JournalReader reader([&](const JournalRecord &read) { right += read.record == record_of(hex_bytes(RECORD)) && read.identity == 0x20000000209 && read.written.wall == 1500 && read.written.boot == 7; });
        PeerFrameReader stream;
        for (size_t at = 0; at < bytes.size(); at += piece) {
            std::span<const uint8_t> rest(&bytes[at], std::min(piece, bytes.size() - at));
            reader.feed(rest);
            while (const auto frame = stream.next(rest)) {
                Bytes again(PEER_FRAME_MAX, 0xEE);
                again.resize(peer_frame_write(again.data(), frame->type, frame->payload));
                frames += hex(again) + " ";
            }
        }
        reader.finish();
        if (asStream)
            return frames + (stream.fault() != nullptr ? stream.fault() : "sound");
        return text(right, " of ", reader.records(), ", ", reader.damaged(), " damaged");
    }

    // The same comes of pieces of any size.
    std::string in_pieces(bool asStream) const
    {
        for (const size_t piece : {1u, 7u, 8u, 13u, 91u})
            EXPECT_EQ(read(asStream, piece), read(asStream, 1 << 16)) << "in pieces of " << piece;
        return read(asStream, 1 << 16);
    }

    std::string held() const
    {
        return text(table.held().size(), " held", table.held().size() == 1 ? text(" from ", table.held().begin()->second.record.leaseStart) : "");
    }

    std::string size() const
    {
        return text(std::filesystem::file_size(path), "/", journal->size(), " bytes, ", journal->records(), " records", journal->rewritten() < 1700 ? text(" of ", journal->rewritten()) : "", journal->is_dirty() ? ", dirty" : "", journal->has_failed() ? ", failed" : "");
    }
};

std::string gone(const std::vector<UnitRecord> &records)
{
    std::set<std::string> words;
    for (const UnitRecord &record : records)
        words.insert(text(record.add ? " +" : " -", +record.address[3]));
    return std::accumulate(words.begin(), words.end(), std::string("gone"));
}

std::string yes(bool answer) { return answer ? "yes" : "no"; }

using N = const std::vector<long> &;
const std::map<std::string, void (*)(World &, N)> DOES = {
    {"set", [](World &w, N n) { std::copy(n.begin() + 1, n.end(), w.bytes.begin() + n[0]); }},
    {"fill", [](World &w, N n) { std::fill_n(w.bytes.begin() + n[0], n[1], static_cast<uint8_t>(n[2])); }},
    {"keep", [](World &w, N n) { w.bytes.resize(static_cast<size_t>(n[0])); }},
    {"lose", [](World &w, N n) { w.bytes.erase(w.bytes.begin() + n[0]); }},
    {"file", [](World &w, N) { std::ofstream(w.path) << std::string(w.bytes.begin(), w.bytes.end()); }},
    {"pipe", [](World &w, N) { mkfifo(w.path.c_str(), 0600); }},
    {"static", [](World &w, N) { w.userType = DHCPSNOOP_USER_STATIC; }},
    {"lease", [](World &w, N) { w.userType = DHCPSNOOP_USER_DYNAMIC; }},
    {"close", [](World &w, N) { w.journal.reset(); }},
    {"empty", [](World &w, N) { w.table = UnitTable(); }},
    {"write", [](World &w, N n) { w.journal->write(w.table, LATER, n[0] != 0); }},
    {"copy", [](World &w, N) { w.table.copy_begin(); }},
    {"want", [](World &w, N) { w.copy.want(); }},
    {"begin", [](World &w, N n) { w.copy.begin(n[0]); }},
    {"end", [](World &w, N n) { w.copy.end(n[0] != 0); }},
    {"disk", [](World &w, N n) { w.disk = unshare(CLONE_NEWNS) == 0 && mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && mount("tmpfs", w.directory.c_str(), "tmpfs", 0, text("size=", n[0]).c_str()) == 0; }},
    {"renew", [](World &w, N n) { for (long i = 0; i < n[0]; i++) { w.apply(1, true, {}, 1500 + i); if (i % 100 == 0) w.journal->write(w.table, LATER, false); } }},
    {"fill-up", [](World &w, N n) { for (long i = 0; !w.journal->has_failed() && i < n[0]; i++) w.apply(i % 100, true, {}, i), w.journal->write(w.table, NOW, true); }},
    {"lost", [](World &w, N) { w.copy.lost(); }},
    {"accept", [](World &w, N n) { w.table.clock_accept(static_cast<uint32_t>(n[0])); }},
};
const std::map<std::string, std::string (*)(World &, N)> TELLS = {
    {"own", [](World &w, N) { return w.own(); }},
    {"start", [](World &w, N n) { return text(record_of(w.bytes, n[0]).leaseStart); }},
    {"peers", [](World &w, N n) { return text(static_cast<int32_t>(record_of(w.bytes, n[0], UnitClock::peers).leaseStart)); }},
    {"ended", [](World &w, N n) { return yes(record_of(w.bytes).expired(static_cast<uint32_t>(n[0]))); }},
    {"read", [](World &w, N) { return w.in_pieces(false); }},
    {"frames", [](World &w, N) { return w.in_pieces(true); }},
    {"open", [](World &w, N) { return w.open(*(w.journal = std::make_unique<Journal>())); }},
    {"second", [](World &w, N) { return w.open(*std::make_unique<Journal>()); }},
    {"size", [](World &w, N) { return w.size(); }},
    {"kept", [](World &w, N) { return text(std::filesystem::file_size(w.path + ".damaged")); }},
    {"add", [](World &w, N n) { return w.apply(n[0], true); }},
    {"park", [](World &w, N n) { return w.apply(n[0], true, {UnitPlace::At::parked, 0, 0, static_cast<uint32_t>(n.back())}); }},
    {"delete", [](World &w, N n) { return w.apply(n[0], false); }},
    {"copied", [](World &w, N n) { return gone(w.table.copy_end(n[0] != 0)); }},
    {"expire", [](World &w, N n) { return gone(w.table.expire_parked(static_cast<uint32_t>(n[0]))); }},
    {"give-up", [](World &w, N n) { const auto held = w.table.give_up(static_cast<uint32_t>(n[0]), 500); return text(held.size(), " given up, ", w.table.waiting({}, 9).size(), " wait"); }},
    {"restart", [](World &w, N n) { w.table = {}; Journal journal; std::string error; journal.open(w.path, {static_cast<uint32_t>(n[0]), static_cast<uint32_t>(n[1]), static_cast<uint32_t>(n[2])}, w.table, error); return w.held() + text(", newest ", journal.newest()); }},
    {"set-ahead", [](World &w, N n) { return gone(w.table.clock_set(static_cast<int32_t>(n[0]))); }},
    {"held", [](World &w, N) { return w.held(); }},
    {"push", [](World &w, N n) { return yes(w.queue.push(std::vector<Change>(static_cast<size_t>(n[0])))); }},
    {"take", [](World &w, N) { const auto taken = w.queue.take(); return text(taken.changes.size(), ", ", taken.dropped, " lost"); }},
    {"ask", [](World &w, N n) { return yes(w.copy.ask(n[0])); }},
    {"late", [](World &w, N n) { return yes(w.copy.is_late(n[0])); }},
    {"state", [](World &w, N) { return text(w.copy.is_idle() ? "idle" : w.copy.is_open() ? "open"
                                                                                         : "due"); }},
};

// Separated by ';'; a step that is hexadecimal makes the bytes.
std::string play(World &world, const std::string &steps)
{
    std::string outcome, step;
    for (std::istringstream list(steps); std::getline(list, step, ';');) {
        std::istringstream words(step);
        std::string verb, told;
        words >> verb;
        std::vector<long> n(std::istream_iterator<long>(words), {});
        n.resize(std::max(n.size(), size_t{1}));
        if (DOES.contains(verb))
            DOES.at(verb)(world, n);
        else if (TELLS.contains(verb))
            told = TELLS.at(verb)(world, n);
        else
            world.bytes = hex_bytes(verb);
        if (!told.empty())
            outcome += (outcome.empty() ? "" : " / ") + told;
    }
    return outcome;
}

const std::string SLOTS = SLOT + SLOT + SLOT, MARKS = MARK + MARK + MARK + MARK + MARK + MARK + MARK + MARK + MARK + MARK;

TEST(Redundancy, PlaysItsRows)
{
    const struct {
        const char *claim;
        std::string steps, outcome;
    } rows[] = {
        {"a binding; the marks of another data plane are clear", RECORD + "; own", USER},
        {"a server", RECORD + "; set 0 2; set 3 0; fill 40 8 0; fill 52 12 0; own", "server 1 12 167774722 swp1/7 vlan 10"},
        {"a delete of any type", RECORD + "; set 1 0 1 0; own", "user 0 56 v1 0a000a02000000000000000000000000 swp1/0 vlan 0/0 0 from 0 type 0 state 0 mark 0 attr 0 mac 000000000000 hw 0"},
        {"no such type, operation, IP version or type of binding; an IP source guard binding", RECORD + "; set 0 3; own; set 0 0; own; " + RECORD + "; set 1 2; own; " + RECORD + "; set 2 3; own; set 2 0; own; " + RECORD + "; set 3 0; own; set 3 4; own", "none / none / none / none / none / none / none"},
        {"an IPv4 address of 5 bytes, of 16; an IPv6 server", RECORD + "; set 8 1; own; " + RECORD + "; set 19 1; own; " + RECORD + "; set 0 2; set 2 2; own", "none / none / none"},
        {"a port's name with a slash, a blank, a line end, a high byte; with bytes behind its end; without an end", RECORD + "; set 22 47; own; set 22 32; own; set 22 10; own; set 22 127; own; " + RECORD + "; set 30 120; own; fill 20 16 120; own", "none / none / none / none / none / none"},
        {"a lease of this start of the machine has its age, however the clock was set; one of an earlier start has its clock", SLOT + "; file; restart 9000 600 7; restart 1500 600 7; restart 1400 600 8; restart 2000 600 8", "1 held from 8400, newest 0 / 1 held from 900, newest 0 / 1 held from 1000, newest 1500 / 1 held from 1000, newest 1500"},
        {"leases keep their age when the clock is set; of an earlier start's it is accepted once", "add 1; set-ahead 1000; held; set-ahead -1500; held; accept 100; held; static; add 1; set-ahead 50; held", "gone +1 / 1 held from 2000 / gone +1 / 1 held from 500 / 1 held from 500 / gone / 1 held from 1000"},
        {"a clock that is behind stands where the machine went down", SLOT + "; file; restart 1400 600 8; set-ahead 1000; held; accept 100; held; set-ahead 1000; held", "1 held from 1000, newest 1500 / gone / 1 held from 1000 / 1 held from 900 / gone / 1 held from 1900"},
        {"the peer's clock is far ahead; behind", RECORD + "; peers 100; peers 9000", "-400 / 8500"},
        {"a start long after the record was written", RECORD + "; set 46 255; peers 9000", "9000"},
        {"a lease ends; not when the clock was set back", RECORD + "; ended 4599; ended 4600; ended 900", "no / yes / no"},
        {"static, for ever, or deleted: no end", RECORD + "; set 3 2; ended 9000; " + RECORD + "; fill 40 4 255; ended 2147483647; " + RECORD + "; set 1 0; ended 9000; " + RECORD + "; set 0 2; ended 9000", "no / no / no / no"},
        {"a whole journal", SLOTS + "; read", "3 of 3, 0 damaged"},
        {"an empty one", "read", "0 of 0, 0 damaged"},
        {"torn in the last record, after its first byte", SLOTS + "; keep 275; read; keep 185; read", "2 of 2, 1 damaged / 2 of 2, 1 damaged"},
        {"a flipped bit; in the mark; in the sum", SLOTS + "; set 122 4; read; " + SLOTS + "; set 92 0; read; " + SLOTS + "; set 91 0; read", "2 of 2, 1 damaged / 2 of 2, 1 damaged / 2 of 2, 1 damaged"},
        {"a byte too many before", "44" + SLOTS + "; read", "3 of 3, 1 damaged"},
        {"a byte lost in the middle; two records zeroed", SLOTS + "; lose 101; read; " + SLOTS + "; fill 0 184 0; read", "2 of 2, 1 damaged / 1 of 1, 2 damaged"},
        {"nothing but marks", MARKS + "; read", "0 of 0, 1 damaged"},
        {"a sound record that is none", MARK + std::string(168, '0') + "fdb1295c; read", "0 of 0, 1 damaged"},
        {"two daemons with one journal; the second gets it when the first ends", "open; second; add 1; write; size; write 1; size; close; empty; second; held", "0 held, 0 damaged / /journal is another daemon's: Resource temporarily unavailable / 92/92 bytes, 1 records, dirty / 92/92 bytes, 1 records / 1 held, 0 damaged / 1 held from 1000"},
        {"40,000 renewals of a lease and a delete stay short", "open; add 2; renew 40000; delete 2; write 1; size; close; empty; open; held", "0 held, 0 damaged / 506184/506184 bytes, 5502 records of 1600 / 1 held, 0 damaged / 1 held from 41499"},
        {"it goes on behind a torn end", SLOTS + "; keep 194; set 144 4; file; open; size; add 5; write 1; close; empty; open", "1 held, 2 damaged / 92/92 bytes, 1 records of 1500 / 2 held, 0 damaged '/journal: 2 damaged records left out, 1 read'"},
        {"a file of another program is kept", "68656c6c6f; file; open; kept; size", "0 held, 1 damaged / 5 / 0/0 bytes, 0 records of 1500 '/journal: 1 damaged records left out, 0 read' '/journal: kept as /journal.damaged'"},
        {"a pipe in its place is not waited for", "pipe; open", "/journal: no regular file"},
        {"a full copy deletes what it has not, parked ones only if asked to", "add 0; add 1; add 2; park 3; add 0; copy; add 1; add 9; copied; held; copied 1; held", "same / same / gone -0 -2 / 3 held / gone -3 / 2 held"},
        {"of bindings whose lease ended only the parked ones are ours to delete", "add 1; park 3; expire 4599; expire 4600; held; delete 3", "gone / gone -3 / 1 held from 1000 / same"},
        {"a binding that never ends waits for its port only so long", "static; park 1 1000; park 2 1200; add 3; lease; park 4 1000; give-up 1499; give-up 1500; give-up 1700; held", "0 given up, 3 wait / 1 given up, 2 wait / 1 given up, 1 wait / 2 held"},
        {"the taker is woken once, and looks again before it waits; what finds no room is counted", "push 1; push 1; push 1; take; push 1; take; take; push 1; take; push 3; take; take", "yes / no / no / 2, 1 lost / no / 1, 0 lost / 0, 0 lost / yes / 1, 0 lost / no / 2, 1 lost / 0, 0 lost"},
        {"a second between two copies", "want; ask 5000; begin 5010; want; end 1; state; ask 6009; ask 6010; begin 6020; end 1; state", "yes / due / no / yes / idle"},
        {"the daemon is woken again each second, before the beginning and before the end", "late 9000; want; late 9000; ask 5000; late 5999; late 6000; late 6001; begin 6100; late 7099; late 7100; end 1; late 9999", "no / no / yes / no / yes / no / no / yes / no"},
        {"wanted again while asked for; incomplete; with records lost", "want; ask 5000; want; begin 5000; end 1; state; begin 5000; end 0; state; begin 6000; lost; state; end 1; state", "yes / due / due / due / idle"},
        {"the peer's messages", "44534e500101000401000000" + FRAME + "44534e500103000044534e50010400040000010244534e500105000044534e5001060000; frames", "44534e500101000401000000 " + FRAME + " 44534e5001030000 44534e500104000400000102 44534e5001050000 44534e5001060000 sound"},
        {"a message of another protocol or version, of no type, of another length: nothing behind it counts", "474554202f2048545444534e5001060000; frames; 44534e500206000044534e5001060000; frames; 44534e500107000044534e5001060000; frames; 44534e5001000000; frames; 44534e500102003f; frames; 44534e500102ffff; frames", "not our protocol / another version of the protocol / a message of no known type / a message of no known type / a message of the wrong length / a message of the wrong length"},
        {"a full disk: what is in memory takes the place of what is out of date", "disk 16384; open; fill-up 10000; size; write; size; close; empty; open", "0 held, 0 damaged / 16384/16376 bytes, 178 records, dirty, failed / 9200/9200 bytes, 100 records of 1600 / 100 held, 0 damaged '/journal: cannot be written: No space left on device; bindings are not kept until this is over' '/journal: no room beside it, so it is emptied and its 100 records are written again; a crash meanwhile loses them' '/journal: is written again'"},
    };
    for (const auto &row : rows) {
        World world;
        said.clear();
        std::string outcome = play(world, row.steps) + said;
        if (!world.disk)
            GTEST_SKIP() << "only of the last row: a small disk needs root";
        for (size_t at; (at = outcome.find(world.directory)) != std::string::npos;)
            outcome.erase(at, world.directory.size());
        EXPECT_EQ(outcome, row.outcome) << row.claim;
    }
}

} // namespace

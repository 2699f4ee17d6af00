#include "journal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <zlib.h>

#include "report.h"
#include "wire.h"

namespace platform_linux
{
namespace
{
constexpr std::array<uint8_t, 4> MARK = {'D', 'S', 'J', '2'};
enum Offset : size_t {
    OFFSET_RECORD = 4,
    OFFSET_IDENTITY = OFFSET_RECORD + UNIT_RECORD_LEN,
    OFFSET_AWAY_SINCE = OFFSET_IDENTITY + 8,
    OFFSET_BOOT = OFFSET_AWAY_SINCE + 4,
    OFFSET_SINCE_BOOT = OFFSET_BOOT + 4,
    OFFSET_CRC = OFFSET_SINCE_BOOT + 4,
};
constexpr size_t READ_PIECE = 1 << 16;
constexpr size_t BUFFER_MAX = 1 << 20; // beyond, the file is written anew instead
constexpr uint64_t SLACK = 1 << 20;    // a small journal is not worth writing anew
constexpr int LOCK_TRIES = 50;         // of 20 ms: a killed daemon may still be ending

uint32_t checksum(const uint8_t *slot)
{
    return static_cast<uint32_t>(crc32(crc32(0, nullptr, 0), slot, OFFSET_CRC));
}

void slot_append(std::vector<uint8_t> &bytes, const UnitRecord &record, const UnitPlace &place,
                 const Moment &now)
{
    const Moment written = place.earlierClock != 0 ? Moment{place.earlierClock, 0, 0} : now;
    std::array<uint8_t, JOURNAL_SLOT> slot{};
    std::ranges::copy(MARK, slot.begin());
    std::ranges::copy(unit_encode(record, written.wall), slot.begin() + OFFSET_RECORD);
    wire_put32(&slot[OFFSET_IDENTITY], static_cast<uint32_t>(place.identity >> 32));
    wire_put32(&slot[OFFSET_IDENTITY + 4], static_cast<uint32_t>(place.identity));
    wire_put32(&slot[OFFSET_AWAY_SINCE], place.awaySince);
    wire_put32(&slot[OFFSET_BOOT], written.boot);
    wire_put32(&slot[OFFSET_SINCE_BOOT], written.sinceBoot);
    wire_put32(&slot[OFFSET_CRC], checksum(slot.data()));
    bytes.insert(bytes.end(), slot.begin(), slot.end());
}

std::optional<JournalRecord> slot_read(const uint8_t *slot)
{
    if (memcmp(slot, MARK.data(), MARK.size()) != 0 || wire_get32(slot + OFFSET_CRC) != checksum(slot))
        return {};
    const std::span<const uint8_t, UNIT_RECORD_LEN> bytes(slot + OFFSET_RECORD, UNIT_RECORD_LEN);
    const auto record = unit_decode(bytes, 0, UnitClock::own);
    if (!record)
        return {};
    const uint64_t high = wire_get32(slot + OFFSET_IDENTITY), low = wire_get32(slot + OFFSET_IDENTITY + 4);
    return JournalRecord{
        *record,
        high << 32 | low,
        wire_get32(slot + OFFSET_AWAY_SINCE),
        {unit_clock(bytes), wire_get32(slot + OFFSET_SINCE_BOOT), wire_get32(slot + OFFSET_BOOT)}
    };
}

bool write_all(int fd, const uint8_t *bytes, size_t count)
{
    while (count > 0) {
        const ssize_t done = ::write(fd, bytes, count);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes += done;
        count -= static_cast<size_t>(done);
    }
    return true;
}

// A renamed file is safe when its directory is on the disk too.
void sync_directory(const std::string &path)
{
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const Fd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsync(fd.get());
}
} // namespace

void JournalReader::gap_end()
{
    damaged_ += (gap_ + JOURNAL_SLOT - 1) / JOURNAL_SLOT;
    gap_ = 0;
}

void JournalReader::feed(std::span<const uint8_t> piece)
{
    rest_.insert(rest_.end(), piece.begin(), piece.end());
    size_t at = 0;
    while (rest_.size() - at >= JOURNAL_SLOT) {
        if (const auto record = slot_read(&rest_[at])) {
            gap_end();
            records_++;
            take_(*record);
            at += JOURNAL_SLOT;
            continue;
        }
        // The next record begins where the next mark does.
        const auto next = std::search(rest_.begin() + static_cast<ptrdiff_t>(at) + 1, rest_.end(),
                                      MARK.begin(), MARK.end());
        // A mark may begin in the last bytes of the piece.
        const size_t found = next != rest_.end() ? static_cast<size_t>(next - rest_.begin())
                                                 : std::max(rest_.size() - MARK.size() + 1, at + 1);
        gap_ += found - at;
        at = found;
    }
    rest_.erase(rest_.begin(), rest_.begin() + static_cast<ptrdiff_t>(at));
}

void JournalReader::finish()
{
    gap_ += rest_.size();
    rest_.clear();
    gap_end();
}

// Of a pipe or a device nothing is waited for.
static Fd open_file(const std::string &path, int flags, std::string &error)
{
    Fd file(::open(path.c_str(), flags | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, S_IRUSR | S_IWUSR));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0) {
        error = path + ": " + strerror(errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        error = path + ": no regular file";
        return {};
    }
    return file;
}

bool Journal::open(const std::string &path, const Moment &now, UnitTable &table, std::string &error)
{
    path_ = path;
    if (!lock(error))
        return false;
    if (!read(now, table, error)) {
        lock_.reset();
        return false;
    }
    if (damaged_ != 0)
        repair(now, table);
    return true;
}

bool Journal::lock(std::string &error)
{
    const std::string path = path_ + ".lock";
    Fd file = open_file(path, O_RDWR, error);
    if (!file)
        return false;
    for (int i = 0; flock(file.get(), LOCK_EX | LOCK_NB) != 0; i++) {
        if (i == LOCK_TRIES) {
            error = path_ + " is another daemon's: " + strerror(errno);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    lock_ = std::move(file);
    return true;
}

// Since a record of this start of the machine the time is known, however the clock was set. Else the clock is
// all there is.
UnitPlace Journal::adopt(JournalRecord &read, const Moment &now)
{
    UnitRecord &record = read.record;
    const bool ends = record.add && !record.never_ends();
    const bool isAhead = ends && static_cast<int32_t>(record.leaseStart - read.written.wall) > 0;
    UnitPlace place = {UnitPlace::At::parked, 0, read.identity, read.awaySince, 0};
    if (read.written.boot != now.boot || now.boot == 0 || isAhead) {
        place.earlierClock = std::max(read.written.wall, 1u);
        newest_ = std::max({newest_, read.written.wall, isAhead ? record.leaseStart : 0});
        return place;
    }
    const uint32_t set = (now.wall - now.sinceBoot) - (read.written.wall - read.written.sinceBoot);
    renew_ = renew_ || std::abs(static_cast<int32_t>(set)) > 1; // the next start of the machine cannot tell
    record.leaseStart += ends ? set : 0;
    place.awaySince += place.awaySince != 0 ? set : 0;
    return place;
}

bool Journal::read(const Moment &now, UnitTable &table, std::string &error)
{
    Fd file = open_file(path_, O_RDWR | O_APPEND, error);
    if (!file)
        return false;
    JournalReader reader([&](JournalRecord read) {
        const UnitPlace place = adopt(read, now); // which changes the record
        table.apply(read.record, place);
    });
    std::vector<uint8_t> piece(READ_PIECE);
    ssize_t got = -1;
    while ((got = ::read(file.get(), piece.data(), piece.size())) > 0 || (got < 0 && errno == EINTR))
        if (got > 0)
            reader.feed({piece.data(), static_cast<size_t>(got)});
    if (got < 0) {
        error = path_ + ": " + strerror(errno);
        return false;
    }
    reader.finish();
    file_ = std::move(file);
    records_ = reader.records();
    damaged_ = reader.damaged();
    struct stat status = {};
    if (fstat(file_.get(), &status) == 0) {
        size_ = static_cast<uint64_t>(status.st_size);
        rewritten_ = static_cast<uint32_t>(status.st_mtim.tv_sec);
    }
    return true;
}

// A torn end would damage the next record too, so the file is written anew.
void Journal::repair(const Moment &now, const UnitTable &table)
{
    platform_report(LOG_WARNING, "%s: %llu damaged records left out, %llu read", path_.c_str(),
                    static_cast<unsigned long long>(damaged_), static_cast<unsigned long long>(records_));
    // A file without any record may be another program's, or a journal of another version: it is kept.
    const std::string kept = path_ + ".damaged";
    if (records_ == 0 && rename(path_.c_str(), kept.c_str()) == 0)
        platform_report(LOG_WARNING, "%s: kept as %s", path_.c_str(), kept.c_str());
    if (!rewrite(table, now))
        failure("cannot be written anew");
}

void Journal::append(const UnitRecord &record, const UnitPlace &place, const Moment &now)
{
    if (file_ && buffer_.size() < BUFFER_MAX)
        slot_append(buffer_, record, place, now);
}

void Journal::failure(const char *trouble)
{
    if (!failed_)
        platform_report(LOG_ERR, "%s: %s: %s; bindings are not kept until this is over", path_.c_str(),
                        trouble, strerror(errno));
    failed_ = true;
}

bool Journal::flush()
{
    if (buffer_.empty())
        return true;
    if (!write_all(file_.get(), buffer_.data(), buffer_.size()))
        return false;
    size_ += buffer_.size();
    records_ += buffer_.size() / JOURNAL_SLOT;
    buffer_.clear();
    dirty_ = true;
    return true;
}

// A full disk has no room beside the file; the file's own room may do.
bool Journal::rewrite(const UnitTable &table, const Moment &now)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(table.held().size() * JOURNAL_SLOT);
    for (const auto &[key, held] : table.held())
        slot_append(bytes, held.record, held.place, now);
    if (!replace(bytes) && ((errno != ENOSPC && errno != EDQUOT) || !restart(bytes)))
        return false;
    size_ = bytes.size();
    records_ = table.held().size();
    rewritten_ = now.wall;
    renew_ = false;
    buffer_.clear(); // its records are in the table
    dirty_ = false;
    return true;
}

// A new file takes the old one's place.
bool Journal::replace(std::span<const uint8_t> bytes)
{
    const std::string path = path_ + ".new";
    Fd file(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file)
        return false;
    if (!write_all(file.get(), bytes.data(), bytes.size()) || fdatasync(file.get()) != 0 ||
        rename(path.c_str(), path_.c_str()) != 0) {
        const int error = errno;
        unlink(path.c_str());
        errno = error;
        return false;
    }
    sync_directory(path_);
    file_ = std::move(file);
    return true;
}

// The file is emptied and begins anew. Until that ends, the records are in memory only. A file that would not
// fit, or that has another name by now, stays as it is.
bool Journal::restart(std::span<const uint8_t> bytes)
{
    struct stat ours = {}, named = {};
    struct statvfs disk = {};
    if (fstat(file_.get(), &ours) != 0 || stat(path_.c_str(), &named) != 0 ||
        fstatvfs(file_.get(), &disk) != 0)
        return false;
    const uint64_t room = static_cast<uint64_t>(ours.st_blocks) * 512 + disk.f_bavail * disk.f_frsize;
    if (ours.st_dev != named.st_dev || ours.st_ino != named.st_ino || bytes.size() > room) {
        errno = ENOSPC;
        return false;
    }
    if (!std::exchange(restarting_, true))
        platform_report(LOG_WARNING,
                        "%s: no room beside it, so it is emptied and its %zu records are written again; a "
                        "crash meanwhile loses them",
                        path_.c_str(), bytes.size() / JOURNAL_SLOT);
    if (ftruncate(file_.get(), 0) != 0 || !write_all(file_.get(), bytes.data(), bytes.size()) ||
        fdatasync(file_.get()) != 0)
        return false;
    restarting_ = false;
    return true;
}

void Journal::write(const UnitTable &table, const Moment &now, bool sync)
{
    if (!file_)
        return;
    const bool overgrown = size_ > SLACK && size_ > 2 * table.held().size() * JOURNAL_SLOT;
    if (failed_ || renew_ || overgrown || buffer_.size() >= BUFFER_MAX) {
        if (!rewrite(table, now)) {
            failure("cannot be written anew");
            buffer_.clear();
            return;
        }
        if (failed_)
            platform_report(LOG_NOTICE, "%s: is written again", path_.c_str());
        failed_ = false;
        return;
    }
    if (!flush()) {
        failure("cannot be written");
        return;
    }
    if (sync && dirty_) {
        if (fdatasync(file_.get()) != 0)
            failure("cannot be written to the disk");
        dirty_ = false;
    }
}

} // namespace platform_linux

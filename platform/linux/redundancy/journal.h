// The journal: records appended to a file. A mark and a checksum around each confine damage to the record
// that it hit. When most records are out of date, the file is written anew from the table.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "fd.h"
#include "lease_clock.h"
#include "unit_table.h"

namespace platform_linux
{

// Mark "DSJ2", record, identity of the port (8), begin of its absence, boot and time since, CRC-32 of all.
constexpr size_t JOURNAL_SLOT = 4 + UNIT_RECORD_LEN + 8 + 4 + 4 + 4 + 4;

struct JournalRecord {
    UnitRecord record;
    uint64_t identity;  // as in UnitPlace
    uint32_t awaySince; // as in UnitPlace
    Moment written;
};

// Takes the bytes of a journal, or any other bytes, piece by piece, and gives the records in their order.
class JournalReader
{
  public:
    using Take = std::function<void(const JournalRecord &)>;
    explicit JournalReader(Take take) : take_(std::move(take)) {}

    void feed(std::span<const uint8_t> piece);
    void finish(); // after the last piece

    uint64_t records() const { return records_; }
    uint64_t damaged() const { return damaged_; } // gaps, in records

  private:
    void gap_end();

    Take take_;
    std::vector<uint8_t> rest_; // less than a slot between two pieces
    uint64_t gap_ = 0;
    uint64_t records_ = 0, damaged_ = 0;
};

class Journal
{
  public:
    // Opens or makes the file, and reads it into `table`. False with `error` when it cannot be read or is
    // another process's journal; every other call does nothing then.
    bool open(const std::string &path, const Moment &now, UnitTable &table, std::string &error);

    void append(const UnitRecord &record, const UnitPlace &place, const Moment &now);

    // Appended records go to the kernel, and to the disk when `sync` is set. The file is written anew when
    // more than half of it is out of date, or the last write failed. Reports a failure once, and its end.
    void write(const UnitTable &table, const Moment &now, bool sync);

    const std::string &path() const { return path_; }
    bool is_open() const { return static_cast<bool>(file_); }
    bool is_dirty() const { return dirty_ || renew_ || !buffer_.empty(); } // not on the disk yet
    bool has_failed() const { return failed_; }
    uint64_t size() const { return size_; }
    uint64_t records() const { return records_; }
    uint64_t damaged() const { return damaged_; }
    uint32_t rewritten() const { return rewritten_; } // when, in seconds of the clock
    // The newest time that open found in records of earlier starts of the machine; 0 = none.
    uint32_t newest() const { return newest_; }

    // The next write writes the file anew: its leases go by another clock.
    void renew() { renew_ = true; }

  private:
    bool lock(std::string &error);
    UnitPlace adopt(JournalRecord &read, const Moment &now);
    bool read(const Moment &now, UnitTable &table, std::string &error);
    void repair(const Moment &now, const UnitTable &table);
    bool flush();
    bool rewrite(const UnitTable &table, const Moment &now);
    bool replace(std::span<const uint8_t> bytes);
    bool restart(std::span<const uint8_t> bytes);
    void failure(const char *trouble);

    std::string path_;
    Fd file_, lock_;
    std::vector<uint8_t> buffer_;
    bool dirty_ = false, failed_ = false;
    bool restarting_ = false; // the file was emptied and is not whole yet
    uint64_t size_ = 0, records_ = 0, damaged_ = 0;
    uint32_t rewritten_ = 0, newest_ = 0;
    bool renew_ = false;
};

} // namespace platform_linux

// The journal: records appended to a file, each with a mark and a checksum, so that a torn or damaged one
// costs itself only. It is written anew from what is held when most of it is out of date.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "unit_table.h"

namespace platform_linux
{

constexpr size_t JOURNAL_SLOT = 4 + UNIT_RECORD_LEN + 4; // mark "DSJ1", record, CRC-32 of both

// Takes a journal piece by piece, of any content, and gives its records in their order.
class JournalReader
{
  public:
    using Take = std::function<void(const UnitRecord &)>;
    JournalReader(uint32_t now, Take take) : now_(now), take_(std::move(take)) {}

    void feed(std::span<const uint8_t> piece);
    void finish(); // no more comes

    uint64_t records() const { return records_; }
    uint64_t damaged() const { return damaged_; } // records' worth of bytes that were none

  private:
    void gap_end();

    uint32_t now_;
    Take take_;
    std::vector<uint8_t> rest_; // less than a slot between two pieces
    uint64_t gap_ = 0;
    uint64_t records_ = 0, damaged_ = 0;
};

class Journal
{
  public:
    ~Journal();
    Journal() = default;
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;

    // Opens or makes the file, which no other process may have open as a journal, and reads it into `table`.
    // False with `error`; every other call is then safe.
    bool open(const std::string &path, uint32_t now, UnitTable &table, std::string &error);

    void append(const UnitBytes &record);

    // What was appended goes to the kernel at once and to the disk when `sync` is set; written anew when more
    // than half of it is out of date or the last write failed. Reports a failure once, and when it is over.
    void write(UnitTable &table, uint32_t now, bool sync);

    const std::string &path() const { return path_; }
    bool is_open() const { return fd_ >= 0; }
    bool is_dirty() const { return dirty_ || !buffer_.empty(); } // not on the disk yet
    bool has_failed() const { return failed_; }
    uint64_t size() const { return size_; }
    uint64_t records() const { return records_; }
    uint64_t damaged() const { return damaged_; }
    uint32_t rewritten() const { return rewritten_; } // when, in seconds of the clock

  private:
    bool flush();
    bool rewrite(UnitTable &table, uint32_t now);
    void failure(const char *what);

    std::string path_;
    int fd_ = -1, lock_ = -1;
    std::vector<uint8_t> buffer_;
    bool dirty_ = false, failed_ = false;
    uint64_t size_ = 0, records_ = 0, damaged_ = 0;
    uint32_t rewritten_ = 0;
};

} // namespace platform_linux

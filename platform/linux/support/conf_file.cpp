#include "conf_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace platform_linux
{
namespace
{
constexpr size_t FILE_MAX_BYTES = 1 << 20;

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};
} // namespace

ConfFile conf_file_read(const char *path, std::string &text, std::string &error)
{
    const std::unique_ptr<FILE, FileCloser> file(fopen(path, "re"));
    if (!file && errno == ENOENT)
        return ConfFile::absent;
    if (!file) {
        error = std::string(path) + ": " + strerror(errno);
        return ConfFile::wrong;
    }
    // Not at once: the heap would keep the room for the largest.
    char piece[4096];
    size_t count = 0;
    text.clear();
    while (text.size() <= FILE_MAX_BYTES && (count = fread(piece, 1, sizeof piece, file.get())) != 0)
        text.append(piece, count);
    if (ferror(file.get()) != 0 || text.size() > FILE_MAX_BYTES) {
        error = std::string(path) + ": " + (ferror(file.get()) != 0 ? strerror(errno) : "longer than 1 MiB");
        return ConfFile::wrong;
    }
    return ConfFile::read;
}

} // namespace platform_linux

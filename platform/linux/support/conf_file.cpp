#include "conf_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace platform_linux
{
namespace
{
constexpr size_t FILE_MAX_BYTES = 1 << 20;
constexpr std::string_view BLANKS = " \t\r";

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};

ConfLine split(std::string_view text)
{
    text = text.substr(0, text.find('#'));
    text = text.substr(0, text.find_last_not_of(BLANKS) + 1);
    ConfLine line;
    for (size_t begin = text.find_first_not_of(BLANKS); begin != std::string_view::npos;) {
        const size_t end = text.find_first_of(BLANKS, begin);
        if (line.words.size() == 1)
            line.value = text.substr(begin);
        line.words.push_back(text.substr(begin, end - begin));
        begin = text.find_first_not_of(BLANKS, end);
    }
    return line;
}

ConfFile read_whole(const char *path, std::string &text)
{
    const std::unique_ptr<FILE, FileCloser> file(fopen(path, "re"));
    if (!file)
        return errno == ENOENT ? ConfFile::absent : ConfFile::wrong;
    // Piece by piece: the heap would keep the room for the largest file.
    char piece[4096];
    size_t count = 0;
    while (text.size() <= FILE_MAX_BYTES && (count = fread(piece, 1, sizeof piece, file.get())) != 0)
        text.append(piece, count);
    return ferror(file.get()) != 0 ? ConfFile::wrong : ConfFile::read;
}
} // namespace

bool conf_parse(std::string_view name, std::string_view text, const ConfReader &reader, std::string &error)
{
    uint32_t number = 0;
    const auto right = [&](const std::string &wrong) {
        error = wrong.empty() ? "" : std::string(name) + ":" + std::to_string(number) + ": " + wrong;
        return wrong.empty();
    };
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const ConfLine line = split(text.substr(begin, end - begin));
        begin = end + 1;
        number++;
        if (!line.words.empty() && !right(reader.line(line)))
            return false;
    }
    return reader.end == nullptr || right(reader.end());
}

ConfFile conf_file_read(const char *variable, const char *path, const ConfReader &reader, std::string &error)
{
    const char *named = getenv(variable);
    const bool isNamed = named != nullptr && *named != 0;
    path = isNamed ? named : path;
    std::string text;
    const ConfFile file = read_whole(path, text);
    if (file == ConfFile::absent && !isNamed)
        return file;
    if (file != ConfFile::read || text.size() > FILE_MAX_BYTES) {
        error = std::string(path) + ": " + (file != ConfFile::read ? strerror(errno) : "longer than 1 MiB");
        return ConfFile::wrong;
    }
    return conf_parse(path, text, reader, error) ? ConfFile::read : ConfFile::wrong;
}

std::string conf_quoted(std::string_view word)
{
    std::string text = "'";
    for (const char c : word)
        text += c >= ' ' && c <= '~' ? c : '?';
    return text + "'";
}

} // namespace platform_linux

#include "conf_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fd.h"

namespace platform_linux
{
namespace
{
constexpr size_t FILE_MAX_BYTES = 8 << 20; // 65,535 bindings have 5 MiB
constexpr std::string_view BLANKS = " \t\r";

// False for a quote that is not closed.
bool split(std::string_view text, ConfLine &line)
{
    for (size_t at = text.find_first_not_of(BLANKS); at < text.size() && text[at] != '#';
         at = text.find_first_not_of(BLANKS, at)) {
        std::string &word = line.words.emplace_back();
        char quote = 0; // that is open
        for (; at < text.size() && (quote != 0 || BLANKS.find(text[at]) == std::string_view::npos); at++) {
            const char c = text[at];
            if (c == quote)
                quote = 0;
            else if (quote == 0 && (c == '\'' || c == '"'))
                quote = c;
            else if (quote == 0 && c == '#')
                break;
            else if (c == '\\' && quote != '\'' && at + 1 < text.size())
                word += text[++at];
            else
                word += c;
        }
        if (quote != 0)
            return false;
        if (line.words.size() > 1)
            line.value += (line.words.size() > 2 ? " " : "") + word;
    }
    return true;
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
        ConfLine line{++number, {}, {}};
        const std::string_view whole = text.substr(begin, end - begin);
        if (whole.find('\0') != std::string_view::npos)
            return right("a zero byte in the line");
        if (!split(whole, line))
            return right("a quote is not closed");
        begin = end + 1;
        if (!line.words.empty() && !right(reader.line(line)))
            return false;
    }
    return reader.end == nullptr || right(reader.end());
}

ConfFile conf_file_read(const std::string &path, std::string &text, std::string &error)
{
    const auto wrong = [&](const char *why) {
        error = path + ": " + why;
        return ConfFile::wrong;
    };
    struct stat status = {};
    // Never waits, whatever stands at the path.
    const Fd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file)
        return errno == ENOENT ? ConfFile::absent : wrong(strerror(errno));
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return wrong("is no regular file");
    // Piece by piece: the heap would keep the room for the largest file.
    char piece[4096];
    text.clear();
    for (;;) {
        const ssize_t count = read(file.get(), piece, sizeof piece);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return wrong(strerror(errno));
        if (count == 0)
            return ConfFile::read;
        text.append(piece, static_cast<size_t>(count));
        if (text.size() > FILE_MAX_BYTES)
            return wrong("longer than 8 MiB");
    }
}

std::string conf_quoted(std::string_view word)
{
    std::string text = "'";
    for (const char c : word)
        text += c >= ' ' && c <= '~' ? c : '?';
    return text + "'";
}

} // namespace platform_linux

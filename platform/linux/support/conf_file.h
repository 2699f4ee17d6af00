// Reading a configuration file: each line is words between blanks, '#' begins a comment. The first error ends
// the reading and is named by file and line.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace platform_linux
{

struct ConfLine {
    std::vector<std::string_view> words; // one at least
    std::string_view value;              // the line behind its first word
};

// The meaning of a file's lines. Each function gives an empty text, or the error.
struct ConfReader {
    std::function<std::string(const ConfLine &)> line;
    std::function<std::string()> end = {}; // after the last line
};

// False with "name:line: error" in `error`.
bool conf_parse(std::string_view name, std::string_view text, const ConfReader &reader, std::string &error);

enum class ConfFile : uint8_t { read, absent, wrong };

// The file that the environment variable names, else the one at `path`, which alone may be absent. 1 MiB at
// most; `error` names the file.
ConfFile conf_file_read(const char *variable, const char *path, const ConfReader &reader, std::string &error);

// The word in single quotes, fit for a terminal.
std::string conf_quoted(std::string_view word);

} // namespace platform_linux

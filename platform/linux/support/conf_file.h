// Reading the configuration file: each line is words between blanks; '#' begins a comment; quotes and a
// backslash take away a character's meaning, as in a shell. The first error ends the reading and is named by
// file and line.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace platform_linux
{

struct ConfLine {
    uint32_t number;                // in the file, from 1
    std::vector<std::string> words; // one at least
    std::string value;              // the words behind the first one
};

// The meaning of a file's lines. Each function gives an empty text, or the error.
struct ConfReader {
    std::function<std::string(const ConfLine &)> line;
    std::function<std::string()> end = {}; // after the last line
};

// False with "name:line: error" in `error`.
bool conf_parse(std::string_view name, std::string_view text, const ConfReader &reader, std::string &error);

enum class ConfFile : uint8_t { read, absent, wrong };

// The whole file, 1 MiB at most. When it is wrong, `error` names it and says why.
ConfFile conf_file_read(const std::string &path, std::string &text, std::string &error);

// The word in single quotes, fit for a terminal.
std::string conf_quoted(std::string_view word);

} // namespace platform_linux

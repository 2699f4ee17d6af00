// Reading a configuration file whole.
#pragma once

#include <cstdint>
#include <string>

namespace platform_linux
{

enum class ConfFile : uint8_t { read, absent, wrong };

// Everything in the file at `path`, 1 MiB at most; `error` names the file when it cannot be read or is
// longer.
ConfFile conf_file_read(const char *path, std::string &text, std::string &error);

} // namespace platform_linux

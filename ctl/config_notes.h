// Notes about a configuration file, on the standard error stream: right, but perhaps not meant. Each names
// the file's line.
#pragma once

#include "command.h"
#include "config.h"

struct NotedFile {
    const std::string &name;
    const platform_linux::Config &config;
};

// Bridges and ports that are not there.
void noteAbsent(const NotedFile &file, const Context &context);
// Hosts that a guard of the file would cut off, where it does not stand already.
void noteCutOff(const NotedFile &file, const Context &context);
// This machine's own DHCP on a bridge that is going to be protected, where the file does not speak of it.
void noteOwnDhcp(const NotedFile &file, const Context &context);

// The running configuration, as the platform beside the daemon and the saved file have it (config.cpp).
#pragma once

#include "command.h"

// The lines behind "ok" of the platform's answer; anything else is thrown, with `file` in place of the
// candidate's name.
std::string demandConfig(const std::string &request, const std::string &file = "");

struct SavedFile {
    std::string name;
    bool isThere;
    std::string fault;      // empty: it is right
    size_t differences = 0; // running values that it does not want
};
SavedFile compareSaved(const Context &context);

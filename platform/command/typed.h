// Words as people type them: the beginning of a word when it is the only one, and slips.
#pragma once

#include "text.h"

// The word that is meant: `typed` itself, or the only one that begins with it; null for none. Several are a
// UsageError.
std::optional<std::string> meant(const std::string &typed, const Words &possible);

// " (did you mean 'x'?)", or nothing when no word is near.
std::string suggestion(const std::string &typed, const Words &possible);

// Where the maps of a network namespace are pinned: a directory of a bpffs of our own, found again by the
// next daemon of the namespace.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform_linux
{

// The network namespace by its two names: the inode's number is used again when the namespace is gone, so
// that the directories left behind by namespaces stay bounded; the cookie is not, so that nobody takes
// another's maps for his own.
struct Namespace {
    uint64_t inode = 0, cookie = 0;
};

// False, with errno, when the kernel does not tell.
bool namespace_own(Namespace &own);

// Makes the directory if need be, and mounts the bpffs. "" with the reason when there can be none.
std::string pins_directory(const Namespace &own, std::string &why);

// This namespace's directories, of every layout there ever was.
std::vector<std::string> pins_all();

// Locks this namespace's directory for as long as the process lives. False when another process has it; true
// where there is none.
bool pins_claim();
void pins_claim_again(); // the directory has been made anew

int pins_remove(const std::string &directory); // 0 or an errno value

} // namespace platform_linux

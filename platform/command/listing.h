// Walks over the daemon's lists, which it gives entry by entry. An entry that vanishes meanwhile is left out.
#pragma once

#include <optional>
#include <vector>

#include "request.h"

// Ascending.
std::vector<uint32_t> listInterfaces(const Daemon &daemon);
std::vector<uint32_t> listVlans(const Daemon &daemon);

// The binding after `last`, or the first one.
std::optional<UserKey> nextUser(const Daemon &daemon, const std::optional<UserKey> &last);

// Every relay server; null from a daemon that does not know the command.
std::vector<ServerKey> listServers(const Daemon &daemon);
std::optional<std::vector<ServerKey>> listServersIfKnown(const Daemon &daemon);

// The result of `read`, or nothing when the entry is gone.
template <class Read> auto ifStillThere(Read read) -> std::optional<decltype(read())>
{
    try {
        return read();
    } catch (const Refusal &refusal) {
        if (refusal.code != NM_NO_ENTRY)
            throw;
        return std::nullopt;
    }
}

// Bindings at one moment, from the platform beside the daemon.
#include <algorithm>
#include <cstring>
#include <sys/socket.h>

#include "binding_view.h"
#include "config.h"
#include "connection.h"
#include "control_socket.h"
#include "snapshot_record.h"

using namespace platform_linux;

namespace
{

constexpr std::chrono::seconds PATIENCE(15);

// A file of bindings as the platform hands it out.
struct Listing {
    SnapshotHeader header;
    Bytes file;
};

[[noreturn]] void throwMalformed(const Listing &listing)
{
    throw NoDaemon("malformed list of bindings: version " + std::to_string(listing.header.version) + ", " +
                   std::to_string(listing.file.size()) + " bytes");
}

std::optional<Listing> ask(const std::string &request)
{
    std::optional<Connection> connection;
    try {
        connection.emplace(SOCK_SEQPACKET, config_runtime("bindings"), PATIENCE);
    } catch (const NoDaemon &) {
        return std::nullopt; // the daemon's own socket tells more, if there is more to tell
    }
    connection->send(request.data(), request.size());
    Listing listing = {{}, connection->receiveFile()};
    if (listing.file.size() >= sizeof(listing.header))
        std::memcpy(&listing.header, listing.file.data(), sizeof(listing.header));
    if (listing.header.version != SNAPSHOT_VERSION || listing.header.headerSize < sizeof(listing.header) ||
        listing.header.headerSize > listing.file.size())
        throwMalformed(listing);
    return listing;
}

// Empty when it is too long for the daemon.
std::string requestOf(const BindingFilter &wanted, bool onlyCounts)
{
    if (wanted.words().empty() && !onlyCounts)
        return SNAPSHOT_REQUEST;
    std::string request = SNAPSHOT_FILTER;
    const auto add = [&request](const std::string &word) { request.append(1, '\0').append(word); };
    if (onlyCounts)
        add(SNAPSHOT_COUNT);
    std::ranges::for_each(wanted.words(), add);
    return request.size() <= CONTROL_REQUEST_MAX ? request : "";
}

} // namespace

std::optional<std::vector<Binding>> readSnapshot(const BindingFilter &wanted, uint32_t *now)
{
    const std::string request = requestOf(wanted, false);
    const auto listing = ask(request.empty() ? SNAPSHOT_REQUEST : request);
    if (!listing)
        return std::nullopt;
    const auto &[header, file] = *listing;
    if (header.recordSize < sizeof(SnapshotRecord) ||
        (file.size() - header.headerSize) / header.recordSize < header.count)
        throwMalformed(*listing);
    if (now)
        *now = header.now;
    std::vector<Binding> bindings(header.count);
    for (size_t i = 0; i < header.count; i++) {
        SnapshotRecord record;
        std::memcpy(&record, &file[header.headerSize + i * header.recordSize], sizeof(record));
        snapshot_binding(record, header.now, bindings[i]);
    }
    std::ranges::sort(bindings, {}, &Binding::key);
    return bindings;
}

std::optional<size_t> countSnapshot(const BindingFilter &wanted)
{
    const std::string request = requestOf(wanted, true);
    const auto listing = request.empty() ? std::nullopt : ask(request);
    return listing ? std::optional<size_t>(listing->header.count) : std::nullopt;
}

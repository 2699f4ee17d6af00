// All bindings at one moment, from the platform beside the daemon.
#include <algorithm>
#include <cstring>
#include <sys/socket.h>

#include "binding_view.h"
#include "config.h"
#include "connection.h"
#include "snapshot_record.h"

using namespace platform_linux;

namespace
{

constexpr std::chrono::seconds PATIENCE(15);

Binding bindingOf(const SnapshotRecord &record, uint32_t now)
{
    Binding binding = {};
    binding.key.ipType = record.ipType;
    std::copy(std::begin(record.address), std::end(record.address), binding.key.ipAddr.begin());
    binding.vlan = record.vlan;
    binding.ifIndex = record.ifIndex;
    binding.attribute = record.attribute;
    binding.lease = record.lease;
    binding.elapsed = now - record.leaseStart;
    if (record.type == DHCPSNOOP_USER_DYNAMIC) // one that outlived its lease is removed at the next scan
        binding.elapsed = std::min(binding.elapsed, binding.lease);
    binding.type = record.type;
    binding.state = record.state;
    binding.mac.assign(std::begin(record.mac), std::end(record.mac));
    return binding;
}

} // namespace

std::optional<std::vector<Binding>> readSnapshot()
{
    std::optional<Connection> connection;
    try {
        connection.emplace(SOCK_SEQPACKET, config_runtime("bindings"), PATIENCE);
    } catch (const NoDaemon &) {
        return std::nullopt; // the daemon's own socket tells more, if there is more to tell
    }
    connection->send(SNAPSHOT_REQUEST, sizeof(SNAPSHOT_REQUEST) - 1);
    const Bytes file = connection->receiveFile();
    SnapshotHeader header = {};
    if (file.size() >= sizeof(header))
        std::memcpy(&header, file.data(), sizeof(header));
    if (header.version != SNAPSHOT_VERSION || header.headerSize < sizeof(header) ||
        header.recordSize < sizeof(SnapshotRecord) || header.headerSize > file.size() ||
        (file.size() - header.headerSize) / header.recordSize < header.count)
        throw NoDaemon("malformed list of bindings: version " + std::to_string(header.version) + ", " +
                       std::to_string(file.size()) + " bytes");
    std::vector<Binding> bindings;
    bindings.reserve(header.count);
    for (size_t i = 0; i < header.count; i++) {
        SnapshotRecord record;
        std::memcpy(&record, &file[header.headerSize + i * header.recordSize], sizeof(record));
        bindings.push_back(bindingOf(record, header.now));
    }
    std::ranges::sort(bindings, {}, &Binding::key);
    return bindings;
}

#include "snapshot_record.h"

#include <algorithm>

namespace platform_linux
{

void snapshot_binding(const SnapshotRecord &record, uint32_t now, Binding &binding)
{
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
}

} // namespace platform_linux

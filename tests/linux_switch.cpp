#include "linux_switch.h"

#include <cstring>
#include <fstream>
#include <linux/rtnetlink.h>
#include <utility>

#include "relay_socket.h"
#include "guard.h"

namespace linux_test
{
namespace
{
std::string traps;

std::string vlan_list(const platform_linux::VlanSet &vlans)
{
    std::string list;
    for (size_t vid = 0; vid < vlans.size(); vid++) {
        if (!vlans[vid])
            continue;
        size_t last = vid;
        while (last + 1 < vlans.size() && vlans[last + 1])
            last++;
        list += (list.empty() ? "" : ",") + std::to_string(vid);
        if (last > vid)
            list += "-" + std::to_string(last);
        vid = last;
    }
    return list.empty() ? "none" : list;
}

uint16_t get16(const uint8_t *p)
{
    uint16_t value;
    memcpy(&value, p, sizeof value);
    return value;
}

uint32_t get32(const uint8_t *p)
{
    uint32_t value;
    memcpy(&value, p, sizeof value);
    return value;
}
} // namespace

LinkMessage::LinkMessage(uint16_t type, uint8_t family, uint32_t ifIndex, uint32_t flags)
{
    struct {
        nlmsghdr header;
        ifinfomsg info;
    } start{};
    start.header.nlmsg_type = type;
    start.info.ifi_family = family;
    start.info.ifi_index = static_cast<int>(ifIndex);
    start.info.ifi_flags = flags;
    const auto *bytes = reinterpret_cast<const uint8_t *>(&start);
    bytes_.assign(bytes, bytes + sizeof start);
    seal();
}

void LinkMessage::pad() { bytes_.resize((bytes_.size() + 3) / 4 * 4); }

void LinkMessage::seal()
{
    const auto length = static_cast<uint32_t>(bytes_.size());
    memcpy(bytes_.data(), &length, sizeof length);
}

LinkMessage &LinkMessage::begin(uint16_t type)
{
    open_.push_back(bytes_.size());
    const uint16_t header[] = {0, type};
    const auto *bytes = reinterpret_cast<const uint8_t *>(header);
    bytes_.insert(bytes_.end(), bytes, bytes + sizeof header);
    return *this;
}

LinkMessage &LinkMessage::end()
{
    const auto length = static_cast<uint16_t>(bytes_.size() - open_.back());
    memcpy(bytes_.data() + open_.back(), &length, sizeof length);
    open_.pop_back();
    pad();
    seal();
    return *this;
}

LinkMessage &LinkMessage::attribute(uint16_t type, const void *value, size_t size)
{
    begin(type);
    const auto *bytes = static_cast<const uint8_t *>(value);
    bytes_.insert(bytes_.end(), bytes, bytes + size);
    return end();
}

LinkMessage &LinkMessage::text(uint16_t type, const char *value) { return attribute(type, value, strlen(value) + 1); }

std::vector<Recorded> read_recording(const char *name)
{
    std::ifstream file(std::string(DHCPSNOOP_TEST_DATA "/") + name);
    std::vector<Recorded> recording;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#"))
            continue;
        if (line.starts_with("$ ")) {
            recording.push_back({line.substr(2), {}});
            continue;
        }
        Bytes bytes;
        for (size_t i = 0; i + 1 < line.size(); i += 2)
            bytes.push_back(static_cast<uint8_t>(std::stoul(line.substr(i, 2), nullptr, 16)));
        recording.back().messages.push_back(std::move(bytes));
    }
    return recording;
}

std::string describe(const std::map<uint32_t, platform_linux::Port> &ports)
{
    using platform_linux::PortKind;
    constexpr const char *STATES[] = {"disabled", "listening", "learning", "forwarding", "blocking"};
    std::string text;
    for (const auto &[ifIndex, port] : ports) {
        text += port.name;
        text += port.kind == PortKind::vlanInterface ? " is vlan " + std::to_string(port.vlan) : port.kind == PortKind::aggregate ? " (aggregate)"
                                                                                                                                  : "";
        text += port.routed ? ": routed" : ": native " + std::to_string(port.nativeVid);
        if (port.kind != PortKind::vlanInterface && !port.routed)
            text += ", tagged " + vlan_list(port.members & ~port.untagged) + ", untagged " + vlan_list(port.untagged);
        text += port.up ? ", up" : ", down";
        text += std::string(", ") + STATES[static_cast<size_t>(port.stp)];
        text += port.tpid != 0x8100 ? ", 802.1ad" : "";
        text += port.aggregate != 0 ? ", member of " + std::to_string(port.aggregate) : "";
        text += "\n";
    }
    return text;
}

std::string describe(const platform_linux::DaemonEvents &events)
{
    std::string text;
    for (const platform_linux::DaemonEvent &event : events) {
        const uint8_t *p = event.bytes.data();
        text += text.empty() ? "" : ", ";
        const std::string index = std::to_string(get32(p + 20));
        if (get32(p) != event.length)
            text += "wrong length ";
        if (get16(p + 4) == 17 && event.length == 32)
            text += index + " gone";
        else if (get16(p + 4) != 16 || event.length != 40 || get16(p + 32) != 8)
            text += "unknown message";
        else if (get16(p + 34) == 38)
            text += "port " + index + " joined";
        else if (get16(p + 34) == 52)
            text += "aggregate " + index + " + " + std::to_string(get32(p + 36));
        else if (get16(p + 34) == 53)
            text += "aggregate " + index + " - " + std::to_string(get32(p + 36));
        else
            text += "unknown attribute";
    }
    return text;
}

std::string take_traps() { return std::exchange(traps, {}); }

} // namespace linux_test

// The data plane's recorder.
namespace platform_linux
{
int32_t trap_start(uint32_t) { return 0; }

int32_t trap_set(uint32_t ifIndex, int family, bool on)
{
    linux_test::traps += std::to_string(ifIndex) + " v" + std::to_string(family) + (on ? " on " : " off ");
    return model_port(ifIndex) != nullptr || !on ? 0 : ENODEV;
}

int32_t relay_socket_start() { return 0; }
} // namespace platform_linux

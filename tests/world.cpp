// The fake platform's own side: what is there, the journal, and every call of platform.h.
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <linux/if_packet.h>
#include <sys/socket.h>

#include "dhcpsnoop_start.h"
#include "dhcpsnoop_user.h"

World world;
int worldDepth = 0;

namespace
{

template <class Data>
int32_t fill(void *to, const Data &data)
{
    auto *buffer = static_cast<QorBuffer *>(to);
    buffer->length = static_cast<uint32_t>(std::min<size_t>(data.size(), buffer->length));
    std::copy_n(data.begin(), buffer->length, static_cast<uint8_t *>(buffer->data));
    return 0;
}

// Of a platform that says how much there would have been.
template <class Answers>
int32_t whole_answer(const Answers &answers, uint32_t key, QorBuffer *buffer)
{
    const auto found = answers.find(key);
    if (found == answers.end())
        return -1;
    fill(buffer, found->second);
    buffer->length = static_cast<uint32_t>(found->second.size());
    return 0;
}

__attribute__((format(printf, 1, 0))) std::string formatted(const char *format, va_list arguments)
{
    char *text = nullptr;
    if (vasprintf(&text, format, arguments) < 0)
        abort();
    const std::string whole = text;
    free(text);
    return whole;
}

std::string call_hex(const void *bytes, size_t count)
{
    return world.quiet() ? "" : world_hex(static_cast<const uint8_t *>(bytes), count);
}

// A call that changes nothing: its result when it is refused.
std::optional<int32_t> asked(const std::string &line)
{
    world.enter({.did = Did::Asked, .text = line});
    return world.refused(line);
}

// Journals a call that hands something over, and gives its result.
int32_t handed(const void *data, size_t count, const std::string &line)
{
    const auto *bytes = static_cast<const uint8_t *>(data);
    if (!world.recording && world.sent != nullptr && count > 0)
        world.sent(Did::Call, bytes, count, 0);
    world.enter({.did = Did::Call, .text = line, .data = Bytes(bytes, bytes + count)});
    return world.refused(line).value_or(0);
}

// A synchronisation call and the value that it carries: text where the mode says so, else a number.
int32_t sync(const std::string &call, uint32_t code, const void *value, uint32_t mode)
{
    const QorBuffer none = {}, *text = value != nullptr && (mode & 0x80000000) != 0 ? static_cast<const QorBuffer *>(value) : &none;
    const std::string shown = value == nullptr ? "null" : text == &none ? std::to_string(*static_cast<const uint32_t *>(value))
                                                                        : "{" + call_hex(text->data, text->length) + "}";
    return handed(text->data, text->length, WORLD_LINE("%s 0x%x %s 0x%x", call.c_str(), code, shown.c_str(), mode));
}

int32_t guard_answer(const char *who, const std::map<uint32_t, WorldGuard> &guards, uint32_t ifIndex, uint32_t call, void *reply)
{
    const auto refusal = asked(WORLD_LINE("%s %u %u", who, ifIndex, call));
    const auto found = guards.find(ifIndex);
    if (refusal || found == guards.end())
        return refusal.value_or(-1);
    if (call == 1)
        memcpy(reply, &found->second.enabled, sizeof(uint32_t));
    else
        memcpy(reply, &found->second.items, 1);
    return 0;
}

int32_t place_answer(const char *who, const uint32_t *where, uint32_t property, const void *answer)
{
    return asked(WORLD_LINE("%s %u of %u.%u.%u.%u%s", who, property, where[0], where[1], where[2], where[3], answer == nullptr ? " null" : "")).value_or(0);
}

const WorldPort *port_of(uint32_t ifIndex)
{
    const auto found = world.ports.find(ifIndex);
    return found == world.ports.end() ? nullptr : &found->second;
}

} // namespace

int32_t world_called(const std::string &line)
{
    world.enter({.did = Did::Call, .text = line});
    const auto refusal = world.refused(line);
    if (refusal)
        errno = EPERM;
    return refusal.value_or(0);
}

std::string world_format(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = formatted(format, arguments);
    va_end(arguments);
    return text;
}

std::string world_hex(const uint8_t *bytes, size_t count) { return hex(Bytes(bytes, bytes + count)); }

Bytes world_control(Bytes before, int level, int type, const Bytes &data)
{
    struct cmsghdr header = {};
    header.cmsg_len = CMSG_LEN(data.size());
    header.cmsg_level = level;
    header.cmsg_type = type;
    const size_t start = before.size();
    before.resize(start + CMSG_SPACE(data.size()));
    memcpy(&before[start], &header, sizeof header);
    std::copy(data.begin(), data.end(), &before[start + CMSG_LEN(0)]);
    return before;
}

void World::reset_without_daemon()
{
    static int64_t day = 0;
    WorldScope scope;
    dhcpsnoop_shutdown();
    *this = World{};
    now = 1'000'000'000 + 86'400 * (day++ % 10'000);
    hwScalars = {{53, 1}, {54, 1}};
    scalarTexts = {{66, "switch-1"}, {74, "model 24"}};
    hostname = "switch-1";
}

void World::reset(uint16_t ifMax, uint16_t userMax, uint16_t serverMax, uint32_t optionMode)
{
    reset_without_daemon();
    if (dhcpsnoop_init_ex(ifMax, userMax, serverMax, optionMode, nullptr, nullptr, nullptr) != 0)
        abort();
    clear();
}

void World::clear()
{
    journal.clear();
    received.clear();
}

void World::refuse(const std::string &line, int32_t result, int times)
{
    refusals_.insert(refusals_.begin(), {line, result, times});
}

std::optional<int32_t> World::refused(const std::string &line)
{
    for (Refusal &refusal : refusals_) {
        if (refusal.times > 0 && line.starts_with(refusal.line)) {
            refusal.times--;
            return refusal.result;
        }
    }
    return std::nullopt;
}

WorldPort &World::access(uint32_t ifIndex, uint16_t vid) { return trunk(ifIndex, {}, vid); }

WorldPort &World::trunk(uint32_t ifIndex, std::set<uint32_t> vlans, uint16_t native)
{
    WorldPort &port = ports[ifIndex] = {};
    port.name = world_format("swp%u", ifIndex);
    port.mac = {0x02, 0x00, 0x00, 0x00, 0x01, static_cast<uint8_t>(ifIndex)};
    port.number = ifIndex;
    port.location = {1, 0, ifIndex, 0, ifIndex, 1, 0};
    port.vlans = std::move(vlans);
    if (native != 0) {
        port.vlans.insert(native);
        port.untagged = {native};
    }
    return port;
}

WorldPort &World::vlan_interface(uint32_t ifIndex, uint16_t vid)
{
    WorldPort &port = trunk(ifIndex, {});
    port.name = world_format("vlan%u", vid);
    port.isVlanIf = true;
    port.vid = vid;
    port.location = {1, 0, 0, 0, vid, 3, 0};
    return port;
}

void World::members(uint32_t vid, const std::vector<uint32_t> &list)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(list.data());
    vlanMembers[vid] = Bytes(bytes, bytes + list.size() * sizeof(uint32_t));
}

void World::role(DhcpsnoopRole wanted)
{
    hwScalars[53] = wanted == DHCPSNOOP_ROLE_MASTER ? 0 : 1;
    hwScalars[54] = wanted == DHCPSNOOP_ROLE_SLAVE ? 0 : 1;
}

std::vector<const WorldEntry *> World::all(Did kind, const std::string &prefix) const
{
    std::vector<const WorldEntry *> found;
    for (const WorldEntry &entry : journal)
        if (entry.did == kind && entry.text.starts_with(prefix))
            found.push_back(&entry);
    return found;
}

std::vector<std::string> World::texts(Did kind, const std::string &prefix) const
{
    std::vector<std::string> found;
    for (const WorldEntry *entry : all(kind, prefix))
        found.push_back(entry->text);
    return found;
}

void World::enter(WorldEntry entry)
{
    if (recording)
        journal.push_back(std::move(entry));
}

extern "C" {

uint32_t OsixCreateMSem(uint32_t options) { return world_called(WORLD_LINE("OsixCreateMSem %u", options)) != 0 ? 0 : 77; }
int32_t OsixDeleteSem(uint32_t semId) { return world_called(WORLD_LINE("OsixDeleteSem %u", semId)); }
int32_t errnoGet(void) { return errno; }

int32_t qorIfGetApi(uint32_t ifIndex, uint32_t attribute, void *value)
{
    WorldScope scope;
    const auto refusal = asked(WORLD_LINE("qorIfGetApi %u %u", ifIndex, attribute));
    if (attribute == 65536285) {
        auto *request = static_cast<QorNestedGet *>(value);
        if (request->attribute != 65536223 || *request->answer != 2 || request->count != 1)
            abort();
        request->count = world.trunkMembers;
        return refusal.value_or(0);
    }
    const WorldPort *port = port_of(ifIndex);
    if (refusal || port == nullptr)
        return refusal.value_or(-1);
    if (attribute == 3 || attribute == 33)
        return attribute == 3 ? fill(value, port->name) : fill(value, port->mac);
    const std::map<uint32_t, uint32_t> words = {{5, port->number}, {45, port->tpid}, {193, port->workMode}, {417, port->isVlanIf}, {port->isVlanIf ? 5400 : ~0u, port->vid}};
    const auto answer = words.find(attribute);
    if (answer == words.end())
        return -1;
    *static_cast<uint32_t *>(value) = answer->second;
    return 0;
}

int32_t qorIfSetApi(uint32_t ifIndex, uint32_t command, void *value)
{
    WorldScope scope;
    if (command != 300)
        return world_called(WORLD_LINE("qorIfSetApi %u %u %u", ifIndex, command, *static_cast<uint32_t *>(value)));
    const auto *request = static_cast<QorIfRequest *>(value);
    auto *record = static_cast<QorUserRecord *>(request->record);
    if (request->operation != QOR_USER_ADD && request->operation != QOR_USER_DELETE)
        abort();
    const bool add = request->operation == QOR_USER_ADD;
    const int32_t result = handed(record, sizeof *record, WORLD_LINE("hw %s %u: mac %s vid %u if %u ipsg %u addr %s attr %u orig %u type %u rule %02x macValid %02x kind %02x dai %u", add ? "add" : "delete", ifIndex, call_hex(record->mac, 6).c_str(), record->vid, record->ifIndex, record->ipsgHwId, call_hex(record->addr, 16).c_str(), record->userAttr, record->origVid, record->ipType, record->ruleFlags, record->macValid, record->addrKind, record->daiHwId));
    if (add && world.newHwId != 0) {
        record->ipsgHwId = world.newHwId;
        record->daiHwId = world.newHwId + 1;
    }
    return result;
}

int32_t qorIfUnit2Name(uint32_t ifIndex, char *name, uint32_t size)
{
    const WorldPort *port = port_of(ifIndex);
    return port == nullptr ? -1 : (snprintf(name, size, "%s", port->name.c_str()), 0);
}

int32_t qorIndexTrans(const uint32_t *from, uint32_t kind, uint32_t *to)
{
    WorldScope scope;
    const auto refusal = asked(kind == 7 ? WORLD_LINE("qorIndexTrans %u,%u,%u,%u,%u,%u,%u 7", from[0], from[1], from[2], from[3], from[4], from[5], from[6])
                                         : WORLD_LINE("qorIndexTrans %u %u", from[0], kind));
    if (refusal)
        return *refusal;
    if (const WorldPort *port = kind == 6 ? port_of(from[0]) : nullptr; port != nullptr) {
        memcpy(to, port->location.data(), sizeof port->location);
        return 0;
    }
    for (const auto &[ifIndex, port] : world.ports) {
        if (kind == 7 && port.isVlanIf && port.vid == from[4] && from[5] == 3 && from[6] == 0) {
            *to = ifIndex;
            return 0;
        }
    }
    return -1;
}

int32_t qorVlanGetApi(uint32_t vid, uint32_t attribute, QorBuffer *list)
{
    const auto refusal = asked(WORLD_LINE("qorVlanGetApi %u %u %u", vid, attribute, list->length));
    return refusal ? *refusal : whole_answer(world.vlanMembers, vid, list);
}

int32_t qorScalarGetApi(uint32_t, uint32_t attribute, QorBuffer *text) { return whole_answer(world.scalarTexts, attribute, text); }
uint32_t qorSelfSysIndex(void) { return world.selfSystem; }
const char *nmGetHostname(void) { return world.hostname ? world.hostname->c_str() : nullptr; }

int32_t sysIFGet(uint32_t ifIndex, uint32_t attribute, void *buffer)
{
    const uint32_t vid = static_cast<const SysIfQuery *>(buffer)->vid;
    const auto refusal = asked(WORLD_LINE("sysIFGet %u %u vid %u", ifIndex, attribute, vid));
    const WorldPort *port = port_of(ifIndex);
    if (refusal || port == nullptr)
        return refusal.value_or(attribute == 255);
    return attribute == 255 ? !port->vlans.contains(vid) : port->untagged.contains(vid);
}

int32_t nmGetIfPartDescr(uint32_t ifIndex, char *buffer, uint32_t size)
{
    asked(WORLD_LINE("nmGetIfPartDescr %u %u", ifIndex, size));
    const WorldPort *port = port_of(ifIndex);
    return port == nullptr ? -1 : (strncpy(buffer, port->name.c_str(), size), 0); // not terminated when it fills the room
}

uint32_t qorHwScalarGet(uint32_t, uint32_t scalar, void *)
{
    const auto found = world.hwScalars.find(scalar);
    return found == world.hwScalars.end() ? 0 : found->second;
}

int32_t qorHwScalarSync(void *source, uint32_t code, void *data, uint32_t mode) { return sync(WORLD_LINE("qorHwScalarSync %s", source == nullptr ? "null" : "source"), code, data, mode); }
int32_t qorHwIfSync(uint32_t ifIndex, uint32_t code, void *value, uint32_t mode) { return sync(WORLD_LINE("qorHwIfSync %u", ifIndex), code, value, mode); }
int32_t qorHwDhcpSnoopUserSync(const void *key, uint32_t code, void *value, uint32_t mode) { return sync(WORLD_LINE("qorHwDhcpSnoopUserSync %s", call_hex(key, 20).c_str()), code, value, mode); }
int32_t qorHwCardGet(const uint32_t *where, uint32_t property, void *answer) { return place_answer("qorHwCardGet", where, property, answer); }
int32_t qorHwSlotGet(const uint32_t *where, uint32_t property, void *answer) { return place_answer("qorHwSlotGet", where, property, answer); }
int32_t qorNetlinkSend(uint32_t kind, uint32_t destination, const void *record, uint32_t length) { return handed(record, length, WORLD_LINE("qorNetlinkSend %u %u %u", kind, destination, length)); }

void zlog_dispatch_logging(int32_t module, int32_t level, const char *format, ...)
{
    WorldScope scope;
    va_list arguments;
    va_start(arguments, format);
    world.enter({.did = Did::Log, .text = std::to_string(module) + " " + std::to_string(level) + " " + formatted(format, arguments)});
    va_end(arguments);
}

void NM_DEBUG_OUTPUT(const char *format, ...)
{
    WorldScope scope;
    va_list arguments;
    va_start(arguments, format);
    world.enter({.did = Did::Debug, .text = formatted(format, arguments)});
    va_end(arguments);
}

int32_t ipsgIfGetApi(uint32_t ifIndex, uint32_t call, void *reply) { return guard_answer("ipsgIfGetApi", world.ipsg, ifIndex, call, reply); }
int32_t arpAntiAttackIfGetApi(uint32_t ifIndex, uint32_t call, void *reply) { return guard_answer("arpAntiAttackIfGetApi", world.dai, ifIndex, call, reply); }

int32_t deftinstall_client_entry_callback(const DhcpsnoopInstallRecord *record, QorBuffer *option125, QorBuffer *bootFile)
{
    WorldScope scope;
    const std::string room = option125 == nullptr && bootFile == nullptr ? "null null" : world_format("%u %u", option125->length, bootFile->length);
    handed(record->unset, sizeof record->unset, WORLD_LINE("deftinstall ip %08x tag %08x mac %s one %u add %u, %s", record->clientIp, record->vendorTag, call_hex(record->mac, 6).c_str(), record->one, record->add, room.c_str()));
    for (const auto &[buffer, data] : {std::pair{option125, &world.option125}, {bootFile, &world.bootFile}}) {
        if (buffer != nullptr && *data)
            fill(buffer, **data);
        if (buffer != nullptr)
            buffer->length = world.hookLength.value_or(buffer->length);
    }
    return 0;
}

int32_t platform_packet_info_enable(int sock) { return world_called(WORLD_LINE("platform_packet_info_enable %d", sock)); }

int32_t platform_serves_commands() { return 0; }
int32_t platform_message_judge(const DhcpsnoopPktInfo *info) { return world.judge != nullptr ? world.judge(info) : 0; }

// As the kernel would: control data only as far as the message header has room for it.
ssize_t platform_frame_recv(int sock, struct msghdr *msg)
{
    WorldScope scope;
    auto &queue = world.arrivals[sock == gDhcpsnoop.data6Sock ? 1 : 0];
    errno = EAGAIN;
    if (queue.empty())
        return -1;
    const WorldArrival arrival = std::move(queue.front());
    queue.pop_front();
    errno = ENETDOWN;
    if (arrival.result && *arrival.result < 0)
        return *arrival.result;
    const size_t copied = std::min(msg->msg_iov->iov_len, arrival.frame.size());
    std::copy_n(arrival.frame.data(), copied, static_cast<uint8_t *>(msg->msg_iov->iov_base));
    msg->msg_controllen = std::min<size_t>(msg->msg_controllen, arrival.control.size());
    std::copy_n(arrival.control.data(), msg->msg_controllen, static_cast<uint8_t *>(msg->msg_control));
    struct sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(arrival.ifIndex);
    memcpy(msg->msg_name, &address, std::min<size_t>(msg->msg_namelen, sizeof address));
    return arrival.result.value_or(static_cast<ssize_t>(copied));
}

int32_t platform_event_group_join(int sock, uint32_t group) { return world_called(WORLD_LINE("platform_event_group_join %d %u", sock, group)); }

ssize_t platform_event_recv(int, void *buffer, size_t size, struct sockaddr *, socklen_t *fromLength)
{
    WorldScope scope;
    world_called(WORLD_LINE("platform_event_recv %zu %u", size, *fromLength));
    errno = EAGAIN;
    if (world.events.empty())
        return -1;
    const auto [datagram, result] = world.events.front();
    world.events.pop_front();
    std::copy_n(datagram.data(), std::min(size, datagram.size()), static_cast<uint8_t *>(buffer));
    return result;
}
}

// The fake platform's own side: what is there, the journal, and every call of platform.h.
#include "world.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include "dhcpsnoop_start.h"
#include "dhcpsnoop_user.h"

World world;
int worldDepth = 0;

namespace
{

int32_t fill(QorBuffer *buffer, const void *data, size_t count)
{
    buffer->length = static_cast<uint32_t>(std::min<size_t>(count, buffer->length));
    if (buffer->length > 0)
        memcpy(buffer->data, data, buffer->length);
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

// The line of a call. Empty while nobody reads it: writing it out is most of what a call of this world costs.
#define LINE_OF(line, format)                                                              \
    WorldScope scope;                                                                      \
    va_list arguments;                                                                     \
    va_start(arguments, format);                                                           \
    const std::string line = world.quiet() ? std::string() : formatted(format, arguments); \
    va_end(arguments)

std::string call_hex(const void *bytes, size_t count)
{
    return world.quiet() ? "" : world_hex(static_cast<const uint8_t *>(bytes), count);
}

// A call that changes nothing: its result when it is refused.
__attribute__((format(printf, 1, 2))) std::optional<int32_t> asked(const char *format, ...)
{
    LINE_OF(line, format);
    if (world.recording)
        world.asked.push_back(line);
    return world.refused(line);
}

// Journals a call that hands something over, and gives its result.
__attribute__((format(printf, 3, 4))) int32_t handed(const void *data, size_t count, const char *format, ...)
{
    LINE_OF(line, format);
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
    return handed(text->data, text->length, "%s 0x%x %s 0x%x", call.c_str(), code, shown.c_str(), mode);
}

int32_t guard_answer(const char *who, const std::map<uint32_t, WorldGuard> &guards, uint32_t ifIndex, uint32_t call, void *reply)
{
    if (const auto refusal = asked("%s %u %u", who, ifIndex, call))
        return *refusal;
    const auto found = guards.find(ifIndex);
    if (found == guards.end())
        return -1;
    if (call != 1)
        memcpy(reply, &found->second.items, 1);
    else if (found->second.result == 0)
        memcpy(reply, &found->second.enabled, sizeof(uint32_t));
    return call == 1 ? found->second.result : 0;
}

int32_t place_answer(const char *who, const std::map<uint32_t, int32_t> &answers, const uint32_t *where, uint32_t property, const void *answer)
{
    if (const auto refusal = asked("%s %u.%u.%u.%u %u%s", who, where[0], where[1], where[2], where[3], property, answer == nullptr ? " null" : ""))
        return *refusal;
    const auto found = answers.find(property);
    return found == answers.end() ? 0 : found->second;
}

// An answer of that length from a platform that says how much there would have been.
template <class Answers>
int32_t whole_answer(const Answers &answers, uint32_t key, QorBuffer *buffer)
{
    const auto found = answers.find(key);
    if (found == answers.end())
        return -1;
    fill(buffer, found->second.data(), found->second.size());
    buffer->length = static_cast<uint32_t>(found->second.size());
    return 0;
}

const WorldPort *port_of(uint32_t ifIndex)
{
    const auto found = world.ports.find(ifIndex);
    return found == world.ports.end() ? nullptr : &found->second;
}

std::vector<std::string> that_begin_with(const std::string &prefix, std::vector<std::string> lines)
{
    std::erase_if(lines, [&](const std::string &line) { return !line.starts_with(prefix); });
    return lines;
}

} // namespace

int32_t world_called(const char *format, ...)
{
    LINE_OF(line, format);
    world.enter({.did = Did::Call, .text = line});
    const auto refusal = world.refused(line);
    if (refusal)
        errno = WORLD_EPERM;
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

std::string world_hex(const uint8_t *bytes, size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; i++)
        text += world_format(i == 0 ? "%02x" : " %02x", bytes[i]);
    return text;
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
    asked.clear();
    received.clear();
}

void World::refuse(const std::string &line, int32_t result, int times)
{
    refusals_.push_back({line, result, times});
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

WorldPort &World::routed(uint32_t ifIndex)
{
    WorldPort &port = trunk(ifIndex, {});
    port.workMode = 1;
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

std::vector<const WorldEntry *> World::all(Did kind) const
{
    std::vector<const WorldEntry *> found;
    for (const WorldEntry &entry : journal)
        if (entry.did == kind)
            found.push_back(&entry);
    return found;
}

std::vector<std::string> World::texts(Did kind) const
{
    std::vector<std::string> found;
    for (const WorldEntry *entry : all(kind))
        found.push_back(entry->text);
    return found;
}

std::vector<std::string> World::calls(const std::string &prefix) const { return that_begin_with(prefix, texts(Did::Call)); }

std::vector<std::string> World::questions(const std::string &prefix) const { return that_begin_with(prefix, asked); }

void World::enter(WorldEntry entry)
{
    if (recording)
        journal.push_back(std::move(entry));
}

extern "C" {

uint32_t OsixCreateMSem(uint32_t options) { return world_called("OsixCreateMSem %u", options) != 0 ? 0 : 77; }
int32_t OsixDeleteSem(uint32_t semId) { return world_called("OsixDeleteSem %u", semId); }
int32_t errnoGet(void) { return errno; }
void qorCatchSegFault(int argc, char **) { world_called("qorCatchSegFault %d", argc); }

int32_t qorIfGetApi(uint32_t ifIndex, uint32_t attribute, void *value)
{
    if (const auto refusal = asked("qorIfGetApi %u %u", ifIndex, attribute))
        return *refusal;
    if (attribute == 65536285) {
        auto *request = static_cast<QorNestedGet *>(value);
        if (request->attribute != 65536223 || *request->answer != 2 || request->count != 1)
            abort();
        request->count = world.trunkQueryCount.value_or(request->count);
        return world.trunkQueryResult;
    }
    const WorldPort *port = port_of(ifIndex);
    if (port == nullptr || port->silent.contains(attribute))
        return -1;
    if (attribute == 3)
        return fill(static_cast<QorBuffer *>(value), port->name.data(), port->name.size());
    if (attribute == 33)
        return fill(static_cast<QorBuffer *>(value), port->mac.data(), port->mac.size());
    const std::pair<uint32_t, uint32_t> words[] = {{5, port->number}, {45, port->tpid}, {193, port->workMode}, {417, port->isVlanIf}, {port->isVlanIf ? 5400 : ~0u, port->vid}};
    const auto *answer = std::find_if(std::begin(words), std::end(words), [&](const auto &word) { return word.first == attribute; });
    if (answer == std::end(words))
        return -1;
    *static_cast<uint32_t *>(value) = answer->second;
    return 0;
}

int32_t qorIfSetApi(uint32_t ifIndex, uint32_t command, void *value)
{
    WorldScope scope;
    if (command != 300)
        return world_called("qorIfSetApi %u %u %u", ifIndex, command, *static_cast<uint32_t *>(value));
    const auto *request = static_cast<QorIfRequest *>(value);
    auto *record = static_cast<QorUserRecord *>(request->record);
    if (request->operation != QOR_USER_ADD && request->operation != QOR_USER_DELETE)
        abort();
    const bool add = request->operation == QOR_USER_ADD;
    const int32_t result = handed(record, sizeof *record, "hw %s %u: mac %s vid %u if %u ipsg %u addr %s attr %u orig %u type %u rule %02x macValid %02x kind %02x dai %u",
                                  add ? "add" : "delete", ifIndex, call_hex(record->mac, 6).c_str(), record->vid, record->ifIndex, record->ipsgHwId, call_hex(record->addr, 16).c_str(), record->userAttr, record->origVid, record->ipType, record->ruleFlags, record->macValid, record->addrKind, record->daiHwId);
    record->ipsgHwId = add ? world.newIpsgHwId.value_or(record->ipsgHwId) : record->ipsgHwId;
    record->daiHwId = add ? world.newDaiHwId.value_or(record->daiHwId) : record->daiHwId;
    return result;
}

int32_t qorIfUnit2Name(uint32_t ifIndex, char *name, uint32_t size)
{
    asked("qorIfUnit2Name %u", ifIndex);
    const WorldPort *port = port_of(ifIndex);
    return port == nullptr ? -1 : (snprintf(name, size, "%s", port->name.c_str()), 0);
}

int32_t qorIndexTrans(const uint32_t *from, uint32_t kind, uint32_t *to)
{
    const auto refusal = kind == 7 ? asked("qorIndexTrans %u,%u,%u,%u,%u,%u,%u 7", from[0], from[1], from[2], from[3], from[4], from[5], from[6])
                                   : asked("qorIndexTrans %u %u", from[0], kind);
    if (refusal)
        return *refusal;
    if (const WorldPort *port = kind == 6 ? port_of(from[0]) : nullptr; port != nullptr) {
        memcpy(to, port->location.data(), sizeof port->location);
        return 0;
    }
    for (const auto &[ifIndex, port] : world.ports) {
        if (kind == 7 && port.isVlanIf && port.vid == from[4] && from[5] == 3) {
            *to = ifIndex;
            return 0;
        }
    }
    return -1;
}

int32_t qorVlanGetApi(uint32_t vid, uint32_t attribute, QorBuffer *list)
{
    const auto refusal = asked("qorVlanGetApi %u %u %u", vid, attribute, list->length);
    return refusal ? *refusal : whole_answer(world.vlanMembers, vid, list);
}

int32_t qorScalarGetApi(uint32_t unit, uint32_t attribute, QorBuffer *text)
{
    asked("qorScalarGetApi %u %u", unit, attribute);
    return whole_answer(world.scalarTexts, attribute, text);
}

uint32_t qorSelfSysIndex(void) { return world.selfSystem; }

int32_t sysIFGet(uint32_t ifIndex, uint32_t attribute, void *buffer)
{
    const uint32_t vid = static_cast<const SysIfQuery *>(buffer)->vid;
    asked("sysIFGet %u %u vid %u", ifIndex, attribute, vid);
    const WorldPort *port = port_of(ifIndex);
    if (attribute == 255)
        return port == nullptr ? 1 : port->answer255.value_or(port->down || !port->vlans.contains(vid) ? 1 : 0);
    return port == nullptr ? 0 : port->answer258.value_or(port->untagged.contains(vid) ? 1 : 0);
}

int32_t nmGetIfPartDescr(uint32_t ifIndex, char *buffer, uint32_t size)
{
    asked("nmGetIfPartDescr %u %u", ifIndex, size);
    const WorldPort *port = port_of(ifIndex);
    return port == nullptr ? -1 : (strncpy(buffer, port->name.c_str(), size), 0); // not terminated when it fills the room
}

const char *nmGetHostname(void) { return world.hostname ? world.hostname->c_str() : nullptr; }

uint32_t qorHwScalarGet(uint32_t unit, uint32_t scalar, void *)
{
    asked("qorHwScalarGet %u %u", unit, scalar);
    const auto found = world.hwScalars.find(scalar);
    return found == world.hwScalars.end() ? 0 : found->second;
}

int32_t qorHwScalarSync(void *source, uint32_t code, void *data, uint32_t mode)
{
    WorldScope scope;
    return sync(source == nullptr ? "qorHwScalarSync null" : "qorHwScalarSync source", code, data, mode);
}

int32_t qorHwIfSync(uint32_t ifIndex, uint32_t code, void *value, uint32_t mode)
{
    WorldScope scope;
    return sync("qorHwIfSync " + std::to_string(ifIndex), code, value, mode);
}

int32_t qorHwDhcpSnoopUserSync(const void *key, uint32_t code, void *value, uint32_t mode)
{
    WorldScope scope;
    return sync("qorHwDhcpSnoopUserSync " + call_hex(key, 20), code, value, mode);
}

int32_t qorHwCardGet(const uint32_t *where, uint32_t property, void *answer) { return place_answer("qorHwCardGet", world.cardAnswers, where, property, answer); }
int32_t qorHwSlotGet(const uint32_t *where, uint32_t property, void *answer) { return place_answer("qorHwSlotGet", world.slotAnswers, where, property, answer); }

void zlog_dispatch_logging(int32_t module, int32_t level, const char *format, ...)
{
    LINE_OF(text, format);
    world.enter({.did = Did::Log, .text = std::to_string(module) + " " + std::to_string(level) + " " + text});
}

void NM_DEBUG_OUTPUT(const char *format, ...)
{
    LINE_OF(text, format);
    world.enter({.did = Did::Debug, .text = text});
}

int32_t qorNetlinkSend(uint32_t kind, uint32_t destination, const void *record, uint32_t length) { return handed(record, length, "qorNetlinkSend %u %u %u", kind, destination, length); }
int32_t ipsgIfGetApi(uint32_t ifIndex, uint32_t call, void *reply) { return guard_answer("ipsgIfGetApi", world.ipsg, ifIndex, call, reply); }
int32_t arpAntiAttackIfGetApi(uint32_t ifIndex, uint32_t call, void *reply) { return guard_answer("arpAntiAttackIfGetApi", world.dai, ifIndex, call, reply); }

int32_t deftinstall_client_entry_callback(const DhcpsnoopInstallRecord *record, QorBuffer *option125, QorBuffer *bootFile)
{
    WorldScope scope;
    const auto offer = [](QorBuffer *buffer, const std::optional<Bytes> &data, std::optional<uint32_t> length) {
        if (buffer == nullptr)
            return;
        if (data)
            fill(buffer, data->data(), data->size());
        else if (world.hookSetsLengths)
            buffer->length = 0;
        buffer->length = length.value_or(buffer->length);
    };
    const std::string room = option125 == nullptr && bootFile == nullptr ? "null null" : world_format("%u %u", option125->length, bootFile->length);
    handed(record->unset, sizeof record->unset, "deftinstall ip %08x tag %08x mac %s one %u add %u, %s", record->clientIp, record->vendorTag, call_hex(record->mac, 6).c_str(), record->one, record->add, room.c_str());
    offer(option125, world.option125, world.option125Length);
    offer(bootFile, world.bootFile, world.bootFileLength);
    return 0;
}

int32_t platform_packet_info_enable(int sock) { return world_called("platform_packet_info_enable %d", sock); }

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
    size_t copied = 0;
    for (size_t i = 0; i < msg->msg_iovlen && copied < arrival.frame.size(); i++) {
        const size_t count = std::min(msg->msg_iov[i].iov_len, arrival.frame.size() - copied);
        memcpy(msg->msg_iov[i].iov_base, arrival.frame.data() + copied, count);
        copied += count;
    }
    Bytes control;
    for (const WorldControl &message : arrival.control) {
        struct cmsghdr header = {};
        header.cmsg_len = CMSG_LEN(message.data.size());
        header.cmsg_level = message.level;
        header.cmsg_type = message.type;
        const size_t start = control.size();
        control.resize(start + CMSG_SPACE(message.data.size()));
        memcpy(control.data() + start, &header, sizeof header);
        std::copy(message.data.begin(), message.data.end(), control.data() + start + CMSG_LEN(0));
    }
    msg->msg_controllen = std::min<size_t>(msg->msg_controllen, control.size());
    std::copy_n(control.data(), msg->msg_controllen, static_cast<uint8_t *>(msg->msg_control));
    if (msg->msg_name != nullptr && msg->msg_namelen > 0) {
        struct sockaddr_ll address = {};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(arrival.ifIndex);
        memcpy(msg->msg_name, &address, std::min<size_t>(msg->msg_namelen, sizeof address));
    }
    return arrival.result.value_or(static_cast<ssize_t>(copied));
}

int32_t platform_event_group_join(int sock, uint32_t group) { return world_called("platform_event_group_join %d %u", sock, group); }

ssize_t platform_event_recv(int, void *buffer, size_t size, struct sockaddr *, socklen_t *fromLength)
{
    WorldScope scope;
    world_called("platform_event_recv %zu %u", size, *fromLength);
    errno = EAGAIN;
    if (world.events.empty())
        return -1;
    const auto [datagram, result] = world.events.front();
    world.events.pop_front();
    std::copy_n(datagram.data(), std::min(size, datagram.size()), static_cast<uint8_t *>(buffer));
    return result;
}
}

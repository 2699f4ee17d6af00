// The world's answers, hostile ones among them: texts and lists that are too long, hooks that give any
// length, calls that are refused.
#include "changes.h"

#include <algorithm>

#include "dhcpsnoop_format.h"
#include "dhcpsnoop_timer.h"
#include "event_message.h"
#include "pools.h"
#include "world.h"

namespace
{

enum Change : uint8_t {
    CHANGE_TIME,
    CHANGE_HOOKS,
    CHANGE_GUARD,
    CHANGE_BOOT_DATA,
    CHANGE_HOST_NAME,
    CHANGE_PORT_NAME,
    CHANGE_PORT_ANSWERS,
    CHANGE_PORT_STATE,
    CHANGE_MEMBERS,
    CHANGE_ROLE,
    CHANGE_REFUSAL,
    CHANGE_TEMPLATE,
    CHANGE_SWITCH_TEXT,
    CHANGE_TRACE,
    CHANGE_SWITCHES,
    CHANGE_HARDWARE_IDS,
    CHANGE_SYSTEM,
    CHANGE_PLACE,
    CHANGE_CARDS,
    CHANGE_AGGREGATE,
    CHANGES
};

WorldPort &port_taken(Input &input)
{
    static WorldPort nowhere;
    const auto found = world.ports.find(input.pick(POOL_INTERFACES));
    return found != world.ports.end() ? found->second : nowhere;
}

std::string text_taken(Input &input)
{
    const Bytes bytes = input.bytes(input.u8());
    return std::string(bytes.begin(), bytes.end());
}

DhcpsnoopOptionFormat format_taken(Input &input)
{
    DhcpsnoopOptionFormat format = {};
    format.mode = input.u8() % 8;
    const Bytes text = input.bytes(input.u16() % (sizeof format.text + 1));
    format.len = static_cast<uint16_t>(text.size());
    std::copy(text.begin(), text.end(), format.text);
    return format;
}

} // namespace

bool change_take(Input &input)
{
    switch (input.u8() % CHANGES) {
    case CHANGE_TIME:
        world.now = std::clamp<int64_t>(world.now + static_cast<int32_t>(input.u32()), 0, UINT32_MAX);
        if (world.hwScalars[54] != 0) // a standby unit does not age its tables
            dhcpsnoop_user_timer_check();
        break;
    case CHANGE_HOOKS: {
        const uint8_t which = input.u8();
        gDhcpsnoop.ipsgIfGet = (which & 1) != 0 ? ipsgIfGetApi : nullptr;
        gDhcpsnoop.antiArpIfGet = (which & 2) != 0 ? arpAntiAttackIfGetApi : nullptr;
        gDhcpsnoop.deftinstallCb = (which & 4) != 0 ? deftinstall_client_entry_callback : nullptr;
        break;
    }
    case CHANGE_GUARD: {
        auto &guards = (input.u8() & 1) != 0 ? world.ipsg : world.dai;
        WorldGuard &guard = guards[input.pick(POOL_INTERFACES)];
        guard.enabled = input.u8() % 3u;
        guard.items = input.u8();
        guard.result = input.u8() % 4 == 0 ? -1 : 0;
        break;
    }
    case CHANGE_BOOT_DATA: {
        const uint8_t which = input.u8();
        auto &data = (which & 1) != 0 ? world.bootFile : world.option125;
        auto &length = (which & 1) != 0 ? world.bootFileLength : world.option125Length;
        data = input.bytes(input.u16() % 300);
        length.reset();
        if ((which & 2) != 0)
            length = input.u32(); // whatever was filled in
        world.hookSetsLengths = (which & 4) != 0;
        break;
    }
    case CHANGE_HOST_NAME:
        world.hostname = text_taken(input);
        if (input.u8() == 0xFF)
            world.hostname.reset();
        break;
    case CHANGE_PORT_NAME:
        port_taken(input).name = text_taken(input);
        break;
    case CHANGE_PORT_ANSWERS: {
        WorldPort &port = port_taken(input);
        port.tpid = input.pick(std::array<uint32_t, 6>{0, 0x8100, 0x88A8, 0x9100, 0x0800, 0xFFFFFFFF});
        port.number = input.u32();
        port.location.fill(input.u32());
        break;
    }
    case CHANGE_PORT_STATE: {
        WorldPort &port = port_taken(input);
        const uint8_t what = input.u8();
        port.down = (what & 1) != 0;
        if ((what & 2) != 0)
            port.answer255 = static_cast<int8_t>(input.u8());
        if ((what & 4) != 0)
            port.answer258 = static_cast<int8_t>(input.u8());
        if ((what & 8) != 0)
            port.silent = {3, 5, 33, 45, 193, 417, 5400};
        break;
    }
    case CHANGE_MEMBERS: {
        Bytes &members = world.vlanMembers[input.pick(POOL_VIDS)];
        members = input.bytes(input.u16() % 300);
        break;
    }
    case CHANGE_ROLE:
        world.role(static_cast<DhcpsnoopRole>(input.u8() % 3));
        break;
    case CHANGE_REFUSAL: {
        static const std::array<const char *, 12> CALLS = {
            "qorIfSetApi",   "hw add",          "hw delete",
            "qorHwIfSync",   "qorHwScalarSync", "qorHwDhcpSnoopUserSync",
            "qorIndexTrans", "qorVlanGetApi",   "qorIfGetApi",
            "ipsgIfGetApi",  "frame",           "relay"};
        const char *call = input.pick(CALLS);
        world.refuse(call, static_cast<int8_t>(input.u8() | 1));
        return true;
    }
    case CHANGE_TEMPLATE: {
        DhcpsnoopOptionFormat *const formats[] = {&gDhcpsnoop.circuitIdFmt, &gDhcpsnoop.remoteIdFmt,
                                                  &gDhcpsnoop.interfaceIdFmt, &gDhcpsnoop.remoteId6Fmt};
        DhcpsnoopOptionFormat &format = *formats[input.u8() % 4];
        format = format_taken(input);
        // Whoever offers a template to the daemon may have it checked first.
        const Bytes text(format.text, format.text + format.len);
        dhcpsnoop_format_check(text.data(), format.len);
        break;
    }
    case CHANGE_SWITCH_TEXT: {
        std::string &text = world.scalarTexts[input.u8() % 2 == 0 ? 66 : 74];
        text = text_taken(input);
        break;
    }
    case CHANGE_TRACE:
        gDhcpsnoop.debugFlags = input.u8() % 4;
        break;
    case CHANGE_SWITCHES:
        gDhcpsnoop.serverLearn = input.u8() % 2;
        gDhcpsnoop.enterpriseNum = input.u32();
        gDhcpsnoop.daiStarted = input.u8() % 2;
        break;
    case CHANGE_HARDWARE_IDS:
        world.newIpsgHwId = input.u32();
        world.newDaiHwId = input.u32();
        break;
    case CHANGE_SYSTEM: // one that a datagram names by its first word, the length of its first message
        world.selfSystem = 16 + input.u8() % 32;
        break;
    case CHANGE_PLACE: // on a slot that the second word names: the type of the first message and its flags
        port_taken(input).location = {
            world.selfSystem, host32_at(host16(input.pick(EVENT_TYPES)) + host16(0), 0), 1, 0, 1, 1,
            input.u8() % 4u};
        break;
    case CHANGE_CARDS: {
        constexpr std::array<uint32_t, 2> CARD = {49152043, 49152042}, SLOT = {32768049, 32768042};
        const uint8_t which = input.u8();
        const auto answer = static_cast<int8_t>(input.u8());
        world.cardAnswers[CARD[which % 2]] = answer;
        world.slotAnswers[SLOT[which % 2]] = answer;
        world.hwScalars[45] = which / 2 % 2;
        break;
    }
    case CHANGE_AGGREGATE:
        world.trunkQueryResult = static_cast<int8_t>(input.u8());
        world.trunkQueryCount = input.u8();
        break;
    }
    return false;
}

// Settings of an interface: what each needs, what the hardware is told, what is stored and what comes back.
#include "daemon_test.h"

#include <cstring>

#include "dhcpsnoop_nm.h"

namespace
{

constexpr uint32_t TRUST = 0x20000000, OPTION82 = 0x10000000, SUBOPT9 = 0x08000000, OPTION18 = 0x04000000,
                   OPTION37 = 0x02000000, ALL_OPTIONS = OPTION82 | SUBOPT9 | OPTION18 | OPTION37;
constexpr uint32_t FRESH = 0x80000000 | 1 << 23 | 2 << 21; // in use, IPv4, policy 2

const std::vector<uint32_t> TEXT_CMDS = {5, 6, 7, 12, 14};
const std::vector<uint32_t> OFFERED_NUMBERS = {2, 3, 4, 8, 9, 10, 11, 13, 16, 17, 18, 20, 21, 30, 31, 32, 33};

int32_t set(uint32_t cmd, uint32_t value) { return dhcpSnoopIfSetApi(5, cmd, &value); }

int32_t set(uint32_t cmd, std::string text)
{
    QorBuffer buffer = {text.data(), static_cast<uint32_t>(text.size())};
    return dhcpSnoopIfSetApi(5, cmd, &buffer);
}

uint32_t get(uint32_t cmd)
{
    uint32_t value = 0xEEEEEEEE;
    EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, &value), 0);
    return value;
}

std::string typed(uint8_t type, uint8_t length, const std::string &text)
{
    return std::string{static_cast<char>(type), static_cast<char>(length)} + text;
}

class Settings : public Daemon
{
  protected:
    void SetUp() override
    {
        Daemon::SetUp();
        world.access(5, 10);
        world.access(6, 10);
        ifp_ = snoop(5);
    }

    // A fresh interface with these flags, all formats 3 and the texts "c", "r", "s", "i" and "R".
    void prepare(uint32_t flags)
    {
        dhcpsnoop_if_disable(dhcpsnoop_if_lookup(5));
        ifp_ = snoop(5, flags);
        ifp_->circuitIdFmt = ifp_->remoteIdFmt = ifp_->interfaceIdFmt = ifp_->remoteId6Fmt = 3;
        ifp_->circuitIdType = ifp_->remoteIdType = ifp_->interfaceIdType = ifp_->remoteId6Type = 9;
        ifp_->circuitId[0] = 'c', ifp_->remoteId[0] = 'r', ifp_->subopt9[0] = 's';
        ifp_->interfaceId[0] = 'i', ifp_->remoteId6[0] = 'R';
        ifp_->circuitIdLen = ifp_->remoteIdLen = ifp_->subopt9Len = ifp_->interfaceIdLen = ifp_->remoteId6Len = 1;
        world.clear();
    }

    // The texts and their formats: "c3 r3 s i3 R3", "-" for none.
    std::string texts() const
    {
        const auto one = [](const uint8_t *text, uint8_t length) { return length == 0 && text[0] == 0 ? '-' : text[0]; };
        return world_format("%c%u %c%u %c %c%u %c%u", one(ifp_->circuitId, ifp_->circuitIdLen), ifp_->circuitIdFmt,
                            one(ifp_->remoteId, ifp_->remoteIdLen), ifp_->remoteIdFmt, one(ifp_->subopt9, ifp_->subopt9Len),
                            one(ifp_->interfaceId, ifp_->interfaceIdLen), ifp_->interfaceIdFmt,
                            one(ifp_->remoteId6, ifp_->remoteId6Len), ifp_->remoteId6Fmt);
    }

    DhcpsnoopIf *ifp_ = nullptr;
};

TEST_F(Settings, Numbers)
{
    // claim, flags, cmd, value (flags: beside those of a fresh interface), result, offered, flagsAfter, textsAfter
    const std::tuple<const char *, uint32_t, uint32_t, uint32_t, int32_t, bool, uint32_t, const char *> rows[] = {
        {"another version takes the trust away", TRUST, 2, 2, 0, true, (FRESH ^ 0x01800000), "c3 r3 s i3 R3"},
        {"the same version is not set, so the trust stays", TRUST, 2, 1, 0, false, FRESH | TRUST, "c3 r3 s i3 R3"},
        {"a value is compared whole, its low bits stored", 0, 2, 5, 0, true, FRESH, "c3 r3 s i3 R3"},
        {"of a flag's value the lowest bit is stored", TRUST, 3, 2, 0, true, FRESH, "c3 r3 s i3 R3"},
        {"trust that is there", TRUST, 3, 1, 0, false, FRESH | TRUST, "c3 r3 s i3 R3"},
        {"option 82 off takes its formats, its texts and sub-option 9", ALL_OPTIONS, 4, 0, 0, true, FRESH | OPTION18 | OPTION37, "-0 -0 - i3 R3"},
        {"the same policy is offered again", OPTION82, 8, 6, 0, true, FRESH | OPTION82, "c3 r3 s i3 R3"},
        {"sub-option 9 off takes its text", OPTION82 | SUBOPT9, 9, 0, 0, true, FRESH | OPTION82, "c3 r3 - i3 R3"},
        {"no sub-option 9, which is so already, needs no option 82", 0, 9, 0, 0, false, FRESH, "c3 r3 s i3 R3"},
        {"a mode of four bits", 0, 10, 0x1D, 0, true, FRESH | 13 << 17, "c3 r3 s i3 R3"},
        {"option 18 off", OPTION18 | OPTION37, 11, 0, 0, true, FRESH | OPTION37, "c3 r3 s -0 R3"},
        {"option 37 off", OPTION18 | OPTION37, 13, 0, 0, true, FRESH | OPTION18, "c3 r3 s i3 -0"},
        {"bit 16", 0, 16, 1, 0, true, FRESH | 1 << 16, "c3 r3 s i3 R3"},
        {"bit 15", 0, 17, 3, 0, true, FRESH | 1 << 15, "c3 r3 s i3 R3"},
        {"bit 14 off", 1 << 14, 20, 0, 0, true, FRESH, "c3 r3 s i3 R3"},
        {"a format takes its text", OPTION82, 30, 5, 0, true, FRESH | OPTION82, "-5 r3 s i3 R3"},
        {"the same format", OPTION82, 30, 3, 0, false, FRESH | OPTION82, "c3 r3 s i3 R3"},
        {"the highest format", OPTION82, 31, 6, 0, true, FRESH | OPTION82, "c3 -6 s i3 R3"},
        {"a format there is not: refused when the hardware has been told", OPTION82, 31, 7, 22, true, FRESH | OPTION82, "c3 r3 s i3 R3"},
        {"a format is compared whole", OPTION82, 31, 259, 22, true, FRESH | OPTION82, "c3 r3 s i3 R3"},
        {"option 18's format", OPTION18, 32, 0, 0, true, FRESH | OPTION18, "c3 r3 s -0 R3"},
        {"option 37's format", OPTION37, 33, 4, 0, true, FRESH | OPTION37, "c3 r3 s i3 -4"},
    };
    for (const auto &[claim, flags, cmd, value, result, offered, flagsAfter, textsAfter] : rows) {
        SCOPED_TRACE(claim);
        prepare(flags);
        Printed out; // of the trust that goes with a version
        EXPECT_EQ(set(cmd, value), result);
        const std::string call = world_format("qorHwIfSync 5 0x%x %u 0x3", 0x402c000 + cmd, value);
        EXPECT_EQ(world.calls("qorHw"), offered ? Lines{call} : Lines{});
        EXPECT_EQ(ifp_->flags, flagsAfter);
        EXPECT_EQ(texts(), textsAfter);
    }
}

TEST_F(Settings, NumbersBesideTheFlags)
{
    EXPECT_EQ(set(18, 0x10007), 0);
    EXPECT_EQ(set(21, 0x20009), 0);
    EXPECT_EQ(set(34, 0x0A010203), 0);
    ifp_->curUser = 4;
    for (uint32_t i = 0; i < 3; i++)
        ifp_->counters[i] = 100 + i;
    const auto read = [] { return std::vector<uint32_t>{get(18), get(19), get(21), get(24), get(22), get(23), get(34)}; };
    EXPECT_EQ(read(), (std::vector<uint32_t>{7, 4, 9, 100, 101, 102, 0x0A010203}));
    EXPECT_EQ(dhcpSnoopIfSetApi(5, 28, nullptr), 0);
    EXPECT_EQ(read(), (std::vector<uint32_t>{7, 4, 9, 0, 0, 0, 0x0A010203}));
    // Neither the relay address nor clearing the counters is the hardware's business.
    EXPECT_EQ(world.calls("qorHwIfSync").size(), 2u);
}

TEST_F(Settings, SwitchingOption82OffAndOnRestoresThePolicy)
{
    prepare(ALL_OPTIONS);
    for (const uint32_t value : {0u, 1u}) {
        set_flag_field(ifp_, DHCPSNOOP_IF_POLICY, 1);
        EXPECT_EQ(set(4, value), 0);
        EXPECT_EQ(get(8), 2u);
    }
    EXPECT_EQ(texts(), "-3 -3 - i3 R3");
}

// What an attribute needs, and what is said when it is not there.
TEST_F(Settings, Preconditions)
{
    const struct {
        uint32_t cmd, value, flags; // value 0: the attribute is a text
        const char *missing;
    } rows[] = {
        {5, 0, SUBOPT9 | OPTION18 | OPTION37, "option82"},
        {6, 0, SUBOPT9 | OPTION18, "option82"},
        {7, 0, SUBOPT9 | OPTION18 | OPTION37, "option82"},
        {7, 0, OPTION82 | OPTION18, "option82 sub-option9"},
        {8, 1, SUBOPT9, "option82"},
        {9, 1, OPTION18, "option82"},
        {14, 0, OPTION82 | OPTION18, "option37"},
        {12, 0, OPTION82 | SUBOPT9 | OPTION37, "option82"}, // Kept: the text misses option 18 under option 82's name
        {30, 3, OPTION18, "option82"},                      // although it is the one stored
        {31, 3, OPTION18, "option82"},
        {32, 3, OPTION82 | OPTION37, "option18"},
        {33, 3, OPTION82 | OPTION18, "option37"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(world_format("%u %s", row.cmd, row.missing));
        prepare(row.flags);
        const std::string before = world_state();
        for (const int flags : {0, 2}) {
            debug(flags);
            EXPECT_EQ(row.value == 0 ? set(row.cmd, "abcd") : set(row.cmd, row.value), 0x3E80010);
            EXPECT_EQ(printed(world_format("[DHCPSNOOP] dhcpsnoop if setapi: the %s is disabled!\n\r", row.missing)), flags != 0);
        }
        EXPECT_EQ(world.calls(), Lines{});
        debug(0);
        EXPECT_EQ(world_state(), before);
    }
}

TEST_F(Settings, Texts)
{
    const std::string full(128, 'x'), longer(200, 'y');
    const std::string tooLong = "[DHCPSNOOP] dhcpsnoop if setapi: length is invalid, option len 4, total len 5!\r\n";
    const std::string none = "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for circuit-id!\r\n";
    const struct {
        const char *claim;
        uint32_t cmd;
        uint8_t format;
        std::string value;
        int32_t result;
        std::string said, stored;
    } rows[] = {
        {"plain", 5, 0, "abc", 0, "", "abc"},
        {"plain of no bytes clears", 5, 0, "", 0, "", ""},
        {"plain of 200 is cut", 5, 2, longer, 0, "", longer.substr(0, 128)},
        {"a template is not looked at", 5, 5, "%%%d:%", 0, "", "%%%d:%"},
        {"typed, more than it says", 5, 4, typed(9, 2, "abc"), 0, "", "ab"},
        {"typed of no bytes", 5, 3, typed(9, 0, ""), 0, "", ""},
        {"typed of 200 is cut", 5, 4, typed(9, 200, longer), 0, "", longer.substr(0, 128)},
        {"typed, less than it says", 5, 3, typed(9, 4, "abc"), 0x3E8000D, tooLong, "c"},
        {"typed without a length", 5, 3, "\t", 0x3E8000D, none, "c"},
        {"typed without anything", 5, 4, "", 0x3E8000D, none, "c"},
        {"remote-id without a length", 6, 3, "\t", 0x3E8000D, "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for remote-id!\r\n", "r"},
        {"option 18 without a length", 12, 3, "\t", 0x3E8000D, "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for option18!\r\n", "i"},
        {"option 37 without a length", 14, 3, "\t", 0x3E8000D, "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for option37!\r\n", "R"},
        {"sub-option 9 is never typed", 7, 3, "\t", 0, "", "\t"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(ALL_OPTIONS);
        ifp_->circuitIdFmt = ifp_->remoteIdFmt = ifp_->interfaceIdFmt = ifp_->remoteId6Fmt = row.format;
        debug(DHCPSNOOP_DEBUG_DUMP);
        EXPECT_EQ(set(row.cmd, row.value), row.result);
        // Offered before it is looked at, marked as bytes.
        const auto *bytes = reinterpret_cast<const uint8_t *>(row.value.data());
        EXPECT_EQ(world.calls(), Lines{world_format("qorHwIfSync 5 0x402c0%02x {%s} 0x80000003", row.cmd, world_hex(bytes, row.value.size()).c_str())});
        EXPECT_TRUE(row.said.empty() || printed(row.said));
        const std::map<uint32_t, std::pair<const uint8_t *, uint8_t>> stored = {
            {5, {ifp_->circuitId, ifp_->circuitIdLen}}, {6, {ifp_->remoteId, ifp_->remoteIdLen}}, {7, {ifp_->subopt9, ifp_->subopt9Len}}, {12, {ifp_->interfaceId, ifp_->interfaceIdLen}}, {14, {ifp_->remoteId6, ifp_->remoteId6Len}}};
        const auto [text, length] = stored.at(row.cmd);
        EXPECT_EQ(std::string(text, text + length), row.stored);
        EXPECT_EQ(Bytes(text + length, text + 128), Bytes(128u - length, 0));
    }
}

TEST_F(Settings, TextsAreRead)
{
    const struct {
        const char *claim;
        uint32_t cmd;
        uint8_t format, length, circuitIdLength;
        uint32_t room;
        int32_t result;
        std::string out;
    } rows[] = {
        {"plain, just room", 5, 5, 2, 2, 2, 0, "xx"},
        {"plain, no room", 5, 5, 2, 2, 1, 0x3E8000D, ""},
        {"no text in no room", 5, 5, 0, 0, 0, 0, ""},
        {"typed, just room", 5, 3, 2, 2, 4, 0, typed(9, 2, "xx")},
        {"typed, no room", 5, 4, 2, 2, 3, 0x3E8000D, ""},
        {"typed, option 37", 14, 4, 1, 2, 3, 0, typed(9, 1, "x")},
        {"remote-id, plain, has nothing to do with the circuit-id", 6, 5, 2, 100, 2, 0, "xx"},
        {"a typed remote-id must also find the room that the circuit-id would need", 6, 3, 2, 3, 4, 0x3E8000D, ""},
        {"remote-id, typed, with that", 6, 3, 2, 3, 5, 0, typed(9, 2, "xx")},
        {"remote-id, typed, room for the circuit-id alone", 6, 3, 3, 2, 4, 0x3E8000D, ""},
        {"sub-option 9 is never typed", 7, 3, 2, 2, 2, 0, "xx"},
        {"the longest, typed", 12, 3, 128, 2, 130, 0, typed(9, 128, std::string(128, 'x'))},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(0); // nothing needs to be on for reading
        for (uint8_t *text : {ifp_->circuitId, ifp_->remoteId, ifp_->subopt9, ifp_->interfaceId, ifp_->remoteId6})
            memset(text, 'x', 128);
        ifp_->circuitIdLen = ifp_->remoteIdLen = ifp_->subopt9Len = ifp_->interfaceIdLen = ifp_->remoteId6Len = row.length;
        ifp_->circuitIdLen = row.circuitIdLength;
        ifp_->circuitIdFmt = ifp_->remoteIdFmt = ifp_->interfaceIdFmt = ifp_->remoteId6Fmt = row.format;
        std::vector<char> room(row.room); // of just that size, for the sanitizer
        QorBuffer buffer = {room.data(), row.room};
        if (row.room == 0)
            buffer.data = &buffer;
        EXPECT_EQ(dhcpSnoopIfGetApi(5, row.cmd, &buffer), row.result);
        if (row.result == 0) {
            EXPECT_EQ(std::string(room.data(), buffer.length), row.out);
        }
    }
}

// Neither a refusal of the hardware nor a missing value changes anything.
TEST_F(Settings, RefusedWithoutTrace)
{
    prepare(ALL_OPTIONS | TRUST);
    const std::string before = world_state();
    QorBuffer nowhere = {nullptr, 4};
    for (const uint32_t cmd : OFFERED_NUMBERS) {
        EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, nullptr), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, nullptr), 0x3E80010) << cmd;
    }
    for (const uint32_t cmd : TEXT_CMDS) {
        for (void *value : {static_cast<void *>(nullptr), static_cast<void *>(&nowhere)}) {
            EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, value), 0x3E80010) << cmd;
            EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, value), 0x3E80010) << cmd;
        }
    }
    EXPECT_EQ(dhcpSnoopIfSetApi(5, 1, nullptr), 0x3E80010);
    EXPECT_EQ(world.calls(), Lines{});
    EXPECT_EQ(dhcpSnoopIfSetApi(6, 3, nullptr), 0x3E80002); // the interface comes before the value

    world.refuse("qorHwIfSync", 5);
    for (const uint32_t cmd : OFFERED_NUMBERS)
        EXPECT_EQ(set(cmd, cmd == 18 || cmd == 21 || cmd >= 30 ? 1u : 6u), 0x3E80004) << cmd;
    for (const uint32_t cmd : TEXT_CMDS)
        EXPECT_EQ(set(cmd, typed(1, 1, "q")), 0x3E80004) << cmd;
    EXPECT_EQ(set(1, 0), 0x3E80004);
    EXPECT_EQ(world.calls().size(), OFFERED_NUMBERS.size() + TEXT_CMDS.size() + 1);
    EXPECT_EQ(world_state(), before);
}

TEST_F(Settings, CommandsThereAreNot)
{
    prepare(ALL_OPTIONS);
    uint32_t value = 1;
    for (const uint32_t cmd : {0u, 15u, 19u, 22u, 24u, 25u, 27u, 29u, 35u, 0xFFFFFFFFu})
        EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, &value), 0x3E80010) << cmd;
    for (const uint32_t cmd : {0u, 15u, 28u, 29u, 35u, 0xFFFFFFFFu})
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, &value), 0x3E80010) << cmd;
    for (const uint32_t cmd : {25u, 26u, 27u})
        EXPECT_EQ(get(cmd), 0xEEEEEEEEu); // read as nothing
    for (const uint32_t cmd : {0u, 2u, 28u, 34u, 99u})
        EXPECT_EQ(dhcpSnoopIfSetApi(6, cmd, &value), 0x3E80002) << cmd;
    ifp_->flags &= ~0x80000000;
    EXPECT_EQ(dhcpSnoopIfGetApi(5, 1, &value), 0x3E80002);
    EXPECT_EQ(dhcpSnoopIfSetApi(5, 34, &value), 0);
}

TEST_F(Settings, SwitchingSnoopingOnAndOff)
{
    world.reset(2);
    for (const uint32_t ifIndex : {5u, 6u, 7u})
        world.access(ifIndex, 10);
    world.refuse("qorIfSetApi 6 305", 9);
    const struct {
        const char *claim;
        uint32_t ifIndex, value;
        int32_t result;
        Lines done;
    } rows[] = {
        {"off where it is off is offered all the same", 5, 0, 0, {}},
        {"on", 5, 1, 0, {"qorIfSetApi 5 305 23"}},
        {"on where it is on", 5, 1, 0, {}},
        {"a trap that the hardware refuses", 6, 1, 9, {"qorIfSetApi 6 305 23"}},
        {"a second", 7, 1, 0, {"qorIfSetApi 7 305 23"}},
        {"a third is one too many", 6, 1, 12, {}},
        {"any value but 1 is off", 5, 2, 0, {"qorIfSetApi 5 306 23"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        uint32_t value = row.value;
        EXPECT_EQ(dhcpSnoopIfSetApi(row.ifIndex, 1, &value), row.result);
        EXPECT_EQ(world.calls("qorHwIfSync"), Lines{world_format("qorHwIfSync %u 0x402c001 %u 0x3", row.ifIndex, row.value)});
        EXPECT_EQ(world.calls("qorIfSetApi"), row.done);
    }
    EXPECT_TRUE(dhcpsnoop_if_lookup(5) == nullptr && dhcpsnoop_if_lookup(6) == nullptr && dhcpsnoop_if_lookup(7) != nullptr);
}

TEST_F(Settings, Iteration)
{
    snoop(6);
    world.access(3, 10);
    snoop(3)->flags &= ~0x80000000; // not in use: not listed
    world.vlan_interface(300, 20);
    world.vlan_interface(301, 10);
    snoop(300);
    snoop(301);
    const auto walk = [](int32_t (*first)(uint32_t *), int32_t (*next)(uint32_t, uint32_t *)) {
        std::string all;
        uint32_t at = 0;
        for (int32_t result = first(&at); result == 0; result = next(at, &at))
            all += std::to_string(at) + " ";
        EXPECT_EQ(first(nullptr), -1);
        EXPECT_EQ(next(0, nullptr), -1);
        return all;
    };
    EXPECT_EQ(walk(dhcpSnoopIfGetFirst, dhcpSnoopIfGetNext), "5 6 300 301 ");
    // Kept: VLANs come in the order of their interfaces, so VLAN 10 behind 20 is not found after it.
    EXPECT_EQ(walk(dhcpSnoopVlanGetFirst, dhcpSnoopVlanGetNext), "20 ");
    uint32_t found = 77;
    EXPECT_EQ(dhcpSnoopVlanGetNext(9, &found), 0);
    EXPECT_EQ(found, 20u);
}

TEST_F(Settings, WhatIsSaid)
{
    world.ports[5].name = std::string(70, 'p'); // cut to 62 and a terminator
    const std::string name(62, 'p');
    uint32_t value = 1;
    for (const int flags : {0, 1, 2}) {
        debug(flags);
        world.clear();
        dhcpSnoopIfSetApi(5, 10, &value);
        dhcpSnoopIfGetApi(6, 99, &value);
        const Lines lines = {"[DHCPSNOOP] dhcpsnoop if setapi: interface " + name + ", cmd 10.\r\n",
                             "[DHCPSNOOP] dhcpsnoop if setapi: end, rc = 0.\r\n",
                             "[DHCPSNOOP] dhcpsnoop if getapi: interface swp6, cmd = 99.\r\n",
                             "[DHCPSNOOP] dhcpsnoop if getapi: end, rc 65536002.\r\n"}; // 0x3E80002
        EXPECT_EQ(debug_texts(), flags == 0 ? Lines{} : lines);
    }
}

TEST_F(Settings, SyncIsAnotherMode)
{
    prepare(OPTION82);
    uint32_t value = 4;
    QorBuffer text = {&value, 0};
    EXPECT_EQ(dhcpSnoopIfSyncApi(5, 10, &value), 0);
    ifp_->circuitIdFmt = 0;
    EXPECT_EQ(dhcpSnoopIfSyncApi(5, 5, &text), 0);
    EXPECT_EQ(world.calls(), (Lines{"qorHwIfSync 5 0x402c00a 4 0x1", "qorHwIfSync 5 0x402c005 {} 0x80000001"}));
}

// A VLAN's settings are those of its VLAN interface.
TEST_F(Settings, OfAVlan)
{
    world.vlan_interface(200, 10);
    world.vlan_interface(201, 4094);
    const struct {
        const char *claim;
        bool set;
        uint32_t vid, cmd, value;
        int32_t result;
        uint32_t valueAfter;
        const char *why;
    } rows[] = {
        {"not snooped", false, 10, 3, 7, 0x3E80002, 7, ""},
        {"3 is the interface's command 1", true, 10, 3, 1, 0, 1, ""},
        {"1 is its command 18", true, 10, 1, 9, 0, 9, ""},
        {"read", false, 10, 1, 0, 0, 9, ""},
        {"the highest", true, 4094, 3, 1, 0, 1, ""},
        {"no VLAN, set", true, 0, 1, 9, 22, 9, "vid is invalid!"},
        {"one too high, read", false, 4095, 99, 9, 22, 9, "vid is invalid!"},
        {"without VLAN interface, set", true, 11, 1, 9, -1, 9, "get unit of the vlan failed!"},
        {"without VLAN interface, read", false, 11, 99, 9, -1, 9, "get unit of the vlan failed!"},
        {"a command there is not, set", true, 10, 2, 9, 0x3E80010, 9, ""},
        {"a command there is not, read", false, 10, 18, 9, 0x3E80010, 9, ""},
    };
    debug(DHCPSNOOP_DEBUG_DUMP);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        uint32_t value = row.value;
        EXPECT_EQ(row.set ? dhcpSnoopVlanSetApi(row.vid, row.cmd, &value) : dhcpSnoopVlanGetApi(row.vid, row.cmd, &value), row.result);
        EXPECT_EQ(value, row.valueAfter);
        // Kept: the read says it without the usual beginning.
        EXPECT_EQ(debug_texts()[0], world_format(row.set ? "[DHCPSNOOP] dhcpsnoop vlan setapi: vid %u, cmd %u.\r\n" : "dhcpsnoop vlan getapi: vid = %u, cmd = %u.\r\n", row.vid, row.cmd));
        if (row.why[0] != '\0') {
            EXPECT_EQ(debug_texts().back(), world_format("[DHCPSNOOP] dhcpsnoop vlan %s: %s\r\n", row.set ? "setapi" : "getapi", row.why));
        }
    }
    EXPECT_EQ(world.asked.back(), "qorIndexTrans 1,1,1,1,10,3,0 7");
}

} // namespace

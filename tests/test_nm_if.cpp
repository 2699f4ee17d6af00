// Settings of an interface: what each needs, what the hardware is told, what is stored and what comes back.
#include "daemon_test.h"

#include <cstring>

#include "dhcpsnoop_nm.h"

namespace
{

constexpr uint32_t TRUST = 0x20000000, OPTION82 = 0x10000000, SUBOPT9 = 0x08000000, OPTION18 = 0x04000000,
                   OPTION37 = 0x02000000, ALL_OPTIONS = OPTION82 | SUBOPT9 | OPTION18 | OPTION37;

const std::vector<uint32_t> TEXT_CMDS = {5, 6, 7, 12, 14};
const std::vector<uint32_t> NUMBER_CMDS = {2, 3, 4, 8, 9, 10, 11, 13, 16, 17, 18, 20, 21, 30, 31, 32, 33, 34};

int32_t set(uint32_t cmd, uint32_t value) { return dhcpSnoopIfSetApi(5, cmd, &value); }

int32_t set(uint32_t cmd, Bytes text)
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

Bytes bytes(const std::string &text) { return Bytes(text.begin(), text.end()); }

Bytes typed(uint8_t type, uint8_t length, const std::string &text)
{
    return bytes(std::string{static_cast<char>(type), static_cast<char>(length)} + text);
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

    // An interface as it comes, with these flags, all four format modes 3 and the texts "c", "r", "s", "i"
    // and "R".
    void prepare(uint32_t flags)
    {
        dhcpsnoop_if_disable(dhcpsnoop_if_lookup(5));
        ifp_ = snoop(5, flags);
        ifp_->circuitIdFmt = ifp_->remoteIdFmt = ifp_->interfaceIdFmt = ifp_->remoteId6Fmt = 3;
        ifp_->circuitIdType = 1;
        ifp_->remoteIdType = 2;
        ifp_->interfaceIdType = 3;
        ifp_->remoteId6Type = 4;
        ifp_->circuitId[0] = 'c';
        ifp_->remoteId[0] = 'r';
        ifp_->subopt9[0] = 's';
        ifp_->interfaceId[0] = 'i';
        ifp_->remoteId6[0] = 'R';
        ifp_->circuitIdLen = ifp_->remoteIdLen = ifp_->subopt9Len = ifp_->interfaceIdLen =
            ifp_->remoteId6Len = 1;
        world.clear();
    }

    // The texts with their lengths, type and format: "c1/1/3 r1/2/3 s1 i1/3/3 R1/4/3".
    std::string texts() const
    {
        const auto one = [](const uint8_t *text, uint8_t length) {
            return (text[0] == 0 ? "-" : std::string(1, static_cast<char>(text[0]))) + std::to_string(length);
        };
        return one(ifp_->circuitId, ifp_->circuitIdLen) +
               world_format("/%u/%u ", ifp_->circuitIdType, ifp_->circuitIdFmt) +
               one(ifp_->remoteId, ifp_->remoteIdLen) +
               world_format("/%u/%u ", ifp_->remoteIdType, ifp_->remoteIdFmt) +
               one(ifp_->subopt9, ifp_->subopt9Len) + " " + one(ifp_->interfaceId, ifp_->interfaceIdLen) +
               world_format("/%u/%u ", ifp_->interfaceIdType, ifp_->interfaceIdFmt) +
               one(ifp_->remoteId6, ifp_->remoteId6Len) +
               world_format("/%u/%u", ifp_->remoteId6Type, ifp_->remoteId6Fmt);
    }

    DhcpsnoopIf *ifp_ = nullptr;
};

// A port as it comes: in use, IPv4, policy 2.
constexpr uint32_t FRESH = 0x80000000 | 1 << 23 | 2 << 21;

TEST_F(Settings, Numbers)
{
    const struct {
        const char *claim;
        uint32_t flags; // beside those of a fresh port
        uint32_t cmd, value;
        int32_t result;
        const char *call; // "" = none
        uint32_t flagsAfter;
        const char *textsAfter; // null = as before
    } rows[] = {
        {"the version", 0, 2, 3, 0, "qorHwIfSync 5 0x402c002 3 0x3", (FRESH & ~0x01800000u) | 0x01800000,
         nullptr},
        {"the same version is not set, so the trust stays", TRUST, 2, 1, 0, "", FRESH | TRUST, nullptr},
        {"another takes the trust away", TRUST, 2, 2, 0, "qorHwIfSync 5 0x402c002 2 0x3",
         (FRESH & ~0x01800000u) | 0x01000000, nullptr},
        {"the value is compared whole with the stored one, and two bits of it stored", 0, 2, 5, 0,
         "qorHwIfSync 5 0x402c002 5 0x3", FRESH, nullptr},
        {"trust", 0, 3, 1, 0, "qorHwIfSync 5 0x402c003 1 0x3", FRESH | TRUST, nullptr},
        {"no trust", TRUST, 3, 0, 0, "qorHwIfSync 5 0x402c003 0 0x3", FRESH, nullptr},
        {"trust that is there", TRUST, 3, 1, 0, "", FRESH | TRUST, nullptr},
        {"of a flag's value the lowest bit is stored", TRUST, 3, 2, 0, "qorHwIfSync 5 0x402c003 2 0x3", FRESH,
         nullptr},
        {"option 82 on", 0, 4, 1, 0, "qorHwIfSync 5 0x402c004 1 0x3", FRESH | OPTION82, nullptr},
        {"option 82 on, again", OPTION82, 4, 1, 0, "", FRESH | OPTION82, nullptr},
        {"option 82 off takes its formats, its texts and sub-option 9", ALL_OPTIONS, 4, 0, 0,
         "qorHwIfSync 5 0x402c004 0 0x3", FRESH | OPTION18 | OPTION37, "-0/1/0 -0/2/0 -0 i1/3/3 R1/4/3"},
        {"the policy, two bits", OPTION82, 8, 7, 0, "qorHwIfSync 5 0x402c008 7 0x3",
         FRESH | OPTION82 | 3 << 21, nullptr},
        {"the same policy is offered again", OPTION82, 8, 2, 0, "qorHwIfSync 5 0x402c008 2 0x3",
         FRESH | OPTION82, nullptr},
        {"sub-option 9 on", OPTION82, 9, 1, 0, "qorHwIfSync 5 0x402c009 1 0x3", FRESH | OPTION82 | SUBOPT9,
         nullptr},
        {"sub-option 9 off takes its text", OPTION82 | SUBOPT9, 9, 0, 0, "qorHwIfSync 5 0x402c009 0 0x3",
         FRESH | OPTION82, "c1/1/3 r1/2/3 -0 i1/3/3 R1/4/3"},
        {"no sub-option 9, which is so already, needs no option 82", 0, 9, 0, 0, "", FRESH, nullptr},
        {"a mode of four bits", 0, 10, 0x1D, 0, "qorHwIfSync 5 0x402c00a 29 0x3", FRESH | 13 << 17, nullptr},
        {"the same mode is offered again", 13 << 17, 10, 13, 0, "qorHwIfSync 5 0x402c00a 13 0x3",
         FRESH | 13 << 17, nullptr},
        {"option 18 on: its format", 0, 11, 1, 0, "qorHwIfSync 5 0x402c00b 1 0x3", FRESH | OPTION18, nullptr},
        {"option 18 off: its format, type and text", OPTION18 | OPTION37, 11, 0, 0,
         "qorHwIfSync 5 0x402c00b 0 0x3", FRESH | OPTION37, "c1/1/3 r1/2/3 s1 -0/0/0 R1/4/3"},
        {"option 37 on", 0, 13, 1, 0, "qorHwIfSync 5 0x402c00d 1 0x3", FRESH | OPTION37, nullptr},
        {"option 37 off", OPTION18 | OPTION37, 13, 0, 0, "qorHwIfSync 5 0x402c00d 0 0x3", FRESH | OPTION18,
         "c1/1/3 r1/2/3 s1 i1/3/3 -0/0/0"},
        {"bit 16", 0, 16, 1, 0, "qorHwIfSync 5 0x402c010 1 0x3", FRESH | 1 << 16, nullptr},
        {"bit 15", 0, 17, 3, 0, "qorHwIfSync 5 0x402c011 3 0x3", FRESH | 1 << 15, nullptr},
        {"bit 14", 0, 20, 1, 0, "qorHwIfSync 5 0x402c014 1 0x3", FRESH | 1 << 14, nullptr},
        {"bit 14 off", 1 << 14, 20, 0, 0, "qorHwIfSync 5 0x402c014 0 0x3", FRESH, nullptr},
        {"the circuit-id's format takes its text", OPTION82, 30, 5, 0, "qorHwIfSync 5 0x402c01e 5 0x3",
         FRESH | OPTION82, "-0/1/5 r1/2/3 s1 i1/3/3 R1/4/3"},
        {"the same format", OPTION82, 30, 3, 0, "", FRESH | OPTION82, nullptr},
        {"the highest format", OPTION82, 31, 6, 0, "qorHwIfSync 5 0x402c01f 6 0x3", FRESH | OPTION82,
         "c1/1/3 -0/2/6 s1 i1/3/3 R1/4/3"},
        {"a format there is not: refused when the hardware has been told", OPTION82, 31, 7, 22,
         "qorHwIfSync 5 0x402c01f 7 0x3", FRESH | OPTION82, nullptr},
        {"a format is compared whole", OPTION82, 31, 259, 22, "qorHwIfSync 5 0x402c01f 259 0x3",
         FRESH | OPTION82, nullptr},
        {"option 18's format", OPTION18, 32, 0, 0, "qorHwIfSync 5 0x402c020 0 0x3", FRESH | OPTION18,
         "c1/1/3 r1/2/3 s1 -0/3/0 R1/4/3"},
        {"option 37's format", OPTION37, 33, 4, 0, "qorHwIfSync 5 0x402c021 4 0x3", FRESH | OPTION37,
         "c1/1/3 r1/2/3 s1 i1/3/3 -0/4/4"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(row.flags);
        const std::string before = texts();
        Printed out; // of the trust that goes with a version
        EXPECT_EQ(set(row.cmd, row.value), row.result);
        EXPECT_EQ(world.calls("qorHw"), row.call[0] == '\0' ? Lines{} : Lines{row.call});
        EXPECT_EQ(ifp_->flags, row.flagsAfter);
        EXPECT_EQ(texts(), row.textsAfter == nullptr ? before : row.textsAfter);
    }
}

TEST_F(Settings, NumbersBesideTheFlags)
{
    prepare(0);
    EXPECT_EQ(set(18, 0x10007), 0);
    EXPECT_EQ(set(21, 0x20009), 0);
    // Neither the relay address nor clearing the counters is the hardware's business.
    EXPECT_EQ(world.calls(),
              (Lines{"qorHwIfSync 5 0x402c012 65543 0x3", "qorHwIfSync 5 0x402c015 131081 0x3"}));
    EXPECT_EQ(set(34, 0x0A010203), 0);
    EXPECT_EQ(ifp_->relayAddr, 0x0A010203u);
    ifp_->curUser = 4;
    for (uint32_t i = 0; i < 3; i++)
        ifp_->counters[i] = 100 + i;
    EXPECT_EQ(get(18), 7u);
    EXPECT_EQ(get(19), 4u);
    EXPECT_EQ(get(21), 9u);
    EXPECT_EQ(get(24), 100u);
    EXPECT_EQ(get(22), 101u);
    EXPECT_EQ(get(23), 102u);
    EXPECT_EQ(get(34), 0x0A010203u);
    EXPECT_EQ(dhcpSnoopIfSetApi(5, 28, nullptr), 0);
    EXPECT_EQ(get(22) + get(23) + get(24), 0u);
    EXPECT_EQ(get(34), 0x0A010203u);
    EXPECT_EQ(world.calls().size(), 2u);
}

TEST_F(Settings, FlagsAreRead)
{
    const struct {
        uint32_t flags, cmd, value;
    } rows[] = {
        {0, 1, 1},                                               // there
        {0x01000000, 2, 3},                                      // with the fresh port's IPv4
        {TRUST, 3, 1},      {OPTION82, 4, 1},   {1 << 21, 8, 3}, // with the fresh port's 2
        {SUBOPT9, 9, 1},    {11 << 17, 10, 11}, {OPTION18, 11, 1}, {OPTION37, 13, 1},
        {1 << 16, 16, 1},   {1 << 15, 17, 1},   {1 << 14, 20, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.cmd);
        prepare(row.flags);
        EXPECT_EQ(get(row.cmd), row.value);
        for (const auto &other : rows) {
            if (other.cmd != row.cmd && other.cmd != 1 && other.cmd != 2 && other.cmd != 8) {
                EXPECT_EQ(get(other.cmd), 0u) << other.cmd;
            }
        }
    }
    ifp_->circuitIdFmt = 1;
    ifp_->remoteIdFmt = 2;
    ifp_->interfaceIdFmt = 4;
    ifp_->remoteId6Fmt = 5;
    EXPECT_EQ((std::vector<uint32_t>{get(30), get(31), get(32), get(33)}),
              (std::vector<uint32_t>{1, 2, 4, 5}));
    // Read as nothing.
    for (const uint32_t cmd : {25u, 26u, 27u})
        EXPECT_EQ(get(cmd), 0xEEEEEEEEu);
}

TEST_F(Settings, SwitchingOption82OffAndOn)
{
    prepare(ALL_OPTIONS);
    set_flag_field(ifp_, DHCPSNOOP_IF_POLICY, 1);
    EXPECT_EQ(set(4, 0), 0);
    EXPECT_EQ(get(8), 2u);
    set_flag_field(ifp_, DHCPSNOOP_IF_POLICY, 3);
    EXPECT_EQ(set(4, 1), 0);
    EXPECT_EQ(get(8), 2u);
    EXPECT_EQ(get(9), 0u);
    EXPECT_EQ(texts(), "-0/1/3 -0/2/3 -0 i1/3/3 R1/4/3");
    EXPECT_EQ(Bytes(ifp_->circuitId, ifp_->circuitId + 128), Bytes(128, 0));
}

// What an attribute needs, and what is said when it is not there.
TEST_F(Settings, Preconditions)
{
    const std::string no82 = "[DHCPSNOOP] dhcpsnoop if setapi: the option82 is disabled!\n\r";
    const std::string no9 = "[DHCPSNOOP] dhcpsnoop if setapi: the option82 sub-option9 is disabled!\n\r";
    const std::string no18 = "[DHCPSNOOP] dhcpsnoop if setapi: the option18 is disabled!\n\r";
    const std::string no37 = "[DHCPSNOOP] dhcpsnoop if setapi: the option37 is disabled!\n\r";
    const struct {
        const char *claim;
        uint32_t flags, cmd, value;
        std::string text;
    } rows[] = {
        {"circuit-id", SUBOPT9 | OPTION18 | OPTION37, 5, 0, no82},
        {"remote-id", SUBOPT9 | OPTION18 | OPTION37, 6, 0, no82},
        {"sub-option 9's text without option 82", SUBOPT9 | OPTION18 | OPTION37, 7, 0, no82},
        {"sub-option 9's text without sub-option 9", OPTION82 | OPTION18 | OPTION37, 7, 0, no9},
        {"policy", SUBOPT9 | OPTION18 | OPTION37, 8, 1, no82},
        {"sub-option 9", OPTION18 | OPTION37, 9, 1, no82},
        // Kept: the text misses option 18 under option 82's name.
        {"option 18's text", OPTION82 | SUBOPT9 | OPTION37, 12, 0, no82},
        {"option 37's text", OPTION82 | SUBOPT9 | OPTION18, 14, 0, no37},
        {"circuit-id's format", OPTION18 | OPTION37, 30, 5, no82},
        {"circuit-id's format, although it is the one stored", OPTION18 | OPTION37, 30, 3, no82},
        {"remote-id's format", OPTION18 | OPTION37, 31, 3, no82},
        {"option 18's format", OPTION82 | SUBOPT9 | OPTION37, 32, 3, no18},
        {"option 37's format", OPTION82 | SUBOPT9 | OPTION18, 33, 3, no37},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(row.flags);
        const std::string before = world_state();
        for (const uint8_t flags : std::initializer_list<uint8_t>{0, 1, 2}) {
            gDhcpsnoop.debugFlags = flags;
            world.clear();
            const bool isText = row.value == 0;
            EXPECT_EQ(isText ? set(row.cmd, bytes("abcd")) : set(row.cmd, row.value), 0x3E80010);
            EXPECT_EQ(world.calls(), Lines{});
            EXPECT_EQ(printed(row.text), flags != 0);
            EXPECT_EQ(debug_texts().size(), flags != 0 ? 3u : 0u);
        }
        gDhcpsnoop.debugFlags = 0;
        EXPECT_EQ(world_state(), before);
    }
}

// The five option texts by number, with the members they are stored in.
struct TextPlace {
    uint32_t cmd;
    uint8_t (DhcpsnoopIf::*text)[128];
    uint8_t DhcpsnoopIf::*length, DhcpsnoopIf::*type, DhcpsnoopIf::*format;
    const char *name;
};
const TextPlace PLACES[] = {
    {5, &DhcpsnoopIf::circuitId, &DhcpsnoopIf::circuitIdLen, &DhcpsnoopIf::circuitIdType,
     &DhcpsnoopIf::circuitIdFmt, "circuit-id"},
    {6, &DhcpsnoopIf::remoteId, &DhcpsnoopIf::remoteIdLen, &DhcpsnoopIf::remoteIdType,
     &DhcpsnoopIf::remoteIdFmt, "remote-id"},
    {12, &DhcpsnoopIf::interfaceId, &DhcpsnoopIf::interfaceIdLen, &DhcpsnoopIf::interfaceIdType,
     &DhcpsnoopIf::interfaceIdFmt, "option18"},
    {14, &DhcpsnoopIf::remoteId6, &DhcpsnoopIf::remoteId6Len, &DhcpsnoopIf::remoteId6Type,
     &DhcpsnoopIf::remoteId6Fmt, "option37"},
    {7, &DhcpsnoopIf::subopt9, &DhcpsnoopIf::subopt9Len, nullptr, nullptr, nullptr},
};

TEST_F(Settings, Texts)
{
    const std::string full(128, 'x'), longer(200, 'y');
    const struct {
        const char *claim;
        uint8_t format;
        Bytes value;
        int32_t result;
        const char *text; // %s = the option's name
        int type;         // stored; -1 = as before
        std::string stored;
    } rows[] = {
        {"plain", 0, bytes("abc"), 0, nullptr, -1, "abc"},
        {"plain of no bytes clears", 0, {}, 0, nullptr, -1, ""},
        {"plain of 128", 0, bytes(full), 0, nullptr, -1, full},
        {"plain of 200 is cut", 2, bytes(longer), 0, nullptr, -1, longer.substr(0, 128)},
        {"a template is not looked at", 5, bytes("%%%d:%"), 0, nullptr, -1, "%%%d:%"},
        {"typed", 3, typed(9, 3, "abc"), 0, nullptr, 9, "abc"},
        {"typed, more than it says", 4, typed(9, 2, "abc"), 0, nullptr, 9, "ab"},
        {"typed of no bytes", 3, typed(9, 0, ""), 0, nullptr, 9, ""},
        {"typed of 200 is cut", 4, typed(9, 200, longer), 0, nullptr, 9, longer.substr(0, 128)},
        {"typed, less than it says", 3, typed(9, 4, "abc"), 0x3E8000D,
         "[DHCPSNOOP] dhcpsnoop if setapi: length is invalid, option len 4, total len 5!\r\n", -1, "z"},
        {"typed, 255 of none", 4, typed(9, 255, ""), 0x3E8000D,
         "[DHCPSNOOP] dhcpsnoop if setapi: length is invalid, option len 255, total len 2!\r\n", -1, "z"},
        {"typed without a length",
         3,
         {9},
         0x3E8000D,
         "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for %s!\r\n",
         -1,
         "z"},
        {"typed without anything",
         4,
         {},
         0x3E8000D,
         "[DHCPSNOOP] dhcpsnoop if setapi: wrong length for %s!\r\n",
         -1,
         "z"},
    };
    for (const TextPlace &place : PLACES) {
        for (const auto &row : rows) {
            SCOPED_TRACE(place.cmd);
            SCOPED_TRACE(row.claim);
            prepare(ALL_OPTIONS);
            memset(ifp_->*place.text, 0, 128);
            (ifp_->*place.text)[0] = 'z';
            ifp_->*place.length = 1;
            const bool neverTyped = place.type == nullptr;
            if (!neverTyped) {
                ifp_->*place.type = 77;
                ifp_->*place.format = row.format;
            }
            gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
            std::string expected = row.stored;
            int32_t result = row.result;
            if (neverTyped) {
                expected = std::string(row.value.begin(), row.value.end()).substr(0, 128);
                result = 0;
            }
            EXPECT_EQ(set(place.cmd, row.value), result);
            // Offered before it is looked at, marked as bytes.
            const std::string call = world_format("qorHwIfSync 5 0x402c0%02x {%s} 0x80000003", place.cmd,
                                                  world_hex(row.value.data(), row.value.size()).c_str());
            EXPECT_EQ(world.calls(), Lines{call});
            EXPECT_EQ(ifp_->*place.length, expected.size());
            expected.resize(128);
            EXPECT_EQ(Bytes(ifp_->*place.text, ifp_->*place.text + 128), bytes(expected));
            if (neverTyped)
                continue;
            EXPECT_EQ(ifp_->*place.type, row.type < 0 ? 77 : row.type);
            if (row.text != nullptr) {
                std::string text = row.text;
                if (const size_t at = text.find("%s"); at != std::string::npos)
                    text.replace(at, 2, place.name);
                EXPECT_TRUE(printed(text)) << text;
            }
        }
    }
}

TEST_F(Settings, TextsAreRead)
{
    const struct {
        const char *claim;
        uint32_t cmd;
        uint8_t format;
        uint32_t length, circuitIdLength, room;
        int32_t result;
        const char *out; // "xx" is the text
    } rows[] = {
        {"plain, room to spare", 5, 0, 2, 2, 5, 0, "78 78"},
        {"plain, just room", 5, 5, 2, 2, 2, 0, "78 78"},
        {"plain, no room", 5, 5, 2, 2, 1, 0x3E8000D, ""},
        {"no text in no room", 5, 5, 0, 0, 0, 0, ""},
        {"typed, just room", 5, 3, 2, 2, 4, 0, "09 02 78 78"},
        {"typed, no room", 5, 4, 2, 2, 3, 0x3E8000D, ""},
        {"typed of no bytes", 12, 3, 0, 2, 2, 0, "09 00"},
        {"typed, option 37", 14, 4, 1, 2, 3, 0, "09 01 78"},
        {"typed, option 37, no room", 14, 4, 1, 2, 2, 0x3E8000D, ""},
        {"remote-id, plain, has nothing to do with the circuit-id", 6, 5, 2, 100, 2, 0, "78 78"},
        {"remote-id, typed, without the room that the circuit-id would need", 6, 3, 2, 3, 4, 0x3E8000D, ""},
        {"remote-id, typed, with that", 6, 3, 2, 3, 5, 0, "09 02 78 78"},
        {"remote-id, typed, room for the circuit-id alone", 6, 3, 3, 2, 4, 0x3E8000D, ""},
        {"remote-id, typed, room for both", 6, 4, 3, 2, 5, 0, "09 03 78 78 78"},
        {"sub-option 9 is never typed", 7, 3, 2, 2, 2, 0, "78 78"},
        {"the longest, typed", 12, 3, 128, 2, 130, 0, nullptr},
        {"the longest, typed, no room", 12, 3, 128, 2, 129, 0x3E8000D, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(0); // nothing needs to be on for reading
        for (const TextPlace &place : PLACES) {
            memset(ifp_->*place.text, 0, 128);
            const uint32_t length = place.cmd == row.cmd ? row.length : row.circuitIdLength;
            memset(ifp_->*place.text, place.cmd == row.cmd ? 'x' : 'o', length);
            ifp_->*place.length = static_cast<uint8_t>(length);
            if (place.type != nullptr) {
                ifp_->*place.type = 9;
                ifp_->*place.format = row.format;
            }
        }
        Bytes room(row.room, 0xEE);
        room.shrink_to_fit();
        QorBuffer buffer = {room.data(), row.room};
        EXPECT_EQ(dhcpSnoopIfGetApi(5, row.cmd, &buffer), row.result);
        if (row.out == nullptr) {
            EXPECT_EQ(buffer.length, 130u);
            continue;
        }
        EXPECT_EQ(buffer.length, row.result == 0 ? (strlen(row.out) + 1) / 3 : row.room);
        EXPECT_EQ(world_hex(room.data(), row.result == 0 ? buffer.length : 0), row.out);
        EXPECT_EQ(Bytes(room.begin() + static_cast<long>(row.result == 0 ? buffer.length : 0), room.end()),
                  Bytes(row.room - (row.result == 0 ? buffer.length : 0), 0xEE));
    }
}

// A refusal of the hardware leaves everything as it was.
TEST_F(Settings, HardwareRefuses)
{
    world.refuse("qorHwIfSync", 5);
    prepare(ALL_OPTIONS | TRUST);
    const std::string before = world_state();
    for (const uint32_t cmd : NUMBER_CMDS) {
        if (cmd == 34)
            continue;
        SCOPED_TRACE(cmd);
        EXPECT_EQ(set(cmd, cmd == 18 || cmd == 21 ? 1 : cmd >= 30 ? 1 : 6), 0x3E80004);
    }
    for (const uint32_t cmd : TEXT_CMDS)
        EXPECT_EQ(set(cmd, typed(1, 1, "q")), 0x3E80004) << cmd;
    for (const uint32_t value : {0u, 1u})
        EXPECT_EQ(set(1, value), 0x3E80004);
    EXPECT_EQ(world.calls().size(), NUMBER_CMDS.size() - 1 + TEXT_CMDS.size() + 2);
    uint32_t on = 1;
    EXPECT_EQ(dhcpSnoopIfSetApi(6, 1, &on), 0x3E80004);
    EXPECT_EQ(world_state(), before);
}

TEST_F(Settings, NoValueWhereOneIsNeeded)
{
    prepare(ALL_OPTIONS);
    const std::string before = world_state();
    QorBuffer nowhere = {nullptr, 4};
    for (const uint32_t cmd : NUMBER_CMDS) {
        EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, nullptr), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, nullptr), 0x3E80010) << cmd;
    }
    for (const uint32_t cmd : TEXT_CMDS) {
        EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, nullptr), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, nullptr), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, &nowhere), 0x3E80010) << cmd;
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, &nowhere), 0x3E80010) << cmd;
    }
    for (const uint32_t ifIndex : {5u, 6u})
        EXPECT_EQ(dhcpSnoopIfSetApi(ifIndex, 1, nullptr), 0x3E80010);
    for (const uint32_t cmd : {19u, 22u, 23u, 24u})
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, nullptr), 0x3E80010) << cmd;
    EXPECT_EQ(world.calls(), Lines{});
    EXPECT_EQ(world_state(), before);
    for (const uint32_t cmd : {25u, 26u, 27u})
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, nullptr), 0) << cmd;
    // The interface comes before the value.
    EXPECT_EQ(dhcpSnoopIfSetApi(6, 3, nullptr), 0x3E80002);
    EXPECT_EQ(dhcpSnoopIfGetApi(6, 3, nullptr), 0x3E80002);
}

TEST_F(Settings, CommandsThereAreNot)
{
    prepare(ALL_OPTIONS);
    const std::string before = world_state();
    uint32_t value = 1;
    for (const uint32_t cmd : {0u, 15u, 19u, 22u, 23u, 24u, 25u, 26u, 27u, 29u, 35u, 0xFFFFFFFFu})
        EXPECT_EQ(dhcpSnoopIfSetApi(5, cmd, &value), 0x3E80010) << cmd;
    for (const uint32_t cmd : {0u, 15u, 28u, 29u, 35u, 0xFFFFFFFFu})
        EXPECT_EQ(dhcpSnoopIfGetApi(5, cmd, &value), 0x3E80010) << cmd;
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(world.calls(), Lines{});
    EXPECT_EQ(world_state(), before);
    for (const uint32_t cmd : {0u, 2u, 3u, 28u, 34u, 99u})
        EXPECT_EQ(dhcpSnoopIfSetApi(6, cmd, &value), 0x3E80002) << cmd;
    EXPECT_EQ(dhcpSnoopIfGetApi(6, 1, &value), 0x3E80002);
    ifp_->flags &= ~0x80000000;
    EXPECT_EQ(dhcpSnoopIfGetApi(5, 1, &value), 0x3E80002);
    EXPECT_EQ(dhcpSnoopIfSetApi(5, 34, &value), 0);
}

TEST_F(Settings, SwitchingSnoopingOnAndOff)
{
    world.reset(2);
    for (const uint32_t ifIndex : {5u, 6u, 7u})
        world.access(ifIndex, 10);
    const struct {
        const char *claim;
        uint32_t ifIndex, value;
        int32_t result;
        Lines calls;
        const char *interfaces;
    } rows[] = {
        {"off where it is off is offered all the same", 5, 0, 0, {"qorHwIfSync 5 0x402c001 0 0x3"}, ""},
        {"on", 5, 1, 0, {"qorHwIfSync 5 0x402c001 1 0x3", "qorIfSetApi 5 305 23"}, "5 "},
        {"on where it is on", 5, 1, 0, {"qorHwIfSync 5 0x402c001 1 0x3"}, "5 "},
        {"a trap that the hardware refuses",
         6,
         1,
         9,
         {"qorHwIfSync 6 0x402c001 1 0x3", "qorIfSetApi 6 305 23"},
         "5 "},
        {"a second", 7, 1, 0, {"qorHwIfSync 7 0x402c001 1 0x3", "qorIfSetApi 7 305 23"}, "5 7 "},
        {"a third is one too many", 6, 1, 12, {"qorHwIfSync 6 0x402c001 1 0x3"}, "5 7 "},
        {"any value but 1 is off", 5, 2, 0, {"qorHwIfSync 5 0x402c001 2 0x3", "qorIfSetApi 5 306 23"}, "7 "},
    };
    world.refuse("qorIfSetApi 6 305", 9);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        uint32_t value = row.value;
        EXPECT_EQ(dhcpSnoopIfSetApi(row.ifIndex, 1, &value), row.result);
        EXPECT_EQ(world.calls(), row.calls);
        std::string interfaces;
        for (const DhcpsnoopIf *ifp : list_each<DhcpsnoopIf>(&gDhcpsnoop.ifList))
            interfaces += std::to_string(ifp->ifIndex) + " ";
        EXPECT_EQ(interfaces, row.interfaces);
    }
}

TEST_F(Settings, Iteration)
{
    snoop(6);
    world.access(9, 10);
    world.access(3, 10);
    snoop(9);
    snoop(3)->flags &= ~0x80000000; // not in use: not listed
    uint32_t found = 0;
    EXPECT_EQ(dhcpSnoopIfGetFirst(&found), 0);
    EXPECT_EQ(found, 5u);
    const struct {
        uint32_t from;
        int32_t result;
        uint32_t found;
    } rows[] = {
        {0, 0, 5}, {4, 0, 5}, {5, 0, 6}, {6, 0, 9}, {9, -1, 77}, {0xFFFFFFFF, -1, 77},
    };
    for (const auto &row : rows) {
        found = 77;
        EXPECT_EQ(dhcpSnoopIfGetNext(row.from, &found), row.result) << row.from;
        EXPECT_EQ(found, row.found) << row.from;
    }
    EXPECT_EQ(dhcpSnoopIfGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopIfGetNext(0, nullptr), -1);
    world.reset();
    EXPECT_EQ(dhcpSnoopIfGetFirst(&found), -1);
}

TEST_F(Settings, WhatIsSaid)
{
    world.ports[5].name = std::string(70, 'p'); // cut to 63
    const std::string name(63 - 1, 'p');
    uint32_t value = 1;
    for (const uint8_t flags : std::initializer_list<uint8_t>{0, 1, 2}) {
        gDhcpsnoop.debugFlags = flags;
        world.clear();
        dhcpSnoopIfSetApi(5, 10, &value);
        dhcpSnoopIfSetApi(6, 10, &value);
        dhcpSnoopIfGetApi(5, 10, &value);
        dhcpSnoopIfGetApi(6, 99, &value);
        const Lines lines = {
            "[DHCPSNOOP] dhcpsnoop if setapi: interface " + name + ", cmd 10.\r\n",
            "[DHCPSNOOP] dhcpsnoop if setapi: end, rc = 0.\r\n",
            "[DHCPSNOOP] dhcpsnoop if setapi: interface swp6, cmd 10.\r\n",
            "[DHCPSNOOP] dhcpsnoop if setapi: end, rc = 65536002.\r\n", // 0x3E80002
            "[DHCPSNOOP] dhcpsnoop if getapi: interface " + name + ", cmd = 10.\r\n",
            "[DHCPSNOOP] dhcpsnoop if getapi: end, rc 0.\r\n",
            "[DHCPSNOOP] dhcpsnoop if getapi: interface swp6, cmd = 99.\r\n",
            "[DHCPSNOOP] dhcpsnoop if getapi: end, rc 65536002.\r\n",
        };
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
    EXPECT_EQ(world.calls(),
              (Lines{"qorHwIfSync 5 0x402c00a 4 0x1", "qorHwIfSync 5 0x402c005 {} 0x80000001"}));
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
        Lines calls;
        uint32_t valueAfter;
        const char *text;
    } rows[] = {
        {"not snooped", false, 10, 3, 7, 0x3E80002, {}, 7, nullptr},
        {"its user limit is the interface's command 18", true, 10, 1, 7, 0x3E80002, {}, 7, nullptr},
        {"3 is the interface's command 1",
         true,
         10,
         3,
         1,
         0,
         {"qorHwIfSync 200 0x402c001 1 0x3", "qorIfSetApi 200 305 23"},
         1,
         nullptr},
        {"set", true, 10, 1, 9, 0, {"qorHwIfSync 200 0x402c012 9 0x3"}, 9, nullptr},
        {"read", false, 10, 1, 0, 0, {}, 9, nullptr},
        {"read whether it is snooped", false, 10, 3, 0, 0, {}, 1, nullptr},
        {"the highest",
         true,
         4094,
         3,
         1,
         0,
         {"qorHwIfSync 201 0x402c001 1 0x3", "qorIfSetApi 201 305 23"},
         1,
         nullptr},
        {"no VLAN, set", true, 0, 1, 9, 22, {}, 9, "[DHCPSNOOP] dhcpsnoop vlan setapi: vid is invalid!\r\n"},
        {"no VLAN, read",
         false,
         0,
         1,
         9,
         22,
         {},
         9,
         "[DHCPSNOOP] dhcpsnoop vlan getapi: vid is invalid!\r\n"},
        {"one too high, set",
         true,
         4095,
         1,
         9,
         22,
         {},
         9,
         "[DHCPSNOOP] dhcpsnoop vlan setapi: vid is invalid!\r\n"},
        {"one too high, read",
         false,
         4095,
         99,
         9,
         22,
         {},
         9,
         "[DHCPSNOOP] dhcpsnoop vlan getapi: vid is invalid!\r\n"},
        {"without VLAN interface, set",
         true,
         11,
         1,
         9,
         -1,
         {},
         9,
         "[DHCPSNOOP] dhcpsnoop vlan setapi: get unit of the vlan failed!\r\n"},
        {"without VLAN interface, read",
         false,
         11,
         99,
         9,
         -1,
         {},
         9,
         "[DHCPSNOOP] dhcpsnoop vlan getapi: get unit of the vlan failed!\r\n"},
        {"a command there is not, set", true, 10, 2, 9, 0x3E80010, {}, 9, nullptr},
        {"a command there is not, read", false, 10, 18, 9, 0x3E80010, {}, 9, nullptr},
    };
    gDhcpsnoop.debugFlags = DHCPSNOOP_DEBUG_DUMP;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        world.clear();
        uint32_t value = row.value;
        EXPECT_EQ(row.set ? dhcpSnoopVlanSetApi(row.vid, row.cmd, &value)
                          : dhcpSnoopVlanGetApi(row.vid, row.cmd, &value),
                  row.result);
        EXPECT_EQ(value, row.valueAfter);
        EXPECT_EQ(world.calls(), row.calls);
        const Lines said = debug_texts();
        ASSERT_FALSE(said.empty());
        // Kept: the read says it without the usual beginning.
        EXPECT_EQ(
            said[0],
            row.set ? world_format("[DHCPSNOOP] dhcpsnoop vlan setapi: vid %u, cmd %u.\r\n", row.vid, row.cmd)
                    : world_format("dhcpsnoop vlan getapi: vid = %u, cmd = %u.\r\n", row.vid, row.cmd));
        if (row.text != nullptr) {
            EXPECT_EQ(said.size(), 2u);
            EXPECT_EQ(said.back(), row.text);
        }
    }
    EXPECT_EQ(world.calls(), Lines{});
    world.clear();
    uint32_t value = 0;
    dhcpSnoopVlanGetApi(10, 1, &value);
    EXPECT_EQ(world.asked[0], "qorIndexTrans 1,1,1,1,10,3,0 7");
}

TEST_F(Settings, VlansAreListedInTheOrderOfTheirInterfaces)
{
    world.vlan_interface(300, 20);
    world.vlan_interface(301, 10);
    world.vlan_interface(302, 30);
    snoop(300);
    snoop(301);
    snoop(302)->flags &= ~0x80000000;
    const struct {
        uint32_t from;
        int32_t result;
        uint32_t found;
    } rows[] = {
        {0, 0, 20}, {1, 0, 20}, {9, 0, 20}, {10, 0, 20}, {19, 0, 20}, {20, -1, 77}, {0xFFFFFFFF, -1, 77},
    };
    uint32_t found = 0;
    EXPECT_EQ(dhcpSnoopVlanGetFirst(&found), 0);
    EXPECT_EQ(found, 20u);
    for (const auto &row : rows) {
        found = 77;
        EXPECT_EQ(dhcpSnoopVlanGetNext(row.from, &found), row.result) << row.from;
        EXPECT_EQ(found, row.found) << row.from;
    }
    EXPECT_EQ(dhcpSnoopVlanGetFirst(nullptr), -1);
    EXPECT_EQ(dhcpSnoopVlanGetNext(0, nullptr), -1);
    dhcpsnoop_if_disable(dhcpsnoop_if_lookup(300));
    dhcpsnoop_if_disable(dhcpsnoop_if_lookup(301));
    EXPECT_EQ(dhcpSnoopVlanGetFirst(&found), -1);
}

} // namespace

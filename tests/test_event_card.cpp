// Cards, slots and subsystems that come and go. Which one it is stands in the first four words of the
// datagram, which are its first message's header: length, type and flags, sequence, port id.
#include "daemon_test.h"
#include "event_message.h"

namespace
{

constexpr uint16_t CARD_UP = 87, CARD_DOWN = 88, SLOT_UP = 90, SLOT_DOWN = 91, SUBSYSTEM_UP = 93;
constexpr uint32_t CARD_KNOWN = 49152043, CARD_KIND = 49152042, SLOT_KNOWN = 32768049, SLOT_KIND = 32768042;
constexpr uint32_t CARD = 3, FURTHER = 0x55;
constexpr uint32_t HERE = 1, OTHER_CARD = 2, OTHER_SLOT = 3, OTHER_SYSTEM = 4, UNKNOWN = 99;

Bytes place_message(uint16_t type) { return host32(16) + host16(type) + host16(0) + host32(CARD) + host32(FURTHER); }

void deliver(Bytes datagram) { dhcpsnoop_notify_recv(datagram.data(), static_cast<int32_t>(datagram.size())); }

constexpr uint32_t FIXED = ip4(10, 0, 1, 0), DYNAMIC = ip4(10, 0, 2, 0); // + the port

class Places : public Daemon
{
  protected:
    // A static binding in hardware for IP source guard only, and a dynamic one, on each of the ports.
    void prepare(const Bytes &datagram)
    {
        world.reset();
        world.selfSystem = 16;
        const uint32_t slot = host32_at(datagram, 4);
        world.access(HERE, 10).location = {16, slot, 1, 0, 1, 1, CARD};
        world.access(OTHER_CARD, 10).location = {16, slot, 1, 0, 2, 1, CARD + 1};
        world.access(OTHER_SLOT, 10).location = {16, slot + 1, 1, 0, 3, 1, CARD};
        world.access(OTHER_SYSTEM, 10).location = {17, slot, 1, 0, 4, 1, CARD};
        for (const uint32_t port : {HERE, OTHER_CARD, OTHER_SLOT, OTHER_SYSTEM, UNKNOWN}) {
            DhcpsnoopUser *fixed = make_binding(FIXED + port, MAC_CLIENT, port, 10);
            fixed->userType = DHCPSNOOP_USER_STATIC;
            fixed->hwFlags = DHCPSNOOP_HW_IPSG;
            make_binding(DYNAMIC + port, MAC_CLIENT, port, 10);
            world.ipsg[port] = {.items = 0x80};
            world.dai[port] = {.items = 0x40};
        }
        gDhcpsnoop.ipsgIfGet = ipsgIfGetApi;
        gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi;
        world.hwScalars[53] = 1;
        world.hwScalars[54] = 1;
        world.hwScalars[45] = 0;
    }

    // "copy MODE LENGTH", "add PORT", "deleted PORT" in order of what was done.
    static std::string done()
    {
        std::string text;
        for (const WorldEntry *entry : world.all(Did::Call)) {
            if (entry->text.starts_with("qorHwScalarSync null 0x40013 "))
                text += "copy" + entry->text.substr(entry->text.rfind(' ')) + world_format(" %zu; ", entry->data.size());
            else
                text += entry->text.substr(3, entry->text.find(':') - 3) + "; ";
        }
        for (const uint32_t port : {HERE, OTHER_CARD, OTHER_SLOT, OTHER_SYSTEM, UNKNOWN}) {
            if (binding(DYNAMIC + port) == nullptr)
                text += world_format("deleted %u; ", port);
            EXPECT_NE(binding(FIXED + port), nullptr);
        }
        return text;
    }
};

TEST_F(Places, CardsAndSlots)
{
    enum Does : uint8_t { Nothing,
                          Copy,
                          Install,
                          Delete };
    const struct {
        const char *claim;
        uint16_t type;
        int32_t known, kind; // the two answers
        Does does;
    } rows[] = {
        {"a card of another kind", CARD_UP, 0, 1, Copy},
        {"a negative answer", CARD_UP, 0, -1, Copy},
        {"a card of ours", CARD_UP, 0, 0, Install},
        {"an unknown card", CARD_UP, 1, 1, Nothing},
        {"a card of ours gone", CARD_DOWN, 0, 0, Delete},
        {"another card gone", CARD_DOWN, 0, 1, Nothing},
        {"an unknown card gone", CARD_DOWN, 1, 0, Nothing},
        // Kept: for slots the second answer reads the other way round.
        {"a slot of another kind", SLOT_UP, 0, 0, Copy},
        {"a slot of ours", SLOT_UP, 0, 1, Install},
        {"an unknown slot", SLOT_UP, 1, 0, Nothing},
        {"a slot of ours gone", SLOT_DOWN, 0, -1, Delete},
        {"another slot gone", SLOT_DOWN, 0, 0, Nothing},
        {"an unknown slot gone", SLOT_DOWN, 1, 1, Nothing},
    };
    for (const auto &row : rows) {
        for (const auto &[notSlave, stack] : {std::pair{1u, 0u}, {0u, 1u}, {0u, 0u}}) {
            SCOPED_TRACE(world_format("%s; scalars %u %u", row.claim, notSlave, stack));
            const bool card = row.type == CARD_UP || row.type == CARD_DOWN;
            const Bytes datagram = place_message(row.type);
            const uint32_t slot = host32_at(datagram, 4);
            prepare(datagram);
            world.hwScalars[54] = notSlave;
            world.hwScalars[45] = stack;
            (card ? world.cardAnswers : world.slotAnswers) = {{card ? CARD_KNOWN : SLOT_KNOWN, row.known}, {card ? CARD_KIND : SLOT_KIND, row.kind}};
            const std::string before = world_state();
            deliver(datagram);
            const bool ours = notSlave != 0 || stack != 0;

            std::string expected;
            // 10 bindings of 60 bytes, whatever the role is.
            if (row.does == Copy)
                expected = world_format("copy 0x%x 600; ", 0x80000000u | 16u << 16 | slot << 11 | (card ? CARD << 8 : 0) | 1u);
            // What is installed stays as it is; the other kind is added. A standby unit programs nothing.
            if (row.does == Install && ours && notSlave != 0)
                expected = card ? "add 1; " : "add 1; add 2; ";
            if (row.does == Delete && ours)
                expected = card ? "deleted 1; " : "deleted 1; deleted 2; ";
            EXPECT_EQ(done(), expected);
            const uint8_t both = DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI;
            EXPECT_EQ(binding(FIXED + HERE)->hwFlags, row.does == Install && ours ? both : DHCPSNOOP_HW_IPSG);
            if (expected.empty() && !(row.does == Install && ours)) {
                gDhcpsnoop.runningRole = DHCPSNOOP_ROLE_NONE;
                EXPECT_EQ(world_state(), before);
            }

            const std::string words = world_format("%s 16.%u.%u.%u ", card ? "qorHwCardGet" : "qorHwSlotGet", slot, CARD, FURTHER);
            Lines asked = {words + std::to_string(card ? CARD_KNOWN : SLOT_KNOWN)};
            if (row.known == 0)
                asked.push_back(words + std::to_string(card ? CARD_KIND : SLOT_KIND) + " null");
            EXPECT_EQ(world.questions(card ? "qorHwCard" : "qorHwSlot"), asked);
            EXPECT_EQ(world.questions(card ? "qorHwSlot" : "qorHwCard"), Lines{});
        }
    }
}

TEST_F(Places, OfAnotherSystemNobodyIsAsked)
{
    for (const uint16_t type : {CARD_UP, CARD_DOWN, SLOT_UP, SLOT_DOWN}) {
        prepare(place_message(type));
        world.selfSystem = 17;
        deliver(place_message(type));
        EXPECT_EQ(done(), "") << type;
        EXPECT_EQ(world.asked, Lines{});
    }
    // A card of ours that goes takes no binding of IP source guard along.
    prepare(place_message(CARD_DOWN));
    binding(DYNAMIC + HERE)->userType = DHCPSNOOP_USER_IPSG;
    deliver(place_message(CARD_DOWN));
    EXPECT_EQ(done(), "");
}

TEST_F(Places, WhichBindingsAreInstalledAgain)
{
    const Bytes datagram = place_message(CARD_UP);
    const struct {
        const char *claim;
        uint8_t userType, hwFlags;
        const char *done;
    } rows[] = {
        {"installed for IP source guard", 2, 0x80, "add 1; "},
        {"installed for ARP inspection", 2, 0x40, "add 1; "},
        {"installed for both: nothing is left to do", 2, 0xC0, ""},
        {"installed for none: was not enforced before", 2, 0x00, ""},
        {"dynamic", 1, 0x80, ""},
        {"of IP source guard", 4, 0x80, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(datagram);
        binding(FIXED + HERE)->userType = row.userType;
        binding(FIXED + HERE)->hwFlags = row.hwFlags;
        deliver(datagram);
        EXPECT_EQ(done(), row.done);
    }
    prepare(datagram);
    world.refuse("qorIndexTrans 1 6"); // where the port is cannot be said
    deliver(datagram);
    EXPECT_EQ(done(), "");
}

// Kept: the words are the datagram's first, also for the messages behind the first.
TEST_F(Places, WordsAreTheDatagrams)
{
    const Bytes first = host32(20) + host16(9) + host16(1) + host32(CARD) + host32(FURTHER) + host32(0);
    const Bytes datagram = first + event_message(CARD_UP, host32(1) + host32(2) + host32(3) + host32(4));
    prepare(datagram);
    world.selfSystem = 20;
    world.cardAnswers[CARD_KIND] = 1;
    deliver(datagram);
    EXPECT_EQ(done(), world_format("copy 0x%x 600; ", 0x80000000u | 20u << 16 | host32_at(first, 4) << 11 | CARD << 8 | 1u));
}

TEST_F(Places, Subsystems)
{
    const struct {
        const char *claim;
        uint32_t self, notMaster;
        const char *done;
    } rows[] = {
        {"a master gives it everything", 17, 0, "copy 0x80100002 600; "},
        {"nobody else does", 17, 1, ""},
        {"not its own", 16, 0, ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.claim);
        prepare(place_message(SUBSYSTEM_UP));
        world.selfSystem = row.self;
        world.hwScalars[53] = row.notMaster;
        deliver(place_message(SUBSYSTEM_UP));
        EXPECT_EQ(done(), row.done);
    }
    debug(1);
    world.clear();
    deliver(place_message(SUBSYSTEM_UP));
    EXPECT_EQ(debug_texts(), Lines{"[DHCPSNOOP] Receive subsystem:16 RTM_SUBSYSTEM_UP!\r\n"});
}

} // namespace

// Cards, slots and subsystems that come and go: a unit that came up gets a full copy of the tables, the
// static bindings of a card are installed again, the dynamic ones of a card that is gone are deleted. Kept:
// the place stands in the first words of the received datagram, not in the message's payload.
#include "event_handlers.h"

#include "debug.h"
#include "dhcpsnoop_sync.h"
#include "dhcpsnoop_user.h"
#include "list.h"
#include "platform.h"

static constexpr uint32_t ALL_REQUEST = 1;

struct Place {
    uint32_t words[4]; // system, slot, card, and one that only the platform reads
};

static Place place_take(const Event &event)
{
    Place place;
    std::memcpy(place.words, event.datagram, sizeof place.words);
    return place;
}

static bool on_card(const DhcpsnoopUser *user, const Place &place, bool wholeSlot)
{
    uint32_t location[QOR_LOCATION_WORDS] = {};
    if (qorIndexTrans(&user->ifIndex, QOR_TRANS_LOCATION, location) != 0)
        return false;
    return location[QOR_LOCATION_SYSTEM] == place.words[0] && location[QOR_LOCATION_SLOT] == place.words[1] &&
           (wholeSlot || location[QOR_LOCATION_CARD] == place.words[2]);
}

static bool hardware_is_ours(void)
{
    return qorHwScalarGet(0, QOR_HW_NOT_SLAVE, nullptr) != 0 || qorHwScalarGet(0, QOR_HW_STACK, nullptr) != 0;
}

static void static_users_install(const Place &place, bool wholeSlot)
{
    if (!hardware_is_ours())
        return;
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->userType == DHCPSNOOP_USER_STATIC &&
            (user->hwFlags & (DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI)) != 0 && on_card(user, place, wholeSlot))
            dhcpsnoop_user_update_hw(user, 1);
    }
}

static void dynamic_users_delete(const Place &place, bool wholeSlot)
{
    if (!hardware_is_ours())
        return;
    for (DhcpsnoopUser *user : hash_each<DhcpsnoopUser>(gDhcpsnoop.userHash)) {
        if (user->userType == DHCPSNOOP_USER_DYNAMIC && on_card(user, place, wholeSlot))
            dhcpsnoop_user_delete(user);
    }
}

// A kind of hardware that comes and goes: how the platform is asked about it.
struct Hardware {
    int32_t (*get)(const uint32_t *where, uint32_t property, void *answer);
    uint32_t known, kind; // properties
    bool wholeSlot;
};
static constexpr Hardware CARD = {qorHwCardGet, QOR_CARD_KNOWN, QOR_CARD_KIND, false};
static constexpr Hardware SLOT = {qorHwSlotGet, QOR_SLOT_KNOWN, QOR_SLOT_KIND, true};

// Nothing is done about hardware of another system, or hardware that the platform does not know.
static bool known(const Place &place, const Hardware &hardware)
{
    alignas(8) uint8_t answer[256] = {};
    return place.words[0] == qorSelfSysIndex() && hardware.get(place.words, hardware.known, answer) == 0;
}

// Kept: for slots the second answer reads the other way round.
static bool has_daemon(const Place &place, const Hardware &hardware)
{
    return (hardware.get(place.words, hardware.kind, nullptr) == 0) == hardware.wholeSlot;
}

static void came_up(const Place &place, const Hardware &hardware)
{
    if (!known(place, hardware))
        return;
    const uint32_t card = hardware.wholeSlot ? 0 : place.words[2] << 8;
    if (has_daemon(place, hardware))
        dhcpsnoop_sync_all_send((place.words[0] << 16) | (place.words[1] << 11) | card | QOR_PEER_CARD,
                                ALL_REQUEST);
    else
        static_users_install(place, hardware.wholeSlot);
}

static void went_down(const Place &place, const Hardware &hardware)
{
    if (known(place, hardware) && !has_daemon(place, hardware))
        dynamic_users_delete(place, hardware.wholeSlot);
}

void event_card_up(const Event &event) { came_up(place_take(event), CARD); }

void event_card_down(const Event &event) { went_down(place_take(event), CARD); }

void event_slot_up(const Event &event) { came_up(place_take(event), SLOT); }

void event_slot_down(const Event &event) { went_down(place_take(event), SLOT); }

void event_subsystem_up(const Event &event)
{
    const uint32_t subsystem = place_take(event).words[0];
    DEBUG_EVENT("[DHCPSNOOP] Receive subsystem:%lu RTM_SUBSYSTEM_UP!\r\n",
                static_cast<unsigned long>(subsystem));
    if (subsystem != qorSelfSysIndex() && qorHwScalarGet(0, QOR_HW_NOT_MASTER, nullptr) == 0)
        dhcpsnoop_sync_all_send((subsystem << 16) | QOR_PEER_SYSTEM, ALL_REQUEST);
}

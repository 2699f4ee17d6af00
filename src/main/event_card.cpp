// Cards, slots and subsystems that come and go: a unit that came up gets a full copy of the tables, the
// static bindings of a card are installed again, the dynamic ones of a card that is gone are deleted. Kept:
// the words that say which one are the first of the received datagram, not the message's payload.
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
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash) {
        for (DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&bucket)) {
            if (user->userType == DHCPSNOOP_USER_STATIC &&
                (user->hwFlags & (DHCPSNOOP_HW_IPSG | DHCPSNOOP_HW_DAI)) != 0 &&
                on_card(user, place, wholeSlot))
                dhcpsnoop_user_update_hw(user, 1);
        }
    }
}

static void dynamic_users_delete(const Place &place, bool wholeSlot)
{
    if (!hardware_is_ours())
        return;
    for (DhcpsnoopLink &bucket : gDhcpsnoop.userHash) {
        for (DhcpsnoopUser *user : list_each<DhcpsnoopUser>(&bucket)) {
            if (user->userType == DHCPSNOOP_USER_DYNAMIC && on_card(user, place, wholeSlot))
                dhcpsnoop_user_delete(user);
        }
    }
}

// Nothing is done about a card or slot of another system, or one the platform does not know.
static bool card_known(const Place &place)
{
    alignas(8) uint8_t answer[256] = {};
    return place.words[0] == qorSelfSysIndex() && qorHwCardGet(place.words, QOR_CARD_KNOWN, answer) == 0;
}

static bool slot_known(const Place &place)
{
    alignas(8) uint8_t answer[256] = {};
    return place.words[0] == qorSelfSysIndex() && qorHwSlotGet(place.words, QOR_SLOT_KNOWN, answer) == 0;
}

void event_card_up(const Event &event)
{
    const Place place = place_take(event);
    if (!card_known(place))
        return;
    if (qorHwCardGet(place.words, QOR_CARD_KIND, nullptr) != 0)
        dhcpsnoop_sync_all_send((place.words[0] << 16) | (place.words[1] << 11) | (place.words[2] << 8) |
                                    QOR_PEER_CARD,
                                ALL_REQUEST);
    else
        static_users_install(place, false);
}

void event_card_down(const Event &event)
{
    const Place place = place_take(event);
    if (card_known(place) && qorHwCardGet(place.words, QOR_CARD_KIND, nullptr) == 0)
        dynamic_users_delete(place, false);
}

// Kept: for slots the second answer reads the other way round.
void event_slot_up(const Event &event)
{
    const Place place = place_take(event);
    if (!slot_known(place))
        return;
    if (qorHwSlotGet(place.words, QOR_SLOT_KIND, nullptr) == 0)
        dhcpsnoop_sync_all_send((place.words[0] << 16) | (place.words[1] << 11) | QOR_PEER_CARD, ALL_REQUEST);
    else
        static_users_install(place, true);
}

void event_slot_down(const Event &event)
{
    const Place place = place_take(event);
    if (slot_known(place) && qorHwSlotGet(place.words, QOR_SLOT_KIND, nullptr) != 0)
        dynamic_users_delete(place, true);
}

void event_subsystem_up(const Event &event)
{
    const uint32_t subsystem = place_take(event).words[0];
    DEBUG_EVENT("[DHCPSNOOP] Receive subsystem:%lu RTM_SUBSYSTEM_UP!\r\n",
                static_cast<unsigned long>(subsystem));
    if (subsystem != qorSelfSysIndex() && qorHwScalarGet(0, QOR_HW_NOT_MASTER, nullptr) == 0)
        dhcpsnoop_sync_all_send((subsystem << 16) | QOR_PEER_SYSTEM, ALL_REQUEST);
}

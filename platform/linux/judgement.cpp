#include "judgement.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <optional>
#include <sys/random.h>

#include "asker.h"
#include "judge.h"
#include "model.h"
#include "protection.h"
#include "protocol.h"
#include "report.h"
#include "taken_frame.h"
#include "vlan_bridge.h"

namespace platform_linux
{
namespace
{

constexpr Ticks DETAILS = 1000; // between two lines that tell a case

struct Text {
    char text[INET6_ADDRSTRLEN + 8];
};

Text mac_text(const HostMac &mac)
{
    Text text;
    snprintf(text.text, sizeof text.text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

Text address_text(const DhcpsnoopUserKey &key)
{
    Text text = {"its transaction"};
    if (key.ipType != 0)
        inet_ntop(key.ipType == DHCPSNOOP_IPV6 ? AF_INET6 : AF_INET, key.ipAddr, text.text, sizeof text.text);
    return text;
}

// From either thread: no look into the model. One case in a second is told.
void tell(const JudgedClaim &claim, const char *what)
{
    static std::atomic<Ticks> next = 0;
    const Ticks now = ticks();
    Ticks due = next;
    if (now < due || !next.compare_exchange_strong(due, now + DETAILS))
        return;
    platform_report(LOG_WARNING, "%s: %s claims %s of %s at %s, VLAN %u: %s",
                    device_name(claim.claimant.place.ifIndex).c_str(), mac_text(claim.claimant.mac).text,
                    address_text(claim.address).text, mac_text(claim.holder.mac).text,
                    device_name(claim.holder.place.ifIndex).c_str(), claim.holder.place.vid, what);
}

void count(Refused reason, const HostPlace &place)
{
    refusal_count(reason, device_name(place.ifIndex).c_str());
}

class Surroundings : public JudgeSwitch
{
  public:
    bool start() { return asker_.start(); }

    bool is_alive(const HostPlace &place) const override
    {
        const Port *port = model_port(place.ifIndex);
        return port != nullptr && port->up && port->aggregate == 0 &&
               (port->routed || (place.vid < port->members.size() && port->members[place.vid] &&
                                 vlan_is_of(place.vid, port->bridge)));
    }

    void ask(size_t number, const JudgedClaim &claim) override
    {
        const HostPlace &place = claim.holder.place;
        const Port &port = *model_port(place.ifIndex); // is alive
        if (port.kind == PortKind::host) {             // this machine, which is there
            asker_.settle(number, Answer::heard);
            return;
        }
        const bool tagged = !port.routed && !port.untagged[place.vid];
        AskPort asking = {{}, port.tpid, tagged ? place.vid : uint16_t{0}};
        std::copy_n(port.mac, asking.mac.size(), asking.mac.begin());
        asker_.ask(number, claim, ask_frame(asking, claim.address, claim.holder.mac));
    }

    Answer answer(size_t number) const override { return asker_.answer(number); }

    void refuse(Refused reason, const JudgedClaim &claim) override
    {
        count(reason, claim.claimant.place);
        if (reason == Refused::bindingTheft)
            tell(claim, "refused");
    }

    Ticks now() const override { return ticks(); }

  private:
    static void heard(const JudgedClaim &claim)
    {
        count(Refused::bindingTheft, claim.claimant.place);
        tell(claim, "the holder answers there, refused");
    }

    Asker asker_{heard};
};

Surroundings surroundings;
std::optional<Judge> judge;

} // namespace

bool judgement_start(uint32_t bindings)
{
    uint64_t seed = 0;
    if (getrandom(&seed, sizeof seed, 0) != sizeof seed || !surroundings.start()) {
        platform_report(LOG_ERR, "bindings cannot be protected: %s", strerror(errno));
        return false;
    }
    judge.emplace(surroundings, bindings, seed);
    return true;
}

} // namespace platform_linux

using namespace platform_linux;

int32_t platform_message_judge(const DhcpsnoopPktInfo *info)
{
    if (!judge || !protectionIsStrict || judge->passes(*info))
        return 0;
    if (latestFrame != nullptr) // is counted already
        latestFrame->isNew = false;
    return -1;
}

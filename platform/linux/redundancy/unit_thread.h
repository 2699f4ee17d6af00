// The platform's thread: takes the daemon's records to the peer unit and to the journal, brings the peer's
// and the journal's records to the daemon, and leads the daemon from one role to another.
//
// The daemon takes records in as a standby only, and a standby programs no data plane. So every start begins
// as a standby: the journal is delivered, then the unit takes its own role and installs all bindings. A unit
// that becomes the standby withdraws them first. A wall clock that was set makes the daemon a standby, too,
// until it has its leases anew (unit_clock.cpp).
//
//              +---> deliver --------------+
//              |     (records in line)     |
//              +---> clock ----------------+
//              |     (was set)             |
//    none -----+---> withdraw -------------+---> none
//              |     (to standby)          |
//              +---> clear ---> install ---+
//                    (from standby)
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "change_queue.h"
#include "control_socket.h"
#include "daemon_requests.h"
#include "full_copy.h"
#include "journal.h"
#include "peer_link.h"

namespace platform_linux
{

// The largest copy twice over.
constexpr size_t CHANGE_QUEUE_MAX = 2 * UNIT_TABLE_MAX;

// The daemon's requests to the data plane while a change of role is under way.
enum class Enforcement : uint8_t {
    normal,
    refuseAdds, // adds fail
    clearMarks, // adds fail, deletes succeed without effect: they only clear the daemon's marks
};

struct UnitPort {
    uint32_t ifIndex;
    uint64_t identity; // differs between two ports that have the same name in turn; 0 = unknown
};
using UnitPorts = std::map<std::string, UnitPort, std::less<>>; // by name

// The state of both threads.
struct UnitShared {
    explicit UnitShared() : changes(CHANGE_QUEUE_MAX) {}

    ChangeQueue changes;
    LeaseClock clock;
    std::atomic<bool> clockSeen = false; // the daemon has seen that the wall clock was set
    std::atomic<DhcpsnoopRole> daemonRole = DHCPSNOOP_ROLE_SLAVE;
    std::atomic<Enforcement> enforcement = Enforcement::normal;
    std::atomic<bool> installed = false;      // all bindings are installed in the daemon's new role
    std::atomic<bool> copyWanted = false;     // asked of the daemon, not begun
    std::atomic<bool> bindingChanged = false; // by management
    std::atomic<int> eventSocket = -1;
    int wakeup = -1;            // an eventfd
    uint32_t room = UINT32_MAX; // for bindings in the daemon

    std::mutex portsMutex;
    UnitPorts ports; // once the daemon has handled the events of their changes
    std::atomic<uint32_t> portsVersion = 0;

    void wake() const;
    // Makes the daemon's event socket readable.
    void wake_daemon() const;
};

// A request to bind, unbind or delete the record's binding.
AdrRequest act_on(const UnitRecord &record, uint32_t action);

class UnitThread
{
  public:
    UnitThread(UnitShared &shared, DhcpsnoopRole role, std::string daemonSocket);

    // Before run. Each reports what is wrong itself; false when the daemon must not run.
    bool open_peer(const PeerConf &conf);
    void open_journal(const std::string &path);
    void open_control(const char *path);

    // Puts the journal's records in line for the daemon, whose role is settled now when there are none.
    void begin();

    [[noreturn]] void run();
    void turn(); // one pass of run, which waits

  private:
    // The step between two roles, as long as a request to the daemon is under way for it.
    enum class Step : uint8_t {
        none,
        deliver,  // a packet of records goes to the daemon, which is a standby, if only for the moment
        withdraw, // the daemon takes all bindings out of the data plane
        clear,    // the daemon forgets which bindings are installed
        install,  // the daemon installs all bindings
        clock,    // the daemon ends what it has begun as a master
    };

    void line_up();
    void drain(Ticks now);
    void take_record(Change change);
    void take_change(const Change &change, Ticks now);
    void take_copy_end(bool complete);
    void copied(uint32_t records);
    void ask_for_copy(Ticks now);
    void note(const UnitRecord &record);
    void write_journal(Ticks now);
    DhcpsnoopRole daemon_role() const;

    // unit_role.cpp
    void advance();
    void deliver();
    void count_refused();
    void enforce();
    void withdraw();
    void take_over(DhcpsnoopRole target);
    void install();
    void settle();

    // unit_clock.cpp
    Moment now() const { return shared_.clock.now(); }
    void look_at_clock(Ticks now);
    void follow_clock();
    void accept_clock();
    bool awaits_clock(const UnitTable::Held &held) const;
    bool lost_by_clock(const UnitRecord &record);
    void correct_start(UnitRecord &record);

    // unit_ports.cpp
    const UnitPort *port(const UnitRecord &record) const;
    UnitPlace place_of_daemons(const Change &change);
    UnitPlace place_of_peers(const UnitRecord &record);
    void look_for_ports();
    bool look_for_port(UnitTable::Held &held, uint32_t now);
    void forget_waiting();
    std::string waiting(const std::string &from) const;
    bool forget(const std::string &address);

    // unit_peer.cpp
    void peer_up();
    void peer_down();
    void peer_frame(const PeerFrame &frame);
    void peer_record(const PeerFrame &frame);
    void peer_copy_end(const PeerFrame &frame);
    void request_copy();
    void send_record(const UnitBytes &bytes);
    void send_copy_begin();
    void send_copy_end();

    // unit_control.cpp
    void control(const std::string &request, ControlSocket::Answer answer);
    std::string status() const;

    UnitShared &shared_;
    DhcpsnoopRole role_;      // the operator's
    DhcpsnoopRole announced_; // what the peer knows
    bool fresh_ = true;       // the daemon has not had a role yet
    bool replayed_ = false;   // the daemon gets records of the journal
    Step step_ = Step::none;
    UnitTable table_;
    Journal journal_;
    DaemonRequests daemon_;
    ControlSocket control_;
    std::vector<ControlSocket::Answer> waiting_; // for the new role to be in force
    std::deque<UnitRecord> toDaemon_;
    UnitPorts ports_;
    uint32_t portsVersion_ = 0;

    FullCopy copy_;                             // of the daemon's tables
    uint32_t copyRecords_ = 0;                  // so far
    uint32_t lastCopy_ = 0, lastCopyCount_ = 0; // when, by the wall clock; 0 = never

    std::optional<PeerLink> link_;
    bool peerBehind_ = false;  // records for the peer found no room
    bool copyForPeer_ = false; // the peer knows of copy_
    bool peerCopies_ = false;  // a full copy of the peer's is under way
    uint32_t peerCopyRecords_ = 0;
    size_t refused_ = 0; // bindings for which the daemon has no room
    uint64_t sent_ = 0, received_ = 0, dropped_ = 0;
    Ticks dirtySince_ = NEVER, expireAt_ = 0;
    Ticks clockWait_ = NEVER;  // until then the journal's leases wait for the clock
    bool moreChanges_ = false; // may be in the queue, which wakes nobody before it is found empty
    Ticks takeAt_ = 0;         // when it is looked at again
};

} // namespace platform_linux

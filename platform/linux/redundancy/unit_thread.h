// The platform's thread: takes the daemon's records to the peer unit and to the journal, brings the peer's
// and the journal's records to the daemon, and leads the daemon from one role to another.
//
// The daemon takes records in as a standby unit only, and as such it programs no data plane. So every start
// begins as a standby: the journal is delivered, then the unit's own role is taken and all bindings are
// installed. A unit that is to stand by withdraws them first.
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
#include "journal.h"
#include "peer_link.h"
#include "redundancy.h"

namespace platform_linux
{

// The largest copy twice over.
constexpr size_t CHANGE_QUEUE_MAX = 2 * UNIT_TABLE_MAX;

// What both threads touch.
struct UnitShared {
    explicit UnitShared() : changes(CHANGE_QUEUE_MAX) {}

    ChangeQueue changes;
    std::atomic<bool> recording = false; // somebody wants the daemon's records
    std::atomic<DhcpsnoopRole> daemonRole = DHCPSNOOP_ROLE_SLAVE;
    std::atomic<Enforcement> enforcement = Enforcement::normal;
    std::atomic<bool> holdOver = false;       // what the daemon's new role did not install again may go
    std::atomic<bool> copyWanted = false;     // asked of the daemon, not begun
    std::atomic<bool> bindingChanged = false; // by management
    std::atomic<int> eventSocket = -1;
    int wakeup = -1; // an eventfd

    std::mutex portsMutex;
    std::map<std::string, uint32_t, std::less<>> ports; // by name
    std::atomic<uint32_t> portsVersion = 0;

    void wake() const;
    // Makes the daemon's event socket readable.
    void wake_daemon() const;
};

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
    void drain(Ticks now);
    void take_record(const UnitRecord &record);
    void take_change(const Change &change, Ticks now);
    void take_copy_end(bool complete);
    void advance();
    void deliver();
    void enforce();
    void stand_by();
    void take_over(DhcpsnoopRole target);
    void install();
    void settle();
    void ask_for_copy(Ticks now);
    void peer_up();
    void peer_down();
    void peer_frame(const PeerFrame &frame);
    void peer_record(const PeerFrame &frame);
    void peer_copy_end(const PeerFrame &frame);
    void request_copy();
    void send_record(const UnitBytes &bytes);
    void note(const UnitRecord &record);
    void bring(const UnitRecord &record);
    void look_for_ports();
    void control(const std::string &request, ControlSocket::Answer answer);
    std::string status() const;
    DhcpsnoopRole daemon_role() const;
    std::optional<uint32_t> port_index(const char *port) const;
    void write_journal(Ticks now);

    UnitShared &shared_;
    DhcpsnoopRole role_;      // the operator's
    DhcpsnoopRole announced_; // what the peer knows
    bool fresh_ = true;       // the daemon has not had a role yet
    bool replayed_ = false;   // and has records of the journal
    bool busy_ = false;       // a request to the daemon is under way
    UnitTable table_;
    Journal journal_;
    std::optional<PeerLink> link_;
    DaemonRequests daemon_;
    ControlSocket control_;
    std::vector<ControlSocket::Answer> waiting_; // for the role to settle
    std::deque<UnitRecord> toDaemon_;
    std::map<std::string, uint32_t, std::less<>> ports_;
    uint32_t portsVersion_ = 0;

    bool copyNeeded_ = false, copyAsked_ = false, copyOpen_ = false;
    bool copyBroken_ = false;  // records were lost since it began
    bool copyForPeer_ = false; // the peer was told of its beginning
    bool peerBehind_ = false;  // records for the peer found no room
    uint32_t copyCount_ = 0;   // records of the copy that is under way, in or out
    Ticks copyNext_ = 0, copyAskedAt_ = 0;
    uint32_t lastCopy_ = 0, lastCopyCount_ = 0; // when, by the wall clock; 0 = never
    uint64_t sent_ = 0, received_ = 0, dropped_ = 0;
    Ticks dirtySince_ = NEVER, expireAt_ = 0;
    bool moreChanges_ = false; // may come, and are not told, before the queue is looked at again
    Ticks takeAt_ = 0;         // when it is then
};

} // namespace platform_linux

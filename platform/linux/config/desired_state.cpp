#include "desired_state.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "clock.h"
#include "config_thread.h"
#include "fd.h"
#include "guard.h"
#include "model.h"
#include "protection.h"
#include "reconcile.h"
#include "report.h"
#include "wake.h"

namespace platform_linux
{
namespace
{

constexpr size_t PORTS_PER_CALL = 16; // some 2 ms, or less on a slow machine:
constexpr Ticks TIME_PER_CALL = 5;
constexpr std::chrono::seconds PATIENCE(30);

// A configuration and its text.
struct Desired {
    Config config;
    std::string text;
};

std::string savedPath, lastGoodPath;
bool active = false;                  // there is a configuration
bool starting = false;                // nothing of it is brought about yet
Desired running;                      // on the daemon's thread, as all up to the job
std::optional<Desired> previous;      // until a confirmation
std::set<uint32_t> todo, fresh;       // ports to look at; those among them that have appeared
std::map<uint32_t, uint32_t> settled; // ports whose settings are in force, with the bridge that they are of
int eventSocket = -1;
std::optional<Daemon> core;
std::string (*facts)();

std::mutex jobMutex;
std::condition_variable jobDone;
std::optional<std::string> jobRequest, jobAnswer;

bool write_file(const std::string &path, const std::string &text)
{
    const std::string beside = path + ".new";
    const Fd file(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    return file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
           fsync(file.get()) == 0 && rename(beside.c_str(), path.c_str()) == 0;
}

void protect_bridges()
{
    std::set<uint32_t> bridges;
    for (const BridgeLine &line : running.config.bridges)
        if (const uint32_t ifIndex = model_bridge(line.bridge); ifIndex != 0)
            bridges.insert(ifIndex);
    guard_protect(bridges, !running.config.bridges.empty());
}

// A port of a protected bridge stays closed while its snooping or its guard could not be had.
void settle(const Port &port, const Differences &made)
{
    const auto leavesOpen = [](const Difference &difference) {
        const Words &line = difference.running;
        return !difference.error.empty() && (line[0] != "interface" || line[2] == "snooping");
    };
    const bool closed = std::ranges::any_of(made, leavesOpen);
    if (!closed)
        settled[port.ifIndex] = port.bridge;
    guard_admit(port, !closed);
}

// Each difference that could not be made to go, a line; of those without room the first, and how many there
// are.
class Failures
{
  public:
    explicit Failures(const Config &config) : config_(config) {}

    void add(const Differences &differences)
    {
        for (const Difference &difference : differences)
            if (!difference.error.empty() && (!difference.noRoom || noRoom_++ == 0))
                text_ += source_text(config_, difference.source) + ": " + difference.error + "\n";
    }

    std::string text() const
    {
        return noRoom_ < 2 ? text_
                           : text_ + std::to_string(noRoom_ - 1) +
                                 " more for want of room, see dhcpsnoopctl show refusals\n";
    }

  private:
    const Config &config_;
    std::string text_;
    size_t noRoom_ = 0;
};

// Brings all of it about at once. Gives what could not be done.
std::string make_all(const Config &before)
{
    const Config &config = running.config;
    // A host port that is to go is there until its settings are taken back.
    std::set<std::string, std::less<>> hosts = config.model.hosts;
    hosts.insert(before.model.hosts.begin(), before.model.hosts.end());
    model_hosts(hosts);
    protect_bridges();
    const bool inspected = guard_is_inspecting();
    protectionIsStrict = config.protectionIsStrict;
    Failures wrong(config);
    wrong.add(reconcile_globals(config, *core, Make::yes));
    for (const auto &[ifIndex, port] : model_ports()) {
        const Differences made =
            reconcile_port(config, *core, port_id(port, model_ports()), Make::yes, fresh.contains(ifIndex));
        settle(port, made);
        wrong.add(made);
    }
    wrong.add(reconcile_vlans(config, Make::yes));
    wrong.add(reconcile_bindings(config, before, *core, Make::yes));
    // When ARP inspection stops, the daemon forgets the check items of static bindings for it. The log tells
    // each binding once more.
    if (guard_inspection_stopped() && !inspected && guard_is_inspecting())
        for (const BindingLine &line : config.bindingLines)
            if (line.binding.bound)
                core->ask({FUNC_USER_SET, USER_ACTION, line.binding.key, USER_ACTION_BIND});
    model_hosts(config.model.hosts);
    todo.clear();
    fresh.clear();
    return wrong.text();
}

// Takes the desired state; when a part of it cannot be done, goes back to that of before.
std::string take(Desired desired, const Desired &before)
{
    const Config earlier = std::exchange(running, std::move(desired)).config;
    active = true;
    std::string wrong = make_all(earlier);
    if (!wrong.empty()) {
        const Config refused = std::exchange(running, before).config;
        make_all(refused);
        wrong += "nothing was changed\n";
    }
    write_file(config_runtime("running"), running.text);
    return wrong;
}

std::string read(const std::string &path, Desired &desired)
{
    std::string error;
    switch (conf_file_read(path, desired.text, error)) {
    case ConfFile::absent:
        return path + ": " + strerror(ENOENT) + "\n";
    case ConfFile::wrong:
        return error + "\n";
    case ConfFile::read:
        break;
    }
    return config_parse(path, desired.text, desired.config, error) ? "" : error + "\n";
}

// Lines that count at the start only.
std::string later(const Config &now, const Config &then)
{
    const bool same = now.bindings == then.bindings && now.interfaces == then.interfaces &&
                      now.model == then.model && now.redundancy == then.redundancy;
    return same ? "" : "note: room, switch model and redundancy take effect at the next start\n";
}

std::string reload()
{
    Desired desired;
    if (std::string wrong = read(savedPath, desired); !wrong.empty())
        return wrong;
    const std::string note = later(running.config, desired.config);
    if (std::string wrong = take(std::move(desired), Desired(running)); !wrong.empty())
        return wrong;
    previous.reset();
    config_confirm_by({});
    write_file(lastGoodPath, running.text);
    platform_report(LOG_NOTICE, "%s is in force", savedPath.c_str());
    return "ok\n" + note;
}

std::string apply(std::chrono::seconds confirm)
{
    Desired desired;
    if (std::string wrong = read(config_runtime("candidate"), desired); !wrong.empty())
        return wrong;
    const std::string note = later(running.config, desired.config);
    // With the settings that were made by command.
    Desired before;
    if (std::string wrong = read(config_runtime("before"), before); !wrong.empty())
        return wrong;
    if (std::string wrong = take(std::move(desired), before); !wrong.empty())
        return wrong;
    if (confirm.count() == 0) {
        previous.reset();
    } else {
        if (!previous)
            previous = std::move(before);
        config_confirm_by(confirm);
    }
    platform_report(LOG_NOTICE, "another configuration is in force%s",
                    confirm.count() != 0 ? ", until it is confirmed or its time is over"
                                         : "; it is not saved");
    return "ok\n" + note;
}

std::string revert()
{
    if (!previous)
        return "ok\n";
    const Desired before = std::move(*previous);
    previous.reset();
    const std::string wrong = take(before, before);
    platform_report(LOG_WARNING,
                    "the new configuration was not confirmed in time: the earlier one is in force again");
    return wrong.empty() ? "ok\n" : wrong;
}

std::string confirm()
{
    if (!previous)
        return "nothing waits for a confirmation\n";
    previous.reset();
    config_confirm_by({});
    return "ok\n";
}

std::string protect(const std::string &word)
{
    for (const bool isStrict : {true, false})
        if (word == protection_word(isStrict)) {
            protectionIsStrict = isStrict;
            return "ok\n";
        }
    return "unknown request\n";
}

// "IFINDEX N|off|default ...".
std::string limit(const std::string &request)
{
    std::istringstream in(request);
    Words words;
    uint32_t ifIndex = 0;
    in >> ifIndex;
    for (std::string word; in >> word;)
        words.push_back(word);
    const Setting &setting = *findSetting(INTERFACE_SCOPE, "dhcp-rate");
    rate_set(ifIndex, std::get<Rate>(parseValue(setting, words)));
    return "ok\n";
}

std::string status()
{
    return std::string("ok\nfile ") + savedPath + "\nprotection " + protection_word(protectionIsStrict) +
           "\n" + (active ? "" : "absent\n") + (previous ? "unconfirmed\n" : "");
}

// Of the client or a signal: "reload", "apply SECONDS" (0: for good) of the candidate, "confirm", "revert",
// "status", "facts", "protection strict" or "as-asked", "dhcp-rate IFINDEX VALUE". The answer begins with
// "ok", or says what is wrong.
std::string handle(const std::string &request)
{
    constexpr std::string_view APPLY = "apply ", PROTECTION = "protection ", RATE = "dhcp-rate ";
    try {
        if (request == "reload")
            return reload();
        if (request == "confirm")
            return confirm();
        if (request == "revert")
            return revert();
        if (request == "status")
            return status();
        if (request == "facts")
            return status() + facts();
        if (request.starts_with(PROTECTION))
            return protect(request.substr(PROTECTION.size()));
        if (request.starts_with(RATE))
            return limit(request.substr(RATE.size()));
        if (request.starts_with(APPLY))
            return apply(std::chrono::seconds(parseRange("seconds", request.substr(APPLY.size()), 0, 86400)));
        return "unknown request\n";
    } catch (const std::exception &error) {
        return std::string(error.what()) + "\n";
    }
}

// "bridge br0, interface vnet*": the lines that speak of the port.
std::string lines_text(const PortId &port)
{
    std::set<std::string> lines;
    for (const BridgeLine &line : running.config.bridges)
        if (line.bridge == port.bridge && !port.isVlanInterface)
            lines.insert("bridge " + line.bridge);
    for (const VlanLine &line : running.config.vlans)
        if (line.vid == port.vlan)
            lines.insert("vlan " + std::to_string(line.vid));
    for (const PortLine &line : running.config.ports)
        if (line.ports.match(port.name) != Rank::none)
            lines.insert("interface " + line.ports.text());
    std::string text;
    for (const std::string &line : lines)
        text += (text.empty() ? "" : ", ") + line;
    return text;
}

void work_port(const Port &port)
{
    const PortId id = port_id(port, model_ports());
    const bool isNew = fresh.erase(id.ifIndex) != 0;
    Differences made = reconcile_port(running.config, *core, id, Make::yes, isNew);
    settle(port, made);
    for (const Difference &other : reconcile_port_bindings(running.config, *core, id, Make::yes))
        made.push_back(other);
    const bool hasRoom = std::ranges::none_of(made, &Difference::noRoom);
    if (const std::string lines = lines_text(id); !lines.empty() && !made.empty() && hasRoom)
        platform_report(LOG_INFO, "%s %s: %s applied", port.name, isNew ? "appeared" : "changed",
                        lines.c_str());
    for (const Difference &difference : made)
        if (!difference.error.empty() && !difference.noRoom) // which has its own line, with the remedy
            platform_report(LOG_ERR, "%s: %s: %s", source_text(running.config, difference.source).c_str(),
                            port.name, difference.error.c_str());
}

void model_changed(ModelChange change, const Port &port, const Port *before)
{
    if (change == ModelChange::vanished) {
        todo.erase(port.ifIndex);
        fresh.erase(port.ifIndex);
        settled.erase(port.ifIndex);
        return;
    }
    if (change == ModelChange::appeared)
        fresh.insert(port.ifIndex);
    if (change == ModelChange::appeared || strcmp(port.name, before->name) != 0 ||
        port.bridge != before->bridge || strcmp(port.bridgeName, before->bridgeName) != 0)
        todo.insert(port.ifIndex);
}

// Of a wrong file too.
std::string journal_of(const std::string &text)
{
    std::string path = JOURNAL_PATH, unused;
    conf_parse("", text, {[&path](const ConfLine &line) {
                   if (line.words[0] == "journal" && line.value.starts_with('/'))
                       path = line.value;
                   return std::string();
               }},
               unused);
    return path;
}

// Without a configuration no bridge is protected, whatever an earlier daemon did.
bool begin()
{
    if (!active) {
        guard_protect({});
        return false;
    }
    write_file(config_runtime("running"), running.text);
    const std::string wrong = make_all({});
    for (size_t begin = 0; begin < wrong.size(); begin = wrong.find('\n', begin) + 1)
        platform_report(LOG_ERR, "%s", wrong.substr(begin, wrong.find('\n', begin) - begin).c_str());
    return true;
}

// From the thread: waits for the answer of config_work.
std::string ask_work(const std::string &request)
{
    std::unique_lock lock(jobMutex);
    jobRequest = request;
    jobAnswer.reset();
    wake_event_socket(eventSocket);
    if (!jobDone.wait_for(lock, PATIENCE, [] { return jobAnswer.has_value(); })) {
        jobRequest.reset();
        return "the daemon is too busy\n";
    }
    return *jobAnswer;
}

std::optional<std::string> next_job()
{
    const std::scoped_lock lock(jobMutex);
    return std::exchange(jobRequest, {});
}

} // namespace

bool config_start(const std::string &directory, ConfigStart &start)
{
    savedPath = config_path(directory);
    if (!directory.empty() && access(directory.c_str(), F_OK) != 0) {
        platform_report(LOG_ERR, "--config %s: %s", directory.c_str(), strerror(errno));
        return false;
    }
    std::string error;
    const ConfFile file = conf_file_read(savedPath, running.text, error);
    bool good = file == ConfFile::read && config_parse(savedPath, running.text, running.config, error);
    lastGoodPath = journal_of(running.text) + "." + CONFIG_NAME;
    if (good) {
        write_file(lastGoodPath, running.text);
    } else if (file != ConfFile::absent) {
        platform_report(LOG_ERR, "%s", error.c_str());
        std::string unused;
        good = conf_file_read(lastGoodPath, running.text, unused) == ConfFile::read &&
               config_parse(lastGoodPath, running.text, running.config, unused);
        if (!good)
            return false;
        platform_report(LOG_ERR,
                        "%s is wrong: the last good configuration, %s, stays in force; mend it, then reload",
                        savedPath.c_str(), lastGoodPath.c_str());
    }
    active = good;
    const Config &config = running.config;
    start = {config.bindings, config.interfaces, config.model, config.redundancy};
    return true;
}

void config_begin(int socket, Exchange exchange, std::string (*moreFacts)())
{
    facts = moreFacts;
    core.emplace(std::move(exchange));
    eventSocket = socket;
    model_watch(model_changed);
    guard_ask_ready([](const Port &port) {
        const auto at = settled.find(port.ifIndex);
        return at != settled.end() && at->second == port.bridge;
    });
    starting = true;
    config_thread_start(ask_work);
}

bool config_work()
{
    bool worked = false;
    if (const auto request = next_job()) {
        const std::string answer = handle(*request);
        const std::scoped_lock lock(jobMutex);
        jobAnswer = answer;
        jobDone.notify_all();
        worked = true;
    }
    try {
        if (std::exchange(starting, false))
            worked = begin() || worked;
        if (!active) {
            todo.clear();
            fresh.clear();
            return worked;
        }
        if (!todo.empty() || guard_protect_due())
            protect_bridges();
        const Ticks until = ticks() + TIME_PER_CALL;
        for (size_t i = 0; i < PORTS_PER_CALL && !todo.empty() && ticks() <= until; i++) {
            const uint32_t ifIndex = *todo.begin();
            todo.erase(todo.begin());
            worked = true;
            if (const Port *port = model_port(ifIndex); port != nullptr)
                work_port(*port);
        }
    } catch (const std::exception &error) {
        platform_report(LOG_ERR, "configuration: %s", error.what());
    }
    return worked;
}

bool config_pending()
{
    const std::scoped_lock lock(jobMutex);
    return starting || (active && !todo.empty()) || jobRequest;
}

} // namespace platform_linux

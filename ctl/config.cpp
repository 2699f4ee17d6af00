// The configuration file and the running state: compared, applied, saved. config.h of the platform says what
// the file has; the daemon's platform brings it about.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <net/if.h>
#include <ostream>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "binding_view.h"
#include "command.h"
#include "config_notes.h"
#include "facts_view.h"
#include "fd.h"
#include "guard_view.h"
#include "model_now.h"
#include "protection.h"
#include "reconcile.h"
#include "running.h"

using namespace platform_linux;

namespace
{

constexpr std::chrono::seconds PATIENCE(60);
constexpr uint32_t CONFIRM_MAX = 86400;

std::string askConfig(const std::string &request)
{
    const Connection connection(SOCK_SEQPACKET, config_runtime("config"), PATIENCE);
    connection.send(request.data(), request.size());
    std::string answer(65536, '\0');
    answer.resize(connection.receive(answer.data(), answer.size()));
    return answer;
}

} // namespace

std::string demandConfig(const std::string &request, const std::string &file)
{
    std::string answer = askConfig(request);
    const std::string candidate = config_runtime("candidate");
    for (size_t at = 0; !file.empty() && (at = answer.find(candidate, at)) != std::string::npos;
         at += file.size())
        answer.replace(at, candidate.size(), file);
    if (answer.starts_with("ok\n"))
        return answer.substr(3);
    while (answer.ends_with('\n'))
        answer.pop_back();
    throw CtlError(EXIT_REFUSED, answer);
}

namespace
{

std::string savedPath()
{
    std::istringstream lines(demandConfig("status"));
    std::string word, path;
    lines >> word >> path;
    return word == "file" && !path.empty() ? path : config_path();
}

// ---- Texts and files

struct File {
    std::string name, text;
    Config config;
};

File parsed(const std::string &name, const std::string &text)
{
    File file = {name, text, {}};
    if (std::string error; !config_parse(name, text, file.config, error))
        throw CtlError(EXIT_REFUSED, error);
    return file;
}

NotedFile noted(const File &file) { return {file.name, file.config}; }

// An absent file is empty where `mayLack`.
File readFile(const std::string &name, bool mayLack = false)
{
    std::string text, error;
    const ConfFile found = conf_file_read(name, text, error);
    if (found == ConfFile::wrong)
        throw CtlError(EXIT_REFUSED, error);
    if (found == ConfFile::absent && !mayLack)
        throw CtlError(EXIT_REFUSED, name + ": " + std::strerror(ENOENT));
    return parsed(name, text);
}

// Beside it first, then in its place: a full disk or a crash leaves the old one.
void writeFile(const std::string &name, const std::string &text)
{
    const std::string beside = name + ".new";
    struct stat before = {};
    const mode_t mode = stat(name.c_str(), &before) == 0 ? before.st_mode & 0777 : 0644;
    const Fd file(open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        fsync(file.get()) != 0 || rename(beside.c_str(), name.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        if (file)
            unlink(beside.c_str());
        throw CtlError(EXIT_REFUSED, name + ": " + why + "; nothing was changed");
    }
}

// ---- The running state

// The static bindings. The daemon has a dead index for the port of those that wait; the platform has its
// name.
std::map<UserKey, StaticBinding> statics(const Context &context)
{
    std::map<UserKey, StaticBinding> found;
    std::set<UserKey> waits;
    for (const auto &[binding, interface] : readWaiting()) {
        waits.insert(binding.key);
        if (binding.type != DHCPSNOOP_USER_STATIC)
            continue;
        StaticBinding &waiting = found[binding.key] = asStatic(binding);
        waiting.interface = interface;
        waiting.bound = waiting.mac && binding.vlan != 0;
    }
    for (const Binding &binding : readStatics(context.daemon)) {
        char name[IF_NAMESIZE];
        if (waits.contains(binding.key))
            continue;
        if (binding.ifIndex == 0 || if_indextoname(binding.ifIndex, name) != nullptr) {
            found[binding.key] = asStatic(binding);
            continue;
        }
        context.err << "dhcpsnoopctl: note: the port of binding " << userKeyText(binding.key)
                    << " has gone and its name is not known: the binding is left out\n";
    }
    return found;
}

// Running values that the file does not want.
Differences differences(const File &file, const Context &context)
{
    const Daemon &daemon = context.daemon;
    Differences all = reconcile_globals(file.config, daemon, Make::no);
    const Source source = {Rank::name, file.config.protectionLine};
    if (const std::string now = readFacts(demandConfig("status"))["protection"],
        wanted = protection_word(file.config.protectionIsStrict);
        now != wanted)
        all.push_back({
            {"protection", now},
            wanted, source, ""
        });
    const auto add = [&all](const Differences &more) { all.insert(all.end(), more.begin(), more.end()); };
    for (const PortId &port : portIdsNow(file.config.model))
        add(reconcile_port(file.config, daemon, port, Make::no));
    add(reconcile_vlans(file.config, Make::no));
    add(compare_bindings(file.config, statics(context)));
    return all;
}

// How many words of a line name the setting that it makes.
size_t keySize(const Words &line)
{
    if (line[0] == "binding")
        return 2;
    return line[0] == "interface" || line[0] == "vlan" || line[0] == "guard" || line[0] == "arp-inspection"
               ? 3
               : 1;
}

// The words that name it; none where some are missing.
Words keyOf(const Words &line)
{
    const size_t size = keySize(line);
    return line.size() < size ? Words() : Words(line.begin(), line.begin() + static_cast<ptrdiff_t>(size));
}

// The lines for a running value; none for a binding that is not there.
std::vector<std::string> linesOf(const Words &running)
{
    std::vector<std::string> lines;
    if (running[0] == "binding" && running.back() == "none")
        return lines;
    if (running.size() > 3 && running[2] == "relay-server")
        for (size_t i = 3; i < running.size(); i++)
            lines.push_back(joinQuoted({running[0], running[1], running[2], running[i]}));
    else
        lines.push_back(joinQuoted(running));
    return lines;
}

// The file's text with the running values in it: a line for the very port is changed in its place, others are
// added. "guard" speaks of ARP inspection too, so that lines for ARP inspection alone go to the end.
std::string merged(const File &file, const Differences &all)
{
    std::vector<std::string> lines;
    std::istringstream stream(file.text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    std::map<Words, std::vector<size_t>> places;
    std::string unused;
    const auto take = [&](const ConfLine &line) {
        Words words = line.words;
        if (words[0] == "binding" && words.size() > 1 && words[1] == "add")
            words.erase(words.begin() + 1);
        places[keyOf(words)].push_back(line.number - 1);
        return std::string();
    };
    conf_parse(file.name, file.text, {take}, unused);
    std::vector<std::string> added;
    for (const Difference &difference : all) {
        std::string text;
        for (const std::string &line : linesOf(difference.running))
            text += (text.empty() ? "" : "\n") + line;
        const auto found = places.find(keyOf(difference.running));
        const bool moves = difference.running[0] == "arp-inspection";
        bool placed = false;
        if (found != places.end()) {
            for (const size_t number : found->second) {
                lines[number] = placed || moves || text.empty() ? "\n" : text;
                placed = placed || !moves;
            }
        }
        if (!placed && !text.empty())
            added.push_back(text);
    }
    std::erase(lines, "\n");
    lines.insert(lines.end(), added.begin(), added.end());
    std::string out;
    for (const std::string &line : lines)
        out += line + "\n";
    return out;
}

// The configuration that is in force, without the settings made by command. Its lines are those of the saved
// file, if nothing else was applied.
File baseFile()
{
    const std::string saved = savedPath();
    const File base = readFile(config_runtime("running"), true);
    return parsed(base.text == readFile(saved, true).text ? saved : "applied", base.text);
}

// With these settings. A line can say more than the setting that it was written for, which then differs.
std::string runningText(const Context &context)
{
    constexpr int ROUNDS = 3;
    File file = baseFile();
    openGuard(context);
    for (int i = 0; i < ROUNDS; i++) {
        const Differences all = differences(file, context);
        if (all.empty())
            break;
        file = parsed(file.name, merged(file, all));
    }
    return file.text;
}

// ---- Commands

const std::string &theFile(const char *what, std::span<const std::string> arguments)
{
    if (arguments.size() != 1)
        throw UsageError(std::string(what) + " takes a file");
    return arguments[0];
}

ExitStatus showEffective(const Context &context, const std::string &name)
{
    const File base = baseFile();
    openGuard(context);
    const std::vector<PortId> all = portIdsNow(base.config.model);
    const auto port = std::ranges::find(all, name, &PortId::name);
    if (port == all.end())
        throw CtlError(EXIT_REFUSED, "'" + name + "' is no port of the switch");
    const WantedPort wanted = wanted_port(base.config, *port);
    std::map<std::string, Words> running; // that differ
    for (const Difference &difference : reconcile_port(base.config, context.daemon, *port, Make::no)) {
        const Words &line = difference.running;
        const bool isGuard = line[0] == "guard" || line[0] == "arp-inspection";
        running[isGuard ? line[0] : line[2]] = {line.begin() + 3, line.end()};
    }
    std::vector<Words> rows = {
        {"SETTING", "VALUE", "FROM"}
    };
    Json json = Json::array();
    const auto row = [&](const std::string &setting, const Words &words, const Source &source) {
        const auto other = running.find(setting);
        const std::string value = joinQuoted(other != running.end() ? other->second : words);
        const std::string from =
            other != running.end() ? "command, not saved" : source_text(base.config, source);
        rows.push_back({setting, value, from});
        json.push_back(Json{
            {"setting", setting},
            {"value",   value  },
            {"from",    from   }
        });
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings) {
        if (!canBeSet(setting) || setting.kind == Kind::Clear ||
            (setting.kind == Kind::Rate && port->isVlanInterface))
            continue;
        if (setting.kind == Kind::Servers) {
            Words servers;
            for (const uint32_t server : wanted.servers.value)
                servers.push_back(ipv4Text(server));
            row(setting.name, servers.empty() ? Words{"none"} : servers, wanted.servers.source);
        } else {
            row(setting.name, shownWords(setting, wanted.of(setting).value), wanted.of(setting).source);
        }
    }
    row("guard", guard_words(wanted.ip.value), wanted.ip.source);
    row("arp-inspection", guard_words(wanted.arp.value), wanted.arp.source);
    return print(context, json, rows);
}

} // namespace

SavedFile compareSaved(const Context &context)
{
    SavedFile saved = {savedPath(), false, ""};
    saved.isThere = access(saved.name.c_str(), F_OK) == 0;
    try {
        saved.differences = differences(readFile(saved.name, true), context).size();
    } catch (const CtlError &error) {
        saved.fault = error.what();
    }
    return saved;
}

ExitStatus checkConfig(const Context &context, std::span<const std::string> arguments)
{
    const File file = readFile(theFile("check", arguments));
    noteAbsent(noted(file), context);
    noteOwnDhcp(noted(file), context);
    noteCutOff(noted(file), context);
    return EXIT_DONE;
}

ExitStatus diffConfig(const Context &context, std::span<const std::string> arguments)
{
    const File file = arguments.empty() ? readFile(savedPath(), true) : readFile(theFile("diff", arguments));
    openGuard(context);
    noteOwnDhcp(noted(file), context);
    noteCutOff(noted(file), context);
    const Differences all = differences(file, context);
    for (const Difference &difference : all)
        context.out << joinQuoted(difference.running) << "    # "
                    << source_text(file.config, difference.source) << ": " << difference.wanted << '\n';
    return all.empty() ? EXIT_DONE : EXIT_REFUSED;
}

ExitStatus applyConfig(const Context &context, std::span<const std::string> arguments)
{
    const bool confirms = arguments.size() == 3 && arguments[1] == "confirm";
    if (arguments.size() != 1 && !confirms)
        throw UsageError("apply FILE [confirm SECONDS]");
    const uint32_t seconds = confirms ? parseRange("seconds", arguments[2], 1, CONFIRM_MAX) : 0;
    const File file = readFile(arguments[0]);
    noteAbsent(noted(file), context);
    noteOwnDhcp(noted(file), context);
    noteCutOff(noted(file), context);
    writeFile(config_runtime("before"), runningText(context));
    writeFile(config_runtime("candidate"), file.text);
    context.err << demandConfig("apply " + std::to_string(seconds), file.name);
    if (confirms)
        context.err << "dhcpsnoopctl: in force; 'dhcpsnoopctl confirm' within " << seconds << " s keeps it\n";
    return EXIT_DONE;
}

ExitStatus confirmConfig(const Context &, std::span<const std::string>)
{
    demandConfig("confirm");
    return EXIT_DONE;
}

ExitStatus reloadConfig(const Context &context, std::span<const std::string>)
{
    context.err << demandConfig("reload");
    return EXIT_DONE;
}

ExitStatus saveConfig(const Context &context, std::span<const std::string>)
{
    const std::string path = savedPath(), text = runningText(context);
    parsed(path, text);
    writeFile(path, text);
    context.err << demandConfig("reload");
    return EXIT_DONE;
}

void changeLimit(const Target &target, const Setting &setting, const Value &value)
try {
    demandConfig(std::string(setting.name) + " " + std::to_string(std::get<uint32_t>(target.index)) + " " +
                 joinQuoted(valueWords(setting, value)));
} catch (const NoDaemon &) {
    throw;
} catch (const CtlError &error) {
    throw CtlError(error.status(), joinQuoted(target.words()) + " " + error.what());
}

ExitStatus changeProtection(const Context &, std::span<const std::string> arguments)
{
    if (arguments.size() != 1 ||
        (arguments[0] != protection_word(true) && arguments[0] != protection_word(false)))
        throw UsageError("protection takes strict or as-asked");
    demandConfig("protection " + arguments[0]);
    return EXIT_DONE;
}

ExitStatus showConfig(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.size() == 3 && arguments[0] == "--effective" && arguments[1] == "interface")
        return showEffective(context, arguments[2]);
    if (!arguments.empty())
        throw UsageError("show config [--effective interface IF]");
    const std::string text = runningText(context);
    if (!context.json) {
        context.out << text;
        if (text.empty())
            context.err << "dhcpsnoopctl: note: nothing is configured\n";
        return EXIT_DONE;
    }
    Json lines = Json::array();
    std::string unused;
    conf_parse("", text, {[&](const ConfLine &line) {
                   lines.push_back(line.words);
                   return std::string();
               }},
               unused);
    printJson(context, lines);
    return EXIT_DONE;
}

// Commands that show: the daemon is asked item by item, a whole answer is collected, and then printed as a
// table or as JSON. What vanishes while it is read is left out.
#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <ostream>

#include "table.h"

namespace
{

constexpr Choice USER_TYPES[] = {
    {"dynamic",         1},
    {"static",          2},
    {"ip-source-guard", 4}
};
constexpr Choice USER_STATES[] = {
    {"bound",     1},
    {"unbound",   2},
    {"created",   3},
    {"requested", 4}
};
constexpr uint32_t TYPE_STATIC = 2, STATE_BOUND = 1;
constexpr uint32_t LEASE_FOREVER = 0xFFFFFFFF;

std::string wordOf(std::span<const Choice> choices, uint32_t value)
{
    for (const Choice &choice : choices)
        if (choice.value == value)
            return choice.word;
    return std::to_string(value);
}

uint32_t valueOf(const std::string &what, std::span<const Choice> choices, const std::string &word)
{
    std::string words;
    for (const Choice &choice : choices) {
        if (word == choice.word)
            return choice.value;
        words += std::string(words.empty() ? "" : ", ") + choice.word;
    }
    throw UsageError(what + " must be one of " + words + ", not '" + word + "'");
}

// All indexes (or VLAN ids) that First and Next give. They must rise, or a daemon could keep us for ever.
std::vector<uint32_t> listIndexes(const Daemon &daemon, DhcpsnoopFunc first, DhcpsnoopFunc next,
                                  const std::string &what)
{
    std::vector<uint32_t> found;
    for (;;) {
        Reply reply = found.empty() ? daemon.ask({first, 0, 0u}) : daemon.ask({next, 0, found.back()});
        if (reply.result() == NM_END)
            return found;
        if (reply.result() != NM_OK)
            throw Refusal(reply.result(), "listing " + what);
        uint32_t index = reply.word();
        if (!found.empty() && index <= found.back())
            throw NoDaemon("malformed reply: the list of " + what + " does not go forward");
        found.push_back(index);
    }
}

std::vector<uint32_t> listInterfaces(const Daemon &daemon)
{
    return listIndexes(daemon, FUNC_IF_FIRST, FUNC_IF_NEXT, "interfaces");
}

// Ascending. The daemon goes through its VLANs in the order of their interfaces' indexes and skips one that
// is lower than the last it gave, so those in between are asked for one by one.
std::vector<uint32_t> listVlans(const Daemon &daemon)
{
    constexpr uint32_t VID_MAX = 4094;
    const std::vector<uint32_t> given = listIndexes(daemon, FUNC_VLAN_FIRST, FUNC_VLAN_NEXT, "VLANs");
    const uint32_t last = given.empty() ? 0 : given.back();
    if (last > VID_MAX)
        throw NoDaemon("malformed reply: " + std::to_string(last) + " is no VLAN");
    std::vector<uint32_t> vlans;
    for (uint32_t vid = 1; vid <= last; vid++)
        if (std::binary_search(given.begin(), given.end(), vid) ||
            daemon.ask({FUNC_VLAN_GET, VLAN_ENABLE, vid}).result() == NM_OK)
            vlans.push_back(vid);
    return vlans;
}

std::optional<UserKey> nextUser(const Daemon &daemon, const std::optional<UserKey> &last)
{
    Reply reply = daemon.ask(
        {last ? FUNC_USER_NEXT : FUNC_USER_FIRST, 0, last.value_or(UserKey{}), Bytes(USER_KEY_ROOM)});
    if (reply.result() == NM_END)
        return std::nullopt;
    if (reply.result() != NM_OK)
        throw Refusal(reply.result(), "listing bindings");
    UserKey key = reply.userKey();
    if (last && key <= *last)
        throw NoDaemon("malformed reply: the list of bindings does not go forward");
    return key;
}

// Every relay server; null when the list changed under the walk. The daemon goes on only from a pair that is
// still there, and says "end" otherwise, so the last pair is looked up again.
std::optional<std::vector<ServerKey>> tryListServers(const Daemon &daemon)
{
    constexpr size_t SLOTS = 3; // of an interface
    std::vector<ServerKey> found;
    for (;;) {
        Reply reply = found.empty()
                          ? daemon.ask({FUNC_SERVER_IP_FIRST, 0, ServerKey{}, Bytes(SERVER_KEY_ROOM)})
                          : daemon.ask({FUNC_SERVER_IP_NEXT, 0, found.back(), Bytes(SERVER_KEY_ROOM)});
        if (reply.result() == NM_END) {
            bool whole = found.empty() ||
                         daemon.ask({FUNC_SERVER_IP_GET, SERVER_IP_SLOT, found.back()}).result() == NM_OK;
            return whole ? std::optional(found) : std::nullopt;
        }
        if (reply.result() != NM_OK)
            throw Refusal(reply.result(), "listing relay servers");
        ServerKey key = reply.serverKey();
        bool forward = found.empty() || key.ifIndex >= found.back().ifIndex;
        bool room = found.size() < SLOTS || found[found.size() - SLOTS].ifIndex != key.ifIndex;
        if (!forward || !room)
            throw NoDaemon("malformed reply: the list of relay servers does not go forward");
        found.push_back(key);
    }
}

std::vector<ServerKey> listServers(const Daemon &daemon)
{
    for (int tries = 0; tries < 10; tries++)
        if (auto found = tryListServers(daemon))
            return *found;
    throw CtlError(EXIT_REFUSED, "listing relay servers: they change faster than they can be read");
}

// A daemon that cannot list relay servers says that it does not know the command: nothing to show then.
std::optional<std::vector<ServerKey>> listServersIfKnown(const Daemon &daemon)
{
    try {
        return listServers(daemon);
    } catch (const Refusal &refusal) {
        if (refusal.code != NM_BAD_COMMAND)
            throw;
        return std::nullopt;
    }
}

// What `read` gives, or nothing when the entry is gone.
template <class Read> auto ifStillThere(Read read) -> std::optional<decltype(read())>
{
    try {
        return read();
    } catch (const Refusal &refusal) {
        if (refusal.code != NM_NO_ENTRY)
            throw;
        return std::nullopt;
    }
}

struct InterfaceView {
    uint32_t ifIndex;
    std::string name;
    std::map<std::string, Value> values;          // by name of the setting
    std::optional<std::vector<uint32_t>> servers; // null: the daemon cannot say
};

InterfaceView readInterface(const Daemon &daemon, uint32_t ifIndex,
                            const std::optional<std::vector<ServerKey>> &servers)
{
    Target target = interfaceTarget(ifIndex);
    InterfaceView view = {ifIndex, target.name, {}, {}};
    for (const Setting &setting : INTERFACE_SCOPE.settings)
        if (setting.kind != Kind::Clear && setting.kind != Kind::Servers)
            view.values[setting.name] = getValue(daemon, target, setting);
    if (servers) {
        view.servers.emplace();
        for (const ServerKey &key : *servers)
            if (key.ifIndex == ifIndex)
                view.servers->push_back(key.address);
    }
    return view;
}

std::vector<InterfaceView> readInterfaces(const Daemon &daemon)
{
    auto servers = listServersIfKnown(daemon);
    std::vector<InterfaceView> views;
    for (uint32_t ifIndex : listInterfaces(daemon))
        if (auto view = ifStillThere([&] { return readInterface(daemon, ifIndex, servers); }))
            views.push_back(std::move(*view));
    return views;
}

uint32_t number(const InterfaceView &view, const char *name)
{
    return std::get<uint32_t>(view.values.at(name));
}

// A setting as one word.
std::string shown(const InterfaceView &view, const char *name)
{
    return joinQuoted(valueWords(*findSetting(INTERFACE_SCOPE, name), view.values.at(name)));
}

Json interfaceJson(const InterfaceView &view)
{
    Json out = {
        {"interface", view.name   },
        {"index",     view.ifIndex}
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings) {
        if (setting.kind == Kind::Servers) {
            Json addresses = view.servers ? Json::array() : Json(nullptr);
            for (uint32_t address : view.servers.value_or(std::vector<uint32_t>{}))
                addresses.push_back(ipv4Text(address));
            out["relay-servers"] = addresses;
        } else if (setting.kind != Kind::Clear) {
            out[setting.name] = valueJson(setting, view.values.at(setting.name));
        }
    }
    return out;
}

struct Binding {
    UserKey key;
    uint32_t vlan, ifIndex, attribute, lease, elapsed, type, state;
    Bytes mac;
};

Binding readBinding(const Daemon &daemon, const UserKey &key)
{
    std::string what = "binding " + userKeyText(key);
    auto get = [&](uint32_t cmd) { return daemon.demand({FUNC_USER_GET, cmd, key}, what).word(); };
    Binding binding = {key,
                       get(USER_VLAN),
                       get(USER_INTERFACE),
                       get(USER_ATTR),
                       get(USER_LEASE),
                       get(USER_ELAPSED),
                       get(USER_TYPE),
                       get(USER_ACTION),
                       daemon.demand({FUNC_USER_GET, USER_MAC, key, Bytes(6)}, what).bytes()};
    if (binding.mac.size() != 6)
        throw NoDaemon("malformed reply: a MAC address of " + std::to_string(binding.mac.size()) + " bytes");
    return binding;
}

using BindingFilter = std::function<bool(const Binding &)>;

// All bindings that are wanted, or only that of one address: each step of a list costs the daemon a walk over
// all of its bindings.
std::vector<Binding> readBindings(const Daemon &daemon, const BindingFilter &wanted,
                                  const std::optional<UserKey> &only = std::nullopt)
{
    std::vector<Binding> bindings;
    auto next = [&](const std::optional<UserKey> &last) {
        return only ? std::nullopt : nextUser(daemon, last);
    };
    for (std::optional<UserKey> key = only ? only : next({}); key; key = next(key))
        if (auto binding = ifStillThere([&] { return readBinding(daemon, *key); });
            binding && wanted(*binding))
            bindings.push_back(std::move(*binding));
    return bindings;
}

// The static ones. Their type is asked for first: a switch has few of them, and thousands of others that need
// not be read.
std::vector<Binding> readStatics(const Daemon &daemon)
{
    std::vector<Binding> statics;
    for (std::optional<UserKey> key = nextUser(daemon, {}); key; key = nextUser(daemon, key)) {
        const Request type = {FUNC_USER_GET, USER_TYPE, *key};
        const std::string what = "binding " + userKeyText(*key);
        if (ifStillThere([&] { return daemon.demand(type, what).word(); }) != TYPE_STATIC)
            continue;
        if (auto binding = ifStillThere([&] { return readBinding(daemon, *key); });
            binding && binding->type == TYPE_STATIC)
            statics.push_back(std::move(*binding));
    }
    return statics;
}

bool hasMac(const Binding &binding)
{
    return std::any_of(binding.mac.begin(), binding.mac.end(), [](uint8_t byte) { return byte != 0; });
}

std::string leaseText(uint32_t seconds)
{
    return seconds == LEASE_FOREVER ? "forever" : std::to_string(seconds);
}

uint32_t leaseLeft(const Binding &binding)
{
    if (binding.lease == LEASE_FOREVER)
        return LEASE_FOREVER;
    return binding.lease - std::min(binding.elapsed, binding.lease);
}

Json bindingJson(const Binding &binding)
{
    Json out = {
        {"address",   userKeyText(binding.key)},
        {"mac",       nullptr                 },
        {"vlan",      nullptr                 },
        {"interface", nullptr                 },
        {"index",     nullptr                 }
    };
    if (hasMac(binding))
        out["mac"] = macText(binding.mac);
    if (binding.vlan != 0)
        out["vlan"] = binding.vlan;
    if (binding.ifIndex != 0) {
        out["interface"] = interfaceText(binding.ifIndex);
        out["index"] = binding.ifIndex;
    }
    out["type"] = wordOf(USER_TYPES, binding.type);
    out["state"] = wordOf(USER_STATES, binding.state);
    out["lease"] = nullptr; // never ends
    out["left"] = nullptr;
    if (binding.lease != LEASE_FOREVER) {
        out["lease"] = binding.lease;
        out["left"] = leaseLeft(binding);
    }
    out["elapsed"] = binding.elapsed;
    out["attribute"] = binding.attribute;
    return out;
}

BindingFilter parseFilter(const std::string &name, const std::string &word)
{
    if (name == "interface" || name == "port")
        return [index = parseInterface(word)](const Binding &b) { return b.ifIndex == index; };
    if (name == "vlan")
        return [vlan = parseRange("vlan", word, 1, 4094)](const Binding &b) { return b.vlan == vlan; };
    if (name == "mac")
        return [mac = parseMac(word)](const Binding &b) {
            return std::equal(mac.begin(), mac.end(), b.mac.begin(), b.mac.end());
        };
    if (name == "type")
        return [type = valueOf("type", USER_TYPES, word)](const Binding &b) { return b.type == type; };
    if (name == "state")
        return [state = valueOf("state", USER_STATES, word)](const Binding &b) { return b.state == state; };
    throw UsageError("bindings cannot be chosen by '" + name + "'");
}

// The commands that rebuild one interface. What needs a switch that is off is as it always is then.
void interfaceCommands(const InterfaceView &view, std::vector<Words> &lines)
{
    auto line = [&](const Setting &setting, const Words &words) {
        Words whole = {"interface", view.name, setting.name};
        whole.insert(whole.end(), words.begin(), words.end());
        lines.push_back(whole);
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings) {
        if (setting.kind == Kind::Servers) {
            for (uint32_t address : view.servers.value_or(std::vector<uint32_t>{}))
                line(setting, {ipv4Text(address), "add"});
        } else if (canBeSet(setting) && setting.kind != Kind::Clear) {
            const Value &value = view.values.at(setting.name);
            if (!isInitial(setting, value) && (!setting.needs || number(view, setting.needs)))
                line(setting, valueWords(setting, value));
        }
    }
}

// "binding add" puts only a whole binding in force; one that was bound without some part is bound by itself.
void bindingCommands(const Binding &binding, std::vector<Words> &lines)
{
    const bool bound = binding.state == STATE_BOUND;
    const bool whole = hasMac(binding) && binding.vlan != 0 && binding.ifIndex != 0;
    Words line = {"binding", "add", userKeyText(binding.key)};
    auto add = [&](const char *key, const std::string &word) { line.insert(line.end(), {key, word}); };
    if (hasMac(binding))
        add("mac", macText(binding.mac));
    if (binding.vlan != 0)
        add("vlan", std::to_string(binding.vlan));
    if (binding.ifIndex != 0)
        add("interface", interfaceText(binding.ifIndex));
    if (binding.attribute != 0)
        add("attribute", std::to_string(binding.attribute));
    if (!bound || !whole)
        line.push_back("unbound");
    lines.push_back(line);
    if (bound && !whole)
        lines.push_back({"binding", "bind", userKeyText(binding.key)});
}

} // namespace

void printTable(std::ostream &out, const std::vector<Words> &rows)
{
    std::vector<size_t> widths(rows[0].size());
    for (const Words &row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    for (const Words &row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            std::string word = row[i].empty() ? "-" : row[i];
            out << word;
            if (i + 1 < row.size())
                out << std::string(widths[i] + 2 - word.size(), ' ');
        }
        out << '\n';
    }
}

void printJson(const Context &context, const Json &json) { context.out << json.dump(2) << '\n'; }

ExitStatus showInterfaces(const Context &context, std::span<const std::string>)
{
    std::vector<InterfaceView> views = readInterfaces(context.daemon);
    if (context.json) {
        Json list = Json::array();
        for (const InterfaceView &view : views)
            list.push_back(interfaceJson(view));
        printJson(context, list);
        return EXIT_DONE;
    }
    std::vector<Words> rows = {
        {"INTERFACE", "INDEX", "VERSION", "TRUST", "OPTION82", "USERS", "MAX-USERS", "RELAY", "DROPPED"}
    };
    for (const InterfaceView &view : views) {
        uint64_t dropped = 0;
        for (const char *counter : {"dropped-untrusted", "dropped-source-mac", "dropped-binding"})
            dropped += number(view, counter);
        rows.push_back({view.name, std::to_string(view.ifIndex), shown(view, "version"), shown(view, "trust"),
                        shown(view, "option82"), shown(view, "users"), shown(view, "max-users"),
                        shown(view, "relay-address"), std::to_string(dropped)});
    }
    printTable(context.out, rows);
    return EXIT_DONE;
}

ExitStatus showInterface(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.size() != 1)
        throw UsageError("show interface takes one interface");
    uint32_t ifIndex = parseInterface(arguments[0]);
    InterfaceView view = readInterface(context.daemon, ifIndex, listServersIfKnown(context.daemon));
    if (context.json) {
        printJson(context, interfaceJson(view));
        return EXIT_DONE;
    }
    std::vector<Words> rows = {
        {"interface", view.name              },
        {"index",     std::to_string(ifIndex)}
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings) {
        if (setting.kind == Kind::Servers) {
            Words addresses;
            for (uint32_t address : view.servers.value_or(std::vector<uint32_t>{}))
                addresses.push_back(ipv4Text(address));
            rows.push_back({"relay-servers", joinQuoted(addresses)});
        } else if (setting.kind != Kind::Clear) {
            rows.push_back({setting.name, shown(view, setting.name)});
        }
    }
    printTable(context.out, rows);
    return EXIT_DONE;
}

ExitStatus showVlans(const Context &context, std::span<const std::string>)
{
    Json list = Json::array();
    std::vector<Words> rows = {
        {"VLAN", "MAX-USERS"}
    };
    const Setting &maxUsers = *findSetting(VLAN_SCOPE, "max-users");
    for (uint32_t vid : listVlans(context.daemon)) {
        Target target = {VLAN_SCOPE, vid, std::to_string(vid)};
        auto most = ifStillThere([&] { return getValue(context.daemon, target, maxUsers); });
        if (!most)
            continue;
        rows.push_back({target.name, valueWords(maxUsers, *most)[0]});
        list.push_back({
            {"vlan",              vid   },
            { "max-users", valueJson(maxUsers, *most)}
        });
    }
    if (context.json)
        printJson(context, list);
    else
        printTable(context.out, rows);
    return EXIT_DONE;
}

ExitStatus showServers(const Context &context, std::span<const std::string>)
{
    Json list = Json::array();
    std::vector<Words> rows = {
        {"INTERFACE", "SERVER"}
    };
    for (const ServerKey &key : listServers(context.daemon)) {
        std::string name = interfaceText(key.ifIndex), address = ipv4Text(key.address);
        rows.push_back({name, address});
        list.push_back({
            {"interface", name       },
            {"index",     key.ifIndex},
            {"server",    address    }
        });
    }
    if (context.json)
        printJson(context, list);
    else
        printTable(context.out, rows);
    return EXIT_DONE;
}

std::vector<UserKey> staticsInForce(const Daemon &daemon)
{
    std::vector<UserKey> keys;
    for (const Binding &binding : readStatics(daemon))
        if (binding.state == STATE_BOUND)
            keys.push_back(binding.key);
    return keys;
}

ExitStatus showBindings(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.size() % 2 != 0)
        throw UsageError("show bindings: '" + arguments.back() + "' lacks its value");
    std::vector<BindingFilter> filters;
    std::optional<UserKey> only;
    for (size_t i = 0; i < arguments.size(); i += 2) {
        if (arguments[i] == "address")
            only = parseUserKey(arguments[i + 1]);
        else
            filters.push_back(parseFilter(arguments[i], arguments[i + 1]));
    }
    auto wanted = [&](const Binding &binding) {
        return std::all_of(filters.begin(), filters.end(),
                           [&](const BindingFilter &filter) { return filter(binding); });
    };
    std::vector<Binding> bindings = readBindings(context.daemon, wanted, only);
    if (context.json) {
        Json list = Json::array();
        for (const Binding &binding : bindings)
            list.push_back(bindingJson(binding));
        printJson(context, list);
        return EXIT_DONE;
    }
    std::vector<Words> rows = {
        {"ADDRESS", "MAC", "VLAN", "INTERFACE", "TYPE", "STATE", "LEASE", "LEFT"}
    };
    for (const Binding &binding : bindings)
        rows.push_back({userKeyText(binding.key), hasMac(binding) ? macText(binding.mac) : "",
                        binding.vlan ? std::to_string(binding.vlan) : "",
                        binding.ifIndex ? interfaceText(binding.ifIndex) : "",
                        wordOf(USER_TYPES, binding.type), wordOf(USER_STATES, binding.state),
                        leaseText(binding.lease), leaseText(leaseLeft(binding))});
    printTable(context.out, rows);
    return EXIT_DONE;
}

ExitStatus showGlobal(const Context &context, std::span<const std::string>)
{
    Json json;
    std::vector<Words> rows;
    for (const Setting &setting : GLOBAL_SCOPE.settings) {
        if (setting.kind == Kind::Clear)
            continue;
        Value value = getValue(context.daemon, globalTarget(), setting);
        json[setting.name] = valueJson(setting, value);
        rows.push_back({setting.name, valueWords(setting, value)[0]});
    }
    uint32_t flags = context.daemon.demand({FUNC_GLOBAL_GET, GLOBAL_DEBUG}, "debug").word();
    for (const Choice &flag : DEBUG_FLAGS) {
        bool on = (flags & flag.value) != 0;
        json[std::string("debug-") + flag.word] = on;
        rows.push_back({std::string("debug ") + flag.word, on ? "on" : "off"});
    }
    if (context.json)
        printJson(context, json);
    else
        printTable(context.out, rows);
    return EXIT_DONE;
}

ExitStatus showStatistics(const Context &context, std::span<const std::string>)
{
    constexpr const char *COLUMNS[] = {"users", "max-users", "dropped-untrusted", "dropped-source-mac",
                                       "dropped-binding"};
    Json list = Json::array();
    std::vector<Words> rows = {
        {"INTERFACE", "USERS", "MAX-USERS", "UNTRUSTED", "SOURCE-MAC", "BINDING"}
    };
    for (uint32_t ifIndex : listInterfaces(context.daemon)) {
        Target target = interfaceTarget(ifIndex);
        Words row = {target.name};
        Json object = {
            {"interface", target.name},
            {"index",     ifIndex    }
        };
        auto whole = ifStillThere([&] {
            for (const char *name : COLUMNS) {
                const Setting &setting = *findSetting(INTERFACE_SCOPE, name);
                Value value = getValue(context.daemon, target, setting);
                row.push_back(valueWords(setting, value)[0]);
                object[name] = valueJson(setting, value);
            }
            return true;
        });
        if (whole) {
            rows.push_back(row);
            list.push_back(object);
        }
    }
    if (context.json)
        printJson(context, list);
    else
        printTable(context.out, rows);
    return EXIT_DONE;
}

bool isThereAlready(const Words &bindingAdd, const Daemon &daemon)
{
    std::vector<Words> lines;
    const auto isStatic = [](const Binding &binding) { return binding.type == TYPE_STATIC; };
    if (bindingAdd.size() > 2 && bindingAdd[0] == "binding")
        for (const Binding &binding : readBindings(daemon, isStatic, parseUserKey(bindingAdd[2])))
            bindingCommands(binding, lines);
    return !lines.empty() && lines[0] == bindingAdd;
}

ExitStatus showConfig(const Context &context, std::span<const std::string>)
{
    std::vector<Words> lines;
    for (const Setting &setting : GLOBAL_SCOPE.settings)
        if (canBeSet(setting) && setting.kind != Kind::Clear) {
            const Value value = getValue(context.daemon, globalTarget(), setting);
            if (isInitial(setting, value))
                continue;
            Words line = valueWords(setting, value);
            line.insert(line.begin(), setting.name);
            lines.push_back(line);
        }
    for (const InterfaceView &view : readInterfaces(context.daemon))
        interfaceCommands(view, lines);
    for (const Binding &binding : readStatics(context.daemon))
        bindingCommands(binding, lines);
    guardCommands(context, lines);
    if (context.json) {
        printJson(context, lines);
        return EXIT_DONE;
    }
    for (const Words &line : lines)
        context.out << "dhcpsnoopctl " << joinQuoted(line) << '\n';
    return EXIT_DONE;
}

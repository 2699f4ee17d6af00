// Commands that show: the daemon is asked item by item, a whole answer is collected, and then printed as a
// table or as JSON.
#include <algorithm>
#include <ostream>

#include "facts_view.h"
#include "interface_view.h"

ExitStatus showInterfaces(const Context &context, std::span<const std::string>)
{
    Json list = Json::array();
    std::vector<Words> rows = {
        {"INTERFACE", "INDEX", "VERSION", "TRUST", "OPTION82", "USERS", "MAX-USERS", "RELAY", "DROPPED"}
    };
    for (const InterfaceView &view : readInterfaces(context.daemon)) {
        list.push_back(interfaceJson(view));
        uint64_t dropped = 0;
        for (const char *counter : DROP_COUNTERS)
            dropped += number(view, counter);
        rows.push_back({view.name, std::to_string(view.ifIndex), shown(view, "version"), shown(view, "trust"),
                        shown(view, "option82"), shown(view, "users"), shown(view, "max-users"),
                        shown(view, "relay-address"), std::to_string(dropped)});
    }
    return print(context, list, rows, "no interface snoops");
}

ExitStatus showInterface(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.size() != 1)
        throw UsageError("show interface takes one interface");
    uint32_t ifIndex = parseInterface(arguments[0]);
    InterfaceView view = readInterface(context.daemon, ifIndex, listServersIfKnown(context.daemon));
    std::vector<Words> rows = {
        {"interface", view.name              },
        {"index",     std::to_string(ifIndex)}
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings) {
        if (setting.kind == Kind::Servers) {
            rows.push_back({"relay-servers", joinQuoted(relayServers(view))});
        } else if (setting.kind == Kind::Rate) {
            rows.push_back(
                {setting.name, view.limit ? joinQuoted(shownWords(setting, view.limit->rate)) : ""});
        } else if (setting.kind != Kind::Clear) {
            rows.push_back({setting.name, shown(view, setting.name)});
        }
    }
    rows.push_back({"dropped-rate", view.limit ? std::to_string(view.limit->dropped) : ""});
    return print(context, interfaceJson(view), rows);
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
    return print(context, list, rows, "no VLAN snoops");
}

ExitStatus showServers(const Context &context, std::span<const std::string>)
{
    Json list = Json::array();
    std::vector<Words> rows = {
        {"INTERFACE", "SERVER", "KIND", "VLAN"}
    };
    for (const ServerKey &key : listServers(context.daemon)) {
        std::string name = interfaceText(key.ifIndex), address = ipv4Text(key.address);
        rows.push_back({name, address, "relay", ""});
        list.push_back({
            {"interface", name       },
            {"index",     key.ifIndex},
            {"server",    address    },
            {"kind",      "relay"    },
            {"vlan",      nullptr    }
        });
    }
    for (const auto &[address, index, vlan] : readLearned()) {
        std::string name = interfaceText(index);
        rows.push_back({name, address, "learned", std::to_string(vlan)});
        list.push_back({
            {"interface", name     },
            {"index",     index    },
            {"server",    address  },
            {"kind",      "learned"},
            {"vlan",      vlan     }
        });
    }
    return print(context, list, rows, "no servers");
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
    return print(context, json, rows);
}

ExitStatus showStatistics(const Context &context, std::span<const std::string>)
{
    std::vector<const char *> columns = {"users", "max-users"};
    columns.insert(columns.end(), std::begin(DROP_COUNTERS), std::end(DROP_COUNTERS));
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
            for (const char *name : columns) {
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
    return print(context, list, rows, "no interface snoops");
}

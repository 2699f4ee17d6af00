#include "interface_view.h"

InterfaceView readInterface(const Daemon &daemon, uint32_t ifIndex,
                            const std::optional<std::vector<ServerKey>> &servers)
{
    Target target = interfaceTarget(ifIndex);
    InterfaceView view = {ifIndex, target.name, {}, {}};
    for (const Setting &setting : INTERFACE_SCOPE.settings)
        if (setting.kind != Kind::Clear && setting.kind != Kind::Servers && setting.kind != Kind::Rate)
            view.values[setting.name] = getValue(daemon, target, setting);
    view.limit = readLimit(ifIndex);
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

std::string shown(const InterfaceView &view, const char *name)
{
    return joinQuoted(valueWords(*findSetting(INTERFACE_SCOPE, name), view.values.at(name)));
}

Words relayServers(const InterfaceView &view)
{
    Words addresses;
    for (uint32_t address : view.servers.value_or(std::vector<uint32_t>{}))
        addresses.push_back(ipv4Text(address));
    return addresses;
}

Json interfaceJson(const InterfaceView &view)
{
    Json out = {
        {"interface", view.name   },
        {"index",     view.ifIndex}
    };
    for (const Setting &setting : INTERFACE_SCOPE.settings) {
        if (setting.kind == Kind::Servers) {
            out["relay-servers"] = view.servers ? Json(relayServers(view)) : Json(nullptr);
        } else if (setting.kind == Kind::Rate) {
            out[setting.name] = view.limit ? valueJson(setting, view.limit->rate) : Json(nullptr);
        } else if (setting.kind != Kind::Clear) {
            out[setting.name] = valueJson(setting, view.values.at(setting.name));
        }
    }
    out["dropped-rate"] = view.limit ? Json(view.limit->dropped) : Json(nullptr);
    return out;
}

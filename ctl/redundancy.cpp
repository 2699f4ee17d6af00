// The unit's role, its peer and its journal: asked of the platform beside the daemon, over a local socket of
// its own.
#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "binding_view.h"
#include "facts_view.h"

namespace
{
// In the order in which they are shown. Ages are in seconds.
struct Item {
    const char *name;
    bool isNumber;
};
constexpr Item ITEMS[] = {
    {"role",              false},
    {"peer",              false},
    {"link",              false},
    {"peer-role",         false},
    {"trouble",           false},
    {"sent",              true },
    {"received",          true },
    {"dropped",           true },
    {"last-copy-age",     true },
    {"last-copy-records", true },
    {"without-port",      true },
    {"journal",           false},
    {"journal-state",     false},
    {"journal-size",      true },
    {"journal-records",   true },
    {"journal-age",       true },
    {"journal-damaged",   true },
};

uint64_t numberOf(const std::string &value)
{
    char *end = nullptr;
    const unsigned long long number = std::strtoull(value.c_str(), &end, 10);
    if (value.empty() || *end)
        throw NoDaemon("malformed answer: '" + value + "' is no number");
    return number;
}
} // namespace

std::vector<WaitingBinding> readWaiting()
try {
    std::vector<WaitingBinding> found;
    for (;;) {
        const std::string last = found.empty() ? "" : " " + userKeyText(found.back().binding.key);
        std::istringstream answer(askPlatform("waiting" + last));
        const size_t before = found.size();
        std::string address, mac;
        for (WaitingBinding waiting = {}; answer >> address && address != "end";) {
            Binding &binding = waiting.binding;
            answer >> mac >> binding.vlan >> waiting.interface >> binding.type >> binding.lease >>
                binding.elapsed;
            if (!answer)
                throw NoDaemon("malformed answer: a waiting binding");
            binding.key = parseUserKey(address);
            const auto bytes = parseMac(mac);
            binding.mac.assign(bytes.begin(), bytes.end());
            found.push_back(waiting);
        }
        if (address == "end" || found.size() == before)
            return found;
    }
} catch (const NoDaemon &) {
    return {};
}

bool forgetWaiting(const UserKey &key)
try {
    return askPlatform("forget " + userKeyText(key)) == "ok";
} catch (const NoDaemon &) {
    return false;
}

Facts readFacts(const std::string &answer)
{
    Facts facts;
    std::istringstream lines(answer);
    for (std::string name, value; lines >> name && std::getline(lines, value);)
        facts[name] = value.substr(std::min<size_t>(1, value.size()));
    return facts;
}

Facts readUnit()
{
    Facts facts = readFacts(askPlatform("status"));
    if (!facts.contains("role"))
        throw NoDaemon("malformed answer: no role");
    return facts;
}

uint64_t number(const Facts &facts, const std::string &name)
{
    const auto at = facts.find(name);
    return at != facts.end() ? numberOf(at->second) : 0;
}

ExitStatus showRedundancy(const Context &context, std::span<const std::string>)
{
    Facts values = readUnit();
    Json json;
    std::vector<Words> rows;
    for (const auto &[name, isNumber] : ITEMS) {
        const std::string &value = values[name];
        rows.push_back({name, value});
        if (value.empty())
            json[name] = nullptr;
        else if (isNumber)
            json[name] = numberOf(value);
        else
            json[name] = value;
    }
    return print(context, json, rows);
}

ExitStatus changeRole(const Context &, std::span<const std::string> arguments)
{
    if (arguments.size() != 1 ||
        (arguments[0] != "master" && arguments[0] != "slave" && arguments[0] != "none"))
        throw UsageError("role takes one of master, slave, none");
    if (const std::string answer = askPlatform("role " + arguments[0]); answer != "ok")
        throw CtlError(EXIT_REFUSED, "role: " + answer);
    return EXIT_DONE;
}

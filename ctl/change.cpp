// Commands that change one setting, one relay server or one binding.
#include <algorithm>
#include <ostream>

#include "binding_view.h"
#include "command.h"
#include "protocol.h"
#include "typed.h"

namespace
{

constexpr char TYPE_HELP[] = " (see dhcpsnoopctl help)";

ExitStatus changeGlobal(const Context &context, const char *name, std::span<const std::string> arguments)
{
    const Setting &setting = *findSetting(GLOBAL_SCOPE, name);
    setValue(context.daemon, globalTarget(), setting, parseValue(setting, arguments));
    return EXIT_DONE;
}

// A setting and its value in words that were found right; of a relay server the key.
struct Change {
    const Setting *setting = nullptr;
    Value value = {};
    std::optional<ServerKey> server = {};
    bool adds = false; // the server
};

// "ADDRESS add", or "add ADDRESS".
Change parseServer(const Target &target, const Setting &setting, std::span<const std::string> words)
{
    auto isVerb = [](const std::string &word) { return word == "add" || word == "delete"; };
    if (words.size() != 2 || isVerb(words[0]) == isVerb(words[1]))
        throw UsageError(std::string(setting.name) + " takes: " + setting.arguments);
    const std::string &verb = isVerb(words[0]) ? words[0] : words[1];
    uint32_t address = parseIpv4(isVerb(words[0]) ? words[1] : words[0]);
    if (address == 0)
        throw UsageError("0.0.0.0 is no server");
    return {
        &setting, {       },
         ServerKey{ std::get<uint32_t>(target.index), address},
         verb == "add"
    };
}

Change parseChange(const Target &target, const Setting &setting, std::span<const std::string> words)
{
    if (setting.kind == Kind::Servers)
        return parseServer(target, setting, words);
    return {&setting, parseValue(setting, words)};
}

bool isSettable(const Scope &scope, const std::string &word)
{
    const Setting *setting = findSetting(scope, word);
    return setting && canBeSet(*setting);
}

// How many words are the value. A text is all of them, or those before the name of another setting.
size_t valueSize(const Target &target, const Setting &setting, std::span<const std::string> words)
{
    if (setting.kind == Kind::Rate)
        return rateSize(words);
    if (setting.kind != Kind::OptionText && setting.kind != Kind::Text)
        return std::min<size_t>(setting.kind == Kind::Servers ? 2 : 1, words.size());
    for (size_t size = words.size(); size > 0; size--)
        try {
            if (size == words.size() || isSettable(target.scope, words[size])) {
                parseValue(setting, words.first(size));
                return size;
            }
        } catch (const UsageError &) { // a shorter one may be right
        }
    return words.size();
}

std::vector<Change> parseChanges(const Target &target, std::span<const std::string> words)
{
    if (words.empty())
        throw UsageError(joinQuoted(target.words()) + ": which setting?" + TYPE_HELP);
    Words names;
    for (const Setting &setting : target.scope.settings)
        if (canBeSet(setting))
            names.push_back(setting.name);
    std::vector<Change> changes;
    while (!words.empty()) {
        if (!isSettable(target.scope, words[0]))
            throw UsageError(std::string("there is no setting '") + words[0] + "' of " +
                             (&target.scope == &VLAN_SCOPE ? "a VLAN" : "an interface") +
                             suggestion(words[0], names) + TYPE_HELP);
        const Setting &setting = *findSetting(target.scope, words[0]);
        words = words.subspan(1);
        const size_t size = valueSize(target, setting, words);
        changes.push_back(parseChange(target, setting, words.first(size)));
        words = words.subspan(size);
    }
    return changes;
}

void noteUnknownConversions(const Context &context, const Setting &setting, const Value &value)
{
    const auto *option = std::get_if<OptionText>(&value);
    if (!option || option->format != DHCPSNOOP_FORMAT_TEMPLATE)
        return;
    std::string unknown = templateUnknown(std::string(option->text.begin(), option->text.end()));
    if (!unknown.empty())
        context.err << "dhcpsnoopctl: note: in " << setting.name << ' ' << unknown
                    << " has no meaning and gives 0\n";
}

// 0 where the daemon refuses to tell.
uint32_t getSwitch(const Daemon &daemon, uint32_t ifIndex, uint32_t cmd)
{
    Reply reply = daemon.ask({FUNC_IF_GET, cmd, ifIndex});
    return reply.result() == NM_OK ? reply.word() : 0;
}

// True when the change has taken trust away.
bool makeChange(const Context &context, const Target &target, const Change &change)
{
    const Setting &setting = *change.setting;
    if (change.server) {
        demandOn(context.daemon, target, setting, serverRequest(*change.server, change.adds));
        return false;
    }
    if (setting.kind == Kind::Rate) {
        changeLimit(target, setting, change.value);
        return false;
    }
    noteUnknownConversions(context, setting, change.value);
    const Setting *trust = nullptr;
    if (&target.scope == &INTERFACE_SCOPE && setting.cmd == IF_VERSION)
        trust = findSetting(INTERFACE_SCOPE, "trust");
    // A refusal here is ignored: the wanted setting reports its own.
    const bool trusted = trust && getSwitch(context.daemon, std::get<uint32_t>(target.index), IF_TRUST) == 1;
    const bool snoops = &setting == findSetting(target.scope, "snooping") && change.value == Value(1u);
    const uint32_t both = snoops ? interfaceOfBoth(target) : 0;
    const bool begins = both != 0 && getSwitch(context.daemon, both, IF_ENABLE) == 0;
    setValue(context.daemon, target, setting, change.value);
    if (begins)
        setValue(context.daemon, interfaceTarget(both), *findSetting(INTERFACE_SCOPE, "version"),
                 Value(uint32_t{DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6}));
    return trusted && getValue(context.daemon, target, *trust) == Value(0u);
}

// All of them are right before the first is made.
ExitStatus changeSettings(const Context &context, const Target &target, std::span<const std::string> words)
{
    bool untrusted = false;
    for (const Change &change : parseChanges(target, words)) {
        const bool lost = makeChange(context, target, change);
        untrusted = lost || (untrusted && change.setting->cmd != IF_TRUST);
    }
    if (untrusted)
        context.err << "dhcpsnoopctl: note: the change of version took trust away; '"
                    << joinQuoted(target.words()) << " trust on' gives it back\n";
    return EXIT_DONE;
}

UserKey parseOneKey(std::span<const std::string> arguments)
{
    if (arguments.size() != 1)
        throw UsageError("one address is needed");
    return parseUserKey(arguments[0]);
}

ExitStatus bindingAction(const Context &context, std::span<const std::string> arguments, uint32_t action)
{
    UserKey key = parseOneKey(arguments);
    context.daemon.demand({FUNC_USER_SET, USER_ACTION, key, action}, "binding " + userKeyText(key));
    return EXIT_DONE;
}

} // namespace

ExitStatus changeInterface(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.empty())
        throw UsageError("which interface?");
    return changeSettings(context, interfaceTarget(parseInterface(arguments[0])), arguments.subspan(1));
}

ExitStatus changeVlan(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.empty())
        throw UsageError("which VLAN?");
    uint32_t vid = parseRange("VLAN", arguments[0], VLAN_ID_MIN, VLAN_ID_MAX);
    return changeSettings(context, {VLAN_SCOPE, vid, std::to_string(vid)}, arguments.subspan(1));
}

ExitStatus changeSnooping(const Context &context, std::span<const std::string> arguments)
{
    return changeGlobal(context, "snooping", arguments);
}

ExitStatus changeServerLearning(const Context &context, std::span<const std::string> arguments)
{
    return changeGlobal(context, "server-learning", arguments);
}

ExitStatus changeEnterpriseNumber(const Context &context, std::span<const std::string> arguments)
{
    return changeGlobal(context, "enterprise-number", arguments);
}

ExitStatus changeHardwareNotify(const Context &context, std::span<const std::string> arguments)
{
    return changeGlobal(context, "hardware-notify", arguments);
}

ExitStatus clearStatistics(const Context &context, std::span<const std::string>)
{
    context.daemon.demand({FUNC_GLOBAL_SET, GLOBAL_CLEAR_STATS}, "clear statistics");
    return EXIT_DONE;
}

ExitStatus changeDebug(const Context &context, std::span<const std::string> arguments)
{
    const Choice *flag = nullptr;
    for (const Choice &row : DEBUG_FLAGS)
        if (!arguments.empty() && arguments[0] == row.word)
            flag = &row;
    if (arguments.size() != 2 || !flag || (arguments[1] != "on" && arguments[1] != "off"))
        throw UsageError("debug takes: trace|dump on|off");
    uint32_t flags = context.daemon.demand({FUNC_GLOBAL_GET, GLOBAL_DEBUG}, "debug").word();
    flags = arguments[1] == "on" ? flags | flag->value : flags & ~flag->value;
    context.daemon.demand({FUNC_GLOBAL_SET, GLOBAL_DEBUG, {}, flags}, "debug");
    return EXIT_DONE;
}

ExitStatus bindingAdd(const Context &context, std::span<const std::string> arguments)
{
    Words words(arguments.begin(), arguments.end());
    const bool force = std::erase(words, "--force") > 0;
    const StaticBinding binding = parseBinding(words);
    if (!force && binding.vlan != 0 && !binding.interface.empty())
        checkVlanOfPort(parseInterface(binding.interface), binding.vlan);
    addBinding(context.daemon, binding);
    return EXIT_DONE;
}

ExitStatus bindingBind(const Context &context, std::span<const std::string> arguments)
{
    return bindingAction(context, arguments, USER_ACTION_BIND);
}

ExitStatus bindingUnbind(const Context &context, std::span<const std::string> arguments)
{
    return bindingAction(context, arguments, USER_ACTION_UNBIND);
}

ExitStatus bindingDelete(const Context &context, std::span<const std::string> arguments)
{
    const UserKey key = parseOneKey(arguments);
    const Reply reply = context.daemon.ask({FUNC_USER_SET, USER_ACTION, key, USER_ACTION_DELETE});
    if (reply.result() == NM_NO_ENTRY && forgetWaiting(key))
        return EXIT_DONE;
    if (reply.result() != NM_OK)
        throw Refusal(reply.result(), "binding " + userKeyText(key));
    return EXIT_DONE;
}

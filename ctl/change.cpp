// Commands that change one setting, one relay server or one binding.
#include <algorithm>
#include <ostream>

#include "binding_view.h"
#include "command.h"
#include "protocol.h"

namespace
{

constexpr char TYPE_HELP[] = " (see dhcpsnoopctl help)";

ExitStatus changeGlobal(const Context &context, const char *name, std::span<const std::string> arguments)
{
    const Setting &setting = *findSetting(GLOBAL_SCOPE, name);
    setValue(context.daemon, globalTarget(), setting, parseValue(setting, arguments));
    return EXIT_DONE;
}

// "ADDRESS add", or "add ADDRESS".
void changeServer(const Context &context, const Target &target, const Setting &setting,
                  std::span<const std::string> words)
{
    auto isVerb = [](const std::string &word) { return word == "add" || word == "delete"; };
    if (words.size() != 2 || isVerb(words[0]) == isVerb(words[1]))
        throw UsageError(std::string(setting.name) + " takes: " + setting.arguments);
    const std::string &verb = isVerb(words[0]) ? words[0] : words[1];
    uint32_t address = parseIpv4(isVerb(words[0]) ? words[1] : words[0]);
    if (address == 0)
        throw UsageError("0.0.0.0 is no server");
    ServerKey key = {std::get<uint32_t>(target.index), address};
    demandOn(context.daemon, target, setting, serverRequest(key, verb == "add"));
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

ExitStatus changeSetting(const Context &context, const Target &target, std::span<const std::string> words)
{
    if (words.empty())
        throw UsageError(joinQuoted(target.words()) + ": which setting?" + TYPE_HELP);
    const Setting *setting = findSetting(target.scope, words[0]);
    if (!setting || !canBeSet(*setting))
        throw UsageError(std::string("there is no setting '") + words[0] + "' of " +
                         (&target.scope == &VLAN_SCOPE ? "a VLAN" : "an interface") + TYPE_HELP);
    if (setting->kind == Kind::Servers) {
        changeServer(context, target, *setting, words.subspan(1));
        return EXIT_DONE;
    }
    Value value = parseValue(*setting, words.subspan(1));
    noteUnknownConversions(context, *setting, value);

    const Setting *trust = nullptr;
    if (&target.scope == &INTERFACE_SCOPE && setting->cmd == IF_VERSION)
        trust = findSetting(INTERFACE_SCOPE, "trust");
    // A refusal here is ignored: the wanted setting reports its own.
    const bool trusted = trust && getSwitch(context.daemon, std::get<uint32_t>(target.index), IF_TRUST) == 1;
    const bool snoops = setting == findSetting(target.scope, "snooping") && value == Value(1u);
    const uint32_t both = snoops ? interfaceOfBoth(target) : 0;
    const bool begins = both != 0 && getSwitch(context.daemon, both, IF_ENABLE) == 0;
    setValue(context.daemon, target, *setting, value);
    if (begins)
        setValue(context.daemon, interfaceTarget(both), *findSetting(INTERFACE_SCOPE, "version"),
                 Value(uint32_t{DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6}));
    if (trusted && getValue(context.daemon, target, *trust) == Value(0u))
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
    return changeSetting(context, interfaceTarget(parseInterface(arguments[0])), arguments.subspan(1));
}

ExitStatus changeVlan(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.empty())
        throw UsageError("which VLAN?");
    uint32_t vid = parseRange("VLAN", arguments[0], VLAN_ID_MIN, VLAN_ID_MAX);
    return changeSetting(context, {VLAN_SCOPE, vid, std::to_string(vid)}, arguments.subspan(1));
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

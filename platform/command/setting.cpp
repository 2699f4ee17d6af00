// The tables of settings, and the conversions by kind: words to a value and back, a value to requests and
// back.
#include "setting.h"

#include <algorithm>
#include <cerrno>

namespace
{

constexpr Choice VERSIONS[] = {
    {"4",    DHCPSNOOP_IPV4                 },
    {"6",    DHCPSNOOP_IPV6                 },
    {"both", DHCPSNOOP_IPV4 | DHCPSNOOP_IPV6},
    {"none", 0                              }
};

constexpr Choice POLICIES[] = {
    {"keep",   DHCPSNOOP_POLICY_KEEP   },
    {"drop",   DHCPSNOOP_POLICY_DROP   },
    {"append", DHCPSNOOP_POLICY_APPEND },
    {"keep",   DHCPSNOOP_POLICY_DEFAULT}
};

constexpr Choice FORMATS[] = {
    {"global",   DHCPSNOOP_FORMAT_GLOBAL  },
    {"typed",    DHCPSNOOP_FORMAT_TYPED   },
    {"raw",      DHCPSNOOP_FORMAT_RAW     },
    {"template", DHCPSNOOP_FORMAT_TEMPLATE}
};

constexpr Choice STATISTICS[] = {
    {"statistics", 0}
};

// Beyond them a limit limits nothing: the daemon takes less.
constexpr uint32_t RATE_MOST = 100000, BURST_MOST = 65535;
constexpr uint32_t BURST_LEAST = 64; // a network device hands over so many frames at once
constexpr uint32_t BURST_INITIAL = 128;

constexpr char BURST[] = "burst", RESERVED[] = "reserved";

constexpr char OPTION_TEXT_ARGUMENTS[] =
    "[global|typed|raw|template|format N] [type N] text T|hex H|generated";

// Rows of several lines are aligned by hand.
// clang-format off
constexpr Setting GLOBAL_SETTINGS[] = {
    {.name = "snooping", .kind = Kind::Switch, .cmd = GLOBAL_ENABLE, .arguments = "on|off",
     .help = "the switch's mark (each interface has its own); off forgets interfaces, bindings, servers"},
    {.name = "enterprise-number", .kind = Kind::Number, .cmd = GLOBAL_ENTERPRISE, .arguments = "N",
     .help = "IANA private enterprise number put into options 82, 125 and 37",
     .most = UINT32_MAX},
    {.name = "hardware-notify", .kind = Kind::Switch, .cmd = GLOBAL_HW_NOTIFY, .arguments = "on|off",
     .help = "tell the hardware of bindings; a change tells or withdraws them all"},
    {.name = "server-learning", .kind = Kind::Switch, .cmd = GLOBAL_SERVER_LEARN, .arguments = "on|off",
     .help = "remember the servers that answer"},
    {.name = "bindings", .kind = Kind::Counter, .cmd = GLOBAL_USER_COUNT, .arguments = "",
     .help = "number of bindings"},
    {.name = "clear", .kind = Kind::Clear, .cmd = GLOBAL_CLEAR_STATS, .arguments = "statistics",
     .help = "set the drop counters of every interface to 0",
     .choices = STATISTICS},
};

// In the order in which a configuration is rebuilt: a change of version takes trust away, and an option must
// be on before its details can be set.
constexpr Setting INTERFACE_SETTINGS[] = {
    {.name = "snooping", .kind = Kind::Switch, .cmd = IF_ENABLE, .arguments = "on|off",
     .help = "snoop here; off forgets the interface's settings"},
    {.name = "version", .kind = Kind::Choice, .cmd = IF_VERSION, .arguments = "4|6|both|none",
     .help = "IP versions that are snooped; a change leaves the interface untrusted",
     .initial = DHCPSNOOP_IPV4, .choices = VERSIONS},
    {.name = "trust", .kind = Kind::Switch, .cmd = IF_TRUST, .arguments = "on|off",
     .help = "servers may answer from here, and requests are sent there"},
    {.name = "option82", .kind = Kind::Switch, .cmd = IF_OPTION82, .arguments = "on|off",
     .help = "add relay agent information to requests; off forgets its settings"},
    {.name = "option82-policy", .kind = Kind::Choice, .cmd = IF_POLICY, .arguments = "keep|drop|append",
     .help = "a request that has option 82 already: pass it, drop it, append the host name to sub-option 9",
     .needs = "option82", .initial = DHCPSNOOP_POLICY_DEFAULT, .choices = POLICIES},
    {.name = "option82-mode", .kind = Kind::Choice, .cmd = IF_MODE,
     .arguments = "global|typed|raw|template|0-15",
     .help = "how requests that have option 82 and replies are judged; global: as the switch's format",
     .most = 15, .choices = FORMATS},
    {.name = "circuit-id", .kind = Kind::OptionText, .cmd = IF_CIRCUIT_ID, .arguments = OPTION_TEXT_ARGUMENTS,
     .help = "option 82 sub-option 1",
     .needs = "option82", .initial = DHCPSNOOP_FORMAT_TYPED, .formatCmd = IF_CIRCUIT_ID_FORMAT},
    {.name = "remote-id", .kind = Kind::OptionText, .cmd = IF_REMOTE_ID, .arguments = OPTION_TEXT_ARGUMENTS,
     .help = "option 82 sub-option 2",
     .needs = "option82", .initial = DHCPSNOOP_FORMAT_TYPED, .formatCmd = IF_REMOTE_ID_FORMAT},
    {.name = "subopt9", .kind = Kind::Switch, .cmd = IF_SUBOPT9, .arguments = "on|off",
     .help = "option 82 sub-option 9 with the host name, or the text below; off forgets the text",
     .needs = "option82"},
    {.name = "subopt9-text", .kind = Kind::Text, .cmd = IF_SUBOPT9_TEXT, .arguments = "T|text T|hex H",
     .help = "text of sub-option 9; empty: the switch's host name",
     .needs = "subopt9"},
    {.name = "option18", .kind = Kind::Switch, .cmd = IF_OPTION18, .arguments = "on|off",
     .help = "add the DHCPv6 Interface-Id to requests; off forgets its text"},
    {.name = "interface-id", .kind = Kind::OptionText, .cmd = IF_INTERFACE_ID,
     .arguments = OPTION_TEXT_ARGUMENTS, .help = "DHCPv6 option 18",
     .needs = "option18", .initial = DHCPSNOOP_FORMAT_TYPED, .formatCmd = IF_INTERFACE_ID_FORMAT},
    {.name = "option37", .kind = Kind::Switch, .cmd = IF_OPTION37, .arguments = "on|off",
     .help = "add the DHCPv6 Remote-Id to requests; off forgets its text"},
    {.name = "remote-id6", .kind = Kind::OptionText, .cmd = IF_REMOTE_ID6, .arguments = OPTION_TEXT_ARGUMENTS,
     .help = "DHCPv6 option 37",
     .needs = "option37", .initial = DHCPSNOOP_FORMAT_TYPED, .formatCmd = IF_REMOTE_ID6_FORMAT},
    {.name = "source-mac-check", .kind = Kind::Switch, .cmd = IF_CHECK_MAC, .arguments = "on|off",
     .help = "drop requests whose Ethernet source is not the client hardware address"},
    {.name = "binding-check", .kind = Kind::Switch, .cmd = IF_CHECK_BINDING, .arguments = "on|off",
     .help = "drop renewals and releases that contradict the binding"},
    {.name = "max-users", .kind = Kind::Number, .cmd = IF_MAX_USER, .arguments = "0-65535",
     .help = "most dynamic bindings",
     .initial = DHCPSNOOP_MAX_USER_DEFAULT, .most = 65535},
    {.name = "relay-address", .kind = Kind::Address, .cmd = IF_RELAY_ADDR, .arguments = "ADDRESS|off",
     .help = "relay requests to the interface's relay servers, with this as giaddr"},
    {.name = "relay-server", .kind = Kind::Servers, .cmd = SERVER_IP_SLOT, .arguments = "ADDRESS add|delete",
     .help = "a server that requests are relayed to; at most three",
     .alias = "server"},
    {.name = "dhcp-rate", .kind = Kind::Rate, .cmd = 0, .arguments = "N|off|default [burst N] [reserved N]",
     .help = "most DHCP messages a second that come in here, at once, and at once of known clients besides",
     .most = RATE_MOST},
    {.name = "flag14", .kind = Kind::Switch, .cmd = IF_FLAG14, .arguments = "on|off",
     .help = "kept for the platform; snooping does not read it"},
    {.name = "setting21", .kind = Kind::Number, .cmd = IF_SETTING21, .arguments = "0-65535",
     .help = "kept for the platform; snooping does not read it",
     .initial = DHCPSNOOP_SETTING21_DEFAULT, .most = 65535},
    {.name = "users", .kind = Kind::Counter, .cmd = IF_CUR_USER, .arguments = "",
     .help = "dynamic bindings there are"},
    {.name = "dropped-untrusted", .kind = Kind::Counter, .cmd = IF_DROP_UNTRUSTED, .arguments = "",
     .help = "server replies dropped because the interface is not trusted"},
    {.name = "dropped-source-mac", .kind = Kind::Counter, .cmd = IF_DROP_SOURCE_MAC, .arguments = "",
     .help = "requests dropped by source-mac-check"},
    {.name = "dropped-binding", .kind = Kind::Counter, .cmd = IF_DROP_BINDING, .arguments = "",
     .help = "requests dropped by binding-check"},
    {.name = "clear", .kind = Kind::Clear, .cmd = IF_CLEAR_STATS, .arguments = "statistics",
     .help = "set the interface's drop counters to 0",
     .choices = STATISTICS},
};

constexpr Setting VLAN_SETTINGS[] = {
    {.name = "snooping", .kind = Kind::Switch, .cmd = VLAN_ENABLE, .arguments = "on|off",
     .help = "snoop on the VLAN's interface; off forgets its settings"},
    {.name = "max-users", .kind = Kind::Number, .cmd = VLAN_MAX_USER, .arguments = "0-65535",
     .help = "most dynamic bindings in the VLAN",
     .initial = DHCPSNOOP_MAX_USER_DEFAULT, .most = 65535},
};
// clang-format on

const Choice *findWord(std::span<const Choice> choices, const std::string &word)
{
    for (const Choice &choice : choices)
        if (word == choice.word)
            return &choice;
    return nullptr;
}

const char *findWord(std::span<const Choice> choices, uint32_t value)
{
    for (const Choice &choice : choices)
        if (choice.value == value)
            return choice.word;
    return nullptr;
}

[[noreturn]] void throwExpected(const Setting &setting)
{
    throw UsageError(std::string(setting.name) + " takes: " + setting.arguments);
}

Bytes checkedText(const Setting &setting, Bytes text)
{
    if (text.size() > DHCPSNOOP_TEXT_MAX)
        throw UsageError(std::string(setting.name) + ": " + std::to_string(text.size()) +
                         " bytes are too long, at most " + std::to_string(DHCPSNOOP_TEXT_MAX) + " fit");
    return text;
}

Bytes textBytes(const std::string &word) { return {word.begin(), word.end()}; }

// "text T" or "hex H", two words.
Bytes parseTextWords(const Setting &setting, std::span<const std::string> words)
{
    if (words.size() == 2 && words[0] == "text")
        return checkedText(setting, textBytes(words[1]));
    if (words.size() == 2 && words[0] == "hex")
        return checkedText(setting, parseHex(words[1]));
    throwExpected(setting);
}

uint32_t parseFormat(const Setting &setting, std::span<const std::string> &words)
{
    if (words.size() > 1 && words[0] == "format") {
        uint32_t format = parseRange("format", words[1], 0, DHCPSNOOP_FORMATS - 1);
        words = words.subspan(2);
        return format;
    }
    const Choice *choice = words.empty() ? nullptr : findWord(FORMATS, words[0]);
    if (!choice)
        return setting.initial;
    words = words.subspan(1);
    return choice->value;
}

OptionText parseOptionText(const Setting &setting, std::span<const std::string> words)
{
    if (words.empty())
        throwExpected(setting);
    OptionText value;
    value.format = parseFormat(setting, words);
    std::optional<uint8_t> type;
    if (words.size() > 1 && words[0] == "type" && isTyped(value.format)) {
        type = static_cast<uint8_t>(parseRange("type", words[1], 0, 255));
        words = words.subspan(2);
    }
    bool isTemplate = value.format == DHCPSNOOP_FORMAT_TEMPLATE;
    if (isTemplate && words.size() == 1)
        value.text = checkedText(setting, textBytes(words[0]));
    else if (isTemplate || words.size() > 1)
        value.text = parseTextWords(setting, words);
    else if (words.size() == 1 && words[0] != "generated")
        throwExpected(setting);
    // A template in hexadecimal is not checked, so that any can be set.
    if (isTemplate && words[0] != "hex") {
        if (auto fault = templateFault(std::string(value.text.begin(), value.text.end())))
            throw UsageError(std::string(setting.name) + ": the template '" + words.back() +
                             "' is wrong: " + *fault);
    }
    if (isTyped(value.format))
        value.type = type.value_or(value.text.empty() ? DHCPSNOOP_TYPE_GENERATED : DHCPSNOOP_TYPE_TEXT);
    return value;
}

Words textWords(const Bytes &text)
{
    if (isPrintable(text))
        return {"text", std::string(text.begin(), text.end())};
    return {"hex", hexText(text)};
}

Words optionTextWords(const OptionText &value)
{
    Words words;
    const char *format = findWord(FORMATS, value.format);
    if (format)
        words = {format};
    else
        words = {"format", std::to_string(value.format)};
    if (value.format == DHCPSNOOP_FORMAT_TEMPLATE) {
        std::string text(value.text.begin(), value.text.end());
        if (isPrintable(value.text) && !templateFault(text))
            words.push_back(text);
        else
            words.insert(words.end(), {"hex", hexText(value.text)});
        return words;
    }
    if (isTyped(value.format) &&
        value.type != (value.text.empty() ? DHCPSNOOP_TYPE_GENERATED : DHCPSNOOP_TYPE_TEXT))
        words.insert(words.end(), {"type", std::to_string(value.type)});
    Words text = value.text.empty() ? Words{"generated"} : textWords(value.text);
    words.insert(words.end(), text.begin(), text.end());
    return words;
}

Rate parseRate(const Setting &setting, std::span<const std::string> words)
{
    if (words.empty() || rateSize(words) != words.size())
        throwExpected(setting);
    if (words[0] == "default" || words[0] == "off")
        return {0, 0, 0, words[0] == "default"};
    Rate rate = {parseRange(setting.name, words[0], 1, setting.most), BURST_INITIAL, BURST_INITIAL, false};
    for (words = words.subspan(1); !words.empty(); words = words.subspan(2)) {
        const bool isBurst = words[0] == BURST;
        (isBurst ? rate.burst : rate.reserved) = parseRange(words[0], words[1], 0, BURST_MOST);
    }
    if (rate.burst < BURST_LEAST)
        throw UsageError("burst must be at least " + std::to_string(BURST_LEAST) + ", not " +
                         std::to_string(rate.burst) +
                         ": a network device hands over so many frames at once, and the rate would be lost");
    return rate;
}

Words rateWords(const Rate &rate)
{
    if (rate.rate == 0)
        return {"off"};
    return {std::to_string(rate.rate), BURST, std::to_string(rate.burst), RESERVED,
            std::to_string(rate.reserved)};
}

// The form in which an option text travels.
Bytes managementForm(const OptionText &value)
{
    if (!isTyped(value.format))
        return value.text;
    Bytes form = {value.type, static_cast<uint8_t>(value.text.size())};
    form.insert(form.end(), value.text.begin(), value.text.end());
    return form;
}

OptionText fromManagementForm(uint32_t format, const Bytes &form)
{
    if (!isTyped(format))
        return {format, DHCPSNOOP_TYPE_GENERATED, form};
    if (form.size() < 2 || form[1] > form.size() - 2)
        throw NoDaemon("malformed reply: an option text whose length is wrong");
    return {format, form[0], Bytes(form.begin() + 2, form.begin() + 2 + form[1])};
}

// Why the daemon may have refused, as far as the client knows.
std::string hint(const Target &target, const Setting &setting, uint32_t code)
{
    if (&target.scope != &INTERFACE_SCOPE)
        return "";
    std::string command = joinQuoted(target.words());
    if (code == NM_NO_ENTRY)
        return " (is snooping off there? '" + command + " snooping on' comes first)";
    if (code == ENODEV)
        return " (is it no port of the switch, nor the interface of a VLAN?)";
    if (code == NM_BAD_COMMAND && setting.needs)
        return " ('" + command + ' ' + setting.needs + " on' comes first)";
    if (code == NM_BAD_COMMAND && setting.kind == Kind::Servers)
        return " (are all three in use?)";
    return "";
}

} // namespace

bool isTyped(uint32_t format) { return format == DHCPSNOOP_FORMAT_TYPED || format == DHCPSNOOP_FORMAT_RAW; }

std::string formatText(uint32_t format)
{
    const char *word = findWord(FORMATS, format);
    return word ? word : std::to_string(format);
}

const Scope GLOBAL_SCOPE = {"", FUNC_GLOBAL_SET, FUNC_GLOBAL_GET, GLOBAL_SETTINGS};
const Scope INTERFACE_SCOPE = {"interface", FUNC_IF_SET, FUNC_IF_GET, INTERFACE_SETTINGS};
const Scope VLAN_SCOPE = {"vlan", FUNC_VLAN_SET, FUNC_VLAN_GET, VLAN_SETTINGS};

Words Target::words() const { return name.empty() ? Words{} : Words{scope.noun, name}; }

Target globalTarget() { return {GLOBAL_SCOPE, {}, ""}; }

Target interfaceTarget(uint32_t ifIndex) { return {INTERFACE_SCOPE, ifIndex, interfaceText(ifIndex)}; }

const Setting *findSetting(const Scope &scope, const std::string &name)
{
    for (const Setting &setting : scope.settings)
        if (name == setting.name || (setting.alias && name == setting.alias))
            return &setting;
    return nullptr;
}

bool Rate::operator==(const Rate &other) const
{
    return isDefault == other.isDefault &&
           (isDefault || (rate == other.rate && burst == other.burst && reserved == other.reserved));
}

bool canBeSet(const Setting &setting) { return setting.kind != Kind::Counter; }

Value parseValue(const Setting &setting, std::span<const std::string> words)
{
    switch (setting.kind) {
    case Kind::OptionText:
        return parseOptionText(setting, words);
    case Kind::Text:
        return words.size() == 1 ? checkedText(setting, textBytes(words[0])) : parseTextWords(setting, words);
    case Kind::Rate:
        return parseRate(setting, words);
    case Kind::Counter:
        throw UsageError(std::string(setting.name) + " can only be read");
    default:
        break;
    }
    if (words.size() != 1)
        throwExpected(setting);
    const std::string &word = words[0];
    switch (setting.kind) {
    case Kind::Switch:
        if (word != "on" && word != "off")
            throwExpected(setting);
        return word == "on" ? 1u : 0u;
    case Kind::Number:
        return parseRange(setting.name, word, setting.least, setting.most);
    case Kind::Address:
        return word == "off" ? 0u : parseIpv4(word);
    default: // Choice, Clear
        if (const Choice *choice = findWord(setting.choices, word))
            return choice->value;
        if (setting.most == 0 || !parseNumber(word))
            throwExpected(setting);
        return parseRange(setting.name, word, setting.least, setting.most);
    }
}

Words valueWords(const Setting &setting, const Value &value)
{
    if (const auto *option = std::get_if<OptionText>(&value))
        return optionTextWords(*option);
    if (const auto *text = std::get_if<Bytes>(&value))
        return textWords(*text);
    if (const auto *rate = std::get_if<Rate>(&value))
        return rate->isDefault ? Words{"default"} : rateWords(*rate);
    uint32_t number = std::get<uint32_t>(value);
    if (setting.kind == Kind::Switch)
        return {number ? "on" : "off"};
    if (setting.kind == Kind::Address)
        return {number ? ipv4Text(number) : "off"};
    const char *word = findWord(setting.choices, number);
    return {word ? word : std::to_string(number)};
}

Words shownWords(const Setting &setting, const Value &value)
{
    const auto *rate = std::get_if<Rate>(&value);
    return rate != nullptr ? rateWords(*rate) : valueWords(setting, value);
}

size_t rateSize(std::span<const std::string> words)
{
    size_t size = std::min<size_t>(1, words.size());
    const bool isNumber = size == 1 && words[0] != "off" && words[0] != "default";
    while (isNumber && size + 2 <= words.size() && (words[size] == BURST || words[size] == RESERVED))
        size += 2;
    return size;
}

Value initialValue(const Setting &setting)
{
    if (setting.kind == Kind::Rate)
        return Rate();
    if (setting.kind == Kind::OptionText)
        return OptionText{setting.initial, DHCPSNOOP_TYPE_GENERATED, {}};
    if (setting.kind == Kind::Text)
        return Bytes{};
    return setting.initial;
}

bool isInitial(const Setting &setting, const Value &value) { return value == initialValue(setting); }

std::vector<Request> setRequests(const Target &target, const Setting &setting, const Value &value)
{
    DhcpsnoopFunc func = target.scope.set;
    if (const auto *option = std::get_if<OptionText>(&value)) {
        // The format comes first: a change of it clears the text.
        return {
            {func, setting.formatCmd, target.index, option->format         },
            {func, setting.cmd,       target.index, managementForm(*option)}
        };
    }
    if (const auto *text = std::get_if<Bytes>(&value))
        return {
            {func, setting.cmd, target.index, *text}
        };
    return {
        {func, setting.cmd, target.index, std::get<uint32_t>(value)}
    };
}

Request serverRequest(const ServerKey &key, bool add)
{
    return {FUNC_SERVER_IP_SET, SERVER_IP_SLOT, key, add ? USER_ACTION_CREATE : USER_ACTION_DELETE};
}

Reply demandOn(const Daemon &daemon, const Target &target, const Setting &setting, const Request &request,
               const std::string &note)
{
    Reply reply = daemon.ask(request);
    if (reply.result() == NM_OK)
        return reply;
    Words words = target.words();
    words.push_back(setting.name);
    throw Refusal(reply.result(), joinQuoted(words), note + hint(target, setting, reply.result()));
}

void setValue(const Daemon &daemon, const Target &target, const Setting &setting, const Value &value)
{
    bool first = true;
    for (const Request &request : setRequests(target, setting, value)) {
        demandOn(daemon, target, setting, request, first ? "" : " (its format is set, its text is not)");
        first = false;
    }
}

Value getValue(const Daemon &daemon, const Target &target, const Setting &setting)
{
    auto number = [&](uint32_t cmd) {
        return demandOn(daemon, target, setting, {target.scope.get, cmd, target.index}).word();
    };
    auto text = [&](size_t room) {
        return demandOn(daemon, target, setting, {target.scope.get, setting.cmd, target.index, Bytes(room)})
            .bytes();
    };
    switch (setting.kind) {
    case Kind::Text:
        return text(DHCPSNOOP_TEXT_MAX);
    case Kind::OptionText: {
        uint32_t format = number(setting.formatCmd);
        return fromManagementForm(format, text(DHCPSNOOP_TEXT_MAX + 2));
    }
    default:
        return number(setting.cmd);
    }
}

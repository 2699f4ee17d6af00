// The settings that can be made and read, as one table for each thing that has them (the switch, an
// interface, a VLAN): how each is called, what it takes, how it travels. Everything that deals with settings
// reads these tables: the commands, the usage, the completion, and what `show config` prints.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <variant>

#include "request.h"
#include "text.h"

enum class Kind : uint8_t {
    Switch,     // on | off
    Number,     // least … most
    Choice,     // a word; a number from least to most too when most is not 0
    Address,    // IPv4 or off
    Text,       // plain bytes
    OptionText, // a format, and bytes whose form on the way depends on it
    Counter,    // read only
    Clear,      // an action: the word, no value
    Servers,    // the relay servers of an interface, each a pair of its own on the way
};

struct Choice {
    const char *word;
    uint32_t value;
};

struct Setting {
    const char *name;
    Kind kind;
    uint32_t cmd;
    const char *arguments; // as the usage shows them
    const char *help;
    const char *needs = nullptr; // the switch setting that must be on; else the daemon refuses
    uint32_t initial = 0;        // what it is when its entry is new, or when what it needs is switched on
    uint32_t least = 0, most = 0;
    std::span<const Choice> choices = {};
    uint32_t formatCmd = 0; // OptionText
    const char *alias = nullptr;
};

// What has settings. `noun` is the word before its name on the command line; empty for the switch itself.
struct Scope {
    const char *noun;
    DhcpsnoopFunc set, get;
    std::span<const Setting> settings;
};
extern const Scope GLOBAL_SCOPE, INTERFACE_SCOPE, VLAN_SCOPE;

// One switch, interface or VLAN. `name` is as the operator writes it; empty for the switch.
struct Target {
    const Scope &scope;
    RequestIndex index;
    std::string name;
    Words words() const; // "interface" "swp1"
};
Target globalTarget();
Target interfaceTarget(uint32_t ifIndex);

// Option texts: how the bytes are used, and the type byte that the typed and raw formats carry along.
constexpr uint32_t FORMAT_GLOBAL = 0, FORMAT_TYPED = 3, FORMAT_RAW = 4, FORMAT_TEMPLATE = 5, FORMAT_MAX = 6;
constexpr uint8_t TYPE_GENERATED = 0, TYPE_TEXT = 1;

struct OptionText {
    uint32_t format = FORMAT_TYPED;
    uint8_t type = TYPE_GENERATED;
    Bytes text;
    bool operator==(const OptionText &) const = default;
};

// A setting's value: a number (switches, choices, addresses, counters too), a text, an option text.
using Value = std::variant<uint32_t, Bytes, OptionText>;

// Null when there is none of that name.
const Setting *findSetting(const Scope &scope, const std::string &name);
bool canBeSet(const Setting &setting);

Value parseValue(const Setting &setting, std::span<const std::string> words);
Words valueWords(const Setting &setting, const Value &value); // what parseValue reads back
nlohmann::ordered_json valueJson(const Setting &setting, const Value &value);
bool isInitial(const Setting &setting, const Value &value);

// The requests that make a setting, in their order; not for Servers.
std::vector<Request> setRequests(const Target &target, const Setting &setting, const Value &value);
// A relay server made or removed.
Request serverRequest(const ServerKey &key, bool add);

// One request about a setting; a refusal says whose, and what may be the reason.
Reply demandOn(const Daemon &daemon, const Target &target, const Setting &setting, const Request &request,
               const std::string &note = "");
void setValue(const Daemon &daemon, const Target &target, const Setting &setting, const Value &value);
Value getValue(const Daemon &daemon, const Target &target, const Setting &setting);

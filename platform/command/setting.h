// The settings of the switch, of an interface and of a VLAN, a table each: name, kind of value, attribute
// number. Commands, usage, completion and `show config` are made from these tables.
#pragma once

#include <span>
#include <string>
#include <variant>

#include "request.h"
#include "text.h"

enum class Kind : uint8_t {
    Switch,     // on | off
    Number,     // least … most
    Choice,     // a word, or a number from least to most if most is not 0
    Address,    // IPv4 or off
    Text,       // plain bytes
    OptionText, // a format, and bytes whose encoding depends on it
    Counter,    // read only
    Clear,      // an action without value
    Servers,    // the relay servers of an interface, a request for each
    Rate,       // of a port, the platform's: no request
};

struct Choice {
    const char *word;
    uint32_t value;
};

struct Setting {
    const char *name;
    Kind kind;
    uint32_t cmd;
    const char *arguments; // for the usage
    const char *help;
    const char *needs = nullptr; // a setting of kind Switch that must be on, or the daemon refuses
    uint32_t initial = 0;        // value in a new entry, and after `needs` was switched on
    uint32_t least = 0, most = 0;
    std::span<const Choice> choices = {};
    uint32_t formatCmd = 0; // OptionText
    const char *alias = nullptr;
};

// An owner of settings. `noun` is the word before its name on the command line; empty for the switch.
struct Scope {
    const char *noun;
    DhcpsnoopFunc set, get;
    std::span<const Setting> settings;
};
extern const Scope GLOBAL_SCOPE, INTERFACE_SCOPE, VLAN_SCOPE;

// The switch, an interface or a VLAN. `name` is the operator's word; empty for the switch.
struct Target {
    const Scope &scope;
    RequestIndex index;
    std::string name;
    Words words() const; // "interface" "swp1"
};
Target globalTarget();
Target interfaceTarget(uint32_t ifIndex);

// Option texts: the use of the bytes, and the type byte of the typed and raw formats.
struct OptionText {
    uint32_t format = DHCPSNOOP_FORMAT_TYPED;
    uint8_t type = DHCPSNOOP_TYPE_GENERATED;
    Bytes text;
    bool operator==(const OptionText &) const = default;
};

// The management form carries a type and a length byte under these formats, whatever goes onto the wire.
bool isTyped(uint32_t format);
// Its word, or its number.
std::string formatText(uint32_t format);

// A limit of messages.
struct Rate {
    uint32_t rate = 0, burst = 0, reserved = 0; // a second, at once, at once of known clients besides; 0: off
    bool isDefault = true;                      // it follows from the trust, and so do the numbers
    bool operator==(const Rate &other) const;
};

// A setting's value: a number (switches, choices, addresses, counters too), a text, an option text, a limit.
using Value = std::variant<uint32_t, Bytes, OptionText, Rate>;

// Null for an unknown name.
const Setting *findSetting(const Scope &scope, const std::string &name);
bool canBeSet(const Setting &setting);

Value parseValue(const Setting &setting, std::span<const std::string> words);
Words valueWords(const Setting &setting, const Value &value); // parseValue reads them back
// The same for people: a default limit in its numbers.
Words shownWords(const Setting &setting, const Value &value);
// How many of the words, which begin with a limit, are of it.
size_t rateSize(std::span<const std::string> words);
Value initialValue(const Setting &setting);
bool isInitial(const Setting &setting, const Value &value);

// The requests that change a setting, in order; not for Servers and Rate, nor are the calls below.
std::vector<Request> setRequests(const Target &target, const Setting &setting, const Value &value);
// Adds or removes a relay server.
Request serverRequest(const ServerKey &key, bool add);

// A request about a setting; its refusal names the target and a possible reason.
Reply demandOn(const Daemon &daemon, const Target &target, const Setting &setting, const Request &request,
               const std::string &note = "");
void setValue(const Daemon &daemon, const Target &target, const Setting &setting, const Value &value);
Value getValue(const Daemon &daemon, const Target &target, const Setting &setting);

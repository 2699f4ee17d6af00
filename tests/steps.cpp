#include "steps.h"

#include <algorithm>
#include <regex>
#include <sstream>

#include "dhcpsnoop_cmd.h"
#include "dhcpsnoop_event.h"
#include "dhcpsnoop_sync.h"
#include "event_message.h"
#include "wire.h"

namespace
{

// ".7" is 10.0.0.7.
uint32_t number_of(const std::string &word)
{
    return word[0] == '.' ? ip4(10, 0, 0, 0) + number_of(word.substr(1)) : static_cast<uint32_t>(std::stoul(word, nullptr, 0));
}

uint32_t number(std::istream &words)
{
    std::string word;
    words >> word;
    return number_of(word);
}

DhcpsnoopUserKey key_of(const std::string &word)
{
    return word == "none" ? DhcpsnoopUserKey{} : word.find(':') != std::string::npos ? Key(word.c_str())
                                                                                     : Key(number_of(word));
}

Bytes address_of(const std::string &word)
{
    const DhcpsnoopUserKey key = key_of(word);
    return Bytes(key.ipAddr, key.ipAddr + sizeof key.ipAddr);
}

} // namespace

Bytes request(const std::string &line)
{
    static const char *const NAMES[] = {"global.set", "global.sync", "global.get", "if.first", "if.next", "if.set", "if.sync", "if.get", "user.first", "user.next", "user.set", "user.sync", "user.get", "vlan.first", "vlan.next", "vlan.set", "vlan.get", "server.first", "server.next", "server.set", "server.sync", "server.get"};
    const size_t bar = std::min(line.find(" | "), line.size());
    std::istringstream words(line.substr(0, bar)), changes(line.substr(std::min(bar + 3, line.size())));
    std::string name, word, text;
    words >> name;
    const auto named = static_cast<uint32_t>(std::ranges::find(NAMES, name) - NAMES), func = named < 22 ? named : number_of(name);
    const uint32_t cmd = number(words);
    Bytes index, value;
    if (func >= 8 && func <= 12 && words >> word)
        index = request_key(key_of(word).ipType, address_of(word));
    for (int items = func >= 22 || !index.empty() ? 0 : (func >= 17) + 1; items > 0; items--)
        index = index + request_index(func < 3 ? 9 : number(words));
    std::getline(words >> std::ws, text);
    std::istringstream values(text);
    values >> word;
    const uint32_t type = word == "form" ? number(values) : word == "pair" ? 4
                                                                           : (word == "=") * 2;
    if (text[0] == '\'' || word == ":")
        value = word == ":" ? hex_bytes(text.substr(1)) : text_bytes(text.substr(1));
    else
        value = word == "=" || word == "pair" ? be32(number(values)) : Bytes(number(values), 0xEE);
    if (word == "pair")
        value = value + be32(number(values));
    Bytes bytes = request_bytes(func, cmd, index, static_cast<uint8_t>(type), value);
    while (changes >> word)
        if (const uint32_t at = number(changes); word == "cut")
            bytes.resize(at);
        else
            bytes.at(at) = static_cast<uint8_t>(number(changes));
    return bytes;
}

Bytes packed(const std::string &line)
{
    Bytes bytes;
    std::optional<size_t> message;
    const auto close = [&](std::optional<uint32_t> length = {}) {
        if (message)
            std::ranges::copy(host32(length.value_or(static_cast<uint32_t>(bytes.size() - *message))), bytes.begin() + static_cast<ptrdiff_t>(*message));
        message.reset();
    };
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        const size_t value = word.find('=');
        if (word == "key") {
            words >> word;
            bytes = bytes + Bytes{key_of(word).ipType, 0, 0, 0} + address_of(word);
        } else if (word == "carried") { // what a record says of a binding besides its key
            bytes = bytes + packed("%10 %11 =1 =3600 =0x21222324 c0 01 01 30 %7 02 c1 00 00 00 01 =0x01020304 =0x05060708");
        } else if (word == "link") {
            bytes = bytes + packed("00 00 %1") + host32(number(words)) + Bytes(8, 0);
        } else if (word == "zeros") {
            bytes.resize(bytes.size() + number(words));
        } else if (word == "len") {
            close(number(words));
        } else if (word == "|" || word == "cut" || word.back() == ':') {
            close();
            if (word == "cut")
                bytes.resize(number(words));
            if (word.back() == ':') {
                message = bytes.size();
                bytes = bytes + event_message(static_cast<uint16_t>(number_of(word)));
            }
        } else if (word[0] == 'a' && word.size() > 2) {
            const Bytes data = value != std::string::npos ? packed(word.substr(value)) : Bytes();
            bytes = bytes + host16(static_cast<uint32_t>(4 + data.size())) + host16(number_of(word.substr(1))) + data;
        } else {
            bytes = bytes + (value == 0 ? host32(number_of(word.substr(1))) : word[0] == '%' ? host16(number_of(word.substr(1)))
                                                                                             : hex_bytes(word));
        }
    }
    close();
    return bytes;
}

namespace
{

// Records as packed() takes them; of more than three only how many there are.
std::string unpacked(const Bytes &packet)
{
    const std::map<char, size_t> sizes = {{'b', 1}, {'h', 2}, {'w', 4}, {'k', 20}, {'m', 6}};
    std::string text;
    size_t records = 0;
    for (size_t at = 0; at + 16 <= packet.size(); records++) {
        for (const char field : std::string(packet[at] == 1 ? "bbhkhhwwwbbbbhmww" : "bbhwwhh")) {
            const size_t size = sizes.at(field);
            text += field == 'h' ? world_format(" %%%u", host16_at(packet, at)) : field == 'w' ? world_format(" =%#x", host32_at(packet, at))
                                                                                               : " " + world_hex(packet.data() + at, size);
            at += size;
        }
    }
    return records <= 3 ? text : world_format(" %zu in %zu bytes", records, packet.size());
}

// A setting offered is "offer 5/1f 3": interface, its number in hexadecimal, value.
std::string entry_text(const WorldEntry &entry)
{
    static const std::pair<std::regex, const char *> SHORT[] = {
        {std::regex("qorHwIfSync (\\d+) 0x402c0(..) (\\d+ 0x|\\{.*\\} 0x8000000)3"), "offer $1/$2 $3"},
        {std::regex("qorHwScalarSync null 0x400(..) (\\d+ 0x)3"), "offer $1 $2"},
        {std::regex("qorHwDhcpSnoopUserSync 01 00 00 00 0a 00 00 (..)(?: 00){12} 0x8ce80(..) (\\d+ 0x|\\{.*\\} 0x8000000)3"), "offer .$1/$2 $3"},
        {std::regex(" 0x(8000000)?$"), ""},
        {std::regex("^\\[DHCPSNOOP\\] |\r\n$"), ""},
        {std::regex("\n\r$"), "\\n\\r"}};
    if (entry.text.starts_with("hw "))
        return rule(entry);
    if (entry.text.starts_with("qorHwScalarSync null 0x40013 "))
        return "peer" + entry.text.substr(entry.text.rfind(' ')) + unpacked(entry.data);
    std::string text = entry.text;
    if (text.starts_with("qorNetlinkSend"))
        text += " type " + std::to_string(host16_at(entry.data, 12));
    for (const auto &[expression, brief] : SHORT)
        text = std::regex_replace(text, expression, brief);
    return text;
}

// The result and, where it is another than was asked with, the data item: "ok =5".
std::string answer_of(const Bytes &asked)
{
    Bytes bytes(asked); // of just that size, for the sanitizer
    const uint32_t length = dhcpsnoop_cmd_process(bytes.data(), static_cast<uint32_t>(bytes.size()));
    if (length != bytes.size())
        return length == 0 && bytes == asked ? "none" : world_format("%u bytes", length);
    const ptrdiff_t one = asked[7] < 22 ? 7 : 0, two = asked[25] == 2 ? 14 : one, data = 26 + (asked[25] == 3 ? 29 : two);
    const auto word = [&bytes](size_t at) { return wire_get32(bytes.data() + at); };
    std::string text = word(12) == 0 ? "ok" : word(12) == 0xAAAAAAAA ? "as asked"
                                                                     : world_format("%x", word(12));
    if (!std::equal(asked.begin(), asked.begin() + 12, bytes.begin()) || !std::equal(asked.begin() + 16, asked.begin() + data, bytes.begin() + 16))
        text += " head changed";
    if (const Bytes item(bytes.begin() + data, bytes.end()); !std::equal(item.begin(), item.end(), asked.begin() + data))
        text += item.size() == 8 && item[1] == 2 ? world_format(" =%u", word(bytes.size() - 4)) : " " + world_hex(item.data(), item.size());
    return text;
}

// Members of a binding or an interface by their names in world_state().
void set_members(std::istream &words)
{
    std::string name;
    words >> name;
    const DhcpsnoopUserKey key = key_of(name);
    WorldMembers members = name.find_first_of(".:x") != std::string::npos ? world_members(*dhcpsnoop_user_lookup(&key)) : world_members(*dhcpsnoop_if_lookup(number_of(name)));
    while (words >> name) {
        const auto named = std::ranges::find_if(members, [&name](const auto &member) { return member.first == name || member.first == name + "#"; });
        std::visit([value = number(words)](auto *member) { *member = static_cast<std::remove_reference_t<decltype(*member)>>(value); }, named->second);
    }
}

// Steps that change the world, each with its numbers.
const std::map<std::string, void (*)(const uint32_t *n)> WORLD_STEPS = {
    {"debug", [](const uint32_t *n) { debug(static_cast<int>(n[0])); }},
    {"later", [](const uint32_t *n) { world.now += static_cast<int32_t>(n[0]); }},
    {"access", [](const uint32_t *n) { world.access(n[0], static_cast<uint16_t>(n[1])); }},                    // port, VLAN
    {"vlanif", [](const uint32_t *n) { world.vlan_interface(n[0], static_cast<uint16_t>(n[1])); }},            // interface, VLAN
    {"place", [](const uint32_t *n) { world.access(n[0], 10).location = {n[1], n[2], 1, 0, n[0], 1, n[3]}; }}, // port; system, slot, card
    {"self", [](const uint32_t *n) { world.selfSystem = n[0]; }},                                              // system
    {"members", [](const uint32_t *n) { world.trunkMembers = static_cast<uint8_t>(n[0]); }},
    {"scalar", [](const uint32_t *n) { world.hwScalars[n[0]] = n[1]; }}, // of hardware; value
    {"role", [](const uint32_t *n) { world.role(static_cast<DhcpsnoopRole>(n[0])), dhcpsnoop_running_role_get(); }},
    {"items", [](const uint32_t *n) { world.ipsg[n[0]].items = world.dai[n[0]].items = static_cast<uint8_t>(n[1]); }}, // checked on an interface
    {"enabled", [](const uint32_t *n) { world.ipsg[n[0]].enabled = world.dai[n[0]].enabled = n[1]; }},                 // the checks of an interface; 1: on
    {"hooks", [](const uint32_t *) { gDhcpsnoop.ipsgIfGet = ipsgIfGetApi, gDhcpsnoop.antiArpIfGet = arpAntiAttackIfGetApi; }},
    {"bind", [](const uint32_t *n) { make_binding(n[0], Mac{2, 0xC1, 0, 0, 0, static_cast<uint8_t>(std::max(n[3], 1u))}, n[1], static_cast<uint16_t>(n[2])); }}, // address, interface, VLAN; client's number, else 1
    {"discover", [](const uint32_t *n) { receive(Frame{}, {.port = n[0]}); }},                                                                                   // on a port
};

// The answer of a step that has one; none of a step that only changes the world.
std::optional<std::string> perform(const std::string &step)
{
    std::istringstream words(step);
    std::string verb, more;
    std::getline(words >> verb >> std::ws, more);
    std::istringstream values(more);
    if (verb == "event" || verb == "peer") {
        Bytes bytes(packed(more)); // of just that size
        QorBuffer transfer = {bytes.data(), static_cast<uint32_t>(bytes.size())};
        const int32_t result = verb == "event" ? dhcpsnoop_notify_recv(bytes.data(), static_cast<int32_t>(bytes.size())) : (dhcpsnoop_sync_pkt_recv(&transfer), 0);
        return result == 0 && bytes == packed(more) ? "" : "result, or bytes changed";
    }
    if (verb == "scan")
        return dhcpsnoop_user_timer_check(), "";
    if (verb == "enforce") // the binding .50
        return dhcpsnoop_user_update_hw(binding(HOST), number(values)), "";
    uint32_t n[4] = {};
    if (verb == "set") {
        set_members(values);
    } else if (verb == "refuse" || verb == "once") { // with this result, calls that begin so
        world.refuse(more.substr(more.find(' ') + 1), std::stoi(more), verb == "once" ? 1 : 1 << 30);
    } else if (WORLD_STEPS.contains(verb)) {
        for (size_t i = 0; i < 4 && !(values >> std::ws).eof(); i++)
            n[i] = number(values);
        WORLD_STEPS.at(verb)(n);
    } else {
        return answer_of(request(step));
    }
    return {};
}

} // namespace

void apply(const std::string &steps)
{
    for (const std::string &step : parts(steps, ';'))
        perform(step);
}

std::string play(const std::function<std::string()> &act)
{
    const std::string before = world_state();
    world.clear();
    Printed out;
    std::string done = act();
    const auto add = [&done](const std::string &text) { done += (done.empty() ? "" : "; ") + text; };
    for (const WorldEntry &entry : world.journal)
        if (entry.did != Did::Asked)
            add(entry_text(entry));
    for (const std::string &line : world.questions(""))
        if (line.starts_with("qorHwCard") || line.starts_with("qorHwSlot") || line.ends_with(" 65536285"))
            add(line);
    if (!out.text().empty())
        add("prints " + std::regex_replace(out.text(), std::regex("\n\r"), "/"));
    return done + world_changes(before) + world_check_tables();
}

std::string play(const std::string &steps)
{
    std::string outcome, between;
    for (const std::string &step : parts(steps, ';')) {
        std::optional<std::string> answer;
        const std::string done = play([&] { return (answer = perform(step)).value_or(""); });
        outcome += answer ? between + done : "";
        between = answer ? " / " : between;
    }
    return outcome;
}

void check_steps(std::span<const Step> steps, void (*start)())
{
    for (const Step &step : steps) {
        start();
        apply(step.before);
        const std::string outcome = play(step.words);
        EXPECT_EQ(outcome, step.outcome) << step.claim;
    }
}

#include "redundancy_conf.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <memory>

namespace platform_linux
{
namespace
{
constexpr uint32_t PORT_LAST = 65535;

// "192.0.2.1:4747" or "[2001:db8::1]:4747". A host name is refused: its look-up could wait for ever.
bool take_address(std::string_view text, sockaddr_in6 &address)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    std::string host(text.substr(0, colon));
    const std::string_view port = text.substr(colon + 1);
    uint32_t number = 0;
    const auto [end, failure] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (failure != std::errc() || end != port.data() + port.size() || number == 0 || number > PORT_LAST)
        return false;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    else
        host = "::ffff:" + host;
    address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(static_cast<uint16_t>(number));
    return inet_pton(AF_INET6, host.c_str(), &address.sin6_addr) == 1;
}

struct Lines {
    PeerConf peer{};
    bool address = false;
    std::optional<std::string> journal;
};

std::string take_peer_address(const ConfLine &line, Lines &lines)
{
    if (lines.address)
        return "the peer's address is set already: one unit listens, the other connects";
    if (!take_address(line.value, lines.peer.address))
        return "expected: " + std::string(line.words[0]) + " ADDRESS:PORT, an IPv6 address in [brackets]";
    lines.address = true;
    lines.peer.listens = line.words[0] == "listen";
    lines.peer.addressText = line.value;
    return {};
}

std::string take_journal(const ConfLine &line, Lines &lines)
{
    if (lines.journal)
        return "the journal is set already";
    if (line.value != "off" && !line.value.starts_with('/'))
        return "expected: journal /FILE, or journal off";
    lines.journal = line.value == "off" ? "" : line.value;
    return {};
}

// A line of the peer's with one word.
struct Key {
    std::string_view word;
    std::string PeerConf::*text;
    bool isFile;
};
constexpr Key KEYS[] = {
    {"certificate", &PeerConf::certificate, true },
    {"key",         &PeerConf::key,         true },
    {"authority",   &PeerConf::authority,   true },
    {"peer",        &PeerConf::name,        false},
};

std::string take_key(const Key &key, const ConfLine &line, Lines &lines)
{
    std::string &text = lines.peer.*key.text;
    if (!text.empty())
        return "the " + std::string(key.word) + " is set already";
    if (line.words.size() != 2)
        return "expected: " + std::string(key.word) + (key.isFile ? " /FILE" : " NAME");
    if (key.isFile && !line.value.starts_with('/'))
        return conf_quoted(line.value) + " is no absolute path";
    text = line.value;
    return {};
}

std::string take_line(const ConfLine &line, Lines &lines)
{
    const std::string &word = line.words[0];
    if (word == "listen" || word == "connect")
        return take_peer_address(line, lines);
    if (word == "journal")
        return take_journal(line, lines);
    const Key *key = std::ranges::find(KEYS, word, &Key::word);
    return key != std::end(KEYS)
               ? take_key(*key, line, lines)
               : conf_quoted(word) +
                     " is none of listen, connect, certificate, key, authority, peer and journal";
}

// After the last line.
std::string take_all(const Lines &lines, RedundancyConf &conf)
{
    const auto isSet = [&lines](const Key &key) { return !(lines.peer.*key.text).empty(); };
    if (lines.address ? !std::ranges::all_of(KEYS, isSet) : std::ranges::any_of(KEYS, isSet))
        return "a peer takes all of listen or connect, certificate, key, authority and peer";
    conf.journal = lines.journal;
    if (lines.address)
        conf.peer = lines.peer;
    return {};
}
} // namespace

ConfReader redundancy_conf_reader(RedundancyConf &conf)
{
    conf = {};
    const auto lines = std::make_shared<Lines>();
    return {[lines](const ConfLine &line) { return take_line(line, *lines); },
            [lines, &conf] { return take_all(*lines, conf); }};
}

} // namespace platform_linux

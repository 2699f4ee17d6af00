#include "redundancy_conf.h"

#include <arpa/inet.h>
#include <charconv>

namespace platform_linux
{
namespace
{
constexpr uint32_t PORT_LAST = 65535;

// "192.0.2.1:4747" or "[2001:db8::1]:4747". Names are not looked up: that could wait for ever.
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

// Empty, or what is wrong.
std::string take_line(const ConfLine &line, Lines &lines)
{
    const std::string_view word = line.words[0], value = line.value;
    if (word == "listen" || word == "connect") {
        if (lines.address)
            return "the peer's address is set already: one unit listens, the other connects";
        if (!take_address(value, lines.peer.address))
            return "expected: " + std::string(word) + " ADDRESS:PORT, an IPv6 address in [brackets]";
        lines.address = true;
        lines.peer.listens = word == "listen";
        lines.peer.addressText = value;
        return {};
    }
    if (word == "journal") {
        if (lines.journal)
            return "the journal is set already";
        if (value != "off" && !value.starts_with('/'))
            return "expected: journal /FILE, or journal off";
        lines.journal = value == "off" ? "" : value;
        return {};
    }
    std::string *text = word == "certificate" ? &lines.peer.certificate
                        : word == "key"       ? &lines.peer.key
                        : word == "authority" ? &lines.peer.authority
                        : word == "peer"      ? &lines.peer.name
                                              : nullptr;
    if (text == nullptr)
        return conf_quoted(word) +
               " is none of listen, connect, certificate, key, authority, peer and journal";
    if (!text->empty())
        return "the " + std::string(word) + " is set already";
    if (line.words.size() != 2)
        return "expected: " + std::string(word) + (word == "peer" ? " NAME" : " /FILE");
    if (word != "peer" && !value.starts_with('/'))
        return conf_quoted(value) + " is no absolute path";
    *text = value;
    return {};
}

// After the last line.
std::string take_all(const Lines &lines, RedundancyConf &conf)
{
    const PeerConf &peer = lines.peer;
    const bool any =
        !peer.certificate.empty() || !peer.key.empty() || !peer.authority.empty() || !peer.name.empty();
    const bool all =
        !peer.certificate.empty() && !peer.key.empty() && !peer.authority.empty() && !peer.name.empty();
    if (lines.address != any || any != all)
        return "a peer takes all of listen or connect, certificate, key, authority and peer";
    conf.journal = lines.journal;
    if (lines.address)
        conf.peer = peer;
    return {};
}

ConfReader reader(Lines &lines, RedundancyConf &conf)
{
    conf = {};
    return {[&lines](const ConfLine &line) { return take_line(line, lines); },
            [&lines, &conf] { return take_all(lines, conf); }};
}
} // namespace

bool redundancy_conf_parse(std::string_view name, std::string_view text, RedundancyConf &conf,
                           std::string &error)
{
    Lines lines;
    return conf_parse(name, text, reader(lines, conf), error);
}

ConfFile redundancy_conf_read(RedundancyConf &conf, std::string &error)
{
    Lines lines;
    return conf_file_read(REDUNDANCY_CONF_ENV, REDUNDANCY_CONF_PATH, reader(lines, conf), error);
}

} // namespace platform_linux

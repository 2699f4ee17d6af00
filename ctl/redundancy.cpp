// The unit's role, its peer and its journal: asked of the platform beside the daemon, over a local socket of
// its own.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "command.h"

using Json = nlohmann::ordered_json;

namespace
{
constexpr char PLATFORM_SOCKET_PATH[] = "/run/dhcpsnoop/platform";
constexpr size_t ANSWER_MAX = 4096;
constexpr timeval PATIENCE = {60, 0}; // a change of role may have thousands of bindings to install

struct Descriptor {
    ~Descriptor() { close(fd); }
    int fd;
};

std::string askPlatform(const std::string &request)
{
    const char *named = std::getenv("DHCPSNOOP_PLATFORM_SOCKET");
    const std::string path = named && *named ? named : PLATFORM_SOCKET_PATH;
    const auto fail = [&path] { throw NoDaemon(path + ": " + std::strerror(errno)); };

    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw UsageError(path + " is too long for a socket");
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor sock{socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0 || setsockopt(sock.fd, SOL_SOCKET, SO_RCVTIMEO, &PATIENCE, sizeof PATIENCE) != 0 ||
        connect(sock.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        send(sock.fd, request.data(), request.size(), MSG_NOSIGNAL) < 0)
        fail();
    std::string answer(ANSWER_MAX, '\0');
    const ssize_t length = recv(sock.fd, answer.data(), answer.size(), 0);
    if (length < 0)
        fail();
    if (length == 0)
        throw NoDaemon(path + ": no answer");
    answer.resize(static_cast<size_t>(length));
    return answer;
}

enum class Form : uint8_t { text, number, seconds };

// In the order in which they are shown.
struct Item {
    const char *name; // in the platform's answer
    const char *key;  // in JSON
    const char *label;
    Form form;
};
constexpr Item ITEMS[] = {
    {"role",              "role",            "Role",                   Form::text   },
    {"peer",              "peer",            "Peer",                   Form::text   },
    {"link",              "link",            "Link",                   Form::text   },
    {"peer-role",         "peerRole",        "Peer's role",            Form::text   },
    {"trouble",           "trouble",         "Trouble",                Form::text   },
    {"sent",              "sent",            "Records sent",           Form::number },
    {"received",          "received",        "Records received",       Form::number },
    {"dropped",           "dropped",         "Records dropped",        Form::number },
    {"last-copy",         "lastCopy",        "Last full copy",         Form::seconds},
    {"last-copy-records", "lastCopyRecords", "Records in it",          Form::number },
    {"without-port",      "withoutPort",     "Waiting for their port", Form::number },
    {"journal",           "journal",         "Journal",                Form::text   },
    {"journal-state",     "journalState",    "Journal's state",        Form::text   },
    {"journal-size",      "journalSize",     "Journal's bytes",        Form::number },
    {"journal-records",   "journalRecords",  "Journal's records",      Form::number },
    {"journal-age",       "journalAge",      "Journal written anew",   Form::seconds},
    {"journal-damaged",   "journalDamaged",  "Damaged at the start",   Form::number },
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

ExitStatus showRedundancy(const Context &context, std::span<const std::string>)
{
    std::map<std::string, std::string> values;
    std::istringstream answer(askPlatform("status"));
    for (std::string line; std::getline(answer, line);) {
        const size_t blank = std::min(line.find(' '), line.size());
        values[line.substr(0, blank)] = line.substr(std::min(blank + 1, line.size()));
    }
    if (!values.contains("role"))
        throw NoDaemon("malformed answer: no role");

    Json json;
    std::ostringstream table;
    for (const Item &item : ITEMS) {
        const auto it = values.find(item.name);
        if (it == values.end()) {
            json[item.key] = nullptr;
            continue;
        }
        std::string text = it->second;
        if (item.form == Form::text)
            json[item.key] = text;
        else
            json[item.key] = numberOf(text);
        if (item.form == Form::seconds)
            text += " s ago";
        table << item.label << std::string(24 - std::strlen(item.label), ' ') << text << '\n';
    }
    if (context.json)
        context.out << json.dump(2) << '\n';
    else
        context.out << table.str();
    return EXIT_DONE;
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

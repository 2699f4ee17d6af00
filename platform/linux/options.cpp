#include "options.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <sysexits.h>

namespace platform_linux
{
namespace
{

constexpr const char *USAGE =
    R"(usage: dhcpsnoop [OPTION...] [INTERFACES [BINDINGS [GUARD [ARP [PROVISIONING]]]]]

The DHCP snooping daemon. It runs in the foreground.

  --bindings N      room for N bindings and waiting clients, 1 to 65535 (default 4096)
  --interfaces N    room for N interfaces that have snooping, 1 to 65535 (default 256)
  --config DIR      directory of the configuration file dhcpsnoop.conf (default /etc/dhcpsnoop)
  --foreground      as always
  --help, --version

An option counts before the configuration file. In place of the first two options stand the numbers INTERFACES and
BINDINGS, 0 for the default. GUARD and ARP: 0 where IP source guard, ARP inspection cannot be used. PROVISIONING: 1 asks
for options 67 and 125, which this platform never gives.

dhcpsnoopctl shows and changes the configuration, see dhcpsnoopctl(8).
)";

[[noreturn]] void refuse(const char *what, const char *word)
{
    fprintf(stderr, "dhcpsnoop: %s'%s'; try 'dhcpsnoop --help'\n", what, word);
    exit(EX_USAGE);
}

uint16_t number(const char *word, uint16_t least, const char *what)
{
    uint16_t value = 0;
    const char *end = word + strlen(word);
    const auto [stop, error] = std::from_chars(word, end, value);
    if (error != std::errc() || stop != end || value < least)
        refuse(what, word);
    return value;
}

} // namespace

Options options_take(int argc, char **argv)
{
    enum : int { BINDINGS = 256, INTERFACES, CONFIG, FOREGROUND, HELP, VERSION };
    constexpr option LONG[] = {
        {"bindings",         required_argument, nullptr, BINDINGS},
        {"interfaces",           required_argument, nullptr, INTERFACES},
        {"config",                  required_argument, nullptr, CONFIG},
        {"foreground",no_argument, nullptr, FOREGROUND},
        {"help",        no_argument, nullptr, HELP},
        {"version",           no_argument, nullptr, VERSION},
        {                 }
    };
    constexpr const char *ROOM = "expected a number from 1 to 65535, not ",
                         *NUMBER = "expected a number up to 65535, not ";
    Options options;
    opterr = 0;
    for (int option = 0; (option = getopt_long(argc, argv, ":", LONG, nullptr)) != -1;) {
        switch (option) {
        case BINDINGS:
            options.bindings = number(optarg, 1, ROOM);
            break;
        case INTERFACES:
            options.interfaces = number(optarg, 1, ROOM);
            break;
        case CONFIG:
            options.directory = optarg;
            break;
        case FOREGROUND:
            break;
        case HELP:
        case VERSION:
            fputs(option == HELP ? USAGE : "dhcpsnoop " DHCPSNOOP_VERSION "\n", stdout);
            exit(EXIT_SUCCESS);
        case ':':
            refuse("a value must follow ", argv[optind - 1]);
        default:
            refuse("unknown option ", argv[optind - 1]);
        }
    }
    uint16_t words[5] = {options.interfaces, options.bindings, options.guard, options.arp,
                         options.provisioning};
    for (int i = 0; optind < argc; i++, optind++) {
        if (i == 5)
            refuse("there are only five numbers; unexpected ", argv[optind]);
        words[i] = number(argv[optind], 0, NUMBER);
    }
    return {words[0], words[1], words[2] != 0, words[3] != 0, words[4] != 0, options.directory};
}

} // namespace platform_linux

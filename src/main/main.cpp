// The program: up to five numbers on the command line, start-up, and the loop.
#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "dhcpsnoop_loop.h"
#include "dhcpsnoop_start.h"
#include "platform.h"

// A missing argument, or one without digits, is 0; one out of range is taken at the range's end.
static int32_t number_argument(int argc, char **argv, int index)
{
    if (index >= argc)
        return 0;
    const long value = std::strtol(argv[index], nullptr, 10);
    return static_cast<int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

int main(int argc, char **argv)
{
    qorCatchSegFault(argc, argv);
    std::signal(SIGPIPE, SIG_IGN);

    const auto ifCount = static_cast<uint16_t>(number_argument(argc, argv, 1));
    const auto userCount = static_cast<uint16_t>(number_argument(argc, argv, 2));
    const bool ipsg = number_argument(argc, argv, 3) != 0;
    const bool antiArp = number_argument(argc, argv, 4) != 0;
    const bool deftinstall = number_argument(argc, argv, 5) != 0;

    // Kept: the loop is entered whether or not start-up succeeded; it leaves out the sockets that are closed.
    dhcpsnoop_init_ex(ifCount, userCount, 0, DHCPSNOOP_FORMAT_TYPED,
                      deftinstall ? deftinstall_client_entry_callback : nullptr,
                      ipsg ? ipsgIfGetApi : nullptr, antiArp ? arpAntiAttackIfGetApi : nullptr);
    dhcpsnoop_main();
}

// The daemon on Linux: its options, start-up, and the loop.
#include <csignal>
#include <cstdlib>

#include "dhcpsnoop_loop.h"
#include "dhcpsnoop_start.h"
#include "options.h"
#include "platform.h"
#include "platform_start.h"
#include "port_limits.h"
#include "refused_frames.h"

int main(int argc, char **argv)
{
    using namespace platform_linux;
    const Options options = options_take(argc, argv);
    qorCatchSegFault(argc, argv);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a file that may not grow is an error of its write
    Room room;
    if (const int status = platform_linux_prepare(options, room); status != 0)
        return status;
    if (dhcpsnoop_init_ex(room.interfaces, room.bindings, 0, DHCPSNOOP_FORMAT_TYPED,
                          options.provisioning ? deftinstall_client_entry_callback : nullptr,
                          options.guard ? ipsgIfGetApi : nullptr,
                          options.arp ? arpAntiAttackIfGetApi : nullptr) != 0)
        return EXIT_FAILURE;
    for (;;) {
        dhcpsnoop_main_pass();
        refused_frames_count();
        port_limits_follow();
    }
}

// dhcpsnoopctl: makes and shows the settings, bindings and counters of the DHCP snooping daemon, over its
// command socket. Results go to standard output, everything else to standard error; see error.h for the exit
// status.
#include <csignal>
#include <iostream>
#include <unistd.h>

#include "command.h"
#include "read_gate.h"

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::ios::sync_with_stdio(false); // nothing here prints by stdio, and long lists are written in pieces
    Words line(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (!line.empty() && (line[0] == "--help" || line[0] == "-h"))
        line[0] = "help";
    if (!line.empty() && line[0] == "--version") {
        std::cout << "dhcpsnoopctl " DHCPSNOOP_VERSION "\n";
        return EXIT_DONE;
    }
    try {
        if (line == Words{"serve-read"}) // systemd has put the connection there
            return serveReader(STDIN_FILENO, Daemon(socketExchange(daemonSocketPath())));
        if (geteuid() != 0)
            if (const auto status = readThroughGate(line, std::cout, std::cerr))
                return *status;
        return runClient(line, Daemon(socketExchange(daemonSocketPath())), std::cout, std::cerr);
    } catch (const std::exception &error) { // out of memory
        std::cerr << "dhcpsnoopctl: " << error.what() << '\n';
        return EXIT_REFUSED;
    }
}

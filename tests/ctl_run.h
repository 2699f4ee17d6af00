// Runs a command line of the client against a peer of the test's own.
#pragma once

#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"

struct Ran {
    ExitStatus status;
    std::string out, err;
    std::vector<Bytes> requests; // bodies
};

inline Ran run(const std::string &line, const Exchange &exchange)
{
    Ran ran;
    std::istringstream stream(line);
    std::ostringstream out, err;
    const Words words{std::istream_iterator<std::string>(stream), {}};
    const Daemon daemon([&](const Bytes &body) { return ran.requests.push_back(body), exchange(body); });
    ran.status = runClient(words, daemon, out, err);
    ran.out = out.str();
    ran.err = err.str();
    return ran;
}

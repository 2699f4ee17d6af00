// Runs a command line of the client against a peer of the test's own.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "command.h"

struct Ran {
    ExitStatus status;
    std::string out, err;
    std::vector<Bytes> requests; // bodies
};

inline Ran runWords(const Words &line, const Exchange &exchange)
{
    Ran ran;
    std::ostringstream out, err;
    Daemon daemon([&](const Bytes &body) {
        ran.requests.push_back(body);
        return exchange(body);
    });
    ran.status = runClient(line, daemon, out, err);
    ran.out = out.str();
    ran.err = err.str();
    return ran;
}

inline Words split(const std::string &line)
{
    Words words;
    std::istringstream stream(line);
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

inline Ran run(const std::string &line, const Exchange &exchange) { return runWords(split(line), exchange); }

// What the platform says of the daemon and the unit: names and values, a line each (redundancy.cpp).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

using Facts = std::map<std::string, std::string>;

Facts readFacts(const std::string &answer);                   // of a name the last value
Facts readUnit();                                             // role, peer and journal
uint64_t number(const Facts &facts, const std::string &name); // 0 where it is not there

// A DHCP server that the daemon heard answering.
struct LearnedServer {
    std::string address;
    uint32_t ifIndex, vlan;
};
std::vector<LearnedServer> readLearned(); // overview.cpp; none where no platform can be asked

// Steps in words, played against a daemon in the fake world: management requests, platform events, records of the peer.
// The bytes are built here, without the daemon's codec. What came of a step is one line.
#pragma once

#include <functional>

#include "scene.h"

struct Step {
    const char *claim;          // several, separated by ';', of several steps that one after the other change one world
    std::string before;         // steps separated by ';', played in a new world
    std::string words, outcome; // separated by '/'; steps that only change the world have none
};

// A request: "if.set 18 5 = 3" is function, command, index, value. The value is a word (=), two (pair), bytes (: 61 62), a text
// ('ab), so many bytes of room, or a form with its length (form 9 2 61 62). " | at 25 7 cut 33" changes the whole.
// Functions have names, or numbers.
Bytes request(const std::string &words);
// Host order: =5 and %5 are words of 32 and 16 bits, "key .7" a binding's key, "16:" begins an event, "link 8" is its
// header, "a52=2" an attribute with a word, '|' ends the event, "len 15" and "cut 33" lie. Everything else is a byte.
Bytes packed(const std::string &words);

// Plays steps separated by ';' for their effect alone.
void apply(const std::string &steps);
// Plays steps separated by ';', or calls, and gives the answer, what the daemon did and said, and what it changed.
std::string play(const std::function<std::string()> &act);
std::string play(const std::string &steps);
void check_steps(std::span<const Step> steps, void (*start)());

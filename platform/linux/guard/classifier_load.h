// The classifier in the kernel as it is loaded, with its maps. For classifier.cpp.
#pragma once

#include <cstdint>
#include <string>

#include "guard_maps.h"

struct bpf_object;

namespace platform_linux
{

// What stands for all of guard_own: until when some bridge is protected.
constexpr guard_mac GUARD_PROTECTION = {};

// Descriptors, which belong to the object.
struct ClassifierObject {
    bpf_object *object = nullptr;          // null: closed, or no eBPF here
    int program = -1, out = -1, host = -1; // at the ingress; at the egress of ports, of bridges
    int ports = -1, vlans = -1, state = -1, portItems = -1, vlanItems = -1, rules = -1, refused = -1,
        own = -1, sockets = -1, rates = -1;
};

// As guard_open. `loaded` is closed.
bool classifier_load(uint32_t rules, ClassifierObject &loaded, std::string &why, std::string &note);

// Everything in the kernel stays.
void classifier_unload(ClassifierObject &loaded);

} // namespace platform_linux

// The bindings that a command speaks of: "10.0.10.0/24 vlan 10,20-29 interface swp* mac 02:00:* state bound".
// All parts must hold. A part is a predicate on one binding and the name of its port, and asks nobody.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <unordered_map>

#include "binding.h"
#include "selector.h"

class BindingFilter
{
  public:
    BindingFilter() = default; // every binding
    // Throws UsageError for a wrong word.
    explicit BindingFilter(std::span<const std::string> words);

    bool operator()(const Binding &binding, const std::string &port) const;

    const Words &words() const { return words_; }
    // The one address that is meant, which the daemon can be asked for.
    const std::optional<UserKey> &address() const { return address_; }
    // Names that are no list, range or pattern: each should be a port.
    const Words &names() const { return names_; }

  private:
    using Part = std::function<bool(const Binding &, const std::string &port)>;
    Part parse(const std::string &key, const std::string &value);
    Part parsePorts(const std::string &value);
    bool takeAddress(const std::string &word);

    Words words_;
    std::vector<Part> parts_;
    std::optional<UserKey> address_;
    Words names_;
};

// Names of ports by index: the kernel is asked once for each.
class PortNames
{
  public:
    const std::string &of(uint32_t ifIndex); // empty for index 0

  private:
    std::unordered_map<uint32_t, std::string> names_;
};

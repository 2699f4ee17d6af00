// The ports that a line of the configuration speaks of, by name: "eno1", a list "eno1,eno2", a range
// "swp1-22", a pattern "vnet*" (glob(7)), or a list of all of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// From general to specific. A more specific line wins.
enum class Rank : uint8_t { none, bridge, pattern, range, list, name };

class Selector
{
  public:
    Selector() = default;
    // Throws UsageError for an empty part, or a name that no device has.
    explicit Selector(const std::string &text);

    // Rank::none for a port that is not meant.
    Rank match(const std::string &name) const;
    // The one name that it consists of; empty when it is a list, range or pattern.
    std::string single() const;
    const std::string &text() const { return text_; }

  private:
    struct Part {
        std::string name; // or pattern; of a range the beginning
        uint32_t first, last;
        Rank rank;
    };
    std::string text_;
    std::vector<Part> parts_;
};

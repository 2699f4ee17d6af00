#include "typed.h"

#include <algorithm>
#include <numeric>

#include "error.h"

namespace
{

// Letters to add, take away, change or exchange with their neighbour (optimal string alignment).
size_t distance(const std::string &one, const std::string &other)
{
    std::vector<std::vector<size_t>> cost(one.size() + 1, std::vector<size_t>(other.size() + 1));
    for (size_t i = 0; i <= one.size(); i++)
        for (size_t j = 0; j <= other.size(); j++) {
            cost[i][j] = std::max(i, j);
            if (i == 0 || j == 0)
                continue;
            cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1,
                                   cost[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    return cost[one.size()][other.size()];
}

} // namespace

std::optional<std::string> meant(const std::string &typed, const Words &possible)
{
    if (std::ranges::find(possible, typed) != possible.end())
        return typed;
    Words found;
    std::ranges::copy_if(possible, std::back_inserter(found),
                         [&](const std::string &word) { return word.starts_with(typed); });
    if (found.empty() || typed.empty())
        return std::nullopt;
    if (found.size() > 1)
        throw UsageError("'" + typed + "' can be one of: " + joinQuoted(found));
    return found[0];
}

std::string suggestion(const std::string &typed, const Words &possible)
{
    constexpr size_t NEAR = 2;
    const auto nearest = std::ranges::min_element(
        possible, {}, [&](const std::string &word) { return distance(typed, word); });
    if (nearest == possible.end() || distance(typed, *nearest) > std::min(NEAR, typed.size() / 2))
        return "";
    return " (did you mean '" + *nearest + "'?)";
}

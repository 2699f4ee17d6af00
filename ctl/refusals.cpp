#include "refusals.h"

#include <algorithm>
#include <cctype>
#include <ostream>
#include <sstream>
#include <string_view>

#include "table.h"

std::string shownName(std::string name)
{
    static constexpr std::string_view OTHERS = "-_./:@%+=,";
    std::ranges::replace_if(
        name,
        [](unsigned char c) {
            return c >= 0x80 ||
                   (!std::isalnum(c) && OTHERS.find(static_cast<char>(c)) == std::string_view::npos);
        },
        '?');
    return name;
}

std::vector<RefusalCount> readRefusals()
{
    std::istringstream answer(askPlatform("refusals"));
    std::string line;
    if (!std::getline(answer, line) || line != "refusals")
        throw NoDaemon("malformed answer: no refusals");
    std::vector<RefusalCount> found;
    for (RefusalCount count = {}; answer >> count.reason; found.push_back(count))
        if (!(answer >> count.place >> count.total >> count.lastHour &&
              std::getline(answer >> std::ws, count.remedy)))
            throw NoDaemon("malformed answer: a refusal");
    for (RefusalCount &count : found)
        count.place = shownName(count.place);
    return found;
}

ExitStatus showRefusals(const Context &context, std::span<const std::string>)
{
    Json list = Json::array();
    std::vector<Words> rows = {
        {"REASON", "INTERFACE", "TOTAL", "LAST-HOUR"}
    };
    std::string remedies, last;
    for (const auto &[reason, place, total, lastHour, remedy] : readRefusals()) {
        rows.push_back({reason, place, std::to_string(total), std::to_string(lastHour)});
        list.push_back({
            {"reason",    reason                                    },
            {"interface", place == "-" ? Json(nullptr) : Json(place)},
            {"total",     total                                     },
            {"last-hour", lastHour                                  },
            {"remedy",    remedy                                    }
        });
        if (last != reason)
            remedies.append("\n").append(reason).append(": ").append(remedy).append("\n");
        last = reason;
    }
    const ExitStatus status = print(context, list, rows, "nothing was refused");
    if (!context.json)
        context.out << remedies;
    return status;
}

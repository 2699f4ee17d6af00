#include "table.h"

#include <algorithm>
#include <ostream>

void printTable(std::ostream &out, const std::vector<Words> &rows)
{
    std::vector<size_t> widths(rows[0].size());
    for (const Words &row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    for (const Words &row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            std::string word = row[i].empty() ? "-" : row[i];
            out << word;
            if (i + 1 < row.size())
                out << std::string(widths[i] + 2 - word.size(), ' ');
        }
        out << '\n';
    }
}

void printJson(const Context &context, const Json &json) { context.out << json.dump(2) << '\n'; }

ExitStatus print(const Context &context, const Json &json, const std::vector<Words> &rows)
{
    if (context.json)
        printJson(context, json);
    else
        printTable(context.out, rows);
    return EXIT_DONE;
}

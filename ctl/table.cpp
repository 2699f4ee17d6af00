#include "table.h"

#include <algorithm>
#include <cstdlib>
#include <ostream>

namespace
{

Json textJson(const Bytes &text)
{
    Json out;
    if (isPrintable(text))
        out["text"] = std::string(text.begin(), text.end());
    out["hex"] = hexText(text);
    return out;
}

} // namespace

void printTable(std::ostream &out, const std::vector<Words> &rows)
{
    std::vector<size_t> widths(rows[0].size());
    for (const Words &row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], row[i].size());
    std::string line;
    for (const Words &row : rows) {
        line.clear();
        size_t end = 0; // of the column
        for (size_t i = 0; i < row.size(); i++) {
            line.resize(end, ' ');
            line += row[i].empty() ? "-" : row[i];
            end += widths[i] + 2;
        }
        out << (line += '\n');
    }
}

std::string emphasized(const Context &context, const std::string &text)
{
    const char *without = std::getenv("NO_COLOR"), *terminal = std::getenv("TERM");
    const bool plain =
        !context.terminal || (without && *without) || !terminal || terminal == std::string("dumb");
    return plain ? text : "\033[1;33m" + text + "\033[0m";
}

void printJson(const Context &context, const Json &json)
{
    context.out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

ExitStatus print(const Context &context, const Json &json, const std::vector<Words> &rows, const char *none)
{
    if (context.json)
        printJson(context, json);
    else if (none && rows.size() == 1)
        context.out << none << '\n';
    else
        printTable(context.out, rows);
    return EXIT_DONE;
}

Json valueJson(const Setting &setting, const Value &value)
{
    if (const auto *option = std::get_if<OptionText>(&value)) {
        Json out;
        out["format"] = formatText(option->format);
        if (isTyped(option->format))
            out["type"] = option->type;
        out.update(textJson(option->text));
        return out;
    }
    if (const auto *text = std::get_if<Bytes>(&value))
        return textJson(*text);
    if (const auto *rate = std::get_if<Rate>(&value)) {
        Json out;
        out["rate"] = rate->rate != 0 ? Json(rate->rate) : Json(nullptr);
        out["burst"] = rate->burst;
        out["reserved"] = rate->reserved;
        out["default"] = rate->isDefault;
        return out;
    }
    uint32_t number = std::get<uint32_t>(value);
    switch (setting.kind) {
    case Kind::Switch:
        return number != 0;
    case Kind::Address:
        return number ? Json(ipv4Text(number)) : Json(nullptr);
    case Kind::Choice:
        return valueWords(setting, value)[0];
    default:
        return number;
    }
}

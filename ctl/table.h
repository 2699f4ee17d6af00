// Printing: a table of words, or JSON.
#pragma once

#include <nlohmann/json.hpp>

#include "command.h"

using Json = nlohmann::ordered_json;

// Rows of equal length, the first one the heading; an empty word is shown as "-".
void printTable(std::ostream &out, const std::vector<Words> &rows);
// In bold yellow on a terminal, unless the environment has NO_COLOR.
std::string emphasized(const Context &context, const std::string &text);
void printJson(const Context &context, const Json &json);
// One of the two, as the user wants it; `none` in place of a table that has a heading only.
ExitStatus print(const Context &context, const Json &json, const std::vector<Words> &rows,
                 const char *none = nullptr);
Json valueJson(const Setting &setting, const Value &value);

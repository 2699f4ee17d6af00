// load: runs the lines of a file as commands, in the form that `show config` prints.
#include <chrono>
#include <fstream>
#include <iostream>
#include <map>
#include <thread>
#include <wordexp.h>

#include "binding_view.h"
#include "command.h"
#include "text.h"

namespace
{

constexpr auto RETRY = std::chrono::milliseconds(500);
constexpr uint32_t WAIT_MAX = 3600;

struct Line {
    size_t number; // in the file, from 1
    Words words;
};

std::string placeOf(const std::string &file, size_t line) { return file + ':' + std::to_string(line) + ": "; }

// Splits a line into words as a shell does.
Words splitLine(const std::string &text, const std::string &where)
{
    wordexp_t expansion;
    switch (wordexp(text.c_str(), &expansion, WRDE_NOCMD | WRDE_UNDEF)) {
    case 0:
        break;
    case WRDE_SYNTAX:
        throw UsageError(where + "a quote is not closed");
    default:
        throw UsageError(where + "an unknown variable, or one of |&;<>(){}` outside quotes");
    }
    Words words(expansion.we_wordv, expansion.we_wordv + expansion.we_wordc);
    wordfree(&expansion);
    if (!words.empty() && words[0] == "dhcpsnoopctl")
        words.erase(words.begin());
    return words;
}

std::vector<Line> readLines(std::istream &file, const std::string &name)
{
    std::vector<Line> lines;
    size_t number = 0;
    for (std::string text; std::getline(file, text);) {
        number++;
        const size_t first = text.find_first_not_of(" \t\r");
        if (first == std::string::npos || text[first] == '#')
            continue;
        const std::string where = placeOf(name, number);
        const Words words = splitLine(text, where);
        if (!mayBeLoaded(words))
            throw UsageError(where + "'" + joinQuoted(words) + "' is no command that changes something");
        lines.push_back({number, words});
    }
    if (file.bad())
        throw UsageError(name + ": cannot be read");
    return lines;
}

// Errors by line.
using Errors = std::map<size_t, CtlError>;

// A static binding that exists already (the journal brings it back) is no error.
void makeOne(const Context &context, const Words &words)
{
    try {
        runCommand(words, context);
    } catch (const Refusal &refusal) {
        if (refusal.code != NM_EXISTS || !isThereAlready(words, context.daemon))
            throw;
    }
}

// One pass: runs every line, and leaves in `lines` those that may succeed later.
void makeAll(const Context &context, std::vector<Line> &lines, Errors &errors)
{
    bool daemonRuns = true;
    std::erase_if(lines, [&](const Line &line) {
        errors.erase(line.number);
        try {
            if (daemonRuns)
                makeOne(context, line.words);
            return daemonRuns;
        } catch (const NoDaemon &error) {
            errors.emplace(line.number, error);
            daemonRuns = false;
        } catch (const NoInterface &error) {
            errors.emplace(line.number, error);
        } catch (const Refusal &refusal) {
            errors.emplace(line.number, refusal);
            return refusal.code == NM_EXISTS;
        } catch (const CtlError &error) {
            errors.emplace(line.number, error);
            return error.status() == EXIT_USAGE;
        }
        return false;
    });
}

} // namespace

ExitStatus load(const Context &context, std::span<const std::string> arguments)
{
    if (arguments.size() != 1 && (arguments.size() != 3 || arguments[1] != "wait"))
        throw UsageError("load: FILE [wait SECONDS]");
    const std::string &name = arguments[0];
    const auto wait = std::chrono::seconds(
        arguments.size() == 3 ? parseRange("seconds to wait", arguments[2], 0, WAIT_MAX) : 0);
    const auto until = std::chrono::steady_clock::now() + wait;
    std::ifstream file;
    if (name != "-") {
        file.open(name);
        if (!file)
            throw UsageError(name + ": cannot be opened");
    }
    std::vector<Line> lines = readLines(name == "-" ? std::cin : file, name);
    Errors errors;
    for (;;) {
        makeAll(context, lines, errors);
        if (lines.empty() || std::chrono::steady_clock::now() + RETRY > until)
            break;
        std::this_thread::sleep_for(RETRY);
    }
    for (const auto &[number, error] : errors)
        context.err << "dhcpsnoopctl: " << placeOf(name, number) << error.what() << '\n';
    return errors.empty() ? EXIT_DONE : errors.begin()->second.status();
}

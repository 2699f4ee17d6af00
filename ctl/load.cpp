// load: the lines of a file, as `show config` prints them, each as a command.
#include <chrono>
#include <fstream>
#include <iostream>
#include <thread>
#include <wordexp.h>

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

// The words that a shell would make of it.
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

// Makes what it can and leaves the rest in `lines`, with what is wrong with it.
ExitStatus makeAll(const Context &context, const std::string &name, std::vector<Line> &lines,
                   std::vector<std::string> &errors)
{
    ExitStatus status = EXIT_DONE;
    std::erase_if(lines, [&](const Line &line) {
        if (status == EXIT_NO_DAEMON)
            return false;
        try {
            runCommand(line.words, context);
            return true;
        } catch (const Refusal &refusal) {
            if (refusal.code == NM_EXISTS) // a static binding that the journal brought back
                return true;
            status = refusal.status();
            errors.push_back(placeOf(name, line.number) + refusal.what());
        } catch (const CtlError &error) {
            status = error.status();
            errors.push_back(placeOf(name, line.number) + error.what());
        }
        return false;
    });
    return status;
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
    for (;;) {
        std::vector<std::string> errors;
        const ExitStatus status = makeAll(context, name, lines, errors);
        if (status == EXIT_DONE)
            return status;
        if (std::chrono::steady_clock::now() + RETRY > until) {
            for (const std::string &error : errors)
                context.err << "dhcpsnoopctl: " << error << '\n';
            return status;
        }
        std::this_thread::sleep_for(RETRY);
    }
}

// `show config`: the commands that recreate this configuration.
#include <ostream>

#include "binding_view.h"
#include "interface_view.h"

ExitStatus showConfig(const Context &context, std::span<const std::string>)
{
    std::vector<Words> lines;
    for (const Setting &setting : GLOBAL_SCOPE.settings)
        if (canBeSet(setting) && setting.kind != Kind::Clear) {
            const Value value = getValue(context.daemon, globalTarget(), setting);
            if (isInitial(setting, value))
                continue;
            Words line = valueWords(setting, value);
            line.insert(line.begin(), setting.name);
            lines.push_back(line);
        }
    for (const InterfaceView &view : readInterfaces(context.daemon))
        interfaceCommands(view, lines);
    staticCommands(context.daemon, lines);
    guardCommands(context, lines);
    if (context.json) {
        printJson(context, lines);
        return EXIT_DONE;
    }
    for (const Words &line : lines)
        context.out << "dhcpsnoopctl " << joinQuoted(line) << '\n';
    return EXIT_DONE;
}

#include "model_now.h"

#include <cerrno>
#include <cstring>

#include "connection.h"
#include "switch_model.h"

using namespace platform_linux;

SwitchConf runningModel()
{
    Config config;
    std::string text, error;
    const std::string name = config_runtime("running");
    return conf_file_read(name, text, error) == ConfFile::read && config_parse(name, text, config, error)
               ? config.model
               : SwitchConf{};
}

Ports portsNow(const SwitchConf &model)
{
    SwitchModel seen;
    DaemonEvents unused;
    seen.configure(model);
    if (!model_dump(seen, unused))
        throw CtlError(EXIT_REFUSED,
                       std::string("the kernel's links cannot be listed: ") + std::strerror(errno));
    return seen.ports();
}

std::vector<PortId> portIdsNow(const SwitchConf &model)
{
    std::vector<PortId> found;
    const Ports all = portsNow(model);
    for (const auto &[ifIndex, port] : all)
        found.push_back(port_id(port, all));
    return found;
}

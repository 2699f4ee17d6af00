// Stands in for the commands of the Linux platform in builds without it.
#include "binding_view.h"
#include "facts_view.h"

namespace
{

[[noreturn]] void refuse()
{
    throw CtlError(EXIT_REFUSED, "this client was built without the Linux platform");
}

} // namespace

std::optional<std::vector<Binding>> readSnapshot(const BindingFilter &, uint32_t *) { return std::nullopt; }
std::optional<size_t> countSnapshot(const BindingFilter &) { return std::nullopt; }
uint32_t interfaceOfBoth(const Target &) { return 0; }
std::vector<LearnedServer> readLearned() { return {}; }
Words portNames() { return {}; }
std::optional<PortLimit> readLimit(uint32_t) { return std::nullopt; }
void changeLimit(const Target &, const Setting &, const Value &) { refuse(); }
void checkVlanOfPort(uint32_t, uint32_t) {} // it is not known
ExitStatus platformRelease(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus guardInterface(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus guardVlan(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus arpInterface(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus arpVlan(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus showGuard(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus showStatus(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus showMetrics(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus showPorts(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus monitor(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus showConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus checkConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus diffConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus applyConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus confirmConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus reloadConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus saveConfig(const Context &, std::span<const std::string>) { refuse(); }
ExitStatus changeProtection(const Context &, std::span<const std::string>) { refuse(); }

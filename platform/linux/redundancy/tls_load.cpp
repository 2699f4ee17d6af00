#include <dlfcn.h>

#include "tls.h"

namespace platform_linux
{

std::unique_ptr<Tls> tls_load(const PeerConf &conf, std::string &error)
{
    // Without a directory: the program's RPATH has it.
    void *module = dlopen(TLS_MODULE, RTLD_NOW | RTLD_LOCAL);
    auto *open = module != nullptr ? reinterpret_cast<TlsOpen *>(dlsym(module, TLS_OPEN)) : nullptr;
    if (open == nullptr) {
        error = std::string("a peer needs TLS: ") + dlerror();
        return nullptr;
    }
    return std::unique_ptr<Tls>(open(conf, error));
}

} // namespace platform_linux

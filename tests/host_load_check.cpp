// A host that knows only the registry: it loads libmeters.so by path and expects the meters'
// registrations to have filled the registry it shares with the library with exactly the names
// it is given, no more and no fewer.
#include <dlfcn.h>

#include <cstdio>
#include <set>
#include <string>

#include "RegistryBase.h"

int main(int argc, char** argv) {
    using Registry = RegistryBase<Meter, MeterInfo>;
    // A registry filled before the load would prove nothing about the load.
    if (argc < 2 || Registry::classList != nullptr) {
        fprintf(stderr, "usage: %s path/to/libmeters.so [name...], with nothing registered yet\n",
                argv[0]);
        return 2;
    }
    if (dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        fprintf(stderr, "dlopen failed: %s\n", dlerror());
        return 1;
    }
    std::set<std::string> expected(argv + 2, argv + argc), registered;
    if (Registry::classList != nullptr)
        for (const auto& entry : *Registry::classList)
            registered.insert(entry.first);
    for (const std::string& name : registered)
        if (expected.count(name) == 0)
            fprintf(stderr, "registered but not expected: %s\n", name.c_str());
    for (const std::string& name : expected)
        if (registered.count(name) == 0)
            fprintf(stderr, "not registered: %s\n", name.c_str());
    return registered == expected ? 0 : 1;
}

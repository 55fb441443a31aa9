// A host that knows only the registry: it loads libmeters.so by path and expects the meters'
// registrations to have filled the registry it shares with the library.
#include <dlfcn.h>

#include <cstdio>

#include "RegistryBase.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s path/to/libmeters.so [expected-name...]\n", argv[0]);
        return 2;
    }
    if (RegistryBase<Meter, MeterInfo>::classList != nullptr) {
        fprintf(stderr, "registry filled before the library was loaded\n");
        return 1;
    }
    void* lib = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
    if (lib == nullptr) {
        fprintf(stderr, "dlopen failed: %s\n", dlerror());
        return 1;
    }
    auto* map = RegistryBase<Meter, MeterInfo>::classList;
    if (map == nullptr) {
        fprintf(stderr, "registry still empty after loading the library\n");
        return argc > 2 ? 1 : 0;
    }
    for (const auto& entry : *map)
        printf("registered: %s\n", entry.first.c_str());
    int missing = 0;
    for (int i = 2; i < argc; ++i) {
        if (map->count(argv[i]) == 0) {
            fprintf(stderr, "not registered: %s\n", argv[i]);
            ++missing;
        }
    }
    if (map->size() != static_cast<size_t>(argc - 2)) {
        fprintf(stderr, "expected %d names, found %zu\n", argc - 2, map->size());
        return 1;
    }
    return missing == 0 ? 0 : 1;
}

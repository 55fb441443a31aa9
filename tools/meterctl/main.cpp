// meterctl: a host for the meters of libmeters.so on a Linux machine. Like a host, it loads the
// library at run time: the registry holds the meters only because loading it ran their
// registrations. The commands come second, from libmeterctl_core.so, whose references to the
// meters' classes resolve against the library loaded first.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

// METERCTL_LIBMETERS names another build of the library; by default the one beside meterctl.
const char* librarySearched() {
    const char* path = getenv("METERCTL_LIBMETERS");
    return path != nullptr && path[0] != '\0' ? path : "libmeters.so";
}

}  // namespace

int main(int argc, char** argv) {
    const char* library = librarySearched();
    if (dlopen(library, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        fprintf(stderr, "meterctl: cannot load %s: %s\n", library, dlerror());
        return 1;
    }
    void* commands = dlopen("libmeterctl_core.so", RTLD_NOW);
    if (commands == nullptr) {
        fprintf(stderr, "meterctl: cannot load its commands: %s\n", dlerror());
        return 1;
    }
    using Main = int (*)(int, char**);
    auto run = reinterpret_cast<Main>(dlsym(commands, "meterctl_main"));
    if (run == nullptr) {
        fprintf(stderr, "meterctl: libmeterctl_core.so has no meterctl_main: %s\n", dlerror());
        return 1;
    }
    return run(argc, argv);
}

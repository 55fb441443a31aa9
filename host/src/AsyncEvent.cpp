// Finds processes by command line under /proc (through the path seam) and remembers them.
#include "AsyncEvent.h"

#include <dirent.h>

#include <cctype>
#include <fstream>
#include <mutex>
#include <unordered_map>

#include "seams.h"

namespace {

std::mutex gMutex;
std::unordered_map<std::string, int> gPidMap;
AsyncEvent::PidResolver gResolver;

bool isNumber(const char* s) {
    if (*s == '\0')
        return false;
    for (; *s != '\0'; ++s) {
        if (!isdigit(static_cast<unsigned char>(*s)))
            return false;
    }
    return true;
}

// The command line's first argument: the text up to the first NUL.
std::string readCmdline(const std::string& pid) {
    std::ifstream in(seams::resolvePath("/proc/" + pid + "/cmdline"));
    std::string arg0;
    std::getline(in, arg0, '\0');
    return arg0;
}

int scanProc(const std::string& appName) {
    DIR* dir = opendir(seams::resolvePath("/proc").c_str());
    if (dir == nullptr)
        return -1;
    int found = -1;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this call's own; only sharing one races.
    while (dirent* entry = readdir(dir)) {
        if (!isNumber(entry->d_name))
            continue;
        // Kernel threads and exited processes have no command line: they never match.
        const std::string arg0 = readCmdline(entry->d_name);
        if (!arg0.empty() && arg0 == appName) {
            found = atoi(entry->d_name);  // NOLINT(cert-err34-c): all digits, see isNumber
            break;
        }
    }
    closedir(dir);
    return found;
}

}  // namespace

int AsyncEvent::getPid(std::string& appName) {
    PidResolver resolver;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        auto it = gPidMap.find(appName);
        if (it != gPidMap.end())
            return it->second;
        resolver = gResolver;
    }
    int pid = resolver ? resolver(appName) : scanProc(appName);
    if (pid > 0) {
        std::lock_guard<std::mutex> lock(gMutex);
        gPidMap[appName] = pid;
    }
    return pid;
}

void AsyncEvent::clearPidMap() {
    std::lock_guard<std::mutex> lock(gMutex);
    gPidMap.clear();
}

void AsyncEvent::setPidResolver(PidResolver resolver) {
    std::lock_guard<std::mutex> lock(gMutex);
    gResolver = std::move(resolver);
    gPidMap.clear();
}

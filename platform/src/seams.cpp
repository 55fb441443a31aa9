#include "seams.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace seams {

#ifdef __ANDROID__

std::string resolvePath(const std::string& path) {
    return path;
}
void sleepUs(uint32_t us) {
    usleep(us);
}
std::chrono::steady_clock::time_point steadyNow() {
    return std::chrono::steady_clock::now();
}

#else

namespace {
std::mutex gMutex;
SleepHook gSleep;
ClockHook gClock;
}  // namespace

std::string resolvePath(const std::string& path) {
    // getenv races only a setenv at the same time; hosts set METERS_ROOT before meters run.
    const char* root = getenv("METERS_ROOT");  // NOLINT(concurrency-mt-unsafe)
    if (root == nullptr || root[0] == '\0' || path.empty() || path[0] != '/')
        return path;
    std::string resolved(root);
    while (resolved.size() > 1 && resolved.back() == '/')
        resolved.pop_back();
    return resolved + path;
}

void sleepUs(uint32_t us) {
    SleepHook hook;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        hook = gSleep;
    }
    if (hook) {
        hook(us);
    } else {
        usleep(us);
    }
}

std::chrono::steady_clock::time_point steadyNow() {
    ClockHook hook;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        hook = gClock;
    }
    return hook ? hook() : std::chrono::steady_clock::now();
}

void setSleepHook(SleepHook hook) {
    std::lock_guard<std::mutex> lock(gMutex);
    gSleep = std::move(hook);
}

SleepHook sleepHook() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gSleep;
}

void setClockHook(ClockHook hook) {
    std::lock_guard<std::mutex> lock(gMutex);
    gClock = std::move(hook);
}

#endif

}  // namespace seams

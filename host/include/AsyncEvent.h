// The host's process lookup: finds a process by its command line.
#pragma once

#include <functional>
#include <string>

class AsyncEvent {
  public:
    // Pid of the process whose command line is appName, or -1. Found pids are remembered until
    // clearPidMap().
    static int getPid(std::string& appName);
    static void clearPidMap();

    // Host-owner hook (not used by meters): answers getPid instead of /proc; an empty function
    // restores the /proc lookup.
    using PidResolver = std::function<int(const std::string& appName)>;
    static void setPidResolver(PidResolver resolver);
};

// The two places where the meters meet the machine rather than the Android APIs: the file
// system (every absolute path a meter opens) and time (sleeping between samples, the monotonic
// clock). On a device both are the real thing; on Linux tests and tools can redirect them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#ifndef __ANDROID__
struct __android_log_message;  // <android/log.h>
#endif

namespace seams {

// Every absolute path a meter opens goes through here. On Linux, when METERS_ROOT is set, an
// absolute path resolves under that directory; relative paths are returned unchanged.
std::string resolvePath(const std::string& path);

// Sleeps the sampling period. Tests substitute the sleep to step a scripted scenario.
void sleepUs(uint32_t us);

// The monotonic clock the meters read.
std::chrono::steady_clock::time_point steadyNow();

#ifndef __ANDROID__
// Linux-only hooks for tests and tools; an empty function restores the real behaviour.
using SleepHook = std::function<void(uint32_t us)>;
using ClockHook = std::function<std::chrono::steady_clock::time_point()>;
void setSleepHook(SleepHook hook);
// The hook in place (empty: the real sleep), for a hook that watches the sleeps and chains it.
SleepHook sleepHook();
void setClockHook(ClockHook hook);
// A log message in the logcat form the stand-in's stderr logger writes, without a newline, so
// that a logger set in its place can write the same lines elsewhere.
std::string logcatLine(const struct __android_log_message& msg);
#endif

}  // namespace seams

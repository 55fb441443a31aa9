// What the tests share: the headers every test file uses, log capture, fixture trees under
// METERS_ROOT, the scripted sleep, scripted statistics, real child processes, and a switch that
// makes the non-throwing allocation fail.
#pragma once

#include <cutils/properties.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "HintCodes.h"
#include "Meter.h"
#include "RegistryBase.h"
#include "StatsProvider.h"

// The rounds a repeating test runs: plain, under a sanitizer (which makes each round about three
// times slower) or under the emulator, so that the file stays within seconds everywhere.
#if defined(METERS_UNDER_EMULATOR)
#define METERS_SCALED(plain, sanitized, emulated) (emulated)
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)  // the GNU compiler's names
#define METERS_SCALED(plain, sanitized, emulated) (sanitized)
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define METERS_SCALED(plain, sanitized, emulated) (sanitized)
#endif
#endif
#ifndef METERS_SCALED
#define METERS_SCALED(plain, sanitized, emulated) (plain)
#endif

namespace testsupport {

// Captures the process's log lines while alive, as their messages. A line that is not written
// at error priority with the library's tag reads "[<priority>|<tag>] <message>", so comparing
// messages also checks both.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    void clear();
};

// A temporary directory that METERS_ROOT points at while alive. Paths are absolute, as a meter
// names them.
class FixtureRoot {
  public:
    FixtureRoot();
    ~FixtureRoot();
    // Writes content in place (the same inode, as a kernel node changes), creating directories.
    void addFile(const std::string& path, const std::string& content) const;
    void addDir(const std::string& path) const;
    void addSymlink(const std::string& path, const std::string& target) const;
    void remove(const std::string& path) const;
    // The file's content, or "(none)" when it does not exist.
    std::string read(const std::string& path) const;
    // The path under the root, for code that bypasses the seam.
    std::string real(const std::string& path) const { return mPath + path; }

  private:
    std::string mPath;
    std::optional<std::string> mPreviousRoot;
};

// The actual log lines with the line number masked as "N" wherever the expected line has
// "() N:": where the design leaves the number open, a line carries its source line, which moves
// with every edit. Fixed numbers are compared as they are.
std::vector<std::string> maskedLike(std::vector<std::string> actual,
                                    const std::vector<std::string>& expected);

// Replaces the sleep seam while alive: each sleep calls onSleep(index, us) instead of sleeping.
class ScriptedSleep {
  public:
    explicit ScriptedSleep(std::function<void(int index, uint32_t us)> onSleep = nullptr);
    ~ScriptedSleep();
    std::vector<uint32_t> sleeps() const;

  private:
    mutable std::mutex mMutex;
    std::vector<uint32_t> mSleeps;
    std::function<void(int, uint32_t)> mOnSleep;
};

// While alive, every non-throwing operator new / new[] in the process returns null. Under the
// thread sanitizer, whose runtime owns the allocation operators, it has no effect: tests that
// need it skip when nothrowNewCanFail() is false.
inline std::atomic<bool> gFailNothrowNew{false};
struct FailNothrowNew {
    FailNothrowNew() { gFailNothrowNew = true; }
    ~FailNothrowNew() { gFailNothrowNew = false; }
};
bool nothrowNewCanFail();

// A file of tests/data: node texts as the kernel writes them.
std::string testData(const std::string& name);
// A real process's status text (tests/data/status) with its RssAnon and VmSwap values replaced.
std::string statusText(int rssAnonKb, int swapKb);

// Unsets a property (an empty value reads as unset).
inline void clearProperty(const char* name) {
    property_set(name, "");
}

// An event with its code and type; intArgs[0] carries the pid (or time budget) a meter reads.
inline AsyncTriggerPayload makePayload(uint32_t hintId, int32_t hintType, int32_t arg0 = 0,
                                       const std::string& appName = "") {
    AsyncTriggerPayload p{hintId, hintType, appName, {arg0}, {}, 0};
    return p;
}

// A statistics record with the three words the meters read (0, 2 and 4).
inline sysstats_task makeStats(int64_t rssKb, int64_t swapKb, int64_t gpuKb) {
    return sysstats_task{rssKb, 0, swapKb, 0, gpuKb, {}};
}

// While alive, StatsProvider::getPIDStats answers answer(call index); counts the calls.
class ScopedStats {
  public:
    explicit ScopedStats(std::function<sysstats_task(int call)> answer) {
        StatsProvider::setStatsSource([this, answer](int pid) {
            mLastPid = pid;
            return answer(mCalls++);
        });
    }
    ~ScopedStats() { StatsProvider::setStatsSource(nullptr); }
    int calls() const { return mCalls.load(); }
    int lastPid() const { return mLastPid.load(); }

  private:
    std::atomic<int> mCalls{0};
    std::atomic<int> mLastPid{-1};
};

// Delivers the event from a thread of its own, as the host's event thread does, and returns once
// the meter has taken it: the delivery is thereby ordered with the caller.
inline void deliverFromThread(Meter& meter, const AsyncTriggerPayload& payload) {
    std::thread([&meter, &payload] { meter.asyncTriggerUpdate(payload); }).join();
}

// Starts a real process (/bin/sleep under the given name) and kills and reaps it on kill() or
// destruction. Its /proc entries are the kernel's own.
class ChildProcess {
  public:
    explicit ChildProcess(const std::string& name);
    ~ChildProcess() { kill(); }
    int pid() const { return mPid; }
    void kill();
    // Kills it and returns once it is a zombie: exited, its /proc entries still there, not reaped.
    void killUnreaped();

  private:
    int mPid = -1;
};

// Rounds of the tests that repeat a whole process lifecycle.
constexpr int kLifecycleRounds = METERS_SCALED(5, 2, 1);

}  // namespace testsupport

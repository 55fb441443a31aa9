// Helpers the tests share: log capture, fixture trees under METERS_ROOT, the scripted sleep,
// and a switch that makes the non-throwing allocation fail.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Meter.h"
#include "StatsProvider.h"

namespace testsupport {

// Captures every log line of the process while alive. Lines are kept as formatted messages.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    // Lines as "<priority>|<tag>|<message>".
    std::vector<std::string> records() const;
    void clear();
};

// A temporary directory that METERS_ROOT points at while alive.
class FixtureRoot {
  public:
    FixtureRoot();
    ~FixtureRoot();
    // Writes content to root + absPath, creating directories.
    void addFile(const std::string& absPath, const std::string& content) const;
    void addDir(const std::string& absPath) const;
    void addSymlink(const std::string& absPath, const std::string& target) const;
    void remove(const std::string& absPath) const;
    std::string read(const std::string& absPath) const;
    bool exists(const std::string& absPath) const;

  private:
    std::string mPath;
    std::string mPreviousRoot;
    bool mHadPreviousRoot = false;
};

// Replaces the sleep seam while alive: each sleep calls onSleep(index, us) instead of sleeping.
class ScriptedSleep {
  public:
    explicit ScriptedSleep(std::function<void(int index, uint32_t us)> onSleep = nullptr);
    ~ScriptedSleep();
    std::vector<uint32_t> sleeps() const;

  private:
    struct State;
    State* mState;
};

// While alive, every non-throwing operator new / new[] in the process returns null.
class FailNothrowNew {
  public:
    FailNothrowNew();
    ~FailNothrowNew();
};

// Unsets a property (an empty value reads as unset).
void clearProperty(const char* name);

// An event with its code and type; intArgs[0] carries the pid the sampling meters watch.
AsyncTriggerPayload makePayload(uint32_t hintId, int32_t hintType, int32_t pid = 0);

// A statistics record with the three words the meters read (0, 2 and 4).
sysstats_task makeStats(int64_t rssKb, int64_t swapKb, int64_t gpuKb);

// While alive, StatsProvider::getPIDStats answers answer(call index); counts the calls.
class ScopedStats {
  public:
    explicit ScopedStats(std::function<sysstats_task(int call)> answer);
    ~ScopedStats();
    int calls() const { return mCalls.load(); }
    int lastPid() const { return mLastPid.load(); }

  private:
    std::atomic<int> mCalls{0};
    std::atomic<int> mLastPid{-1};
};

// Delivers the event from a thread of its own, as the host's event thread does, and returns once
// the meter has taken it: the delivery is thereby ordered with the caller.
void deliverFromThread(Meter& meter, const AsyncTriggerPayload& payload);

}  // namespace testsupport

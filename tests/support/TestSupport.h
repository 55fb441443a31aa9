// Helpers the tests share: log capture, fixture trees under METERS_ROOT, the scripted sleep,
// and a switch that makes the non-throwing allocation fail.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// Captures every log line of the process while alive. Lines are kept as formatted messages.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    // Lines as "<priority>|<tag>|<message>".
    std::vector<std::string> records() const;
    bool contains(const std::string& message) const;
    void clear();
};

// A temporary directory that METERS_ROOT points at while alive.
class FixtureRoot {
  public:
    FixtureRoot();
    ~FixtureRoot();
    const std::string& path() const { return mPath; }
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

}  // namespace testsupport

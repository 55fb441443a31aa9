#include "TestSupport.h"

#include <cutils/properties.h>
#include <log/log.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <regex>

#include "seams.h"

namespace fs = std::filesystem;

namespace {

std::mutex gLogMutex;
std::vector<std::string> gLines;

// The whole file, or "(none)" when it cannot be opened.
std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "(none)";
}

void captureLogger(const __android_log_message* msg) {
    std::string line = msg->message;
    if (msg->priority != ANDROID_LOG_ERROR || strcmp(msg->tag, "ANDR-PERF-ZQ") != 0)
        line = "[" + std::to_string(msg->priority) + "|" + msg->tag + "] " + line;
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLines.push_back(line);
}

}  // namespace

// The thread sanitizer's runtime defines every allocation operator strongly, so a replacement
// here would be a duplicate definition: under it the switch has no effect.
#if defined(__SANITIZE_THREAD__)
#define METERS_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define METERS_TEST_TSAN 1
#endif
#endif

#ifndef METERS_TEST_TSAN
// The non-throwing allocations, switchable to fail. They allocate through the ordinary operator
// new of their own kind, so sanitizers see matching new/delete pairs.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return testsupport::gFailNothrowNew ? nullptr : ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return testsupport::gFailNothrowNew ? nullptr : ::operator new[](size);
    } catch (...) {
        return nullptr;
    }
}
#endif

namespace testsupport {

LogCapture::LogCapture() {
    clear();
    __android_log_set_logger(captureLogger);
}

LogCapture::~LogCapture() {
    __android_log_set_logger(nullptr);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(gLogMutex);
    return gLines;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLines.clear();
}

FixtureRoot::FixtureRoot() {
    std::string tmpl = (fs::temp_directory_path() / "meters-root-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr)
        std::abort();
    mPath = tmpl;
    if (const char* previous = getenv("METERS_ROOT"))
        mPreviousRoot = previous;
    setenv("METERS_ROOT", mPath.c_str(), 1);
}

FixtureRoot::~FixtureRoot() {
    mPreviousRoot ? setenv("METERS_ROOT", mPreviousRoot->c_str(), 1) : unsetenv("METERS_ROOT");
    std::error_code ec;
    fs::remove_all(mPath, ec);
}

void FixtureRoot::addFile(const std::string& path, const std::string& content) const {
    fs::create_directories(fs::path(mPath + path).parent_path());
    std::ofstream(mPath + path, std::ios::binary | std::ios::trunc) << content;
}

void FixtureRoot::addDir(const std::string& path) const {
    fs::create_directories(mPath + path);
}

void FixtureRoot::addSymlink(const std::string& path, const std::string& target) const {
    fs::create_directories(fs::path(mPath + path).parent_path());
    fs::create_symlink(target, mPath + path);
}

void FixtureRoot::remove(const std::string& path) const {
    std::error_code ec;
    fs::remove_all(mPath + path, ec);
}

std::string FixtureRoot::read(const std::string& path) const {
    return slurp(mPath + path);
}

ScriptedSleep::ScriptedSleep(std::function<void(int, uint32_t)> onSleep)
    : mOnSleep(std::move(onSleep)) {
    seams::setSleepHook([this](uint32_t us) {
        std::unique_lock<std::mutex> lock(mMutex);
        mSleeps.push_back(us);
        int index = static_cast<int>(mSleeps.size()) - 1;
        lock.unlock();
        if (mOnSleep)
            mOnSleep(index, us);
    });
}

ScriptedSleep::~ScriptedSleep() {
    seams::setSleepHook(nullptr);
}

std::vector<uint32_t> ScriptedSleep::sleeps() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSleeps;
}

bool nothrowNewCanFail() {
    // Through a pointer, so the compiler cannot assume the allocation succeeds.
    void* (*volatile allocate)(std::size_t, const std::nothrow_t&) noexcept = &::operator new;
    FailNothrowNew failing;
    void* p = allocate(1, std::nothrow);
    ::operator delete(p);
    return p == nullptr;
}

std::vector<std::string> maskedLike(std::vector<std::string> actual,
                                    const std::vector<std::string>& expected) {
    static const std::regex number("\\(\\) \\d+:");
    for (size_t i = 0; i < actual.size() && i < expected.size(); ++i) {
        if (expected[i].find("() N:") != std::string::npos)
            actual[i] = std::regex_replace(actual[i], number, "() N:");
    }
    return actual;
}

std::string testData(const std::string& name) {
    return slurp(std::string(METERS_TEST_DATA) + "/" + name);
}

std::string statusText(int rssAnonKb, int swapKb) {
    std::string text = testData("status");
    for (auto [key, kb] : {std::pair("RssAnon:", rssAnonKb), std::pair("VmSwap:", swapKb)}) {
        size_t at = text.find(key) + strlen(key);
        text.replace(at, text.find(" kB", at) - at, "\t" + std::to_string(kb));
    }
    return text;
}

ChildProcess::ChildProcess(const std::string& name) {
    const char* argv[] = {name.c_str(), "30", nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
        return;
    mPid = pid;
    // Until it waits in its sleep, its command line and memory are still settling.
    const std::string status = "/proc/" + std::to_string(pid) + "/status";
    for (int i = 0; i < 2000 && slurp(status).find("State:\tS") == std::string::npos; ++i)
        usleep(1000);
}

void ChildProcess::killUnreaped() {
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        siginfo_t info;
        waitid(P_PID, mPid, &info, WEXITED | WNOWAIT);
    }
}

void ChildProcess::kill() {
    if (mPid > 0) {
        ::kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    mPid = -1;
}

}  // namespace testsupport

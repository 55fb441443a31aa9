#include "TestSupport.h"

#include <cutils/properties.h>
#include <log/log.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <new>
#include <sstream>
#include <thread>

#include "seams.h"

namespace fs = std::filesystem;

namespace {

std::atomic<bool> gFailNothrow{false};

std::mutex gLogMutex;
std::vector<std::string> gRecords;
std::vector<std::string> gLines;

void captureLogger(const __android_log_message* msg) {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLines.emplace_back(msg->message);
    gRecords.push_back(std::to_string(msg->priority) + "|" + msg->tag + "|" + msg->message);
}

}  // namespace

// The thread sanitizer's runtime is linked whole and defines every allocation operator
// strongly, so a replacement here would be a duplicate definition: under it the switch has no
// effect and tests that rely on it must check that it works.
#if defined(__SANITIZE_THREAD__)
#define METERS_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define METERS_TEST_TSAN 1
#endif
#endif

#ifndef METERS_TEST_TSAN
// The tests' replacement of the non-throwing allocation, switchable to fail on demand. It
// allocates through the ordinary operator new so sanitizers see matching new/delete pairs.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (gFailNothrow.load())
        return nullptr;
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    if (gFailNothrow.load())
        return nullptr;
    try {
        return ::operator new[](size);
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

std::vector<std::string> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(gLogMutex);
    return gRecords;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(gLogMutex);
    gLines.clear();
    gRecords.clear();
}

FixtureRoot::FixtureRoot() {
    std::string tmpl = (fs::temp_directory_path() / "meters-root-XXXXXX").string();
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        std::abort();
    mPath = buf.data();
    if (const char* prev = getenv("METERS_ROOT")) {
        mHadPreviousRoot = true;
        mPreviousRoot = prev;
    }
    setenv("METERS_ROOT", mPath.c_str(), 1);
}

FixtureRoot::~FixtureRoot() {
    if (mHadPreviousRoot) {
        setenv("METERS_ROOT", mPreviousRoot.c_str(), 1);
    } else {
        unsetenv("METERS_ROOT");
    }
    std::error_code ec;
    fs::remove_all(mPath, ec);
}

void FixtureRoot::addFile(const std::string& absPath, const std::string& content) const {
    fs::path p = mPath + absPath;
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
}

void FixtureRoot::addDir(const std::string& absPath) const {
    fs::create_directories(mPath + absPath);
}

void FixtureRoot::addSymlink(const std::string& absPath, const std::string& target) const {
    fs::path p = mPath + absPath;
    fs::create_directories(p.parent_path());
    fs::create_symlink(target, p);
}

void FixtureRoot::remove(const std::string& absPath) const {
    std::error_code ec;
    fs::remove_all(mPath + absPath, ec);
}

std::string FixtureRoot::read(const std::string& absPath) const {
    std::ifstream in(mPath + absPath, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool FixtureRoot::exists(const std::string& absPath) const {
    return fs::exists(mPath + absPath);
}

struct ScriptedSleep::State {
    std::mutex mutex;
    std::vector<uint32_t> sleeps;
    std::function<void(int, uint32_t)> onSleep;
};

ScriptedSleep::ScriptedSleep(std::function<void(int, uint32_t)> onSleep) : mState(new State) {
    mState->onSleep = std::move(onSleep);
    State* state = mState;
    seams::setSleepHook([state](uint32_t us) {
        int index;
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            index = static_cast<int>(state->sleeps.size());
            state->sleeps.push_back(us);
        }
        if (state->onSleep)
            state->onSleep(index, us);
    });
}

ScriptedSleep::~ScriptedSleep() {
    seams::setSleepHook(nullptr);
    delete mState;
}

std::vector<uint32_t> ScriptedSleep::sleeps() const {
    std::lock_guard<std::mutex> lock(mState->mutex);
    return mState->sleeps;
}

FailNothrowNew::FailNothrowNew() {
    gFailNothrow.store(true);
}
FailNothrowNew::~FailNothrowNew() {
    gFailNothrow.store(false);
}

void clearProperty(const char* name) {
    property_set(name, "");
}

AsyncTriggerPayload makePayload(uint32_t hintId, int32_t hintType, int32_t pid) {
    AsyncTriggerPayload p;
    p.hintId = hintId;
    p.hintType = hintType;
    p.intArgs[0] = pid;
    return p;
}

sysstats_task makeStats(int64_t rssKb, int64_t swapKb, int64_t gpuKb) {
    sysstats_task s{};
    s.vm_rss_kb = rssKb;
    s.vm_swap_kb = swapKb;
    s.gpu_mem_kb = gpuKb;
    return s;
}

ScopedStats::ScopedStats(std::function<sysstats_task(int call)> answer) {
    StatsProvider::setStatsSource([this, answer](int pid) {
        mLastPid.store(pid);
        return answer(mCalls.fetch_add(1));
    });
}

ScopedStats::~ScopedStats() {
    StatsProvider::setStatsSource(nullptr);
}

void deliverFromThread(Meter& meter, const AsyncTriggerPayload& payload) {
    std::thread([&meter, &payload] { meter.asyncTriggerUpdate(payload); }).join();
}

}  // namespace testsupport

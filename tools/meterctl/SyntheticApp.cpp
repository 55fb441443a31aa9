#include "SyntheticApp.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace meterctl {

namespace {

constexpr int64_t kKb = 1024;

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The app's own figures, read without allocating so that reading them does not move them.
struct OwnMemory {
    int64_t anonSwapKb = 0;
    int64_t rssSwapKb = 0;
};

int64_t fieldKb(const char* text, const char* key) {
    const char* at = strstr(text, key);
    return at != nullptr ? strtoll(at + strlen(key), nullptr, 10) : 0;
}

OwnMemory ownMemory() {
    char text[8192];
    const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    ssize_t n = fd >= 0 ? read(fd, text, sizeof(text) - 1) : -1;
    if (fd >= 0)
        close(fd);
    text[n > 0 ? n : 0] = '\0';
    const int64_t swapKb = fieldKb(text, "VmSwap:");
    return {fieldKb(text, "RssAnon:") + swapKb, fieldKb(text, "VmRSS:") + swapKb};
}

int ownDescriptors() {
    const int dir = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0)
        return 0;
    int count = 0;
    alignas(dirent64) char buf[4096];
    for (ssize_t n; (n = getdents64(dir, buf, sizeof(buf))) > 0;) {
        for (ssize_t at = 0; at < n;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buf + at);
            if (entry->d_name[0] != '.')
                ++count;
            at += entry->d_reclen;
        }
    }
    close(dir);
    return count - 1;  // the listing's own descriptor
}

int setOomScoreAdj(int adj) {
    const int fd = open("/proc/self/oom_score_adj", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return 0;
    char text[16];
    const int len = snprintf(text, sizeof(text), "%d", adj);
    if (write(fd, text, len) < 0) {
        // An unprivileged process may not go below its minimum: keep what is in effect.
    }
    const ssize_t n = pread(fd, text, sizeof(text) - 1, 0);
    close(fd);
    text[n > 0 ? n : 0] = '\0';
    return atoi(text);
}

void report(int outFd, const AppReport& r) {
    char line[160];
    const size_t len = formatAppReport(r, line, sizeof(line));
    if (write(outFd, line, len) < 0) {
        // The demo has gone; the end of the input follows.
    }
}

// Waits until the steady clock reaches untilNs; false when the input ended first.
bool waitUntil(int inFd, int64_t untilNs) {
    for (;;) {
        const int64_t left = untilNs - nowNs();
        if (left <= 0)
            return true;
        pollfd p{inFd, POLLIN, 0};
        const int ready =
            ::poll(&p, 1, static_cast<int>(std::min<int64_t>(left / 1000000 + 1, 1000)));
        if (ready > 0) {
            char byte;
            if (read(inFd, &byte, 1) <= 0)
                return false;
        }
    }
}

void touchAnonymous(int64_t kb) {
    if (kb <= 0)
        return;
    const size_t bytes = static_cast<size_t>(kb * kKb);
    void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (block == MAP_FAILED)
        return;
    // Populated by the kernel (a private writable mapping gets pages of its own, resident as
    // anonymous memory) and mapped until the app ends. No write of ours touches them, so a
    // sanitizer's shadow of them stays untouched too.
}

}  // namespace

size_t formatAppReport(const AppReport& r, char* buf, size_t size) {
    const int n =
        snprintf(buf, size, "%s %d %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %d %d\n",
                 r.ready ? "ready" : "step", r.step, r.beganNs, r.doneNs, r.anonSwapKb, r.rssSwapKb,
                 r.descriptors, r.oomScoreAdj);
    return n < 0 ? 0 : std::min(static_cast<size_t>(n), size - 1);
}

std::optional<AppReport> parseAppReport(const std::string& line) {
    std::istringstream in(line);
    std::string kind;
    AppReport r;
    if (!(in >> kind >> r.step >> r.beganNs >> r.doneNs >> r.anonSwapKb >> r.rssSwapKb >>
          r.descriptors >> r.oomScoreAdj))
        return std::nullopt;
    std::string rest;
    if (in >> rest)
        return std::nullopt;
    if (kind == "ready" && r.step == 0) {
        r.ready = true;
    } else if (kind != "step" || r.step < 1 || r.step > kAppStepCount || r.doneNs < r.beganNs) {
        return std::nullopt;
    }
    return r;
}

std::vector<pid_t> processesNamed(const std::string& name) {
    std::vector<pid_t> pids;
    DIR* proc = opendir("/proc");
    if (proc == nullptr)
        return pids;
    while (const dirent* entry = readdir(proc)) {
        const pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
        if (pid <= 0)
            continue;
        std::ifstream cmdline("/proc/" + std::to_string(pid) + "/cmdline");
        std::string arg0;
        if (std::getline(cmdline, arg0, '\0') && arg0 == name)
            pids.push_back(pid);
    }
    closedir(proc);
    return pids;
}

int runSyntheticApp(int speed, int inFd, int outFd) {
    // Interrupts are for the demo, which then ends the app by closing its input.
    signal(SIGINT, SIG_IGN);
    speed = std::max(speed, 1);
    AppReport state;
    state.ready = true;
    state.oomScoreAdj = setOomScoreAdj(kCachedOomScoreAdj);
    const OwnMemory before = ownMemory();
    state.anonSwapKb = before.anonSwapKb;
    state.rssSwapKb = before.rssSwapKb;
    state.descriptors = ownDescriptors();
    state.beganNs = state.doneNs = nowNs();
    report(outFd, state);

    char go;
    if (read(inFd, &go, 1) != 1)
        return 0;
    const int64_t launchNs = nowNs();
    state.ready = false;
    for (const AppStep& step : kAppSteps) {
        if (!waitUntil(inFd, launchNs + static_cast<int64_t>(step.atMs * 1e6 / speed)))
            return 0;
        state.beganNs = nowNs();
        const int64_t held = ownMemory().anonSwapKb;
        touchAnonymous(
            std::max<int64_t>(step.floorMb * kKb, static_cast<int64_t>(kGrowthFactor * held)) -
            held);
        for (int i = 0; i < step.descriptors; ++i) {
            if (open("/dev/null", O_RDONLY | O_CLOEXEC) < 0)
                break;
        }
        state.oomScoreAdj = setOomScoreAdj(step.oomScoreAdj);
        const OwnMemory now = ownMemory();
        state.anonSwapKb = now.anonSwapKb;
        state.rssSwapKb = now.rssSwapKb;
        state.descriptors = ownDescriptors();
        state.doneNs = nowNs();
        ++state.step;
        report(outFd, state);
    }
    // Settled: nothing moves until the demo closes the input.
    while (waitUntil(inFd, INT64_MAX)) {
    }
    return 0;
}

AppProcess::AppProcess(const std::string& exe, const std::string& package, int speed) {
    int toApp[2], fromApp[2];
    if (pipe2(toApp, O_CLOEXEC) != 0)
        throw std::runtime_error(std::string("cannot make a pipe: ") + strerror(errno));
    if (pipe2(fromApp, O_CLOEXEC) != 0) {
        close(toApp[0]);
        close(toApp[1]);
        throw std::runtime_error(std::string("cannot make a pipe: ") + strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toApp[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromApp[1], STDOUT_FILENO);
    const std::string speedText = std::to_string(speed);
    const char* argv[] = {package.c_str(), "app", "--speed", speedText.c_str(), nullptr};
    const int error =
        posix_spawn(&mPid, exe.c_str(), &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(toApp[0]);
    close(fromApp[1]);
    mToApp = toApp[1];
    mFromApp = fromApp[0];
    if (error != 0) {
        mPid = -1;
        mReaped = true;
        close(mToApp);
        close(mFromApp);
        mToApp = mFromApp = -1;
        throw std::runtime_error("cannot start the synthetic app " + exe + ": " + strerror(error));
    }
    fcntl(mFromApp, F_SETFL, fcntl(mFromApp, F_GETFL) | O_NONBLOCK);
}

AppProcess::~AppProcess() {
    stop();
    if (mFromApp >= 0)
        close(mFromApp);
}

void AppProcess::readAvailable(std::vector<AppReport>& reports) {
    char buf[1024];
    for (ssize_t n; mFromApp >= 0 && (n = read(mFromApp, buf, sizeof(buf))) > 0;)
        mPending.append(buf, static_cast<size_t>(n));
    for (size_t end; (end = mPending.find('\n')) != std::string::npos;) {
        if (auto r = parseAppReport(mPending.substr(0, end)))
            reports.push_back(*r);
        mPending.erase(0, end + 1);
    }
}

std::optional<AppReport> AppProcess::waitReady(std::chrono::milliseconds timeout) {
    const auto until = std::chrono::steady_clock::now() + timeout;
    std::vector<AppReport> reports;
    while (std::chrono::steady_clock::now() < until) {
        pollfd p{mFromApp, POLLIN, 0};
        ::poll(&p, 1, 20);
        readAvailable(reports);
        for (const AppReport& r : reports) {
            if (r.ready)
                return r;
        }
        if (ended())
            break;
    }
    return std::nullopt;
}

void AppProcess::go() {
    const char byte = 'g';
    if (mToApp >= 0 && write(mToApp, &byte, 1) != 1) {
        // The app has ended; the caller learns it from ended().
    }
}

std::vector<AppReport> AppProcess::poll() {
    std::vector<AppReport> reports;
    readAvailable(reports);
    return reports;
}

bool AppProcess::ended() {
    if (!mReaped && mPid > 0 && waitpid(mPid, &mStatus, WNOHANG) == mPid)
        mReaped = true;
    return mReaped;
}

std::string AppProcess::howItEnded() const {
    if (!mReaped)
        return "still running";
    if (WIFEXITED(mStatus))
        return "exited with status " + std::to_string(WEXITSTATUS(mStatus));
    if (WIFSIGNALED(mStatus))
        return std::string("killed by signal ") + strsignal(WTERMSIG(mStatus));
    return "ended";
}

void AppProcess::stop() {
    if (mToApp >= 0) {
        close(mToApp);
        mToApp = -1;
    }
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!ended() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!mReaped && mPid > 0) {
        kill(mPid, SIGKILL);
        if (waitpid(mPid, &mStatus, 0) == mPid)
            mReaped = true;
    }
}

}  // namespace meterctl

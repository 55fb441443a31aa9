// Backs the statistics with /proc/<pid>/status (through the path seam), as a device's host
// backs them with its own sources.
#include "StatsProvider.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "seams.h"

namespace {

constexpr char kVmRss[] = "VmRSS:";
constexpr char kVmSwap[] = "VmSwap:";
// A status text is about 1.5 KB. A longer one (a long Groups line comes before the memory
// lines) is read on in further pieces.
constexpr size_t kBufferSize = 4096;

std::mutex gMutex;
StatsProvider::StatsSource gStatsSource;
StatsProvider::GpuMemorySource gGpuSource;

// One NUL-terminated line; a later occurrence of a key overrides an earlier one.
void parseLine(const char* line, sysstats_task& stats) {
    if (line[0] != 'V' || line[1] != 'm')  // both keys do; most lines do not
        return;
    if (strncmp(line, kVmRss, sizeof(kVmRss) - 1) == 0) {
        stats.vm_rss_kb = strtoll(line + sizeof(kVmRss) - 1, nullptr, 10);
    } else if (strncmp(line, kVmSwap, sizeof(kVmSwap) - 1) == 0) {
        stats.vm_swap_kb = strtoll(line + sizeof(kVmSwap) - 1, nullptr, 10);
    }
}

// Parses the whole text of fd from offset 0; false when a read fails.
bool parseStatus(int fd, sysstats_task& stats) {
    char buf[kBufferSize + 1];
    size_t kept = 0;  // an unfinished line, moved to the front of buf
    off_t offset = 0;
    for (;;) {
        const ssize_t n = pread(fd, buf + kept, kBufferSize - kept, offset);
        if (n < 0)
            return false;
        offset += n;
        // A short read ends the text: procfs hands over all of the text it built at once.
        const bool end = static_cast<size_t>(n) < kBufferSize - kept;
        char* const stop = buf + kept + n;
        *stop = '\0';
        char* line = buf;
        while (line < stop) {
            char* newline = static_cast<char*>(memchr(line, '\n', stop - line));
            if (newline == nullptr && !end)
                break;
            if (newline != nullptr)
                *newline = '\0';
            parseLine(line, stats);
            line = newline != nullptr ? newline + 1 : stop;
        }
        if (end)
            return true;
        kept = stop - line;
        if (kept == kBufferSize) {
            // A line longer than buf goes in pieces, each parsed as a line (as fgets would).
            parseLine(buf, stats);
            kept = 0;
        } else {
            memmove(buf, line, kept);
        }
    }
}

}  // namespace

StatsProvider::StatsProvider() = default;

StatsProvider::~StatsProvider() {
    closeStatus();
}

bool StatsProvider::openStatus(const std::string& path) {
    mFd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (mFd < 0)
        return false;
    mPath = path;
    // A procfs file is never replaced, and a read fails once its process is gone; only other
    // files (fixture trees) need their links checked, which costs a system call every time.
    struct statfs fs;
    mCheckLinks = fstatfs(mFd, &fs) != 0 || fs.f_type != PROC_SUPER_MAGIC;
    return true;
}

void StatsProvider::closeStatus() {
    if (mFd >= 0)
        close(mFd);
    mFd = -1;
    mPath.clear();
}

sysstats_task StatsProvider::readStatus(int pid) {
    char path[32];
    (void)snprintf(path, sizeof(path), "/proc/%d/status", pid);  // fits any int
    // Resolved on every call: the root the path resolves under may have moved.
    const std::string resolved = seams::resolvePath(path);
    if (resolved != mPath)
        closeStatus();
    // The kept file first; if it fails, a fresh one once. A read fails once the process is gone
    // (its pid may since name another process), and a file unlinked or replaced since it was
    // opened has no links left.
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (mFd < 0 && !openStatus(resolved))
            break;
        sysstats_task stats{};
        struct stat st;
        if ((!mCheckLinks || (fstat(mFd, &st) == 0 && st.st_nlink > 0)) && parseStatus(mFd, stats))
            return stats;
        closeStatus();
    }
    return sysstats_task{};
}

sysstats_task StatsProvider::getPIDStats(int pid) {
    StatsSource statsSource;
    GpuMemorySource gpuSource;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        statsSource = gStatsSource;
        gpuSource = gGpuSource;
    }
    if (statsSource)
        return statsSource(pid);
    sysstats_task stats = readStatus(pid);
    if (gpuSource)
        stats.gpu_mem_kb = gpuSource(pid);
    return stats;
}

void StatsProvider::setStatsSource(StatsSource source) {
    std::lock_guard<std::mutex> lock(gMutex);
    gStatsSource = std::move(source);
}

void StatsProvider::setGpuMemorySource(GpuMemorySource source) {
    std::lock_guard<std::mutex> lock(gMutex);
    gGpuSource = std::move(source);
}

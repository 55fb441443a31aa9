// Linux stand-in for the device's liblog: formats like liblog (1024-byte buffer, truncating)
// and hands the line to the installed logger, by default one logcat-like line on stderr.
#include <log/log.h>

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "seams.h"

namespace {

constexpr size_t kLogBufSize = 1024;

std::atomic<__android_logger_function> gLogger{__android_log_stderr_logger};

char priorityLetter(int priority) {
    static const char kLetters[] = "??VDIWEFS";
    return priority >= 0 && priority <= ANDROID_LOG_SILENT ? kLetters[priority] : '?';
}

// Some formats pass a narrow string to "%S". The device's formatter would read it as a wide
// string; here it is printed as the text it is, which is what the line is meant to show.
std::string narrowWideConversions(const char* fmt) {
    std::string out;
    for (const char* p = fmt; *p != '\0'; ++p) {
        out += *p;
        if (*p != '%')
            continue;
        // Copy flags, width, precision and length, then the conversion itself.
        const char* q = p + 1;
        while (*q != '\0' && std::strchr("-+ #0123456789.*hlLqjzt", *q) != nullptr)
            ++q;
        if (*q == '\0')
            break;
        out.append(p + 1, q);
        out += (*q == 'S') ? 's' : *q;
        p = q;
    }
    return out;
}

}  // namespace

std::string seams::logcatLine(const struct __android_log_message& msg) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char stamp[32];
    (void)strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &tm);  // 14 characters
    char head[96];
    (void)snprintf(head, sizeof(head), "%s.%03d %5d %5d %c ", stamp,
                   static_cast<int>(tv.tv_usec / 1000), static_cast<int>(getpid()),
                   static_cast<int>(syscall(SYS_gettid)), priorityLetter(msg.priority));
    return std::string(head) + (msg.tag != nullptr ? msg.tag : "") + ": " +
           (msg.message != nullptr ? msg.message : "");
}

extern "C" {

void __android_log_set_logger(__android_logger_function logger) {
    gLogger.store(logger != nullptr ? logger : __android_log_stderr_logger);
}

void __android_log_stderr_logger(const struct __android_log_message* msg) {
    (void)fprintf(stderr, "%s\n", seams::logcatLine(*msg).c_str());
}

void __android_log_logd_logger(const struct __android_log_message* msg) {
    __android_log_stderr_logger(msg);
}

void __android_log_write_log_message(struct __android_log_message* msg) {
    if (msg == nullptr)
        return;
    gLogger.load()(msg);
}

int __android_log_write(int prio, const char* tag, const char* text) {
    __android_log_message msg{sizeof(__android_log_message), LOG_ID_MAIN, prio, tag, nullptr, 0,
                              text != nullptr ? text : ""};
    __android_log_write_log_message(&msg);
    return 1;
}

int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
    char buf[kLogBufSize];
    if (fmt == nullptr)
        return -1;
    const std::string format = narrowWideConversions(fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    (void)vsnprintf(buf, sizeof(buf), format.c_str(), ap);  // truncating, as liblog does
#pragma GCC diagnostic pop
    return __android_log_write(prio, tag, buf);
}

int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int ret = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return ret;
}

}  // extern "C"

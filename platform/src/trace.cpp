// Linux stand-in for the device's atrace: the enabled tags come from the same property a device
// uses, and markers go to the kernel's trace_marker file in its text form, so they show in a
// real Linux trace and tests can read them back from a fixture file.
#include <cutils/trace.h>

#include <cutils/properties.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "seams.h"

namespace {

constexpr char kTraceMarker[] = "/sys/kernel/tracing/trace_marker";

void writeMarker(const char* text) {
    FILE* f = fopen(seams::resolvePath(kTraceMarker).c_str(), "a");
    if (f == nullptr)
        return;
    // Markers are best effort: one that cannot be written is dropped.
    (void)fputs(text, f);
    (void)fclose(f);
}

}  // namespace

extern "C" {

uint64_t atrace_get_enabled_tags(void) {
    char buf[PROPERTY_VALUE_MAX];
    property_get("debug.atrace.tags.enableflags", buf, "0");
    return strtoull(buf, nullptr, 0);
}

void atrace_begin_body(const char* name) {
    char line[1024];
    (void)snprintf(line, sizeof(line), "B|%d|%s", static_cast<int>(getpid()),
                   name != nullptr ? name : "");
    writeMarker(line);
}

void atrace_end_body(void) {
    char line[32];
    (void)snprintf(line, sizeof(line), "E|%d", static_cast<int>(getpid()));
    writeMarker(line);
}

}  // extern "C"

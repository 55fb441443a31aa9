// The log line, the exception-handler pairs and the trace marker every meter shares.
#pragma once

#include <cutils/properties.h>
#include <cutils/trace.h>
#include <log/log.h>

#include <exception>

#define METERS_LOG_TAG "ANDR-PERF-ZQ"

// One error-priority line "<component>: <function>() <line>: <message>". The line number is the
// one device tooling matches on, so it is written once, at the call.
#define METER_LOGE(component, function, line, fmt, ...)                                      \
    __android_log_print(ANDROID_LOG_ERROR, METERS_LOG_TAG, "%s: %s() %d: " fmt, (component), \
                        (function), (line), ##__VA_ARGS__)

namespace diag {
// Logs a line whose format the compiler must not check: the "%S" handler pair passes a narrow
// string where the format names a wide one, and the line is kept as the program defines it.
void logUnchecked(const char* fmt, ...);
}  // namespace diag

// Handler pairs, written after a try block: `try { ... } METER_CATCH_...(...)`. Each logs one
// line with its own source line number and lets the function continue after the try.
#define METER_CATCH_PLAIN(component, function, stdLine, otherLine)            \
    catch (const std::exception& e) {                                         \
        METER_LOGE(component, function, stdLine, "exception %s\n", e.what()); \
    }                                                                         \
    catch (...) {                                                             \
        METER_LOGE(component, function, otherLine, "unknown exception\n");    \
    }

#define METER_CATCH_CAUGHT_IN(component, function, stdLine, otherLine)                   \
    catch (const std::exception& e) {                                                    \
        METER_LOGE(component, function, stdLine, "Caught Exception: %s in %s", e.what(), \
                   function);                                                            \
    }                                                                                    \
    catch (...) {                                                                        \
        METER_LOGE(component, function, otherLine, "Caught Exception in %s", function);  \
    }

#define METER_CATCH_EXCEPTION_CAUGHT(component, function, stdLine, otherLine)              \
    catch (const std::exception& e) {                                                      \
        diag::logUnchecked("%s: %s() %d: Exception caught: %s in %S", component, function, \
                           stdLine, e.what(), function);                                   \
    }                                                                                      \
    catch (...) {                                                                          \
        METER_LOGE(component, function, otherLine, "Exception caught in %s", function);    \
    }

namespace diag {

// The trace switch, read once by a meter when it is constructed or started.
inline bool traceEnabledByProperty() {
    return property_get_bool("vendor.debug.trace.perf", false) != 0;
}

// An instant marker: an empty section named text, when the always-on tag is enabled.
inline void traceMarker(const char* text) {
    if (atrace_get_enabled_tags() & ATRACE_TAG_ALWAYS)
        atrace_begin_body(text);
    if (atrace_get_enabled_tags() & ATRACE_TAG_ALWAYS)
        atrace_end_body();
}

}  // namespace diag

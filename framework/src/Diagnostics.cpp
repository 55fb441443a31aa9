#include "Diagnostics.h"

#include <cstdarg>

namespace diag {

// NOLINTNEXTLINE(cert-dcl50-cpp): a printf-style line handed on to liblog's va_list form.
void logUnchecked(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    __android_log_vprint(ANDROID_LOG_ERROR, METERS_LOG_TAG, fmt, ap);
#pragma GCC diagnostic pop
    va_end(ap);
}

}  // namespace diag

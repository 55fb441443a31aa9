// Android tracing, declared as the device's libcutils declares it. On Linux the stand-in in
// platform/src/trace.cpp writes markers to the kernel's trace_marker file.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ATRACE_TAG_NEVER 0
#define ATRACE_TAG_ALWAYS (1 << 0)
#define ATRACE_TAG_GRAPHICS (1 << 1)
#define ATRACE_TAG_INPUT (1 << 2)
#define ATRACE_TAG_VIEW (1 << 3)
#define ATRACE_TAG_HAL (1 << 12)

uint64_t atrace_get_enabled_tags(void);
void atrace_begin_body(const char* name);
void atrace_end_body(void);

#ifdef __cplusplus
}
#endif

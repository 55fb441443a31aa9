// The memory sample the launch meters take from a process's open "/proc/<pid>/status".
#pragma once

#include <cstdio>

namespace meters {

// atoi of the text right after the first occurrence of key in line; -1 when either is null or
// key does not occur.
int statusFieldValue(const char* line, const char* key);

// RssAnon + VmSwap in kB, from lines read in 150-byte pieces until both keys have been found
// with a value >= 0; RssAnon alone (or -1) when the text ends first, -1 for a null stream.
// Anonymous memory plus swap, not VmRSS: it is what grows while an application settles.
int statusAnonPlusSwapKb(FILE* status);

}  // namespace meters

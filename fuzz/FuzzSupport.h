// What the fuzz targets share: one fixture root per process, whose nodes each input rewrites in
// place; the input cut into a selector and node texts; log lines dropped; and the check that
// turns a result the library must not give into a crash the fuzzer reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace fuzzing {

// The process's fixture root (METERS_ROOT points at it), made on first use; from then on the
// meters' log lines are dropped, as thousands of inputs a second would flood stderr.
const testsupport::FixtureRoot& root();

// An input: the first byte picks the parser ('0' the first, '1' the next, and so on, modulo
// parsers); the rest, cut at each form feed, gives the node texts, at least one (maybe empty).
struct Input {
    unsigned parser = 0;
    std::vector<std::string> texts;
};
Input split(const uint8_t* data, size_t size, unsigned parsers);

// The first line of a node text, as a meter's line reading gets it (up to '\n', not kept).
std::string firstLine(const std::string& text);

[[noreturn]] void fail(const char* file, int line, const char* what);

}  // namespace fuzzing

// Ends the run on a result the library must not give; the fuzzer keeps the input.
#define FUZZ_CHECK(cond)                                \
    do {                                                \
        if (!(cond))                                    \
            ::fuzzing::fail(__FILE__, __LINE__, #cond); \
    } while (0)

// libFuzzer's entry point, defined by each target.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

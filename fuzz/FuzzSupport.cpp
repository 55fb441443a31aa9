#include "FuzzSupport.h"

#include <log/log.h>

#include <cstdio>
#include <cstdlib>

namespace fuzzing {

const testsupport::FixtureRoot& root() {
    static const testsupport::FixtureRoot fixture;
    static const bool silenced = [] {
        __android_log_set_logger([](const __android_log_message*) {});
        return true;
    }();
    (void)silenced;
    return fixture;
}

Input split(const uint8_t* data, size_t size, unsigned parsers) {
    Input input;
    if (size > 0)
        input.parser = static_cast<uint8_t>(data[0] - '0') % parsers;
    const std::string rest(reinterpret_cast<const char*>(data) + (size > 0), size - (size > 0));
    size_t from = 0;
    for (size_t at = rest.find('\f'); at != std::string::npos; at = rest.find('\f', from)) {
        input.texts.push_back(rest.substr(from, at - from));
        from = at + 1;
    }
    input.texts.push_back(rest.substr(from));
    return input;
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

void fail(const char* file, int line, const char* what) {
    fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
    abort();
}

}  // namespace fuzzing

// meterctl's commands run in process, as main runs them, with what they print kept.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"

namespace testsupport {

struct CliResult {
    int code;
    std::string out;
    std::string err;
};

inline CliResult cli(const std::vector<std::string>& args) {
    std::ostringstream out, err;
    meterctl::Output io{out, err};
    const int code = meterctl::runCli(args, io);
    return {code, out.str(), err.str()};
}

}  // namespace testsupport

// meterctl's commands. Each registers itself on the command line and writes through an Output,
// so that the tests can run them in process.
#pragma once

#include <CLI/CLI.hpp>

#include <ostream>
#include <string>
#include <vector>

namespace meterctl {

// Where a command writes: what it reports (tables, JSON lines) and its errors. Meters' own log
// lines go to stderr in the logcat form, whatever Output says.
struct Output {
    std::ostream& out;
    std::ostream& err;
};

// A command that fails prints why on io.err and throws CLI::RuntimeError(code) from its callback.
void addListCommand(CLI::App& app, Output& io);
void addRunCommand(CLI::App& app, Output& io);
void addAnalyzeCommand(CLI::App& app, Output& io);
void addDoctorCommand(CLI::App& app, Output& io);
void addDemoCommand(CLI::App& app, Output& io);

// Runs meterctl with these arguments (without the program name) as main does; the exit code.
int runCli(const std::vector<std::string>& args, Output& io);

}  // namespace meterctl

#include <algorithm>
#include <iostream>

#include "Commands.h"

namespace meterctl {

int runCli(const std::vector<std::string>& args, Output& io) {
    CLI::App app{
        "Runs the meters of libmeters.so as a host does: on this machine, against a "
        "simulated device, or against a tree of nodes copied from a device."};
    app.name("meterctl");
    app.require_subcommand(1);
    addListCommand(app, io);
    addRunCommand(app, io);
    addAnalyzeCommand(app, io);
    addDoctorCommand(app, io);
    addDemoCommand(app, io);
    std::vector<std::string> reversed(args.rbegin(), args.rend());  // CLI11 takes them so
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        return app.exit(e, io.out, io.err);
    }
    return 0;
}

}  // namespace meterctl

// main's way in: it finds this by name once libmeters.so is loaded.
extern "C" __attribute__((visibility("default"))) int meterctl_main(int argc, char** argv) {
    meterctl::Output io{std::cout, std::cerr};
    return meterctl::runCli(std::vector<std::string>(argv + 1, argv + argc), io);
}

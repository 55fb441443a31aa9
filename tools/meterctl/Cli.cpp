#include <algorithm>

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
    std::vector<std::string> reversed(args.rbegin(), args.rend());  // CLI11 takes them so
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        return app.exit(e, io.out, io.err);
    }
    return 0;
}

}  // namespace meterctl

#include "Commands.h"
#include "MeterCatalog.h"

namespace meterctl {

void addListCommand(CLI::App& app, Output& io) {
    CLI::App* list = app.add_subcommand("list",
                                        "The registered meters, with the events and "
                                        "configuration each one reads.");
    list->callback([&io] {
        for (const std::string& name : registeredNames()) {
            const MeterSpec* spec = findSpec(name);
            io.out << name;
            if (spec == nullptr) {
                io.out << " (registered, unknown to meterctl)\n";
                continue;
            }
            io.out << (spec->sampling ? " (sampling: start() runs until its end)\n"
                                      : " (reader: start() returns; getters read on demand)\n");
            for (const std::string& event : spec->events)
                io.out << "  event  " << event << "\n";
            for (const std::string& key : spec->configKeys)
                io.out << "  config " << key << "\n";
        }
    });
}

}  // namespace meterctl

#include "Commands.h"
#include "MeterCatalog.h"

namespace meterctl {

void addListCommand(CLI::App& app, Output& io) {
    CLI::App* list = app.add_subcommand("list",
                                        "The registered meters, with the events and "
                                        "configuration each one reads.");
    list->callback([&io] {
        for (const std::string& name : registeredNames()) {
            const MeterEntry* entry = findEntry(name);
            io.out << name;
            if (entry == nullptr) {
                io.out << " (registered, unknown to meterctl)\n";
                continue;
            }
            io.out << (entry->sampling ? " (sampling: start() runs until its end)\n"
                                       : " (reader: start() returns; getters read on demand)\n");
            for (const std::string& event : entry->events)
                io.out << "  event  " << event << "\n";
            for (const std::string& key : entry->configKeys)
                io.out << "  config " << key << "\n";
        }
    });
}

}  // namespace meterctl

// What meterctl knows of the nine meters, as a host knows them: the name each is registered
// under, the events and configuration keys it acts on, and where its results are read.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Meter.h"

namespace meterctl {

struct MeterEntry {
    std::string name;
    // A sampling meter's start() blocks for its run; a reader's returns at once and its getters
    // answer on demand.
    bool sampling;
    std::vector<std::string> events;      // "code (what): what the meter does with it"
    std::vector<std::string> configKeys;  // "KEY (default ...)" or a MeterInfo member
    // The event with which a host ends the meter's activity: a sampling meter's run stops at its
    // next poll; a reader meter's next start() closes its nodes or withdraws what it registered.
    // None where that event would do harm outside the meter.
    struct Event {
        uint32_t hintId;
        int32_t hintType;
    };
    std::optional<Event> stopEvent;
    // start() takes its pending list without a lock: the host delivers nothing while it does,
    // that is, from the call until the meter's first sleep.
    bool listWithoutLock = false;
};

const std::vector<MeterEntry>& meterEntries();
// Null for a name the catalog does not know.
const MeterEntry* findEntry(const std::string& name);

// The names in the registry, sorted: libmeters.so filled it when it was loaded.
std::vector<std::string> registeredNames();
// The meter registered under name, built by its factory; null for an unknown name.
std::unique_ptr<Meter> createMeter(const std::string& name, const MeterInfo& info);

struct Reading {
    std::string label;
    double value;
    std::string unit;
};

// A reading's value as people read it: whole numbers without decimals, others with two.
std::string formatValue(double value);

// The meter's results now. A reader meter is read through its getters (each a reading of its
// nodes). While a sampling meter's start() runs, only what it publishes atomically is read:
// the rest belongs to the sampling thread until start() returns.
std::vector<Reading> readMeter(const std::string& name, Meter& meter, bool running);

}  // namespace meterctl

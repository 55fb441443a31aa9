// meterctl run: one meter, driven as a host drives it. Events come from one thread (this one);
// a sampling meter's start() runs on a thread of its own and only what it publishes atomically
// is read before it returns; a reader meter's start() and getters are called here, one after
// the other, as a host serialises them.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <iomanip>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "Commands.h"
#include "HostSetup.h"
#include "MeterCatalog.h"
#include "seams.h"

namespace meterctl {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// How often a waiting run looks at Ctrl-C.
constexpr milliseconds kPoll{20};
// A sampling meter that missed its stop event (one that came before its start() cleared the
// last run's stop) gets it again this often until start() returns.
constexpr milliseconds kStopRepeat{200};

const char kFooter[] = R"(Events (--event, repeatable):
  ID[,TYPE[,APP[,ARGS[,VALUES]]]][@MS]
  ID      hint id, decimal or 0x-hex          TYPE    hint type (default 0)
  APP     appName                             ARGS    intArgs, ':'-separated (at most 11)
  VALUES  values, ':'-separated               @MS     deliver MS ms after start() began
                                                      (without it: before start())
  e.g. 0x1081,0,com.example.app,8100   launch start with a budget of 8100 ms
       0x1007,0,,0:0:0:0:0:0:0:0:0:2,31:33   two descriptor counts
       0,-1@5000                     end of activity after 5 s
The same events may come from --info FILE.json under "events" (see below).

--info FILE.json holds a MeterInfo and events; every member is optional:
  {"name": "Fps", "configs": {"FPS_NODE": "/x"}, "fieldNames": ["rss_swap"],
   "numSamples": 20, "asyncInfos": [{"hintId": 4097, "hintType": -1, "flags": 0}],
   "events": [{"hintId": "0x1081", "hintType": 0, "appName": "com.example.app",
               "intArgs": [8100], "values": [], "longArg": 0, "atMs": 0}]}
Options given on the command line add to the file (--config, --samples replace its values).

A sampling meter (VmRss, Memory, ProComp, Launch) runs until it ends by itself, until --count
readings, or until Ctrl-C; then it is stopped with its own end-of-activity event and read
once more after start() returns. A reader meter (Fps, Gpu, SchedParams, PerfCounters, MinDDR)
is started, then read every --interval ms for --count readings (or until Ctrl-C); start()
runs again after each timed event, as a host restarts a meter after its events, and once more
after its stop event at the end.

Output: a table, or with --json one object a line:
  {"meter": "Fps", "t_ms": 0, "running": false, "readings": [{"label": "frame rate",
   "value": 59, "unit": "fps"}, ...]}
"running" is true while a sampling meter's start() runs; the line after it returned has
"end": how the run ended. The meters' own log lines go to stderr.

Exit status: 0 after the run, 1 when the meter cannot be built, 100 and above for a malformed
command line or --info file.)";

struct RunOptions {
    std::string name;
    std::string infoFile;
    std::vector<std::string> configs;
    std::vector<std::string> fields;
    int samples = 0;
    std::vector<std::string> events;
    std::vector<std::string> props;
    std::string root;
    std::string perfNode;
    bool game = false;
    int appClass = 0;
    int intervalMs = 1000;
    int count = 0;
    bool json = false;
};

// Readings as a table (a header whenever the columns change) or as JSON lines.
class ReadingPrinter {
  public:
    ReadingPrinter(std::ostream& out, std::string meter, bool json)
        : mOut(out), mMeter(std::move(meter)), mJson(json) {}

    void print(long long tMs, bool running, const std::vector<Reading>& readings,
               const std::string& end = "") {
        if (mJson) {
            nlohmann::ordered_json line = {{"meter", mMeter}, {"t_ms", tMs}, {"running", running}};
            if (!end.empty())
                line["end"] = end;
            line["readings"] = nlohmann::ordered_json::array();
            for (const Reading& r : readings) {
                nlohmann::ordered_json value = r.value;
                if (std::nearbyint(r.value) == r.value && std::fabs(r.value) < 1e15)
                    value = static_cast<long long>(r.value);
                line["readings"].push_back(
                    {{"label", r.label}, {"value", value}, {"unit", r.unit}});
            }
            mOut << line.dump() << "\n" << std::flush;
            return;
        }
        if (!end.empty())
            mOut << "# " << end << " after " << tMs << " ms\n";
        std::vector<std::string> header = {"t_ms"};
        for (const Reading& r : readings)
            header.push_back(r.unit.empty() ? r.label : r.label + " (" + r.unit + ")");
        if (header != mHeader) {
            mHeader = header;
            for (size_t i = 0; i < header.size(); ++i)
                mOut << (i == 0 ? "" : "  ") << std::setw(width(i)) << header[i];
            mOut << "\n";
        }
        mOut << std::setw(width(0)) << tMs;
        for (size_t i = 0; i < readings.size(); ++i)
            mOut << "  " << std::setw(width(i + 1)) << formatValue(readings[i].value);
        mOut << "\n" << std::flush;
    }

  private:
    int width(size_t column) const {
        constexpr size_t kMinWidth = 8;
        return static_cast<int>(std::max(kMinWidth, mHeader[column].size()));
    }

    std::ostream& mOut;
    std::string mMeter;
    bool mJson;
    std::vector<std::string> mHeader;
};

// The events to deliver during the run, in time order; events before start() are gone already.
class EventSchedule {
  public:
    explicit EventSchedule(std::vector<TimedEvent> events) : mEvents(std::move(events)) {
        std::stable_sort(
            mEvents.begin(), mEvents.end(),
            [](const TimedEvent& a, const TimedEvent& b) { return *a.atMs < *b.atMs; });
    }
    // Delivers every event due by elapsedMs; how many.
    int deliverDue(Meter& meter, long long elapsedMs) {
        int delivered = 0;
        while (mNext < mEvents.size() && *mEvents[mNext].atMs <= elapsedMs) {
            meter.asyncTriggerUpdate(mEvents[mNext++].payload);
            ++delivered;
        }
        return delivered;
    }
    Clock::time_point nextDue(Clock::time_point t0) const {
        return mNext < mEvents.size() ? t0 + milliseconds(*mEvents[mNext].atMs)
                                      : Clock::time_point::max();
    }

  private:
    std::vector<TimedEvent> mEvents;
    size_t mNext = 0;
};

long long msSince(Clock::time_point t0) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - t0).count();
}

AsyncTriggerPayload payloadOf(const MeterEntry::Event& event) {
    AsyncTriggerPayload payload;
    payload.hintId = event.hintId;
    payload.hintType = event.hintType;
    return payload;
}

void runSampling(Meter& meter, const MeterEntry& entry, const RunOptions& o,
                 EventSchedule& schedule, ReadingPrinter& printer) {
    std::mutex mutex;
    std::condition_variable returned;
    bool done = false;
    // Where start() takes its pending list without a lock, nothing is delivered until the
    // runner's first sleep shows it has taken it.
    std::atomic<bool> listTaken{!entry.listWithoutLock};
    std::atomic<std::thread::id> runnerId{};
    const seams::SleepHook previousSleep = seams::sleepHook();
    seams::setSleepHook([&listTaken, &runnerId, previousSleep](uint32_t us) {
        if (std::this_thread::get_id() == runnerId.load())
            listTaken = true;
        previousSleep ? previousSleep(us) : std::this_thread::sleep_for(microseconds(us));
    });
    const Clock::time_point t0 = Clock::now();
    std::thread runner([&] {
        runnerId = std::this_thread::get_id();
        meter.start();
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        returned.notify_all();
    });
    const milliseconds interval(o.intervalMs);
    Clock::time_point nextReading = t0 + interval;
    Clock::time_point nextStop = Clock::time_point::max();
    int readings = 0;
    std::string end = "the meter ended its run";
    std::unique_lock<std::mutex> lock(mutex);
    while (!done) {
        const Clock::time_point now = Clock::now();
        if (nextStop == Clock::time_point::max()) {
            if (listTaken)
                schedule.deliverDue(meter, msSince(t0));
            if (interrupted()) {
                end = "stopped by Ctrl-C";
                nextStop = now;
            } else if (now >= nextReading) {
                printer.print(msSince(t0), true, readMeter(entry.name, meter, true));
                nextReading += interval;
                if (o.count > 0 && ++readings >= o.count) {
                    end = "stopped after " + std::to_string(o.count) + " readings";
                    nextStop = now;
                }
            }
        }
        if (now >= nextStop && listTaken) {
            if (entry.stopEvent)
                meter.asyncTriggerUpdate(payloadOf(*entry.stopEvent));
            nextStop = now + kStopRepeat;
        }
        const Clock::time_point wake =
            !listTaken ? now + kPoll
                       : std::min({nextStop == Clock::time_point::max()
                                       ? std::min(nextReading, schedule.nextDue(t0))
                                       : nextStop,
                                   now + kPoll});
        returned.wait_until(lock, wake, [&] { return done; });
    }
    lock.unlock();
    runner.join();
    seams::setSleepHook(previousSleep);
    printer.print(msSince(t0), false, readMeter(entry.name, meter, false), end);
}

void runReader(Meter& meter, const MeterEntry& entry, const RunOptions& o, EventSchedule& schedule,
               ReadingPrinter& printer) {
    meter.start();
    const Clock::time_point t0 = Clock::now();
    for (int readings = 1;; ++readings) {
        if (schedule.deliverDue(meter, msSince(t0)) > 0)
            meter.start();
        printer.print(msSince(t0), false, readMeter(entry.name, meter, false));
        if (o.count > 0 && readings >= o.count)
            break;
        const Clock::time_point nextReading = t0 + milliseconds(o.intervalMs) * readings;
        while (!interrupted() && Clock::now() < nextReading) {
            std::this_thread::sleep_until(
                std::min({nextReading, schedule.nextDue(t0), Clock::now() + kPoll}));
            if (schedule.deliverDue(meter, msSince(t0)) > 0)
                meter.start();
        }
        if (interrupted())
            break;
    }
    if (entry.stopEvent) {
        meter.asyncTriggerUpdate(payloadOf(*entry.stopEvent));
        meter.start();
    }
}

std::string knownMeters() {
    std::string known;
    for (const std::string& name : registeredNames())
        known += (known.empty() ? "" : ", ") + name;
    return known;
}

std::string checkMeterName(const std::string& name) {
    const std::vector<std::string> names = registeredNames();
    if (std::find(names.begin(), names.end(), name) == names.end() || findEntry(name) == nullptr)
        return "unknown meter '" + name + "'; known meters: " + knownMeters();
    return {};
}

void run(const RunOptions& o, const CLI::Option& samplesOption, Output& io) {
    InfoFile file;
    if (!o.infoFile.empty())
        file = loadInfoFile(o.infoFile);  // checked when parsed
    MeterInfo& info = file.info;
    if (!o.name.empty() && !info.name.empty() && o.name != info.name)
        throw CLI::ValidationError(
            "NAME", "'" + o.name + "' but " + o.infoFile + " names '" + info.name + "'");
    info.name = o.name.empty() ? info.name : o.name;
    if (info.name.empty())
        throw CLI::ValidationError("NAME", "give a meter name, or an --info file with \"name\"");
    if (const std::string error = checkMeterName(info.name); !error.empty())
        throw CLI::ValidationError("NAME", error);
    for (const std::string& config : o.configs)
        info.configs.insert_or_assign(parseKeyValue(config).first, parseKeyValue(config).second);
    info.fieldNames.insert(info.fieldNames.end(), o.fields.begin(), o.fields.end());
    if (samplesOption.count() > 0)
        info.numSamples = o.samples;
    std::vector<TimedEvent> events = file.events;
    for (const std::string& text : o.events)
        events.push_back(parseEvent(text));

    std::vector<std::string> apps;
    for (const TimedEvent& event : events) {
        if (!event.payload.appName.empty())
            apps.push_back(event.payload.appName);
    }
    const ScopedRoot root(o.root);
    const ScopedClassifier classifier(apps, o.game, o.appClass);
    std::unique_ptr<ScopedProperties> props;
    std::unique_ptr<ScopedPerfCountersNode> perfNode;
    try {
        props = std::make_unique<ScopedProperties>(o.props);
    } catch (const std::invalid_argument& e) {
        throw CLI::ValidationError("--prop", e.what());
    }
    try {
        perfNode = std::make_unique<ScopedPerfCountersNode>(o.perfNode);
    } catch (const std::invalid_argument& e) {
        throw CLI::ValidationError("--perf-node", e.what());
    }
    std::unique_ptr<Meter> meter;
    try {
        meter = createMeter(info.name, info);
    } catch (const std::exception& e) {
        io.err << "meterctl run: building " << info.name << " failed: " << e.what() << "\n";
        throw CLI::RuntimeError(1);
    }
    if (meter == nullptr) {
        io.err << "meterctl run: the factory of " << info.name << " returned no meter\n";
        throw CLI::RuntimeError(1);
    }
    const MeterEntry& entry = *findEntry(info.name);
    std::vector<TimedEvent> timed;
    for (const TimedEvent& event : events) {
        if (event.atMs) {
            timed.push_back(event);
        } else {
            meter->asyncTriggerUpdate(event.payload);
        }
    }
    EventSchedule schedule(std::move(timed));
    ReadingPrinter printer(io.out, info.name, o.json);
    const ScopedInterrupt interrupt;
    if (entry.sampling) {
        runSampling(*meter, entry, o, schedule, printer);
    } else {
        runReader(*meter, entry, o, schedule, printer);
    }
}

}  // namespace

void addRunCommand(CLI::App& app, Output& io) {
    CLI::App* cmd = app.add_subcommand(
        "run", "Runs one meter as a host does and prints its readings every interval.");
    auto o = std::make_shared<RunOptions>();
    cmd->add_option("NAME", o->name, "The registered meter (see 'meterctl list')")
        ->check(CLI::Validator(checkMeterName, ""));
    cmd->add_option("--info", o->infoFile, "MeterInfo and events from a JSON file (see below)")
        ->type_name("FILE.json")
        ->check(parsedBy(loadInfoFile, ""));
    cmd->add_option("--config", o->configs, "A configuration value, into MeterInfo::configs")
        ->type_name("KEY=VALUE")
        ->check(parsedBy(parseKeyValue, ""));
    cmd->add_option("--field", o->fields, "A field name, into MeterInfo::fieldNames")
        ->type_name("NAME");
    CLI::Option* samples =
        cmd->add_option("--samples", o->samples, "MeterInfo::numSamples (the sample bound)")
            ->type_name("N");
    cmd->add_option("--event", o->events, "An event to deliver (syntax below)")
        ->type_name("EVENT")
        ->check(parsedBy(parseEvent, ""));
    cmd->add_option("--prop", o->props, "Set an Android property before the meter is built")
        ->type_name("KEY=VALUE")
        ->check(parsedBy(parseKeyValue, ""));
    cmd->add_option("--root", o->root, "Read nodes under DIR (as METERS_ROOT does)")
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory.description(""));
    cmd->add_option("--perf-node", o->perfNode,
                    "The instruction-counter node, for the data store (key 5)")
        ->type_name("PATH");
    cmd->add_flag("--game", o->game, "The classifier answers 'game' for the events' apps");
    cmd->add_option("--app-class", o->appClass,
                    "The classifier's app class for the events' apps (selector 1)")
        ->type_name("N");
    cmd->add_option("--interval", o->intervalMs, "Milliseconds between readings (default 1000)")
        ->type_name("MS")
        ->check(CLI::Range(1, 3600 * 1000).description(""));
    cmd->add_option("--count", o->count,
                    "Readings to take; 0 (default): until the run ends or Ctrl-C")
        ->type_name("N")
        ->check(CLI::Range(0, INT32_MAX).description(""));
    cmd->add_flag("--json", o->json, "One JSON object a line instead of a table");
    cmd->footer(kFooter);
    cmd->callback([o, samples, &io] { run(*o, *samples, io); });
}

}  // namespace meterctl

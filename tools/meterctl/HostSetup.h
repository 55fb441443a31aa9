// The host's side of a meterctl command: the inputs a host gives a meter (configuration, events,
// properties, the node tree), read from the command line or a JSON file, and the scoped changes
// a command makes to this process while it runs.
#pragma once

#include <signal.h>
#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Meter.h"

namespace meterctl {

// An event and when to deliver it: before start() (no time), or so many ms after start() began.
struct TimedEvent {
    AsyncTriggerPayload payload;
    std::optional<int> atMs;
};

// The event syntax of the command line, ID[,TYPE[,APP[,ARGS[,VALUES]]]][@MS]: ID decimal or
// 0x-hex, TYPE an integer (default 0), APP the application name, ARGS up to eleven integers for
// intArgs and VALUES any number of integers, both ':'-separated. Throws std::invalid_argument
// saying what is wrong.
TimedEvent parseEvent(const std::string& text);
// "KEY=VALUE" (the value may be empty). Throws std::invalid_argument.
std::pair<std::string, std::string> parseKeyValue(const std::string& text);
// A whole decimal integer, or 0x-hex when hex is allowed. Throws std::invalid_argument naming what.
long long parseInteger(const std::string& text, const std::string& what, bool hex = false);

// A MeterInfo and events as a JSON file gives them:
//   {"name": "Fps", "configs": {"FPS_NODE": "/x"}, "fieldNames": ["rss_swap"], "numSamples": 20,
//    "asyncInfos": [{"hintId": 4097, "hintType": -1, "flags": 0}],
//    "events": [{"hintId": 4225, "hintType": 0, "appName": "com.example", "intArgs": [8100],
//                "values": [], "longArg": 0, "atMs": 500}]}
// Every member is optional; an unknown member is an error, so a misspelt one is not ignored.
struct InfoFile {
    MeterInfo info;
    std::vector<TimedEvent> events;
};
// Throws std::invalid_argument with the file's name and what is wrong in it.
InfoFile loadInfoFile(const std::string& path);

// A CLI11 check that runs parse on each value and reports its message.
template <class Parse>
CLI::Validator parsedBy(Parse parse, const std::string& description) {
    return CLI::Validator(
        [parse](std::string& value) -> std::string {
            try {
                parse(value);
            } catch (const std::invalid_argument& e) {
                return e.what();
            }
            return {};
        },
        description);
}

// While alive, Ctrl-C (or a polite kill) only raises the flag that interrupted() reads, so a
// command can stop its meters cleanly; a second one ends the process at once. A write to a pipe
// whose reader has gone fails instead of raising SIGPIPE.
class ScopedInterrupt {
  public:
    ScopedInterrupt();
    ~ScopedInterrupt();
    ScopedInterrupt(const ScopedInterrupt&) = delete;
    ScopedInterrupt& operator=(const ScopedInterrupt&) = delete;

  private:
    struct sigaction mPreviousInt = {};
    struct sigaction mPreviousTerm = {};
    struct sigaction mPreviousPipe = {};
};
bool interrupted();

// Points the meters at a node tree (METERS_ROOT) while alive, when dir is not empty; puts the
// previous setting back afterwards.
class ScopedRoot {
  public:
    explicit ScopedRoot(const std::string& dir);
    ~ScopedRoot();
    ScopedRoot(const ScopedRoot&) = delete;
    ScopedRoot& operator=(const ScopedRoot&) = delete;

  private:
    bool mChanged = false;
    std::optional<std::string> mPrevious;
};

// Android properties set from KEY=VALUE texts (checked by parseKeyValue) while alive; the
// previous values come back afterwards. Throws std::invalid_argument, setting none, when the
// property store would refuse a value.
class ScopedProperties {
  public:
    explicit ScopedProperties(const std::vector<std::string>& props);
    ~ScopedProperties();
    ScopedProperties(const ScopedProperties&) = delete;
    ScopedProperties& operator=(const ScopedProperties&) = delete;

  private:
    std::vector<std::pair<std::string, std::string>> mPrevious;
};

// The data store's key 5, where the instruction-counter meter finds its node, holds path while
// alive (when path is not empty). Throws std::invalid_argument when the host has no data store.
class ScopedPerfCountersNode {
  public:
    explicit ScopedPerfCountersNode(const std::string& path);
    ~ScopedPerfCountersNode();
    ScopedPerfCountersNode(const ScopedPerfCountersNode&) = delete;
    ScopedPerfCountersNode& operator=(const ScopedPerfCountersNode&) = delete;

  private:
    bool mChanged = false;
    std::string mPrevious;  // empty: none
};

// The host's classifier answers for these applications while alive: "game" or not (selector 0)
// and the app class (selector 1).
class ScopedClassifier {
  public:
    ScopedClassifier(const std::vector<std::string>& apps, bool game, int appClass);
    ~ScopedClassifier();
    ScopedClassifier(const ScopedClassifier&) = delete;
    ScopedClassifier& operator=(const ScopedClassifier&) = delete;

  private:
    struct Answer {
        std::string app;
        int selector;
        int previous;
    };
    std::vector<Answer> mPrevious;
};

}  // namespace meterctl

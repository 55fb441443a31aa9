// The host framework's contract as the meters see it: the configuration and event records and
// the abstract base every meter derives from. On a device the host library provides these.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

// One asynchronous event a meter subscribes to; the meters only copy it.
struct AsyncInfo {
    int32_t hintId = 0;
    int32_t hintType = 0;
    int32_t flags = 0;

    bool operator<(const AsyncInfo& o) const {
        return std::tie(hintId, hintType, flags) < std::tie(o.hintId, o.hintType, o.flags);
    }
    bool operator==(const AsyncInfo& o) const {
        return std::tie(hintId, hintType, flags) == std::tie(o.hintId, o.hintType, o.flags);
    }
};

// The configuration of one meter, passed by value to every meter constructor.
struct MeterInfo {
    std::string name;
    std::set<AsyncInfo> asyncInfos;
    std::vector<std::string> fieldNames;
    std::unordered_map<std::string, std::string> configs;
    int32_t numSamples = 0;
};

// One asynchronous event as the host delivers it.
struct AsyncTriggerPayload {
    static constexpr int kNumIntArgs = 11;

    uint32_t hintId = 0;
    int32_t hintType = 0;
    std::string appName;
    int32_t intArgs[kNumIntArgs] = {};
    std::vector<int32_t> values;
    int64_t longArg = 0;
};

// Abstract base of every meter.
class Meter {
  public:
    explicit Meter(MeterInfo info);
    explicit Meter(std::string& name);
    Meter();

    // Slot order matters to the host; meters override within it and add no virtuals.
    virtual void start() = 0;
    virtual void asyncTriggerUpdate(const AsyncTriggerPayload& payload);
    virtual std::vector<AsyncTriggerPayload>* getAsyncUpdates();
    virtual void getAsyncUpdates(std::vector<AsyncTriggerPayload>& out);
    virtual ~Meter();

    bool hasStopNotification() const { return stopRequested.load(); }

    Meter(const Meter&) = delete;
    Meter& operator=(const Meter&) = delete;

  protected:
    // The activity being measured has ended; derived meters also set and clear it themselves.
    std::atomic<bool> stopRequested{false};
    // Events kept for start(): filled by the base's asyncTriggerUpdate, copied out by
    // getAsyncUpdates, both under mAsyncMutex. A meter that writes it directly does so without
    // that lock, as it would against a device's host.
    std::vector<AsyncTriggerPayload> asyncUpdates;

  private:
    MeterInfo mInfo;
    std::mutex mAsyncMutex;
};

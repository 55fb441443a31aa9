#include "Meter.h"

#include <utility>

Meter::Meter(MeterInfo info) : mInfo(std::move(info)) {}

Meter::Meter(std::string& name) {
    mInfo.name = name;
}

Meter::Meter() = default;

Meter::~Meter() = default;

void Meter::asyncTriggerUpdate(const AsyncTriggerPayload& payload) {
    // {0, -1} ends the activity; any other event belongs to a new one.
    stopRequested.store(payload.hintId == 0 && payload.hintType == -1);
    std::lock_guard<std::mutex> lock(mAsyncMutex);
    asyncUpdates.push_back(payload);
}

std::vector<AsyncTriggerPayload>* Meter::getAsyncUpdates() {
    return &asyncUpdates;
}

void Meter::getAsyncUpdates(std::vector<AsyncTriggerPayload>& out) {
    std::lock_guard<std::mutex> lock(mAsyncMutex);
    if (&out != &asyncUpdates)
        out = asyncUpdates;
}

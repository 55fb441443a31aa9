// The event codes the host delivers in AsyncTriggerPayload::hintId, named for what the event is.
// Each meter decides what an event means to it; the names say nothing about that.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "Meter.h"

namespace hint {

constexpr uint32_t kNone = 0;                 // no code; with kTypeEnd, the end-of-activity notice
constexpr uint32_t kActivityStart = 0x1001;   // 4097: an activity begins
constexpr uint32_t kActivityStop = 0x1002;    // 4098: the activity ended
constexpr uint32_t kActivityResume = 0x1003;  // 4099: a paused activity goes on
constexpr uint32_t kActivityPause = 0x1004;   // 4100: the activity is paused
constexpr uint32_t kFdCounts = 0x1007;        // 4103: open-descriptor counts of the launching app
constexpr uint32_t kLaunchComplete = 0x1043;  // 4163: the host saw the launch complete
constexpr uint32_t kLaunchStart = 0x1081;     // 4225: an application launch begins

// hintType of a notice that something ended.
constexpr int32_t kTypeEnd = -1;

// {kNone, kTypeEnd}: the activity being measured has ended.
inline bool isEndOfActivity(const AsyncTriggerPayload& p) {
    return p.hintId == kNone && p.hintType == kTypeEnd;
}

// The display readers' rule: a stop or pause with kTypeEnd raises the stop flag and a resume
// with kTypeEnd lowers it, neither kept; any other event lowers it and is queued in pending,
// without the base's lock (the host does not deliver while it copies the list). An event that
// cannot be appended is dropped: no log line belongs to that.
inline void applyReaderEvent(const AsyncTriggerPayload& p, std::atomic<bool>& stopRequested,
                             std::vector<AsyncTriggerPayload>& pending) {
    if ((p.hintId == kActivityStop || p.hintId == kActivityPause) && p.hintType == kTypeEnd) {
        stopRequested = true;
    } else if (p.hintId == kActivityResume && p.hintType == kTypeEnd) {
        stopRequested = false;
    } else {
        if (stopRequested)
            stopRequested = false;
        try {
            pending.push_back(p);
        } catch (...) {
        }
    }
}

}  // namespace hint

// The event codes the host delivers in AsyncTriggerPayload::hintId, named for what the event is.
// Each meter decides what an event means to it; the names say nothing about that.
#pragma once

#include <cstdint>

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

}  // namespace hint

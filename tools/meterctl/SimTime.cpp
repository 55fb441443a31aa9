#include "SimTime.h"

#include <atomic>

#include "seams.h"

namespace meterctl {

namespace {

std::atomic<uint64_t> gGenerations{0};

// Where the calling thread's grid stands, and for which clock.
struct Grid {
    uint64_t generation = 0;
    SimTime::Clock::time_point next;
};
thread_local Grid tGrid;

}  // namespace

SimTime::SimTime(int speed)
    : mSpeed(speed < 1 ? 1 : speed), mOrigin(Clock::now()), mGeneration(++gGenerations) {}

double SimTime::msAt(Clock::time_point t) const {
    return std::chrono::duration<double, std::milli>(t - mOrigin).count() * mSpeed;
}

SimTime::Clock::time_point SimTime::realAt(double ms) const {
    return mOrigin + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double, std::milli>(ms / mSpeed));
}

SimTime::Clock::time_point SimTime::meterNow() const {
    return mOrigin + (Clock::now() - mOrigin) * mSpeed;
}

void SimTime::sleepUs(uint32_t us) {
    const Clock::time_point now = Clock::now();
    const Clock::duration step =
        std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(us)) / mSpeed;
    if (tGrid.generation != mGeneration || now > tGrid.next + step) {
        tGrid.generation = mGeneration;
        tGrid.next = now;
    }
    tGrid.next += step;
    std::unique_lock<std::mutex> lock(mMutex);
    mCv.wait_until(lock, tGrid.next, [this] { return mInterrupted; });
}

bool SimTime::sleepUntil(double ms) {
    std::unique_lock<std::mutex> lock(mMutex);
    return !mCv.wait_until(lock, realAt(ms), [this] { return mInterrupted; });
}

void SimTime::interrupt() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mInterrupted = true;
    }
    mCv.notify_all();
}

bool SimTime::interrupted() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mInterrupted;
}

ScopedMeterTime::ScopedMeterTime(SimTime& time, std::function<void(uint32_t us)> onSleep) {
    seams::setClockHook([&time] { return time.meterNow(); });
    seams::setSleepHook([&time, onSleep](uint32_t us) {
        if (onSleep)
            onSleep(us);
        time.sleepUs(us);
    });
}

ScopedMeterTime::~ScopedMeterTime() {
    seams::setSleepHook(nullptr);
    seams::setClockHook(nullptr);
}

}  // namespace meterctl

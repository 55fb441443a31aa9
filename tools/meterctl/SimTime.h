// The demo's clock: simulated milliseconds since the launch start, running `speed` times faster
// than the wall clock, and the sleep and clock the meters see while the demo runs. Every
// schedule of the demo (the device's curves, the synthetic app's steps, the meters' periods) is
// in simulated time, so a faster clock shortens the whole run without changing what it measures.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

namespace meterctl {

class SimTime {
  public:
    using Clock = std::chrono::steady_clock;

    // Simulated time 0 is now.
    explicit SimTime(int speed);
    SimTime(const SimTime&) = delete;
    SimTime& operator=(const SimTime&) = delete;

    int speed() const { return mSpeed; }
    // Simulated ms since the origin, now or at a real time point (negative before the origin).
    double ms() const { return msAt(Clock::now()); }
    double msAt(Clock::time_point t) const;
    // The real time point at which simulated time reaches ms.
    Clock::time_point realAt(double ms) const;
    // The meters' clock: the origin plus the simulated time elapsed since.
    Clock::time_point meterNow() const;

    // Sleeps us of simulated time on a grid: a thread that sleeps again and again wakes at fixed
    // steps whatever its work between the sleeps took, so that a meter's k-th sample falls k
    // periods after its first, as its own arithmetic assumes. A thread that has fallen more than
    // a step behind starts a new grid. Returns at once after interrupt().
    void sleepUs(uint32_t us);
    // Sleeps until simulated time ms; false when interrupted.
    bool sleepUntil(double ms);
    void interrupt();
    bool interrupted() const;

  private:
    const int mSpeed;
    const Clock::time_point mOrigin;
    const uint64_t mGeneration;  // tells this clock's grids from an earlier clock's
    mutable std::mutex mMutex;
    std::condition_variable mCv;
    bool mInterrupted = false;
};

// While alive, the meters sleep and read the clock through time; onSleep(us) runs on the
// sleeping thread before each sleep. Restores the real sleep and clock.
class ScopedMeterTime {
  public:
    ScopedMeterTime(SimTime& time, std::function<void(uint32_t us)> onSleep);
    ~ScopedMeterTime();
    ScopedMeterTime(const ScopedMeterTime&) = delete;
    ScopedMeterTime& operator=(const ScopedMeterTime&) = delete;
};

}  // namespace meterctl

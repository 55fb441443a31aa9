// The display's measured frame rate and frame count, read on demand from the display driver's
// node, which the meter first asks to measure over 500 ms.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

#include "Meter.h"

// The trace setting of every FpsMeter in the process: set by a constructor that finds the
// property "vendor.debug.trace.perf" starting with '1' (to its atoi value) and never cleared by
// the meters. While it is not 0, getFps emits a trace marker.
extern std::atomic<int32_t> fpsTraceLevel;

class FpsMeter : public Meter {
  public:
    explicit FpsMeter(MeterInfo info);
    // Default paths; neither the configuration nor the trace property is read.
    explicit FpsMeter(std::string& name);
    ~FpsMeter() override;

    // Opens the node (writing the period first) unless a stop was notified; closes it if one was.
    void start() override;
    // {kActivityStop or kActivityPause, kTypeEnd} stops, {kActivityResume, kTypeEnd} resumes;
    // any other event resumes and is kept in the base's pending list.
    void asyncTriggerUpdate(const AsyncTriggerPayload& payload) override;

    // Writes periodMs to the periodicity node.
    void setFpsPeriodicity(int periodMs);
    // Reads and parses one line of the node into mScaledFps and mFrameCount; true on success.
    bool getNodeData();
    // Frames per second with two decimals, from a fresh reading; 0.0 when it fails.
    float getFps();
    // The frame count from a fresh reading; 0 when it fails.
    uint32_t getFrames();
    // a * b, or 1 when the product does not fit in an int.
    static int Multiply(int a, int b);

    std::string mFpsNodePath;
    std::string mFpsPeriodicityNodePath;
    // Kept open between readings and rewound after each; closed on a stop.
    std::ifstream mFpsStream;
    // The last frame rate read, times 100; readable from any thread.
    std::atomic<int32_t> mScaledFps{0};
    // The last frame count read.
    std::atomic<uint32_t> mFrameCount{0};

    static bool registerMeter;
};

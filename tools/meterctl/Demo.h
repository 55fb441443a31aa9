// `meterctl demo`: one application launch on a simulated device, measured by all nine meters.
// The demo plays the host: it starts a real synthetic application (SyntheticApp.h), moves the
// nodes of a simulated device (SimDevice.h), delivers the events each meter acts on, runs the
// sampling meters and reads the reader meters, and writes what they measured.
#pragma once

#include <ostream>
#include <string>

namespace meterctl {

// The schedule, in simulated ms after the launch start.
constexpr double kDemoActivityMs = 15000;  // then the activity ends and every meter is stopped
constexpr double kReaderPeriodMs = 1000;   // the host reads the reader meters
constexpr double kFdPeriodMs = 30;         // the host counts the app's open descriptors
// The launch meter sees a change up to two of its samples after it happened.
constexpr double kSettleSlackMs = 60;

struct DemoOptions {
    std::string out;  // empty: meterctl-demo-<date>-<time> in the working directory
    int speed = 1;    // how much faster than real time the schedule runs
    std::string package = "com.example.demo";
    std::string appExe;  // the program started as the app; empty: this one
};

// Why name cannot be the app's command line (and file name), or empty when it can.
std::string packageProblem(const std::string& name);

// The run's progress. On a terminal a status line is redrawn in place, with events printed
// above it; elsewhere each event is a plain line and the status is not shown.
class Progress {
  public:
    Progress(std::ostream& out, bool terminal, double totalMs);
    void event(double ms, const std::string& what);
    void status(double ms, const std::string& state);
    // Clears the status line.
    void finish();

  private:
    void draw();

    std::ostream& mOut;
    const bool mTerminal;
    const double mTotalMs;
    double mMs = 0;
    std::string mState;
    bool mDrawn = false;
};

// Runs the demo: 0 when it ran to its end, 130 when interrupted, 1 when it could not run
// (the reason is on err).
int runDemo(const DemoOptions& options, std::ostream& out, std::ostream& err, bool terminal);

}  // namespace meterctl

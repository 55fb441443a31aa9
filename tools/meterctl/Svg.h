// The picture of one launch: the launch meter's three series (VmRSS, OOM score, descriptor
// counts) over time in three stacked panels, the end point the meter detected, and the window
// in which the application really settled.
#pragma once

#include <string>
#include <vector>

namespace meterctl {

struct LaunchChart {
    std::string title;
    // Sample i of a series stands at offsetMs + i * sampleMs after the launch start.
    double offsetMs = 0;
    double sampleMs = 30;
    std::vector<int> vmRssKb;
    std::vector<int> oomScore;
    std::vector<int> fdCount;
    double endPointMs = -1;     // none when negative
    double settledFromMs = -1;  // none when negative
    double settledToMs = -1;
};

// A self-contained SVG document. The marks carry their values in data-* attributes.
std::string launchSvg(const LaunchChart& chart);

// Where ms falls on the x axis of a chart that spans spanMs (exposed for the tests).
double chartX(double ms, double spanMs);

}  // namespace meterctl

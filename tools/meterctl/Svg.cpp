#include "Svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace meterctl {

namespace {

constexpr double kWidth = 860, kLeft = 90, kRight = 30, kTop = 56;
constexpr double kPanelHeight = 130, kPanelGap = 26, kBottom = 56;
constexpr int kPanels = 3;
constexpr double kPlotWidth = kWidth - kLeft - kRight;
constexpr double kPlotBottom = kTop + kPanels * kPanelHeight + (kPanels - 1) * kPanelGap;
constexpr double kHeight = kPlotBottom + kBottom;

std::string num(double v) {
    char buf[32];
    snprintf(buf, sizeof(buf), "%.1f", v);
    return buf;
}

std::string escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

struct Panel {
    const char* id;
    const char* label;
    const char* colour;
    const std::vector<int>* values;
    double scale;  // shown values are value / scale
};

void drawPanel(std::ostringstream& svg, const LaunchChart& chart, const Panel& panel, int index,
               double spanMs) {
    const double top = kTop + index * (kPanelHeight + kPanelGap);
    const double bottom = top + kPanelHeight;
    svg << "<rect x=\"" << kLeft << "\" y=\"" << top << "\" width=\"" << kPlotWidth
        << "\" height=\"" << kPanelHeight << "\" fill=\"#fafafa\" stroke=\"#bbb\"/>\n";
    svg << "<text x=\"" << kLeft + 6 << "\" y=\"" << top + 15 << "\" class=\"label\">"
        << panel.label << "</text>\n";
    const std::vector<int>& values = *panel.values;
    if (values.empty()) {
        svg << "<text x=\"" << kLeft + kPlotWidth / 2 << "\" y=\"" << top + kPanelHeight / 2
            << "\" class=\"axis\" text-anchor=\"middle\">no samples</text>\n";
        return;
    }
    double lo = *std::min_element(values.begin(), values.end()) / panel.scale;
    double hi = *std::max_element(values.begin(), values.end()) / panel.scale;
    if (hi - lo < 1e-9) {  // a flat series sits in the middle of its panel
        lo -= 1;
        hi += 1;
    }
    const double pad = (hi - lo) * 0.12;
    lo -= pad;
    hi += pad;
    auto y = [&](double v) { return bottom - (v - lo) / (hi - lo) * kPanelHeight; };
    for (double v : {lo + pad, hi - pad}) {
        svg << "<text x=\"" << kLeft - 6 << "\" y=\"" << num(y(v) + 4)
            << "\" class=\"axis\" text-anchor=\"end\">" << num(v) << "</text>\n";
    }
    svg << "<polyline id=\"" << panel.id << "\" data-points=\"" << values.size()
        << "\" fill=\"none\" stroke=\"" << panel.colour << "\" stroke-width=\"1.6\" points=\"";
    for (size_t i = 0; i < values.size(); ++i) {
        const double ms = chart.offsetMs + static_cast<double>(i) * chart.sampleMs;
        svg << (i == 0 ? "" : " ") << num(chartX(ms, spanMs)) << ","
            << num(y(values[i] / panel.scale));
    }
    svg << "\"/>\n";
}

}  // namespace

double chartX(double ms, double spanMs) {
    return kLeft + (spanMs > 0 ? ms / spanMs : 0) * kPlotWidth;
}

std::string launchSvg(const LaunchChart& chart) {
    const size_t samples =
        std::max({chart.vmRssKb.size(), chart.oomScore.size(), chart.fdCount.size()});
    double lastMs = chart.offsetMs + static_cast<double>(samples) * chart.sampleMs;
    lastMs = std::max({lastMs, chart.endPointMs, chart.settledToMs, 1.0});
    const double tickMs = lastMs > 6000 ? 1000 : 500;
    const double spanMs = std::ceil(lastMs / tickMs) * tickMs;

    std::ostringstream svg;
    svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\""
        << kHeight << "\" viewBox=\"0 0 " << kWidth << " " << kHeight << "\">\n"
        << "<style>text{font-family:sans-serif;fill:#333}.title{font-size:16px;font-weight:bold}"
           ".label{font-size:12px}.axis{font-size:11px;fill:#666}.mark{font-size:12px}</style>\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        << "<text x=\"" << kLeft << "\" y=\"28\" class=\"title\">" << escaped(chart.title)
        << "</text>\n";

    const Panel panels[kPanels] = {
        {"vmrss", "VmRSS (anonymous + swap), MB", "#1f5fb4", &chart.vmRssKb, 1024.0},
        {"oom", "OOM score", "#b4621f", &chart.oomScore, 1.0},
        {"fd", "open descriptors", "#6a3db4", &chart.fdCount, 1.0}};
    for (int i = 0; i < kPanels; ++i)
        drawPanel(svg, chart, panels[i], i, spanMs);
    // Over the panels, translucent, so that it shows across the series.
    if (chart.settledFromMs >= 0 && chart.settledToMs >= chart.settledFromMs) {
        const double x0 = chartX(chart.settledFromMs, spanMs);
        const double x1 = chartX(chart.settledToMs, spanMs);
        svg << "<rect id=\"settled\" data-from-ms=\"" << num(chart.settledFromMs)
            << "\" data-to-ms=\"" << num(chart.settledToMs) << "\" x=\"" << num(x0) << "\" y=\""
            << kTop << "\" width=\"" << num(std::max(x1 - x0, 2.0)) << "\" height=\""
            << kPlotBottom - kTop << "\" fill=\"#2e9d4b\" fill-opacity=\"0.18\"/>\n";
    }

    for (double ms = 0; ms <= spanMs + 1e-6; ms += tickMs) {
        const std::string x = num(chartX(ms, spanMs));
        svg << "<line x1=\"" << x << "\" y1=\"" << kPlotBottom << "\" x2=\"" << x << "\" y2=\""
            << kPlotBottom + 5 << "\" stroke=\"#888\"/>\n"
            << "<text x=\"" << x << "\" y=\"" << kPlotBottom + 18
            << "\" class=\"axis\" text-anchor=\"middle\">" << static_cast<long>(ms) << "</text>\n";
    }
    svg << "<text x=\"" << kLeft + kPlotWidth / 2 << "\" y=\"" << kPlotBottom + 38
        << "\" class=\"label\" text-anchor=\"middle\">ms after the launch start</text>\n";

    if (chart.settledFromMs >= 0) {
        svg << "<text x=\"" << num(chartX(chart.settledFromMs, spanMs) - 4) << "\" y=\"" << kTop - 6
            << "\" class=\"mark\" fill=\"#2e7d3b\" text-anchor=\"end\">app settled"
            << "</text>\n";
    }
    if (chart.endPointMs >= 0) {
        const std::string x = num(chartX(chart.endPointMs, spanMs));
        svg << "<line id=\"end-point\" data-ms=\"" << num(chart.endPointMs) << "\" x1=\"" << x
            << "\" y1=\"" << kTop - 4 << "\" x2=\"" << x << "\" y2=\"" << kPlotBottom
            << "\" stroke=\"#c62828\" stroke-width=\"2\" stroke-dasharray=\"6 4\"/>\n"
            << "<text x=\"" << num(chartX(chart.endPointMs, spanMs) + 4) << "\" y=\"" << kTop - 6
            << "\" class=\"mark\" fill=\"#c62828\">end point "
            << static_cast<long>(chart.endPointMs) << " ms</text>\n";
    }
    svg << "</svg>\n";
    return svg.str();
}

}  // namespace meterctl

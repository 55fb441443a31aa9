// Reading back the launch feature file the launch meter appends to: one block per analysis pass
// (the three series, their intermediates and the pass's results) and one-line notes between
// blocks, such as an aborted launch's.
#pragma once

#include <array>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace meterctl {

struct ExportBlock {
    int firstLine = 0;  // of its header, counted from 1
    int lastLine = 0;
    // The series as the pass saw them. A column prints 0 past its series' end, so a series'
    // length is taken from its age column: every sample has an age and no age is 0.
    std::vector<int> vmRss;
    std::vector<int> oomScore;
    std::vector<int> fdCount;
    // What the pass recorded: the series' end points, their representative values, and the
    // concluded end point when there was one.
    std::optional<std::array<int, 3>> endPoints;
    std::optional<std::array<int, 3>> youngest;
    std::optional<int> final;
};

struct ExportNote {
    int line;
    std::string text;
};

struct LaunchExport {
    std::vector<ExportBlock> blocks;
    std::vector<ExportNote> notes;
};

// A fault in the file, with the line it was found on (counted from 1).
class ExportError : public std::runtime_error {
  public:
    ExportError(int line, const std::string& what)
        : std::runtime_error("line " + std::to_string(line) + ": " + what), mLine(line) {}
    int line() const { return mLine; }

  private:
    int mLine;
};

// Throws ExportError for text that is not what the export writes.
LaunchExport parseLaunchExport(std::istream& in);

}  // namespace meterctl

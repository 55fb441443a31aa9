#include "LaunchExport.h"

#include <algorithm>
#include <charconv>

namespace meterctl {

namespace {

// The columns of a block's rows, in the order the export writes them.
constexpr int kColumns = 10;
const char* const kColumnNames[kColumns] = {
    "FD",         "OOM",       "VMRSS",       "VmRssAge",       "OOMScroeAge",
    "FDCountAge", "mAgeTable", "mVmRssTop12", "mOOMScroeTop12", "mFDCountTop12"};
constexpr int kFd = 0, kOom = 1, kVmRss = 2, kVmRssAge = 3, kOomAge = 4, kFdAge = 5, kAgeTable = 6;

// Labels compared without their blanks: the export puts blanks after some commas only.
constexpr char kHeader[] =
    "FD,OOM,VMRSS,VmRssAge,OOMScroeAge,FDCountAge,mAgeTable,mVmRssTop12,mOOMScroeTop12,"
    "mFDCountTop12";
constexpr char kEndPointsLabel[] = "mVmRssEp,mOOMScroeEp,mFDCountEp";
constexpr char kYoungestLabel[] = "mVmRssYoungest,mOOMScroeYoungest,mFDCountYoungest";
constexpr char kFinalLabel[] = "Final:";

std::string trim(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos)
        return "";
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

std::string withoutBlanks(std::string text) {
    text.erase(std::remove_if(text.begin(), text.end(),
                              [](char c) { return c == ' ' || c == '\t' || c == '\r'; }),
               text.end());
    return text;
}

// The cells between commas, trimmed; the empty cell after a row's final ", " is dropped.
std::vector<std::string> cells(const std::string& line) {
    std::vector<std::string> out;
    size_t begin = 0;
    for (;;) {
        const size_t comma = line.find(',', begin);
        out.push_back(trim(line.substr(begin, comma - begin)));
        if (comma == std::string::npos)
            break;
        begin = comma + 1;
    }
    if (out.size() > 1 && out.back().empty())
        out.pop_back();
    return out;
}

template <class T>
T number(const std::string& cell, int line, const std::string& what) {
    T value{};
    const auto [end, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), value);
    if (cell.empty() || ec != std::errc() || end != cell.data() + cell.size())
        throw ExportError(line, what + " is not a number: '" + cell + "'");
    return value;
}

std::array<int, 3> threeNumbers(const std::string& text, int line, const std::string& what) {
    const std::vector<std::string> parts = cells(text);
    if (parts.size() != 3)
        throw ExportError(line, what + ": expected three numbers, found '" + text + "'");
    return {number<int>(parts[0], line, what), number<int>(parts[1], line, what),
            number<int>(parts[2], line, what)};
}

struct Row {
    int line;
    double cell[kColumns];
};

// One series from its column, as long as its age column says.
std::vector<int> series(const std::vector<Row>& rows, int column, int ageColumn) {
    size_t length = 0;
    while (length < rows.size() && rows[length].cell[ageColumn] > 0)
        ++length;
    std::vector<int> values;
    for (size_t i = 0; i < rows.size(); ++i) {
        const Row& row = rows[i];
        if (i < length) {
            values.push_back(static_cast<int>(row.cell[column]));
        } else if (row.cell[ageColumn] != 0) {
            throw ExportError(row.line, std::string(kColumnNames[ageColumn]) +
                                            " goes on after a 0: a series has no gaps");
        } else if (row.cell[column] != 0) {
            throw ExportError(row.line,
                              std::string(kColumnNames[column]) + " holds " +
                                  std::to_string(static_cast<long long>(row.cell[column])) +
                                  " past the end its " + kColumnNames[ageColumn] + " column gives");
        }
    }
    return values;
}

class Parser {
  public:
    LaunchExport parse(std::istream& in) {
        std::string raw;
        for (int line = 1; std::getline(in, raw); ++line)
            take(line, trim(raw));
        if (mExpect != Expect::kNothing)
            throw ExportError(mLastLine, "the file ends before the values of its last label");
        finishRows();
        return std::move(mExport);
    }

  private:
    enum class Expect { kNothing, kEndPoints, kYoungest };

    void take(int line, const std::string& text) {
        if (text.empty())
            return;
        mLastLine = line;
        const std::string compact = withoutBlanks(text);
        if (mExpect != Expect::kNothing) {
            const bool endPoints = mExpect == Expect::kEndPoints;
            (endPoints ? block().endPoints : block().youngest) =
                threeNumbers(text, line, endPoints ? "the end points" : "the youngest values");
            block().lastLine = line;
            mExpect = Expect::kNothing;
        } else if (compact.rfind("FD,", 0) == 0) {
            if (compact != kHeader)
                throw ExportError(line, "not the columns of a launch block: '" + text + "'");
            finishRows();
            mExport.blocks.push_back(ExportBlock{});
            block().firstLine = block().lastLine = line;
            mInRows = true;
        } else if (compact == kEndPointsLabel || compact == kYoungestLabel) {
            if (mExport.blocks.empty())
                throw ExportError(line, "'" + text + "' before any block");
            finishRows();
            mExpect = compact == kEndPointsLabel ? Expect::kEndPoints : Expect::kYoungest;
        } else if (compact.rfind(kFinalLabel, 0) == 0 && !mExport.blocks.empty()) {
            finishRows();
            block().final =
                number<int>(compact.substr(sizeof(kFinalLabel) - 1), line, "the final end point");
            block().lastLine = line;
        } else if (mInRows) {
            addRow(line, text);
        } else {
            mExport.notes.push_back({line, text});
        }
    }

    void addRow(int line, const std::string& text) {
        const std::vector<std::string> row = cells(text);
        if (row.size() != kColumns)
            throw ExportError(line, "a row has " + std::to_string(kColumns) + " cells, this one " +
                                        std::to_string(row.size()));
        Row parsed{line, {}};
        for (int c = 0; c < kColumns; ++c) {
            const bool age = c >= kVmRssAge && c <= kAgeTable;
            parsed.cell[c] = age ? number<double>(row[c], line, kColumnNames[c])
                                 : number<int>(row[c], line, kColumnNames[c]);
        }
        mRows.push_back(parsed);
        block().lastLine = line;
    }

    void finishRows() {
        if (!mInRows)
            return;
        mInRows = false;
        if (mRows.empty())
            throw ExportError(block().firstLine, "a block without rows");
        block().vmRss = series(mRows, kVmRss, kVmRssAge);
        block().oomScore = series(mRows, kOom, kOomAge);
        block().fdCount = series(mRows, kFd, kFdAge);
        mRows.clear();
    }

    ExportBlock& block() { return mExport.blocks.back(); }

    LaunchExport mExport;
    std::vector<Row> mRows;
    bool mInRows = false;
    Expect mExpect = Expect::kNothing;
    int mLastLine = 0;
};

}  // namespace

LaunchExport parseLaunchExport(std::istream& in) {
    return Parser().parse(in);
}

}  // namespace meterctl

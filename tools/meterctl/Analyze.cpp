// meterctl analyze: the launch end-point analysis rerun on the series a device exported, so a
// launch captured there can be studied and reproduced here.
#include <fstream>
#include <iomanip>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "LLFeaturesList.h"
#include "LaunchExport.h"

namespace meterctl {

namespace {

// The launch meter's windows (consecutive close samples a series needs) and sampling period.
constexpr int kGameWindow = 10;
constexpr int kOtherWindow = 5;
constexpr int kSamplePeriodMs = 30;

const char kFooter[] =
    R"(FILE is the launch feature file the launch meter appends to when the property
debug.vendor.tarn.enable.zq_csv_dump is set (data/vendor/zq/<package>.csv): one block per
analysis pass. The series of the chosen block are analysed as the launch meter analyses them:
window 10 for a game, 5 otherwise; the classification is not in the file, so give it with
--game and --app-class. A game is analysed every 167 samples, one block per pass, and its end
point is concluded over several passes: --passes K replays the K blocks ending at the chosen
one as the passes of one launch.

Prints each series' sample count, representative value and end point (with what the file
recorded for the block), and the launch's end point in samples (30 ms each). --json prints
one object instead.

Exit status: 0 when analysed, 100 and above for a malformed command line or file.)";

struct AnalyzeOptions {
    std::string file;
    int block = 0;  // counted from 1; 0: the last
    int passes = 1;
    bool game = false;
    int appClass = 0;
    bool json = false;
};

struct SeriesResult {
    const char* name;
    size_t samples;
    int representative;
    int endPoint;
    std::optional<int> recorded;
};

struct Analysis {
    std::vector<Resolution> passes;
    std::vector<SeriesResult> series;
    bool concluded;
    int endPoint;
    int concludedAtPass;  // counted from 1; 0 when not concluded
};

Analysis analyse(const LaunchExport& file, size_t last, const AnalyzeOptions& o) {
    LLFeaturesList list;
    list.mIsGame = o.game ? 1 : 0;
    list.mAppClass = o.appClass;
    const int window = o.game ? kGameWindow : kOtherWindow;
    Analysis a{};
    const size_t first = last + 1 - static_cast<size_t>(o.passes);
    for (size_t b = first; b <= last; ++b) {
        const ExportBlock& block = file.blocks[b];
        // Each pass sees the whole series gathered so far, which the block holds.
        list.mVmRss.clear();
        list.mOOMScroe.clear();
        {
            std::lock_guard<std::mutex> lock(list.mListMutex);
            list.mFDCount.clear();
        }
        for (int v : block.vmRss)
            list.insertVmRss(v);
        for (int v : block.oomScore)
            list.insertOMMScroe(v);
        for (int v : block.fdCount)
            list.insertFDCount(v);
        std::lock_guard<std::mutex> lock(list.mListMutex);
        list.churnForStablizingPoints(0, window);
        if (list.mEpDone.load() && a.concludedAtPass == 0)
            a.concludedAtPass = static_cast<int>(b - first + 1);
        // As between a game's passes; the last pass keeps its intermediates.
        if (b != last)
            list.clearIntermediates();
    }
    a.passes = list.mResolutions;
    const ExportBlock& block = file.blocks[last];
    auto recorded = [&block](int i) -> std::optional<int> {
        return block.endPoints ? std::optional<int>((*block.endPoints)[i]) : std::nullopt;
    };
    a.series = {
        {"VmRSS", block.vmRss.size(), list.mVmRssYoungest, list.mVmRssEp, recorded(0)},
        {"OOM", block.oomScore.size(), list.mOOMScroeYoungest, list.mOOMScroeEp, recorded(1)},
        {"FD", block.fdCount.size(), list.mFDCountYoungest, list.mFDCountEp, recorded(2)}};
    a.concluded = list.mEpDone.load();
    a.endPoint = list.mEp;
    return a;
}

std::string orDash(const std::optional<int>& value) {
    return value ? std::to_string(*value) : "-";
}

void printTable(std::ostream& out, const LaunchExport& file, size_t last, const Analysis& a,
                const AnalyzeOptions& o) {
    const ExportBlock& block = file.blocks[last];
    out << o.file << ": block " << last + 1 << " of " << file.blocks.size() << " (lines "
        << block.firstLine << "-" << block.lastLine << "); " << (o.game ? "a game" : "not a game")
        << ", app class " << o.appClass << "; window " << (o.game ? kGameWindow : kOtherWindow)
        << "; " << o.passes << (o.passes == 1 ? " pass" : " passes") << "\n";
    if (o.passes > 1) {
        out << "pass  block  VmRSS    OOM     FD\n";
        for (size_t p = 0; p < a.passes.size(); ++p) {
            out << std::setw(4) << p + 1 << std::setw(7) << last + 2 - o.passes + p << std::setw(7)
                << a.passes[p].vmRssEp << std::setw(7) << a.passes[p].oomScoreEp << std::setw(7)
                << a.passes[p].fdCountEp << "\n";
        }
    }
    out << "series  samples  representative  end point  recorded\n";
    for (const SeriesResult& s : a.series) {
        out << std::left << std::setw(6) << s.name << std::right << std::setw(9) << s.samples
            << std::setw(16) << s.representative << std::setw(11) << s.endPoint << std::setw(10)
            << orDash(s.recorded) << "\n";
    }
    if (a.concluded) {
        out << "end point: " << a.endPoint << " samples (" << a.endPoint * kSamplePeriodMs
            << " ms of sampling)";
        if (o.passes > 1)
            out << ", concluded at pass " << a.concludedAtPass;
    } else {
        out << "end point: not concluded";
        if (o.game && o.passes == 1)
            out << " (a game's is concluded over several passes: --passes)";
    }
    out << "; recorded: " << (block.final ? std::to_string(*block.final) : "none") << "\n";
    const int nextBlockLine =
        last + 1 < file.blocks.size() ? file.blocks[last + 1].firstLine : INT32_MAX;
    for (const ExportNote& note : file.notes) {
        if (note.line > block.lastLine && note.line < nextBlockLine)
            out << "note (line " << note.line << "): " << note.text << "\n";
    }
}

void printJson(std::ostream& out, const LaunchExport& file, size_t last, const Analysis& a,
               const AnalyzeOptions& o) {
    using nlohmann::ordered_json;
    const ExportBlock& block = file.blocks[last];
    ordered_json j = {{"file", o.file},
                      {"block", last + 1},
                      {"blocks", file.blocks.size()},
                      {"lines", {block.firstLine, block.lastLine}},
                      {"game", o.game},
                      {"appClass", o.appClass},
                      {"window", o.game ? kGameWindow : kOtherWindow}};
    j["passes"] = ordered_json::array();
    for (const Resolution& r : a.passes)
        j["passes"].push_back({{"VmRSS", r.vmRssEp}, {"OOM", r.oomScoreEp}, {"FD", r.fdCountEp}});
    j["series"] = ordered_json::object();
    for (const SeriesResult& s : a.series) {
        j["series"][s.name] = {{"samples", s.samples},
                               {"representative", s.representative},
                               {"endPoint", s.endPoint},
                               {"recorded", s.recorded ? ordered_json(*s.recorded) : nullptr}};
    }
    j["concluded"] = a.concluded;
    j["endPoint"] = a.concluded ? ordered_json(a.endPoint) : nullptr;
    j["endPointMs"] = a.concluded ? ordered_json(a.endPoint * kSamplePeriodMs) : nullptr;
    j["recordedFinal"] = block.final ? ordered_json(*block.final) : nullptr;
    out << j.dump() << "\n";
}

void analyzeFile(const AnalyzeOptions& o, Output& io) {
    std::ifstream in(o.file);
    LaunchExport file;
    try {
        file = parseLaunchExport(in);
    } catch (const ExportError& e) {
        throw CLI::ValidationError("FILE", o.file + ": " + e.what());
    }
    if (file.blocks.empty())
        throw CLI::ValidationError("FILE", o.file + ": no launch block in it");
    const size_t count = file.blocks.size();
    if (o.block > static_cast<int>(count))
        throw CLI::ValidationError("--block", o.file + " has " + std::to_string(count) +
                                                  (count == 1 ? " block" : " blocks"));
    const size_t last = o.block == 0 ? count - 1 : static_cast<size_t>(o.block) - 1;
    if (static_cast<size_t>(o.passes) > last + 1)
        throw CLI::ValidationError("--passes", std::to_string(o.passes) + " passes end at block " +
                                                   std::to_string(last + 1) + ", which has only " +
                                                   std::to_string(last) + " blocks before it");
    const Analysis a = analyse(file, last, o);
    if (o.json) {
        printJson(io.out, file, last, a, o);
    } else {
        printTable(io.out, file, last, a, o);
    }
}

}  // namespace

void addAnalyzeCommand(CLI::App& app, Output& io) {
    CLI::App* cmd = app.add_subcommand(
        "analyze", "Reruns the launch end-point analysis on a launch feature file.");
    auto o = std::make_shared<AnalyzeOptions>();
    cmd->add_option("FILE", o->file, "The launch feature file (a .csv)")
        ->required()
        ->check(CLI::ExistingFile.description(""));
    cmd->add_option("--block", o->block, "The block to analyse, from 1 (default: the last)")
        ->type_name("N")
        ->check(CLI::Range(1, INT32_MAX).description(""));
    cmd->add_option("--passes", o->passes, "Replay the K blocks ending at it as passes (default 1)")
        ->type_name("K")
        ->check(CLI::Range(1, INT32_MAX).description(""));
    cmd->add_flag("--game", o->game, "The launch was a game's (window 10)");
    cmd->add_option("--app-class", o->appClass,
                    "The classifier's app class (selector 1; default 0)")
        ->type_name("N");
    cmd->add_flag("--json", o->json, "One JSON object instead of a table");
    cmd->footer(kFooter);
    cmd->callback([o, &io] { analyzeFile(*o, io); });
}

}  // namespace meterctl

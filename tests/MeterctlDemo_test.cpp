// meterctl demo end to end on a quickened schedule: a real synthetic app on a simulated device,
// measured by all nine meters, and what the demo writes and says about it.
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "CliRunner.h"
#include "Demo.h"
#include "SimDevice.h"
#include "SyntheticApp.h"
#include "TestSupport.h"

using namespace testsupport;
using nlohmann::json;
namespace fs = std::filesystem;

namespace {

const char* const kNine[] = {"Launch", "VmRss",       "Memory",       "ProComp", "Fps",
                             "Gpu",    "SchedParams", "PerfCounters", "MinDDR"};

// A folder that does not exist yet, removed afterwards.
struct OutDir {
    explicit OutDir(const std::string& name)
        : path(fs::path(testing::TempDir()) / (name + "-" + std::to_string(getpid()))) {
        fs::remove_all(path);
    }
    ~OutDir() { fs::remove_all(path); }
    fs::path path;
};

std::string readFile(const fs::path& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> demo(const OutDir& out, const std::string& package) {
    return {"demo",      "--speed", "2",         "--out",     out.path.string(),
            "--package", package,   "--app-exe", METERCTL_EXE};
}

}  // namespace

TEST(MeterctlDemo, MeasuresTheLaunchWithAllNineMetersAndFindsWhereTheAppSettled) {
    const OutDir out("demo-run");
    const std::string package = "com.example.demotest" + std::to_string(getpid());
    const CliResult run = cli(demo(out, package));
    ASSERT_EQ(run.code, 0) << run.err << run.out;

    const json summary = json::parse(readFile(out.path / "summary.json"));
    const json& launch = summary.at("launch");
    const double endPoint = launch.at("end_point_ms");
    EXPECT_GE(endPoint, launch.at("settled_from_ms").get<double>()) << summary.dump(2);
    EXPECT_LE(endPoint, launch.at("settled_to_ms").get<double>()) << summary.dump(2);
    EXPECT_EQ(launch.at("verdict"), "inside");
    EXPECT_NE(run.out.find("inside the window in which the app settled"), std::string::npos);
    ASSERT_EQ(summary.at("app").at("steps").size(), static_cast<size_t>(meterctl::kAppStepCount));

    for (const char* name : kNine) {
        SCOPED_TRACE(name);
        EXPECT_FALSE(summary.at("meters").at(name).empty());
        EXPECT_TRUE(std::regex_search(run.out, std::regex("\n" + std::string(name) + " +\\S")));
    }
    // Every meter measured something, and the readers read what the device's nodes held at the
    // end (its idle state does not move): a meter pointed at the wrong node gives 0 or -1.
    auto reading = [&](const char* meter, const std::string& label) {
        for (const json& r : summary.at("meters").at(meter)) {
            if (r.at("label") == label)
                return r.at("value").get<double>();
        }
        ADD_FAILURE() << meter << " has no reading " << label;
        return -1.0;
    };
    const meterctl::sim::DeviceState idle =
        meterctl::sim::deviceStateAt(summary.at("readers_final_ms").get<double>());
    const struct {
        const char* meter;
        const char* label;
        double expected;  // NAN: any positive value
    } figures[] = {
        {"Fps", "frames", static_cast<double>(idle.frames)},
        {"SchedParams", "cluster 0 capacity", static_cast<double>(idle.clusterCapacity[0])},
        {"SchedParams", "cluster 2 load", static_cast<double>(idle.clusterLoad[2])},
        {"PerfCounters", "instructions",
         static_cast<double>(idle.bigInstructions + idle.littleInstructions)},
        {"Gpu", "busy", NAN},
        {"MinDDR", "operating point", NAN},
        {"Launch", "launch duration", NAN},
        {"VmRss", "launch end point", NAN},
        {"Memory", "rss_swap at the end point", NAN},
        {"ProComp", "peak", NAN},
    };
    for (const auto& f : figures) {
        SCOPED_TRACE(std::string(f.meter) + " " + f.label);
        if (std::isnan(f.expected))
            EXPECT_GT(reading(f.meter, f.label), 0);
        else
            EXPECT_EQ(reading(f.meter, f.label), f.expected);
    }

    // The Launch meter's own figures agree with where the picture and the summary put the end
    // point: its duration counts from its start(), its end point in 30 ms samples after the hunt.
    EXPECT_DOUBLE_EQ(
        launch.at("sample_offset_ms").get<double>() + reading("Launch", "end point") * 30,
        endPoint);
    EXPECT_LE(reading("Launch", "launch duration"), endPoint);

    const std::string svg = readFile(out.path / "launch.svg");
    std::smatch mark;
    ASSERT_TRUE(std::regex_search(svg, mark, std::regex("id=\"end-point\" data-ms=\"([0-9.]+)\"")));
    EXPECT_NEAR(std::stod(mark[1]), endPoint, 0.05);
    for (const char* series : {"vmrss", "oom", "fd"})
        EXPECT_NE(svg.find("id=\"" + std::string(series) + "\""), std::string::npos) << series;

    // The meters' own CSV files come out of the simulated device; the launch block names the app.
    EXPECT_NE(readFile(out.path / (package + ".csv")).find("FD, OOM, VMRSS"), std::string::npos);
    EXPECT_EQ(readFile(out.path / (package + "_vmrss.csv")).rfind(package + ",", 0), 0u);
    EXPECT_TRUE(meterctl::processesNamed(package).empty());
}

TEST(MeterctlDemo, RejectsWhatItCannotRunWithAReason) {
    const OutDir busy("demo-busy");
    fs::create_directories(busy.path);
    std::ofstream(busy.path / "keep") << "x";
    const OutDir unused("demo-unused");
    const struct {
        std::vector<std::string> args;
        const char* says;
    } cases[] = {
        {{"demo", "--speed", "0"}, "--speed"},
        {{"demo", "--package", "com example"}, "may hold only letters"},
        {{"demo", "--package", ".hidden"}, "must not begin"},
        {{"demo", "--out", busy.path.string()}, "the folder is not empty"},
        {{"demo", "--out", unused.path.string(), "--app-exe", "/nonexistent/meterctl"},
         "cannot run the synthetic app"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.back());
        const CliResult r = cli(c.args);
        EXPECT_NE(r.code, 0);
        EXPECT_NE((r.err + r.out).find(c.says), std::string::npos) << r.err << r.out;
    }
    EXPECT_FALSE(fs::exists(unused.path));
}

TEST(MeterctlDemo, CtrlCStopsTheMetersEndsTheAppAndLeavesNothingBehind) {
    const OutDir out("demo-interrupted");
    const std::string package = "com.example.demostop" + std::to_string(getpid());
    struct sigaction before = {}, during = {};
    sigaction(SIGINT, nullptr, &before);
    CliResult run;
    std::thread demoThread([&] { run = cli(demo(out, package)); });
    do {  // Ctrl-C once the demo listens for it and its app runs
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        sigaction(SIGINT, nullptr, &during);
    } while (during.sa_handler == before.sa_handler || meterctl::processesNamed(package).empty());
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    raise(SIGINT);
    demoThread.join();
    EXPECT_EQ(run.code, 130) << run.err;
    EXPECT_NE(run.err.find("interrupted"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(out.path));
    EXPECT_TRUE(meterctl::processesNamed(package).empty());
}

// On a terminal the status line is redrawn in place and events are printed above it; elsewhere
// only the events appear, one plain line each.
TEST(MeterctlDemo, ProgressRedrawsOnATerminalAndPrintsPlainLinesElsewhere) {
    for (const bool terminal : {false, true}) {
        SCOPED_TRACE(terminal);
        std::ostringstream out;
        meterctl::Progress progress(out, terminal, 15000);
        progress.status(1000, "Launch running");
        progress.event(1250, "app settled");
        progress.status(2000, "Launch done");
        progress.finish();
        if (terminal) {
            EXPECT_EQ(out.str(),
                      "\r\x1b[K[  1.0/15.0 s] Launch running"
                      "\r\x1b[K   1.25 s  app settled\n\r\x1b[K[  1.0/15.0 s] Launch running"
                      "\r\x1b[K[  2.0/15.0 s] Launch done\r\x1b[K");
        } else {
            EXPECT_EQ(out.str(), "   1.25 s  app settled\n");
        }
    }
}

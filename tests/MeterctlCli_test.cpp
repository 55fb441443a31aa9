// meterctl's run, analyze and doctor, driven in process: what each rejects and how, the readings
// a fixture tree implies, the launch analysis of exported series, and the node report.
#include <csignal>
#include <nlohmann/json.hpp>
#include <sstream>

#include "CliRunner.h"
#include "MinDDRMeter.h"
#include "TestSupport.h"

using namespace testsupport;
using nlohmann::json;

namespace {

using Result = CliResult;

std::vector<json> jsonLines(const std::string& text) {
    std::vector<json> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(json::parse(line));
    return lines;
}

// label -> value of one JSON reading line
std::map<std::string, double> values(const json& line) {
    std::map<std::string, double> out;
    for (const json& r : line.at("readings"))
        out[r.at("label")] = r.at("value");
    return out;
}

constexpr char kFps[] = "/sys/class/drm/rvo-crtc-0/measured_fps";
constexpr char kPeriod[] = "/sys/class/drm/rvo-crtc-0/fps_periodicity_ms";
constexpr char kRegister[] = "/sys/module/oxa_performance/parameters/core_ctl_register";

// A block as the launch meter exports it: the series, an age for each sample (the value is of no
// account), the columns the analysis does not read as 0, and the recorded results.
std::string exportBlock(const std::vector<int>& fd, const std::vector<int>& oom,
                        const std::vector<int>& vmRss) {
    std::string text =
        "\n\n FD, OOM, VMRSS,VmRssAge,OOMScroeAge,FDCountAge,mAgeTable,mVmRssTop12,"
        "mOOMScroeTop12,mFDCountTop12";
    const size_t rows = std::max({fd.size(), oom.size(), vmRss.size(), size_t{12}});
    auto cell = [](const std::vector<int>& v, size_t i) {
        return (i < v.size() ? std::to_string(v[i]) : "0") + ", ";
    };
    auto age = [](const std::vector<int>& v, size_t i) {
        return i < v.size() ? "1.000000, " : "0, ";
    };
    for (size_t i = 0; i < rows; ++i) {
        text += "\n" + cell(fd, i) + cell(oom, i) + cell(vmRss, i) + age(vmRss, i) + age(oom, i) +
                age(fd, i) + (i < 12 ? "0.500000, " : "0, ") + "0, 0, 0, ";
    }
    return text +
           "\nmVmRssEp, mOOMScroeEp, mFDCountEp\n0, 0, 0\n\nmVmRssYoungest, mOOMScroeYoungest, "
           "mFDCountYoungest\n0, 0, 0\n";
}

// OOM settles at 200 after a dip of 6 samples and one of 300: a window of 5 ends on the dip,
// one of 10 only after the 300.
std::string windowBlock() {
    std::vector<int> oom(8, 900);
    oom.insert(oom.end(), 6, 200);
    oom.push_back(300);
    oom.insert(oom.end(), 25, 200);
    return exportBlock({}, oom, std::vector<int>(40, 180000));
}

std::string repeat(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i)
        out += text;
    return out;
}

}  // namespace

// Each malformed command line names what is wrong, exits with CLI11's code for it, and prints
// nothing on the output.
TEST(MeterctlCliInput, MalformedCommandLinesSayWhatAndExitNonZero) {
    FixtureRoot root;
    const std::string data = std::string(METERS_TEST_DATA) + "/launch_export.csv";
    // clang-format off
    const std::tuple<std::vector<std::string>, int, std::string> cases[] = {
        {{"run"}, 105, "NAME: give a meter name, or an --info file with \"name\""},
        {{"run", "Fpx"}, 105, "NAME: unknown meter 'Fpx'; known meters: Fps, Gpu, Launch, Memory, "
                              "MinDDR, PerfCounters, ProComp, SchedParams, VmRss"},
        {{"run", "Fps", "--event", "0x10zz"}, 105, "--event: hint id '0x10zz' is not a whole number"},
        {{"run", "Fps", "--event", "-1"}, 105, "--event: hint id -1 is out of range"},
        {{"run", "Fps", "--event", "1,x"}, 105, "--event: hint type 'x' is not a whole number"},
        {{"run", "Fps", "--event", "1,0,a,1:2:3:4:5:6:7:8:9:10:11:12"}, 105,
         "--event: at most 11 intArgs, not 12"},
        {{"run", "Fps", "--event", "1,0,a,1::3"}, 105, "--event: intArg '' is not a whole number"},
        {{"run", "Fps", "--event", "1,0,a,,,6"}, 105, "has more than five fields"},
        {{"run", "Fps", "--event", "1@soon"}, 105, "--event: delivery time 'soon' is not a whole"},
        {{"run", "Fps", "--config", "FPS_NODE"}, 105, "--config: 'FPS_NODE' is not KEY=VALUE"},
        {{"run", "Fps", "--prop", "=1"}, 105, "--prop: '=1' is not KEY=VALUE"},
        {{"run", "Fps", "--prop", "a.b=" + std::string(92, 'x')}, 105,
         "--prop: property a.b cannot be set"},
        {{"run", "Fps", "--count", "-1"}, 105, "--count: Value -1 not in range 0 to 2147483647"},
        {{"run", "Fps", "--interval", "0"}, 105, "--interval: Value 0 not in range 1 to 3600000"},
        {{"run", "Fps", "--samples", "x"}, 104, "Could not convert: --samples = x"},
        {{"run", "Fps", "--root", "/no/such/dir"}, 105, "--root: Directory does not exist"},
        {{"run", "Fps", "--bogus"}, 109, "The following argument was not expected: --bogus"},
        {{"analyze"}, 106, "FILE is required"},
        {{"analyze", "/no/such.csv"}, 105, "FILE: File does not exist: /no/such.csv"},
        {{"analyze", data, "--block", "2"}, 105, "--block: " + data + " has 1 block"},
        {{"analyze", data, "--passes", "2"}, 105, "--passes: 2 passes end at block 1"},
        {{"doctor", "Launch"}, 105, "METER: 'Launch' is not a reader meter"},
    };
    // clang-format on
    for (const auto& [args, code, message] : cases) {
        const Result r = cli(args);
        EXPECT_EQ(r.code, code) << args.back();
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "") << args.back();
    }
    EXPECT_EQ(root.read(kPeriod), "(none)");  // no meter was started
}

// A malformed --info file is refused before any meter is built, with the file and the member.
TEST(MeterctlCliInput, MalformedInfoFilesNameTheMember) {
    FixtureRoot root;
    // clang-format off
    const std::pair<std::string, std::string> cases[] = {
        {"{\"name\": ", "not JSON"},
        {"[1]", "the document must be an object"},
        {"{\"nmae\": \"Fps\"}", "the document has an unknown member \"nmae\""},
        {"{\"numSamples\": \"5\"}", "\"numSamples\" must be an integer"},
        {"{\"numSamples\": 3000000000}", "\"numSamples\" is out of range"},
        {"{\"configs\": {\"FPS_NODE\": 5}}", "configs.FPS_NODE must be a string"},
        {"{\"fieldNames\": \"rss_swap\"}", "\"fieldNames\" must be an array"},
        {"{\"events\": [{\"hintType\": 1}]}", "events[0] needs a \"hintId\""},
        {"{\"events\": [{\"hintId\": \"0x1g\"}]}", "events[0].hintId is not a hint id"},
        {"{\"events\": [{\"hintId\": 1, \"intArgs\": [1,2,3,4,5,6,7,8,9,10,11,12]}]}",
         "events[0].intArgs has more than eleven entries"},
        {"{\"events\": [{\"hintId\": 1, \"atMs\": -5}]}", "events[0].atMs must be a time in ms"},
        {"{\"asyncInfos\": [{\"hint\": 1}]}", "asyncInfos[0] has an unknown member \"hint\""},
        {"{\"name\": \"Gpu\"}", "NAME: 'Fps' but"},
    };
    // clang-format on
    const std::string file = root.real("/info.json");
    for (const auto& [text, message] : cases) {
        root.addFile("/info.json", text);
        const Result r = cli({"run", "Fps", "--info", file});
        EXPECT_EQ(r.code, 105) << text;
        EXPECT_NE(r.err.find(message), std::string::npos) << text << "\n" << r.err;
    }
    EXPECT_EQ(root.read(kPeriod), "(none)");
}

// A reader's readings come from the tree --root names (METERS_ROOT is put back afterwards), as a
// table and as JSON lines; --info gives the configuration, which --config overrides.
TEST(MeterctlCliRun, ReaderPrintsTheFixturesValuesAsTableAndJson) {
    FixtureRoot device;
    FixtureRoot other;  // METERS_ROOT while the test runs
    device.addFile(kFps, "fps: 59.94 frames: 30\n");
    device.addFile("/alt/fps", "fps: 24 frames: 7\n");
    other.addFile(kFps, "fps: 10 frames: 1\n");
    const std::string root = device.real("");
    const Result table = cli({"run", "Fps", "--root", root, "--count", "2", "--interval", "10"});
    EXPECT_EQ(table.code, 0) << table.err;
    std::istringstream rows(table.out);
    std::string header;
    std::getline(rows, header);
    EXPECT_EQ(header, "    t_ms  frame rate (fps)    frames");
    for (std::string row; std::getline(rows, row);)
        EXPECT_EQ(row.substr(8), "                59        30") << table.out;
    EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 3);
    EXPECT_EQ(getenv("METERS_ROOT"), other.real(""));
    EXPECT_EQ(device.read(kPeriod), "500");  // start() asked for the measuring period

    device.addFile("/info.json", R"({"name": "Fps", "configs": {"FPS_NODE": "/none"}})");
    for (const auto& [extra, fps, frames] :
         {std::tuple<std::vector<std::string>, double, double>{{}, 0, 0},
          {{"--config", "FPS_NODE=/alt/fps"}, 24, 7}}) {
        std::vector<std::string> args = {"run",     "--info", device.real("/info.json"),
                                         "--root",  root,     "--json",
                                         "--count", "1",      "--interval",
                                         "10"};
        args.insert(args.end(), extra.begin(), extra.end());
        const Result r = cli(args);
        ASSERT_EQ(r.code, 0) << r.err;
        const std::vector<json> lines = jsonLines(r.out);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].at("meter"), "Fps");
        EXPECT_EQ(lines[0].at("running"), false);
        EXPECT_EQ(values(lines[0]),
                  (std::map<std::string, double>{{"frame rate", fps}, {"frames", frames}}));
    }
}

// Events: before start() unless timed. A reader starts again after a timed event and, at the
// end, after its own stop event: SchedParams registers and withdraws; Fps closes its node.
TEST(MeterctlCliRun, ReaderEventsReachTheMeterAndItsStopEndsTheRun) {
    FixtureRoot root;
    root.addFile("/sys/module/oxa_performance/notify/aggr_top_load", "45\n");
    root.addFile(kRegister, "");
    const Result sched = cli({"run", "SchedParams", "--event", "4097", "--count", "1", "--json"});
    ASSERT_EQ(sched.code, 0) << sched.err;
    EXPECT_EQ(values(jsonLines(sched.out).at(0)).at("top-app load"), 45);
    EXPECT_EQ(root.read(kRegister), "0");  // "1" at start(), "0" after the stop
    // No trigger, no write.
    root.addFile(kRegister, "x");
    ASSERT_EQ(cli({"run", "SchedParams", "--count", "1"}).code, 0);
    EXPECT_EQ(root.read(kRegister), "x");

    root.addFile(kFps, "fps: 59.94 frames: 30\n");
    const Result fps = cli(
        {"run", "Fps", "--event", "0x1002,-1@300", "--count", "3", "--interval", "200", "--json"});
    ASSERT_EQ(fps.code, 0) << fps.err;
    const std::vector<json> lines = jsonLines(fps.out);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(values(lines.front()).at("frame rate"), 59);
    EXPECT_EQ(values(lines.back()).at("frame rate"), 0);  // stopped at 300 ms
}

// A sampling meter ends by itself; its results are read once start() returned. The scripted
// sleep steps the memory from 100000 to 210000 kB at the third sample: the change at 900 ms is
// the end point once memory stayed put for the 900 ms budget, after seven samples.
TEST(MeterctlCliRun, SamplingMeterIsReadAfterItsRunEnds) {
    FixtureRoot root;
    root.addFile("/dev/cpuset/top-app/tasks", "4242\n");
    root.addFile("/proc/4242/cmdline", std::string("com.example.app\0", 16));
    root.addFile("/proc/4242/status", statusText(100000, 0));
    int sample = 0;
    ScriptedSleep sleep([&](int, uint32_t us) {
        if (us == 300000)
            root.addFile("/proc/4242/status", statusText(++sample < 2 ? 100000 : 210000, 0));
    });
    const Result r = cli(
        {"run", "VmRss", "--samples", "50", "--event", "0x1081,0,com.example.app,900", "--json"});
    ASSERT_EQ(r.code, 0) << r.err;
    const json last = jsonLines(r.out).back();
    EXPECT_EQ(last.at("running"), false);
    EXPECT_EQ(last.at("end"), "the meter ended its run");
    EXPECT_EQ(values(last),
              (std::map<std::string, double>{{"launch end point", 900}, {"samples", 7}}));
}

// A sampling meter that never ends by itself is stopped through its own end-of-activity event,
// after --count readings or at Ctrl-C, and read once more; Ctrl-C's handler is put back.
TEST(MeterctlCliRun, CountAndCtrlCStopASamplingMeterCleanly) {
    ScopedStats stats([](int) { return makeStats(0, 0, 777); });
    const Result counted =
        cli({"run", "ProComp", "--event", "0x1001,0,,4242", "--count", "2", "--interval", "20"});
    ASSERT_EQ(counted.code, 0) << counted.err;
    std::istringstream in(counted.out);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 6u) << counted.out;  // header, two rows, the end, header, last row
    EXPECT_EQ(lines[0], "    t_ms");
    EXPECT_EQ(lines[3].rfind("# stopped after 2 readings after ", 0), 0u);
    EXPECT_EQ(lines[4], "    t_ms  peak (kB)");
    EXPECT_EQ(lines[5].substr(8), "        777");

    struct sigaction before = {}, during = {}, after = {};
    sigaction(SIGINT, nullptr, &before);
    Result interrupted;
    std::thread run([&] {
        interrupted = cli({"run", "ProComp", "--event", "0x1001,0,,4242", "--json"});
    });
    do {  // Ctrl-C once the run listens for it
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        sigaction(SIGINT, nullptr, &during);
    } while (during.sa_handler == before.sa_handler);
    raise(SIGINT);
    run.join();
    ASSERT_EQ(interrupted.code, 0) << interrupted.err;
    const json last = jsonLines(interrupted.out).back();
    EXPECT_EQ(last.at("end"), "stopped by Ctrl-C");
    EXPECT_EQ(values(last), (std::map<std::string, double>{{"peak", 777}}));
    sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}

// The device's export analysed again: per-series end points and the launch's. A game takes a
// window of 10 and concludes only over passes (three stable pairs for app class 0, four for
// others); a non-game concludes from one.
TEST(MeterctlCliAnalyze, ReproducesTheEndPointsOfExportedSeries) {
    FixtureRoot root;
    const std::string device = testData("launch_export.csv");
    root.addFile("/window.csv", windowBlock());
    root.addFile("/four.csv", repeat(device, 4));
    root.addFile("/five.csv", repeat(device, 5));
    root.addFile("/two.csv", windowBlock() + device);
    const std::string data = std::string(METERS_TEST_DATA) + "/launch_export.csv";
    using Ends = std::array<int, 3>;  // VmRSS, OOM, FD
    // clang-format off
    const std::tuple<std::vector<std::string>, Ends, json> cases[] = {
        {{data}, {0, 14, 0}, 14},
        {{data, "--game"}, {0, 14, 0}, nullptr},
        {{root.real("/window.csv")}, {0, 8, 0}, 8},
        {{root.real("/window.csv"), "--game"}, {0, 15, 0}, nullptr},
        {{root.real("/four.csv"), "--game", "--passes", "3"}, {0, 14, 0}, nullptr},
        {{root.real("/four.csv"), "--game", "--passes", "4"}, {0, 14, 0}, 14},
        {{root.real("/four.csv"), "--game", "--app-class", "1", "--passes", "4"}, {0, 14, 0},
         nullptr},
        {{root.real("/five.csv"), "--game", "--app-class", "1", "--passes", "5"}, {0, 14, 0}, 14},
        {{root.real("/two.csv")}, {0, 14, 0}, 14},
        {{root.real("/two.csv"), "--block", "1"}, {0, 8, 0}, 8},
    };
    // clang-format on
    for (const auto& [options, ends, endPoint] : cases) {
        std::vector<std::string> args = {"analyze", "--json"};
        args.insert(args.end(), options.begin(), options.end());
        const Result r = cli(args);
        ASSERT_EQ(r.code, 0) << r.err;
        const json j = json::parse(r.out);
        const json& s = j.at("series");
        EXPECT_EQ((Ends{s.at("VmRSS").at("endPoint"), s.at("OOM").at("endPoint"),
                        s.at("FD").at("endPoint")}),
                  ends)
            << r.out;
        EXPECT_EQ(j.at("endPoint"), endPoint) << r.out;
    }
    const Result table = cli({"analyze", data});
    EXPECT_EQ(table.out, data +
                             ": block 1 of 1 (lines 3-50); not a game, app class 0; window 5; "
                             "1 pass\n"
                             "series  samples  representative  end point  recorded\n"
                             "VmRSS        35          180000          0         0\n"
                             "OOM          40             200         14        14\n"
                             "FD            0               0          0         0\n"
                             "end point: 14 samples (420 ms of sampling); recorded: 14\n"
                             "note (line 52): Aborted Before analysis 0\n");
}

// A file that is not an export is refused with the line and what is wrong there.
TEST(MeterctlCliAnalyze, MalformedExportsNameTheLine) {
    FixtureRoot root;
    const std::string header =
        "\n\n FD, OOM, VMRSS,VmRssAge,OOMScroeAge,FDCountAge,mAgeTable,mVmRssTop12,"
        "mOOMScroeTop12,mFDCountTop12\n";
    // clang-format off
    const std::pair<std::string, std::string> cases[] = {
        {"", "no launch block in it"},
        {"Aborted Before analysis 0\n", "no launch block in it"},
        {"\n\n FD, OOM, VMRSS\n", "line 3: not the columns of a launch block"},
        {header, "line 3: a block without rows"},
        {header + "1, 2, 3, 1, 1, 1, 1, 0, 0, \n", "line 4: a row has 10 cells, this one 9"},
        {header + "1, x, 3, 1, 1, 1, 1, 0, 0, 0, \n", "line 4: OOM is not a number: 'x'"},
        {header + "1, 2, 3, 1, 1, 1, 1, 0, 0, 0, \n0, 0, 5, 0, 0, 0, 1, 0, 0, 0, \n",
         "line 5: VMRSS holds 5 past the end its VmRssAge column gives"},
        {header + "1, 0, 3, 1, 0, 1, 1, 0, 0, 0, \n0, 0, 0, 0, 1, 0, 1, 0, 0, 0, \n",
         "line 5: OOMScroeAge goes on after a 0"},
        {header + "1, 2, 3, 1, 1, 1, 1, 0, 0, 0, \nmVmRssEp, mOOMScroeEp, mFDCountEp\n",
         "the file ends before the values of its last label"},
        {header + "1, 2, 3, 1, 1, 1, 1, 0, 0, 0, \nmVmRssEp, mOOMScroeEp, mFDCountEp\n1, 2\n",
         "line 6: the end points: expected three numbers"},
    };
    // clang-format on
    for (const auto& [text, message] : cases) {
        root.addFile("/bad.csv", text);
        const Result r = cli({"analyze", root.real("/bad.csv")});
        EXPECT_EQ(r.code, 105) << text;
        EXPECT_NE(r.err.find(message), std::string::npos) << text << "\n" << r.err;
    }
}

// Each node read once through its meter: ok, missing (with the meter's neutral value and log
// lines), malformed (with the form expected). Nothing is written and no thread is left.
TEST(MeterctlCliDoctor, ReportsEveryNodeWithoutWriting) {
    FixtureRoot root;
    root.addFile(kFps, "fps: 59.94 frames: 30\n");
    root.addFile(kPeriod, "x");
    root.addFile("/sys/class/tesk/tesk-3d0/gpu_available_frequencies", "100 200 300\n");
    root.addFile("/sys/class/tesk/tesk-3d0/gpu_clock_stats", "5 6 7\n");
    root.addFile("/sys/class/tesk/tesk-3d0/max_gpuclk", "abc\n");
    root.addFile("/sys/module/oxa_performance/notify/aggr_top_load", "45\n");
    root.addFile("/sys/module/oxa_performance/notify/top_load_cluster", "45 12\n");
    root.addFile("/sys/module/oxa_performance/notify/curr_cap_cluster", "1 2 3\n");
    root.addFile("/perf", "10:2:30:4\n");
    root.addFile("/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies", "2000 3000\n");
    root.addFile("/sys/class/devfreq/soc:vedra,memlat-cpu0/cur_freq", "2000\n");
    root.addFile("/sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq", "x1\n");
    const Result r = cli({"doctor", "--perf-node", "/perf", "--json"});
    EXPECT_EQ(r.code, 1);
    using Node = std::tuple<std::string, std::string, std::vector<std::string>>;
    const std::string busy = "/sys/class/tesk/tesk-3d0/gpu_busy_percentage";
    // clang-format off
    const std::map<std::string, Node> expected = {
        {"FPS_NODE", {"ok", "frame rate 59.00 fps, frame count 30", {}}},
        {"FPS_PERIODICITY_NODE", {"ok", "not written", {}}},
        {"GPU_AVAILABLE_FREQUENCIES", {"ok", "3 frequencies, 100 to 300", {}}},
        {"GPU_CLOCK_STATS", {"ok", "3 levels' statistics", {}}},
        {"GPU_BUSY_PERCENTAGE", {"missing", "busy 0.00 % (0.00 when it cannot read)",
            {"GpuMeter: start() 94: Failed to open gpu file " + busy + " Error No such file or "
             "directory", "GpuMeter: getBusyPercentage() 285: File Handle is closed(not "
             "available) " + busy}}},
        {"GPU_MAX_CLK", {"malformed", "max clock 0 (-1 when it cannot read)", {}}},
        {"SCHEDPARAMS_AGGR_TOP_LOAD_PATH", {"ok", "top-app load 45", {}}},
        {"SCHEDPARAMS_BIG_NR_RUN_PATH", {"missing", "big run queue -1 (-1 when it cannot read)",
            {"SchedParamsMeter: readValue() N: Failed to open file"}}},
        {"SCHEDPARAMS_CLUSTER_TOP_LOAD_PATH", {"malformed", "cluster loads 45 12 0 (entries it "
            "cannot read keep their last value, here 0)", {}}},
        {"SCHEDPARAMS_CLUSTER_CURR_CAP_PATH", {"ok", "cluster capacities 1 2 3", {}}},
        {"SCHEDPARAMS_REGISTER_SCHED_TRIGGERS", {"missing", "not written", {}}},
        {"data store key 5", {"ok", "IPC 2, instructions 40, first counter's share 25 %", {}}},
        {"MEMLAT_AVAIL_FREQ_LITTLE_PATH", {"ok", "2 frequencies, 2000 to 3000", {}}},
        {"MEMLAT_FREQ_VOTE_LITTLE_PATH", {"ok", "vote 2000", {}}},
        {"MEMLAT_FREQ_VOTE_BIG_PATH", {"malformed", "the reading throws (stoi): on the sampling "
            "thread that ends the process", {}}},
    };
    // clang-format on
    std::map<std::string, Node> actual;
    const json report = json::parse(r.out);
    for (const json& node : report.at("nodes")) {
        const std::string key = node.at("key");
        const std::vector<std::string> expectedLog =
            expected.count(key) ? std::get<2>(expected.at(key)) : std::vector<std::string>{};
        actual[key] = {node.at("status"), node.at("value"),
                       maskedLike(node.at("log").get<std::vector<std::string>>(), expectedLog)};
    }
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(root.read(kPeriod), "x");
    EXPECT_EQ(root.read(kRegister), "(none)");
    EXPECT_EQ(AuxMinDDRMeter::mInstance, nullptr);
}

// The text report, its exit status, and the two ways a node can be without a path or a meter.
TEST(MeterctlCliDoctor, ExitsZeroOnlyWhenEveryNodeIsOk) {
    FixtureRoot root;
    root.addFile(kFps, "fps: 60 frames: 1\n");
    root.addFile(kPeriod, "500");
    const Result fps = cli({"doctor", "Fps"});
    EXPECT_EQ(fps.code, 0) << fps.err;
    EXPECT_EQ(fps.out,
              "Fps\n"
              "  ok          FPS_NODE  /sys/class/drm/rvo-crtc-0/measured_fps\n"
              "      text:  fps: 60 frames: 1\n"
              "      meter: frame rate 60.00 fps, frame count 1\n"
              "  ok          FPS_PERIODICITY_NODE  /sys/class/drm/rvo-crtc-0/fps_periodicity_ms\n"
              "      text:  500\n"
              "      meter: not written\n"
              "      note:  start() writes 500 here before it opens FPS_NODE; doctor does not "
              "write\n"
              "2 nodes: 2 ok\n");

    root.addFile("/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies", "100 x\n");
    const Result r = cli({"doctor", "PerfCounters", "MinDDR", "--json"});
    EXPECT_EQ(r.code, 1);
    const json nodes = json::parse(r.out).at("nodes");
    ASSERT_EQ(nodes.size(), 4u);
    EXPECT_EQ(nodes[0].at("status"), "unset");
    EXPECT_EQ(nodes[0].at("note"), "the data store holds no path under key 5: give --perf-node");
    EXPECT_EQ(nodes[1].at("status"), "malformed");
    EXPECT_EQ(nodes[1].at("value"), "its constructor throws (stoi) on this list");
    EXPECT_EQ(nodes[2].at("value"), "not read: the MinDDR meter cannot be built");
}

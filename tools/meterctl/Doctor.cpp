// meterctl doctor: every node of the reader meters read once through the meter itself, with what
// was on disk, what the meter made of it and the log lines it wrote instead. What an engineer
// runs first when bringing the meters up on a new device. Nothing is written: the nodes that
// start() or a trigger would write are only looked at.
#include <log/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <iomanip>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "Commands.h"
#include "FpsMeter.h"
#include "GpuMeter.h"
#include "HostSetup.h"
#include "MeterCatalog.h"
#include "MinDDRMeter.h"
#include "NodeStream.h"
#include "PerfCountersMeter.h"
#include "SchedParamsMeter.h"
#include "seams.h"

namespace meterctl {

namespace {

const char* const kReaderMeters[] = {"Fps", "Gpu", "SchedParams", "PerfCounters", "MinDDR"};
constexpr size_t kTextShown = 120;  // of a node's first line

const char kFooter[] =
    R"(For each node of the reader meters (all five, or those named): whether it is present and
readable, its first line, what the meter made of it (through its own getter, read once) and
the log lines the meter wrote instead. A status other than ok says why:
  missing      no such file under the root         not a file   a directory or the like
  unreadable   it cannot be opened                 empty        its first line is empty
  malformed    the text is not in the node's form  failed       the meter logged a failure
  unset        no path is configured               not writable (a node the meter writes)
Fps's period node and SchedParams' registration node are written by start() and by triggers;
doctor only says whether they could be. MinDDR's sampling thread is not started: its nodes are
read once on this thread. PerfCounters' node path is the data store's (key 5): --perf-node.

Exit status: 0 when every node is ok, 1 when one is not, 100 and above for a malformed
command line.)";

struct DoctorOptions {
    std::vector<std::string> meters;
    std::string root;
    std::vector<std::string> configs;
    std::string perfNode;
    bool json = false;
};

// The library's log lines while alive, taken for the report instead of going to stderr.
class LogSink {
  public:
    LogSink() { __android_log_set_logger(capture); }
    ~LogSink() { __android_log_set_logger(nullptr); }
    LogSink(const LogSink&) = delete;
    LogSink& operator=(const LogSink&) = delete;

    // The lines since the last take.
    std::vector<std::string> take() {
        std::lock_guard<std::mutex> lock(sMutex);
        return std::exchange(sLines, {});
    }

  private:
    static void capture(const __android_log_message* message) {
        std::string text = message->message != nullptr ? message->message : "";
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        std::lock_guard<std::mutex> lock(sMutex);
        sLines.push_back(text);
    }

    static inline std::mutex sMutex;
    static inline std::vector<std::string> sLines;
};

struct NodeReport {
    std::string meter;
    std::string key;   // the configuration key that names the node
    std::string path;  // as the meter names it
    std::string status;
    std::string text;   // its first line
    std::string value;  // what the meter made of it
    std::vector<std::string> log;
    std::string note;
};

// What is on disk at a node's path, looked at without the meter.
struct Found {
    bool present = false;
    bool file = false;
    bool readable = false;
    std::string firstLine;
};

Found look(const std::string& path) {
    Found found;
    if (path.empty())
        return found;
    const std::string resolved = seams::resolvePath(path);
    struct stat st = {};
    found.present = stat(resolved.c_str(), &st) == 0;
    found.file = found.present && !S_ISDIR(st.st_mode);
    std::ifstream in(resolved);
    found.readable = found.file && in.is_open();
    if (found.readable)
        std::getline(in, found.firstLine);
    if (found.firstLine.size() > kTextShown)
        found.firstLine = found.firstLine.substr(0, kTextShown) + "...";
    return found;
}

// The node's form: what the meter's parse expects to find on its first line.
struct Form {
    std::regex pattern;
    const char* description;
};

const Form kInteger{std::regex(R"(\s*-?\d+\s*)"), "one integer"};
const Form kNumber{std::regex(R"(\s*-?\d+(\.\d+)?(\s.*)?)"), "a number first"};
const Form kIntegerList{std::regex(R"(\s*\d+( \d+)*\s*)"), "integers separated by single blanks"};
const Form kThreeIntegers{std::regex(R"(\s*-?\d+ -?\d+ -?\d+\s*)"),
                          "three integers separated by single blanks, one per cluster"};
const Form kColonFields{std::regex(R"([^:]*:\s*-?\d+(\.\d+)?.*)"),
                        "a label, a colon and the frame rate (the frame count after the last "
                        "colon)"};
const Form kCounterFields{std::regex(R"(\s*-?\d+(:-?\d+){3,}\s*)"),
                          "four or more integers separated by colons"};

class Doctor {
  public:
    explicit Doctor(const std::vector<std::string>& configs) {
        for (const std::string& config : configs)
            mInfo.configs.insert_or_assign(parseKeyValue(config).first,
                                           parseKeyValue(config).second);
    }

    std::vector<NodeReport> examine(const std::string& meter) {
        mSink.take();
        if (meter == "Fps")
            fps();
        if (meter == "Gpu")
            gpu();
        if (meter == "SchedParams")
            schedParams();
        if (meter == "PerfCounters")
            perfCounters();
        if (meter == "MinDDR")
            minDdr();
        return std::exchange(mReports, {});
    }

  private:
    template <class T>
    std::unique_ptr<T> build(const std::string& name) {
        MeterInfo info = mInfo;
        info.name = name;
        std::unique_ptr<Meter> meter = createMeter(name, info);
        if (dynamic_cast<T*>(meter.get()) == nullptr)
            throw std::runtime_error("the registry has no " + name + " meter");
        return std::unique_ptr<T>(static_cast<T*>(meter.release()));
    }

    // A node the meter reads: read is its one reading, returning what the meter made of it;
    // neutral says what the meter answers when it cannot read, shown unless the node is ok.
    // Lines logged before (by start(), naming the node) count as the node's.
    void readNode(const std::string& meter, const std::string& key, const std::string& path,
                  const Form& form, const char* neutral, const std::function<std::string()>& read,
                  const std::vector<std::string>& earlier = {}) {
        NodeReport r{meter, key, path, "", "", "", {}, ""};
        const Found found = look(path);
        r.text = found.firstLine;
        for (const std::string& line : earlier) {
            if (line.find(path) != std::string::npos)
                r.log.push_back(line);
        }
        mSink.take();
        r.value = read();
        for (std::string& line : mSink.take())
            r.log.push_back(std::move(line));
        if (path.empty()) {
            r.status = "unset";
        } else if (!found.present) {
            r.status = "missing";
        } else if (!found.file) {
            r.status = "not a file";
        } else if (!found.readable) {
            r.status = "unreadable";
        } else if (found.firstLine.empty()) {
            r.status = "empty";
        } else if (!std::regex_match(found.firstLine, form.pattern)) {
            r.status = "malformed";
            r.note = std::string("expected ") + form.description;
        } else if (!r.log.empty()) {
            r.status = "failed";
        } else {
            r.status = "ok";
        }
        if (r.status != "ok" && neutral[0] != '\0')
            r.value += std::string(" (") + neutral + ")";
        mReports.push_back(std::move(r));
    }

    // A node the meter writes: only whether it could be.
    void writtenNode(const std::string& meter, const std::string& key, const std::string& path,
                     const std::string& when) {
        NodeReport r{meter, key, path, "", "", "not written", {}, when + "; doctor does not write"};
        const std::string resolved = seams::resolvePath(path);
        struct stat st = {};
        const Found found = look(path);
        r.text = found.firstLine;
        if (stat(resolved.c_str(), &st) != 0) {
            r.status = "missing";
        } else if (S_ISDIR(st.st_mode)) {
            r.status = "not a file";
        } else if (access(resolved.c_str(), W_OK) != 0) {
            r.status = "not writable";
        } else {
            r.status = "ok";
        }
        mReports.push_back(std::move(r));
    }

    // A meter that could not be built: its nodes are looked at only.
    void unbuilt(const std::string& meter,
                 const std::vector<std::pair<std::string, std::string>>& nodes,
                 const std::string& why) {
        for (const auto& [key, path] : nodes)
            readNode(meter, key, path, kInteger, "", [&why] { return "not read: " + why; });
    }

    void fps() {
        auto m = build<FpsMeter>("Fps");
        // Opened as start() opens it, without the period that start() writes first.
        readNode("Fps", "FPS_NODE", m->mFpsNodePath, kColonFields, "", [&m] {
            meters::openNode(m->mFpsStream, m->mFpsNodePath);
            if (!m->getNodeData())
                return std::string("no reading: getFps() gives 0.00 and getFrames() 0");
            std::ostringstream value;
            value << "frame rate " << std::fixed << std::setprecision(2)
                  << m->mScaledFps.load() / 100.0 << " fps, frame count " << m->mFrameCount.load();
            return value.str();
        });
        writtenNode("Fps", "FPS_PERIODICITY_NODE", m->mFpsPeriodicityNodePath,
                    "start() writes 500 here before it opens FPS_NODE");
    }

    void gpu() {
        auto m = build<GpuMeter>("Gpu");
        m->start();  // opens the four nodes for reading
        const std::vector<std::string> opening = mSink.take();
        readNode(
            "Gpu", "GPU_AVAILABLE_FREQUENCIES", m->mAvailFreqsPath, kIntegerList, "",
            [&m] {
                std::vector<int> freqs;
                m->getAvlGpuFreqs(freqs);
                return freqs.empty() ? std::string("no frequencies (an empty list)")
                                     : std::to_string(freqs.size()) + " frequencies, " +
                                           std::to_string(freqs.front()) + " to " +
                                           std::to_string(freqs.back());
            },
            opening);
        readNode(
            "Gpu", "GPU_CLOCK_STATS", m->mClockStatsPath, kIntegerList, "",
            [&m] {
                std::vector<long> stats;
                m->getClockStats(stats);
                return stats.empty() ? std::string("no statistics (an empty list)")
                                     : std::to_string(stats.size()) + " levels' statistics";
            },
            opening);
        readNode(
            "Gpu", "GPU_BUSY_PERCENTAGE", m->mBusyPercentagePath, kNumber,
            "0.00 when it cannot read",
            [&m] {
                std::ostringstream value;
                value << "busy " << std::fixed << std::setprecision(2) << m->getBusyPercentage()
                      << " %";
                return value.str();
            },
            opening);
        readNode(
            "Gpu", "GPU_MAX_CLK", m->mMaxClkPath, kInteger, "-1 when it cannot read",
            [&m] { return "max clock " + std::to_string(m->getGpuMaxFreq()); }, opening);
    }

    void schedParams() {
        // No trigger is delivered, so its start() has nothing to write and is not called.
        auto m = build<SchedParamsMeter>("SchedParams");
        auto scalar = [](const char* getter, int value) {
            return std::string(getter) + " " + std::to_string(value);
        };
        auto cluster = [](const char* getter, const std::atomic<int>* v) {
            return std::string(getter) + " " + std::to_string(v[0]) + " " + std::to_string(v[1]) +
                   " " + std::to_string(v[2]);
        };
        const char* scalarNeutral = "-1 when it cannot read";
        const char* clusterNeutral = "entries it cannot read keep their last value, here 0";
        readNode("SchedParams", "SCHEDPARAMS_AGGR_TOP_LOAD_PATH", m->mAggrTopLoadPath, kInteger,
                 scalarNeutral, [&] { return scalar("top-app load", m->getTopAppLoad()); });
        readNode("SchedParams", "SCHEDPARAMS_BIG_NR_RUN_PATH", m->mBigNrRunPath, kInteger,
                 scalarNeutral, [&] { return scalar("big run queue", m->getBigNrRun()); });
        readNode("SchedParams", "SCHEDPARAMS_CLUSTER_TOP_LOAD_PATH", m->mClusterTopLoadPath,
                 kThreeIntegers, clusterNeutral, [&] {
                     std::atomic<int> load[3] = {};
                     m->getClusterTopAppLoad(load);
                     return cluster("cluster loads", load);
                 });
        readNode("SchedParams", "SCHEDPARAMS_CLUSTER_CURR_CAP_PATH", m->mClusterCurrCapPath,
                 kThreeIntegers, clusterNeutral, [&] {
                     std::atomic<int> capacity[3] = {};
                     m->getClusterCurrCap(capacity);
                     return cluster("cluster capacities", capacity);
                 });
        writtenNode("SchedParams", "SCHEDPARAMS_REGISTER_SCHED_TRIGGERS", m->mRegisterTriggersPath,
                    "start() writes 1 here after 4097/4099 and 0 after 4098/4100");
    }

    void perfCounters() {
        auto m = build<PerfCountersMeter>("PerfCounters");
        readNode("PerfCounters", "data store key 5", m->mCpuInstNodePath, kCounterFields, "", [&m] {
            const std::vector<int64_t> instructions = m->getInstructions();
            if (instructions.at(0) == -1 && instructions.at(1) == -1)
                return std::string("no reading: getIPC() gives 0 and getInstructions() {-1, -1}");
            return "IPC " + std::to_string(m->mCounterField2) + ", instructions " +
                   std::to_string(instructions[0]) + ", first counter's share " +
                   std::to_string(instructions[1]) + " %";
        });
        if (m->mCpuInstNodePath.empty())
            mReports.back().note = "the data store holds no path under key 5: give --perf-node";
    }

    void minDdr() {
        const MeterInfo& info = mInfo;
        const std::string big = configOr(info, "MEMLAT_FREQ_VOTE_BIG_PATH",
                                         "/sys/class/devfreq/soc:vedra,memlat-cpu6/cur_freq");
        std::unique_ptr<MinDDRMeter> m;
        std::string failure;
        try {
            m = build<MinDDRMeter>("MinDDR");  // reads the frequency list
        } catch (const std::exception& e) {
            failure = e.what();
        }
        const std::vector<std::string> construction = mSink.take();
        if (m == nullptr || m->mWorker == nullptr) {
            const std::string why =
                failure.empty() ? std::string("the registry's factory returned no MinDDR meter")
                                : "its constructor throws (" + failure + ") on this list";
            const std::string list =
                configOr(info, "MEMLAT_AVAIL_FREQ_LITTLE_PATH",
                         "/sys/class/devfreq/soc:vedra,memlat-cpu0/available_frequencies");
            readNode(
                "MinDDR", "MEMLAT_AVAIL_FREQ_LITTLE_PATH", list, kIntegerList, "",
                [&why] { return why; }, construction);
            unbuilt("MinDDR",
                    {{"MEMLAT_FREQ_VOTE_BIG_PATH", big},
                     {"MEMLAT_FREQ_VOTE_LITTLE_PATH",
                      configOr(info, "MEMLAT_FREQ_VOTE_LITTLE_PATH",
                               "/sys/class/devfreq/soc:vedra,memlat-cpu0/cur_freq")}},
                    "the MinDDR meter cannot be built");
            return;
        }
        AuxMinDDRMeter& worker = *m->mWorker;
        readNode(
            "MinDDR", "MEMLAT_AVAIL_FREQ_LITTLE_PATH", worker.mAvailFreqLittlePath, kIntegerList,
            "",
            [&worker] {
                std::lock_guard<std::mutex> lock(worker.mResidencyMutex);
                if (worker.mLittleResidency.empty())
                    return std::string("no frequencies: every sample is counted as it comes");
                return std::to_string(worker.mLittleResidency.size()) + " frequencies, " +
                       std::to_string(worker.mLittleResidency.begin()->first) + " to " +
                       std::to_string(worker.mLittleResidency.rbegin()->first);
            },
            construction);
        // The sampling thread's own reading, taken here: the thread is never started.
        auto vote = [&worker](std::ifstream& stream, std::string& path) {
            try {
                const int value = worker.readValue(stream, path);
                return "vote " + std::to_string(value) +
                       (value == -1 ? " (-1 when it cannot read)" : "");
            } catch (const std::exception& e) {
                return std::string("the reading throws (") + e.what() +
                       "): on the sampling thread that ends the process";
            }
        };
        readNode("MinDDR", "MEMLAT_FREQ_VOTE_BIG_PATH", worker.mBigVotePath, kInteger, "",
                 [&] { return vote(worker.mBigFreqStream, worker.mBigVotePath); });
        readNode("MinDDR", "MEMLAT_FREQ_VOTE_LITTLE_PATH", worker.mLittleVotePath, kInteger, "",
                 [&] { return vote(worker.mLittleFreqStream, worker.mLittleVotePath); });
    }

    static std::string configOr(const MeterInfo& info, const std::string& key,
                                const std::string& fallback) {
        const auto it = info.configs.find(key);
        return it != info.configs.end() ? it->second : fallback;
    }

    MeterInfo mInfo;
    LogSink mSink;
    std::vector<NodeReport> mReports;
};

void printReports(std::ostream& out, const std::vector<NodeReport>& reports) {
    std::string meter;
    std::map<std::string, int> tally;
    for (const NodeReport& r : reports) {
        if (r.meter != meter)
            out << (meter = r.meter) << "\n";
        ++tally[r.status];
        out << "  " << std::left << std::setw(12) << r.status << r.key << "  "
            << (r.path.empty() ? "(no path)" : r.path) << "\n"
            << std::right;
        if (!r.text.empty())
            out << "      text:  " << r.text << "\n";
        out << "      meter: " << r.value << "\n";
        for (const std::string& line : r.log)
            out << "      log:   " << line << "\n";
        if (!r.note.empty())
            out << "      note:  " << r.note << "\n";
    }
    out << reports.size() << " nodes:";
    const char* separator = " ";
    for (const auto& [status, count] : tally) {
        out << separator << count << " " << status;
        separator = ", ";
    }
    out << "\n";
}

void printJson(std::ostream& out, const std::vector<NodeReport>& reports) {
    nlohmann::ordered_json nodes = nlohmann::ordered_json::array();
    for (const NodeReport& r : reports) {
        nodes.push_back({{"meter", r.meter},
                         {"key", r.key},
                         {"path", r.path},
                         {"status", r.status},
                         {"text", r.text},
                         {"value", r.value},
                         {"log", r.log},
                         {"note", r.note}});
    }
    out << nlohmann::ordered_json{{"nodes", nodes}}.dump() << "\n";
}

std::string checkReaderMeter(const std::string& name) {
    for (const char* meter : kReaderMeters) {
        if (name == meter)
            return {};
    }
    return "'" + name +
           "' is not a reader meter; doctor knows Fps, Gpu, SchedParams, "
           "PerfCounters and MinDDR";
}

void runDoctor(const DoctorOptions& o, Output& io) {
    const ScopedRoot root(o.root);
    std::unique_ptr<ScopedPerfCountersNode> perfNode;
    try {
        perfNode = std::make_unique<ScopedPerfCountersNode>(o.perfNode);
    } catch (const std::invalid_argument& e) {
        throw CLI::ValidationError("--perf-node", e.what());
    }
    std::vector<std::string> meters = o.meters;
    if (meters.empty())
        meters.assign(std::begin(kReaderMeters), std::end(kReaderMeters));
    std::vector<NodeReport> reports;
    {
        Doctor doctor(o.configs);
        for (const std::string& meter : meters) {
            try {
                for (NodeReport& r : doctor.examine(meter))
                    reports.push_back(std::move(r));
            } catch (const std::exception& e) {
                io.err << "meterctl doctor: " << meter << ": " << e.what() << "\n";
                throw CLI::RuntimeError(1);
            }
        }
    }
    o.json ? printJson(io.out, reports) : printReports(io.out, reports);
    for (const NodeReport& r : reports) {
        if (r.status != "ok")
            throw CLI::RuntimeError(1);
    }
}

}  // namespace

void addDoctorCommand(CLI::App& app, Output& io) {
    CLI::App* cmd = app.add_subcommand(
        "doctor", "Reads every node of the reader meters once and says what came back.");
    auto o = std::make_shared<DoctorOptions>();
    cmd->add_option("METER", o->meters, "Only these reader meters (default: all five)")
        ->check(CLI::Validator(checkReaderMeter, ""));
    cmd->add_option("--root", o->root, "Read nodes under DIR (as METERS_ROOT does)")
        ->type_name("DIR")
        ->check(CLI::ExistingDirectory.description(""));
    cmd->add_option("--config", o->configs, "A configuration value (another node path)")
        ->type_name("KEY=VALUE")
        ->check(parsedBy(parseKeyValue, ""));
    cmd->add_option("--perf-node", o->perfNode,
                    "The instruction-counter node, for the data store (key 5)")
        ->type_name("PATH");
    cmd->add_flag("--json", o->json, "One JSON object instead of the report");
    cmd->footer(kFooter);
    cmd->callback([o, &io] { runDoctor(*o, io); });
}

}  // namespace meterctl

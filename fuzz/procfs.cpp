// The procfs texts the launch meters read, from the first byte:
//  0  a status file: the memory sample of both launch meters (RssAnon + VmSwap), read once by
//     each through the same kept-open node, the second after a rewind;
//  1  the foreground cpuset's task list, then the application's name, then the command lines of
//     tasks 1, 2, ...: VmRssMeter's pid hunt;
//  2  an oom_score file: LaunchMeter's reading, twice through the kept-open node.
#include <cstdlib>

#include "FuzzSupport.h"
#include "LaunchMeter.h"
#include "NodeStream.h"
#include "VmRssMeter.h"

namespace {

constexpr char kStatus[] = "/proc/4242/status";
constexpr char kOomScore[] = "/proc/4242/oom_score";
constexpr char kTasks[] = "/dev/cpuset/top-app/tasks";

VmRssMeter& vmRssMeter() {
    static VmRssMeter meter{MeterInfo{}};
    return meter;
}

LaunchMeter& launchMeter() {
    static LaunchMeter meter{MeterInfo{}};
    return meter;
}

void statusSample(const std::string& text) {
    fuzzing::root().addFile(kStatus, text);
    meters::NodeFile status(kStatus);
    const int first = vmRssMeter().getProcessVmRss(status.get());
    FUZZ_CHECK(status.rewind());
    FUZZ_CHECK(launchMeter().getProcessVmRss(status.get()) == first);
}

// The hunt's answer is -1 or a listed task whose command line, up to its first NUL, is the name.
void pidHunt(const fuzzing::Input& input) {
    const auto& root = fuzzing::root();
    root.remove("/proc");
    root.addFile(kTasks, input.texts[0]);
    std::string appName = input.texts.size() > 1 ? input.texts[1] : "";
    for (size_t i = 2; i < input.texts.size(); ++i)
        root.addFile("/proc/" + std::to_string(i - 1) + "/cmdline", input.texts[i]);
    const int pid = vmRssMeter().getPidExpensive(appName);
    if (pid == -1)
        return;
    FUZZ_CHECK(pid >= 1 && static_cast<size_t>(pid) + 1 < input.texts.size());
    const std::string& cmdline = input.texts[pid + 1];
    FUZZ_CHECK(cmdline.substr(0, cmdline.find('\0')) == appName);
}

// strtol of the first 149 bytes, as many as the reading takes.
void oomScore(const std::string& text) {
    fuzzing::root().addFile(kOomScore, text);
    const int expected = static_cast<int>(strtol(text.substr(0, 149).c_str(), nullptr, 10));
    meters::NodeFile node(kOomScore);
    for (int reading = 0; reading < 2; ++reading) {
        FUZZ_CHECK(node.rewind());
        FUZZ_CHECK(launchMeter().getProcessOMMScore(node.get()) == expected);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzzing::Input input = fuzzing::split(data, size, 3);
    switch (input.parser) {
        case 0:
            statusSample(input.texts[0]);
            break;
        case 1:
            pidHunt(input);
            break;
        default:
            oomScore(input.texts[0]);
            break;
    }
    return 0;
}

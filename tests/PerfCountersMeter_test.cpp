// PerfCountersMeter: the counter fields and their arithmetic over node texts, the node path the
// host's data store names, the trace marker, and the second close after a stop.
#include "PerfCountersMeter.h"

#include <fcntl.h>
#include <unistd.h>

#include "TestSupport.h"
#include "VendorIPerfDataStore.h"

using namespace testsupport;

namespace {

constexpr char kNode[] = "/sys/devices/system/cpu/cpu_instructions";
constexpr char kTraceMarker[] = "/sys/kernel/tracing/trace_marker";
VendorIPerfDataStore& store = *VendorIPerfDataStore::getVendorIPerfDataStore();

// The store names the node under key 5; the node holds the worked example.
class PerfCounters : public ::testing::Test {
  protected:
    PerfCounters() { store.Store(5, kNode); }
    void SetUp() override { root.addFile(kNode, "10:2:30:4\n"); }

    FixtureRoot root;
    LogCapture log;
};

}  // namespace

// One meter reads each text in turn, through getIPC() and then getInstructions(); fields a text
// does not reach keep their values (-1 before any). 29 of 100 is divided before it is multiplied
// (28, not 29); 251 bytes are cut at 249, so the third field reads 3.
TEST_F(PerfCounters, ReadingsFollowTheNodeAndTheDevicesArithmetic) {
    const std::tuple<std::string, int64_t, std::vector<int64_t>> steps[] = {
        {"7", -1, {6, 116}},      {"10:2:30:4\n", 2, {40, 25}},
        {"7\n", 2, {37, 18}},     {"29:1:71:0", 1, {100, 28}},
        {"0:5:0:1\n", 5, {0, 0}}, {std::string(244, '0') + "1:2:345", 2, {4, 25}}};
    PerfCountersMeter m{MeterInfo{}};
    for (const auto& [text, ipc, instructions] : steps) {
        root.addFile(kNode, text);
        EXPECT_EQ(m.getIPC(), ipc) << text;
        EXPECT_EQ(m.getInstructions(), instructions) << text;
    }
}

// A reading that cannot open the node gives 0 and a line, and asks the store (key 5) again: the
// next reading tries the path the store holds by then.
TEST_F(PerfCounters, ANodeThatCannotBeOpenedIsLoggedAndTheStoreAskedAgain) {
    store.Store(5, "/sys/missing");
    PerfCountersMeter m{MeterInfo{}};
    store.Store(5, kNode);
    EXPECT_EQ(m.getIPC(), 0);
    EXPECT_EQ(m.getInstructions(), (std::vector<int64_t>{40, 25}));
    const std::vector<std::string> lines(
        1, "PerfCountersMeter: getNodeData() N: Error reading cpu_instruction node in IPC");
    EXPECT_EQ(maskedLike(log.lines(), lines), lines);
}

// A marker per IPC reading from a meter built while the property was on (it is read then);
// none from one built while it was off.
TEST_F(PerfCounters, EachIpcReadingIsATraceMarkerWhenThePropertyWasOn) {
    root.addFile(kTraceMarker, "");
    property_set("debug.atrace.tags.enableflags", "1");
    property_set("vendor.debug.trace.perf", "1");
    PerfCountersMeter on{MeterInfo{}};
    property_set("vendor.debug.trace.perf", "0");
    PerfCountersMeter off{MeterInfo{}};
    EXPECT_EQ(off.getIPC() + on.getIPC(), 4);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(root.read(kTraceMarker), "B|" + pid + "|PerfCounters IPC :: 2E|" + pid);
    clearProperty("vendor.debug.trace.perf");
    clearProperty("debug.atrace.tags.enableflags");
}

// A reading closes its descriptor but keeps the number, which start() after a stop notification
// closes again, once. Before each start() the test parks a spare descriptor of its own on that
// number, so the second close shows and cannot hit anything in use.
TEST_F(PerfCounters, AStopMakesStartCloseTheLastReadingsNumberAgainOnce) {
    const int spare = open("/dev/null", O_RDONLY | O_CLOEXEC);  // before the reading's number
    PerfCountersMeter m{MeterInfo{}};
    ASSERT_EQ(m.getIPC(), 2);
    const int stale = m.mNodeFd;
    ASSERT_TRUE(spare >= 0 && stale > spare && fcntl(stale, F_GETFD) == -1);
    // {stop notification before start(), mNodeFd after it}; the number stays open without one
    for (auto [stop, fd] : {std::pair(false, stale), {true, -1}, {false, -1}}) {
        ASSERT_EQ(dup2(spare, stale), stale);
        if (stop)
            m.asyncTriggerUpdate(makePayload(hint::kNone, hint::kTypeEnd));
        m.start();
        EXPECT_EQ(std::make_pair(fcntl(stale, F_GETFD) != -1, m.mNodeFd),
                  std::make_pair(!stop, fd));
    }
    close(stale);
    close(spare);
}

// CSV dumps and markers, and the shared log-line and exception-handler conventions.
#include "DumpData.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "TestSupport.h"

using testsupport::clearProperty;
using testsupport::FixtureRoot;
using testsupport::LogCapture;

namespace {

constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";
constexpr char kDir[] = "/data/vendor/zq/";

std::string csvPath(const std::string& name) {
    return kDir + name + "_vmrss.csv";
}

// A fixture tree with the CSV directory, the property set as given and the cache reset.
class DumpDataTest : public ::testing::Test {
  protected:
    void SetUp() override {
        root.addDir(kDir);
        DumpData::mEnableCSV = -1;
        property_set(kCsvProperty, "1");
    }
    void TearDown() override {
        clearProperty(kCsvProperty);
        DumpData::mEnableCSV = -1;
    }
    FixtureRoot root;
};

}  // namespace

// --- DumpData ----------------------------------------------------------------------------------

TEST_F(DumpDataTest, DumpAppendsOneLinePerSeries) {
    LogCapture log;
    int values[] = {51200, 52000};
    DumpData::Dump("com.example.app", 2400, values, 2);
    EXPECT_EQ(root.read(csvPath("com.example.app")),
              "com.example.app,duration=2400,51200,52000,\n");

    int negative[] = {-1, 0, 2147483647};
    DumpData::Dump("com.example.app", -5, negative, 3);
    DumpData::Dump("com.example.app", 7, values, 0);
    DumpData::Dump("com.example.app", 8, nullptr, 4);
    DumpData::Dump("com.example.app", 9, values, -3);
    EXPECT_EQ(root.read(csvPath("com.example.app")),
              "com.example.app,duration=2400,51200,52000,\n"
              "com.example.app,duration=-5,-1,0,2147483647,\n"
              "com.example.app,duration=7,\n"
              "com.example.app,duration=8,\n"
              "com.example.app,duration=9,\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(DumpDataTest, MarkerAppendsToTheSameFileAsDump) {
    int values[] = {3};
    DumpData::Dump("pkg", 1, values, 1);
    DumpData::Marker("launch end", 1850, "pkg");
    DumpData::Marker("", -1, "pkg");
    EXPECT_EQ(root.read(csvPath("pkg")),
              "pkg,duration=1,3,\nlaunch end, launchDuration = 1850\n, launchDuration = -1\n");
}

TEST_F(DumpDataTest, NullNameOrTextWritesNothing) {
    LogCapture log;
    int values[] = {1};
    DumpData::Dump(nullptr, 1, values, 1);
    DumpData::Marker(nullptr, 1, "pkg");
    DumpData::Marker("text", 1, nullptr);
    EXPECT_FALSE(root.exists(csvPath("pkg")));
    EXPECT_FALSE(root.exists(csvPath("(null)")));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(DumpDataTest, MissingDirectoryIsNotCreated) {
    LogCapture log;
    root.remove("/data");
    DumpData::Dump("pkg", 1, nullptr, 0);
    DumpData::Marker("m", 1, "pkg");
    EXPECT_FALSE(root.exists("/data"));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(DumpDataTest, PropertyUnsetAtFirstUseDisablesForTheProcess) {
    clearProperty(kCsvProperty);
    DumpData::Dump("pkg", 1, nullptr, 0);
    EXPECT_EQ(DumpData::mEnableCSV.load(), 0);
    property_set(kCsvProperty, "1");
    DumpData::Dump("pkg", 2, nullptr, 0);
    DumpData::Marker("m", 3, "pkg");
    EXPECT_FALSE(root.exists(csvPath("pkg")));
}

TEST_F(DumpDataTest, PropertySetAtFirstUseStaysOnAfterItIsCleared) {
    DumpData::Marker("m", 3, "pkg");
    EXPECT_EQ(DumpData::mEnableCSV.load(), 1);
    clearProperty(kCsvProperty);
    DumpData::Dump("pkg", 2, nullptr, 0);
    EXPECT_EQ(root.read(csvPath("pkg")), "m, launchDuration = 3\npkg,duration=2,\n");
}

TEST_F(DumpDataTest, PropertySpellingsFollowTheBooleanRules) {
    property_set(kCsvProperty, "true");
    DumpData::Dump("a", 1, nullptr, 0);
    EXPECT_TRUE(root.exists(csvPath("a")));

    DumpData::mEnableCSV = -1;
    property_set(kCsvProperty, "2");
    DumpData::Dump("b", 1, nullptr, 0);
    EXPECT_FALSE(root.exists(csvPath("b")));
}

TEST_F(DumpDataTest, OverlongNameIsWrittenToTheTruncatedPath) {
    const std::string name(200, 'n');
    // The path buffer holds 149 characters: "/data/vendor/zq/" and the name's first 133.
    const std::string truncated = kDir + name.substr(0, 149 - (sizeof(kDir) - 1));
    int values[] = {42};
    DumpData::Dump(name.c_str(), 10, values, 1);
    DumpData::Marker("end", 11, name.c_str());
    EXPECT_EQ(root.read(truncated), name + ",duration=10,42,\nend, launchDuration = 11\n");
}

// --- log lines and handler pairs ---------------------------------------------------------------

TEST(Diagnostics, LogLineHasPrefixPriorityAndTag) {
    LogCapture log;
    METER_LOGE("VmRssMeter:", "start", 348, "Async Data NULL");
    METER_LOGE("MemoryMeter", "getField", 12, "field %s value %d", "rss_swap", -7);
    EXPECT_EQ(log.records(),
              (std::vector<std::string>{"6|ANDR-PERF-ZQ|VmRssMeter:: start() 348: Async Data NULL",
                                        "6|ANDR-PERF-ZQ|MemoryMeter: getField() 12: field "
                                        "rss_swap value -7"}));
}

namespace {

// Each runner throws what it is given inside a try guarded by one handler pair and reports
// whether execution continued after the handler.
template <class Thrower>
bool runPlain(Thrower thrower) {
    try {
        thrower();
    }
    METER_CATCH_PLAIN("MemoryMeter", "start", 120, 124)
    return true;
}

template <class Thrower>
bool runCaughtIn(Thrower thrower) {
    try {
        thrower();
    }
    METER_CATCH_CAUGHT_IN("VmRssMeter:", "getPidExpensive", 285, 287)
    return true;
}

template <class Thrower>
bool runExceptionCaught(Thrower thrower) {
    try {
        thrower();
    }
    METER_CATCH_EXCEPTION_CAUGHT("SchedParamsMeter", "readNode", 210, 214)
    return true;
}

void throwStd() {
    throw std::runtime_error("bad node");
}
void throwOther() {
    throw 42;
}

}  // namespace

TEST(Diagnostics, HandlerPairsLogTheirOwnLines) {
    LogCapture log;
    EXPECT_TRUE(runPlain(throwStd));
    EXPECT_TRUE(runPlain(throwOther));
    EXPECT_TRUE(runCaughtIn(throwStd));
    EXPECT_TRUE(runCaughtIn(throwOther));
    EXPECT_TRUE(runExceptionCaught(throwStd));
    EXPECT_TRUE(runExceptionCaught(throwOther));
    EXPECT_TRUE(runPlain([] {}));
    EXPECT_EQ(log.records(),
              (std::vector<std::string>{
                  "6|ANDR-PERF-ZQ|MemoryMeter: start() 120: exception bad node\n",
                  "6|ANDR-PERF-ZQ|MemoryMeter: start() 124: unknown exception\n",
                  "6|ANDR-PERF-ZQ|VmRssMeter:: getPidExpensive() 285: Caught Exception: bad node "
                  "in getPidExpensive",
                  "6|ANDR-PERF-ZQ|VmRssMeter:: getPidExpensive() 287: Caught Exception in "
                  "getPidExpensive",
                  "6|ANDR-PERF-ZQ|SchedParamsMeter: readNode() 210: Exception caught: bad node in "
                  "readNode",
                  "6|ANDR-PERF-ZQ|SchedParamsMeter: readNode() 214: Exception caught in readNode",
              }));
}

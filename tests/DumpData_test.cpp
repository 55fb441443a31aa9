// CSV dumps and markers, and the shared log-line and exception-handler conventions.
#include "DumpData.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "Diagnostics.h"
#include "TestSupport.h"

using namespace testsupport;

constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";

TEST(DumpData, LinesAreWrittenByteForByteAndThePropertyIsReadOncePerProcess) {
    FixtureRoot root;
    root.addDir("/data/vendor/zq");
    DumpData::mEnableCSV = -1;
    property_set(kCsvProperty, "1");
    int values[] = {51200, 52000, -1};
    DumpData::Dump("com.example.app", 2400, values, 2);
    clearProperty(kCsvProperty);  // read at the first use only
    DumpData::Dump("com.example.app", -5, values, 0);
    DumpData::Dump("com.example.app", 8, nullptr, 4);
    DumpData::Marker("launch end", 1850, "com.example.app");
    DumpData::Dump(nullptr, 1, values, 1);
    DumpData::Marker(nullptr, 1, "com.example.app");
    DumpData::Marker("text", 1, nullptr);
    EXPECT_EQ(root.read("/data/vendor/zq/com.example.app_vmrss.csv"),
              "com.example.app,duration=2400,51200,52000,\ncom.example.app,duration=-5,\n"
              "com.example.app,duration=8,\nlaunch end, launchDuration = 1850\n");
    EXPECT_FALSE(root.exists("/data/vendor/zq/(null)_vmrss.csv"));

    // The 150-byte path buffer keeps "/data/vendor/zq/" (16 bytes) and the name's first 133.
    const std::string name(200, 'n');
    DumpData::Dump(name.c_str(), 10, values, 1);
    EXPECT_EQ(root.read("/data/vendor/zq/" + name.substr(0, 133)), name + ",duration=10,51200,\n");

    // Unset at the first use of a process: no file, even once the property is set.
    DumpData::mEnableCSV = -1;
    DumpData::Dump("pkg", 1, nullptr, 0);
    property_set(kCsvProperty, "1");
    DumpData::Marker("m", 3, "pkg");
    EXPECT_FALSE(root.exists("/data/vendor/zq/pkg_vmrss.csv"));
    clearProperty(kCsvProperty);
    DumpData::mEnableCSV = -1;
}

TEST(Diagnostics, LogLinesAndHandlerPairsHaveTheirExactTextPriorityAndTag) {
    LogCapture log;
    METER_LOGE("VmRssMeter:", "start", 348, "Async Data NULL");
    for (int kind : {0, 1}) {
        auto thrower = [kind] { kind == 0 ? throw std::runtime_error("bad node") : throw 42; };
        try {
            thrower();
        }
        METER_CATCH_PLAIN("MemoryMeter", "start", 120, 124)
        try {
            thrower();
        }
        METER_CATCH_CAUGHT_IN("VmRssMeter:", "getPid", 285, 287)
        try {
            thrower();
        }
        METER_CATCH_EXCEPTION_CAUGHT("SchedParamsMeter", "readNode", 210, 214)
    }
    std::vector<std::string> expected = {
        "VmRssMeter:: start() 348: Async Data NULL",
        "MemoryMeter: start() 120: exception bad node\n",
        "VmRssMeter:: getPid() 285: Caught Exception: bad node in getPid",
        "SchedParamsMeter: readNode() 210: Exception caught: bad node in readNode",
        "MemoryMeter: start() 124: unknown exception\n",
        "VmRssMeter:: getPid() 287: Caught Exception in getPid",
        "SchedParamsMeter: readNode() 214: Exception caught in readNode"};
    for (std::string& line : expected)
        line = "6|ANDR-PERF-ZQ|" + line;
    EXPECT_EQ(log.records(), expected);
}

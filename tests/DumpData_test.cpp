// CSV dumps and markers, and the exception-handler pairs every meter logs through.
#include "DumpData.h"

#include <stdexcept>

#include "Diagnostics.h"
#include "TestSupport.h"

TEST(DumpData, LinesAreWrittenByteForByteAndThePropertyIsReadOncePerProcess) {
    testsupport::FixtureRoot root;
    root.addDir("/data/vendor/zq");
    int values[] = {51200, 52000};
    // Unset at the first use of a process: nothing, even once it is set.
    DumpData::mEnableCSV = -1;
    DumpData::Dump("app", 1, values, 1);
    property_set("debug.vendor.tarn.enable.zq_csv_dump", "1");
    DumpData::Marker("too late", 3, "app");
    // Set at the first use (of a new process): lines, even once it is unset.
    DumpData::mEnableCSV = -1;
    DumpData::Dump("app", 2400, values, 2);
    testsupport::clearProperty("debug.vendor.tarn.enable.zq_csv_dump");
    DumpData::Dump("app", -5, values, 0);
    DumpData::Dump("app", 8, nullptr, 4);
    DumpData::Marker("launch end", 1850, "app");
    DumpData::Dump(nullptr, 1, values, 1);
    DumpData::Marker("text", 1, nullptr);
    DumpData::Marker("m", 10, std::string(200, 'n').c_str());
    EXPECT_EQ(root.read("/data/vendor/zq/app_vmrss.csv"),
              "app,duration=2400,51200,52000,\n"
              "app,duration=-5,\napp,duration=8,\nlaunch end, launchDuration = 1850\n");
    EXPECT_EQ(root.read("/data/vendor/zq/(null)_vmrss.csv"), "(none)");
    // The 150-byte path buffer keeps "/data/vendor/zq/" (16 bytes) and the name's first 133.
    EXPECT_EQ(root.read("/data/vendor/zq/" + std::string(133, 'n')), "m, launchDuration = 10\n");
}

// A handler pair written after a try block, as in a meter, met by each kind of exception.
#define HANDLER_SITE(...)                                             \
    for (int kind : {0, 1})                                           \
        try {                                                         \
            kind == 0 ? throw std::runtime_error("bad") : throw kind; \
        }                                                             \
    __VA_ARGS__

TEST(Diagnostics, HandlerPairsLogTheirExactTextWithTheirOwnLineNumbers) {
    testsupport::LogCapture log;
    HANDLER_SITE(METER_CATCH_PLAIN("C", "f", 120, 124))
    HANDLER_SITE(METER_CATCH_CAUGHT_IN("C", "f", 285, 287))
    HANDLER_SITE(METER_CATCH_EXCEPTION_CAUGHT("C", "f", 210, 214))
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "C: f() 120: exception bad\n", "C: f() 124: unknown exception\n",
                  "C: f() 285: Caught Exception: bad in f", "C: f() 287: Caught Exception in f",
                  "C: f() 210: Exception caught: bad in f", "C: f() 214: Exception caught in f"}));
}

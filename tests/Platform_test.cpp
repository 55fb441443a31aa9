// The Linux stand-ins for the platform: log formatting, the property table, trace markers and
// the path/time seams.
#include <gtest/gtest.h>
#include <unistd.h>

#include "Diagnostics.h"
#include "TestSupport.h"
#include "seams.h"

using namespace testsupport;

TEST(PlatformLog, WideConversionPrintsNarrowTextAndLongLinesAreTruncatedToTheBuffer) {
    LogCapture log;
    __android_log_print(ANDROID_LOG_ERROR, "t", "100%%S %5S|",
                        reinterpret_cast<const wchar_t*>("ab"));
    __android_log_print(ANDROID_LOG_ERROR, "t", "%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"100%S    ab|", std::string(1023, 'x')}));
}

TEST(PlatformProperties, UnsetReadsAsDefaultSetReadsBackOverlongIsRefusedAndBoolSpellings) {
    const char* key = "test.platform.prop";
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get(key, buf, "dflt"), 4);
    EXPECT_STREQ(buf, "dflt");
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
    ASSERT_EQ(property_set(key, longest.c_str()), 0);
    EXPECT_EQ(property_set(key, (longest + "w").c_str()), -1);
    EXPECT_EQ(property_get(key, buf, "dflt"), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(buf, longest) << "a refused value keeps the old one";

    // 7: the default, for anything but the device's spellings; "" reads as unset.
    const std::pair<const char*, int> spellings[] = {
        {"1", 1},  {"y", 1},   {"yes", 1},   {"on", 1},   {"true", 1}, {"0", 0},    {"n", 0},
        {"no", 0}, {"off", 0}, {"false", 0}, {"TRUE", 7}, {"2", 7},    {"yes ", 7}, {"", 7}};
    for (auto [value, expected] : spellings) {
        property_set(key, value);
        EXPECT_EQ(property_get_bool(key, 7), expected) << "'" << value << "'";
    }
    clearProperty(key);
}

TEST(PlatformTrace, MarkerWrittenOnlyWhenPropertyAndTagBitAllow) {
    // {trace property, tag flags, written}; "" reads as unset
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"", "", false},   {"", "1", false}, {"0", "1", false},   {"1", "", false},
        {"1", "2", false}, {"1", "1", true}, {"true", "3", true}, {"1", "0x7", true}};
    const std::string pid = std::to_string(getpid());
    for (auto [traceProp, tags, written] : cases) {
        FixtureRoot root;
        root.addFile("/sys/kernel/tracing/trace_marker", "");
        property_set("vendor.debug.trace.perf", traceProp);
        property_set("debug.atrace.tags.enableflags", tags);
        // The way a meter uses it: the property gates, the tag bit decides per marker.
        if (diag::traceEnabledByProperty())
            diag::traceMarker("launch-mark");
        EXPECT_EQ(root.read("/sys/kernel/tracing/trace_marker"),
                  written ? "B|" + pid + "|launch-markE|" + pid : "")
            << traceProp << " / " << tags;
    }
    clearProperty("vendor.debug.trace.perf");
    clearProperty("debug.atrace.tags.enableflags");
}

TEST(PlatformSeams, AbsolutePathsResolveUnderTheRootAndTheSleepHookReplacesTheSleep) {
    FixtureRoot restoresTheRoot;
    setenv("METERS_ROOT", "/r//", 1);
    EXPECT_EQ(seams::resolvePath("/proc/1/status"), "/r/proc/1/status");
    EXPECT_EQ(seams::resolvePath("rel/a"), "rel/a");
    EXPECT_EQ(seams::resolvePath(""), "");
    setenv("METERS_ROOT", "", 1);
    EXPECT_EQ(seams::resolvePath("/a"), "/a");
    unsetenv("METERS_ROOT");
    EXPECT_EQ(seams::resolvePath("/a"), "/a");

    std::vector<uint32_t> seen;
    seams::setSleepHook([&seen](uint32_t us) { seen.push_back(us); });
    seams::sleepUs(5000000);
    seams::setSleepHook(nullptr);
    seams::sleepUs(2000);
    EXPECT_EQ(seen, std::vector<uint32_t>{5000000});
}

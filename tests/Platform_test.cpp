// The Linux stand-ins for the platform: log formatting, the property table, trace markers and
// the path seam.
#include <unistd.h>

#include "Diagnostics.h"
#include "TestSupport.h"
#include "seams.h"

TEST(PlatformLog, WideConversionPrintsNarrowTextAndLinesAreTruncatedToTheBuffer) {
    testsupport::LogCapture log;
    __android_log_print(ANDROID_LOG_WARN, "t", "100%%S %5S|%s",
                        reinterpret_cast<const wchar_t*>("ab"), std::string(3000, 'x').c_str());
    // 1023 bytes and the terminator; the capture adds the priority and tag.
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[5|t] 100%S    ab|" + std::string(1011, 'x')});
}

TEST(PlatformProperties, ValuesKeepTheDeviceLimitAndAnUnsetOneReadsAsTheDefault) {
    const char* key = "test.platform.prop";
    char buf[PROPERTY_VALUE_MAX];
    // The value read, as long as property_get says it is.
    EXPECT_EQ(std::string(buf, property_get(key, buf, "dflt")), "dflt");
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
    EXPECT_EQ(property_set(key, longest.c_str()), 0);
    EXPECT_EQ(property_set(key, (longest + "w").c_str()), -1);
    EXPECT_EQ(std::string(buf, property_get(key, buf, "dflt")), longest) << "the old one is kept";
}

TEST(PlatformTrace, MarkerWrittenOnlyWhenThePropertyReadsTrueAndTheTagBitIsSet) {
    const std::string m = "B|" + std::to_string(getpid()) + "|mE|" + std::to_string(getpid());
    // {trace property, tag flags, marker}: the device's boolean spellings; "" reads as unset, so
    // the last row leaves both unset.
    const std::tuple<const char*, const char*, std::string> cases[] = {
        {"1", "1", m},     {"y", "1", m},     {"yes", "1", m}, {"on", "1", m},
        {"true", "3", m},  {"1", "0x7", m},   {"0", "1", ""},  {"false", "1", ""},
        {"TRUE", "1", ""}, {"yes ", "1", ""}, {"1", "2", ""},  {"", "", ""}};
    testsupport::FixtureRoot root;
    for (const auto& [traceProp, tags, marker] : cases) {
        root.addFile("/sys/kernel/tracing/trace_marker", "");
        property_set("vendor.debug.trace.perf", traceProp);
        property_set("debug.atrace.tags.enableflags", tags);
        // The way a meter uses it: the property gates, the tag bit decides per marker.
        if (diag::traceEnabledByProperty())
            diag::traceMarker("m");
        EXPECT_EQ(root.read("/sys/kernel/tracing/trace_marker"), marker) << traceProp << tags;
    }
}

TEST(PlatformSeams, OnlyAbsolutePathsResolveAndOnlyUnderASetRoot) {
    // {METERS_ROOT (null: unset), path, resolved}; the last row leaves it unset, as a test
    // process starts.
    const char* const cases[][3] = {{"/r", "/p/s", "/r/p/s"}, {"/r//", "/p", "/r/p"},
                                    {"/r", "p/s", "p/s"},     {"/r", "", ""},
                                    {"", "/p", "/p"},         {nullptr, "/p", "/p"}};
    for (const auto& [root, path, resolved] : cases) {
        root != nullptr ? setenv("METERS_ROOT", root, 1) : unsetenv("METERS_ROOT");
        EXPECT_EQ(seams::resolvePath(path), resolved) << (root ? root : "(unset)") << " " << path;
    }
}

// The Linux stand-ins for the platform: log formatting, the property table, trace markers and
// the path/time seams.
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <gtest/gtest.h>
#include <log/log.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "Diagnostics.h"
#include "TestSupport.h"
#include "seams.h"

using testsupport::clearProperty;
using testsupport::FixtureRoot;
using testsupport::LogCapture;

namespace {

constexpr char kTraceMarker[] = "/sys/kernel/tracing/trace_marker";
constexpr char kTraceProperty[] = "vendor.debug.trace.perf";
constexpr char kTagsProperty[] = "debug.atrace.tags.enableflags";

// Restores METERS_ROOT as it was when the test began.
class RootEnvGuard {
  public:
    RootEnvGuard() {
        if (const char* prev = getenv("METERS_ROOT")) {
            mHad = true;
            mPrev = prev;
        }
    }
    ~RootEnvGuard() {
        if (mHad) {
            setenv("METERS_ROOT", mPrev.c_str(), 1);
        } else {
            unsetenv("METERS_ROOT");
        }
    }

  private:
    bool mHad = false;
    std::string mPrev;
};

}  // namespace

// --- log ---------------------------------------------------------------------------------------

TEST(PlatformLog, PrintFormatsWithPriorityAndTag) {
    LogCapture log;
    __android_log_print(ANDROID_LOG_ERROR, "ANDR-PERF-ZQ", "%s: %s() %d: value %d", "A", "f", 7,
                        -3);
    __android_log_print(ANDROID_LOG_INFO, "other", "plain");
    EXPECT_EQ(log.records(),
              (std::vector<std::string>{"6|ANDR-PERF-ZQ|A: f() 7: value -3", "4|other|plain"}));
}

TEST(PlatformLog, WideStringConversionPrintsNarrowTextAndKeepsEscapedPercent) {
    LogCapture log;
    __android_log_print(ANDROID_LOG_ERROR, "t", "%s in %S", "boom",
                        reinterpret_cast<const wchar_t*>("fn"));
    __android_log_print(ANDROID_LOG_ERROR, "t", "100%%S %5S|",
                        reinterpret_cast<const wchar_t*>("ab"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"boom in fn", "100%S    ab|"}));
}

TEST(PlatformLog, LongMessagesAreTruncatedToTheBuffer) {
    LogCapture log;
    const std::string longText(3000, 'x');
    __android_log_print(ANDROID_LOG_ERROR, "t", "%s", longText.c_str());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], std::string(1023, 'x'));
}

// --- properties --------------------------------------------------------------------------------

TEST(PlatformProperties, UnsetReadsAsDefaultAndSetValueReadsBack) {
    const char* key = "test.platform.prop";
    clearProperty(key);
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get(key, buf, "dflt"), 4);
    EXPECT_STREQ(buf, "dflt");
    EXPECT_EQ(property_get(key, buf, nullptr), 0);
    EXPECT_STREQ(buf, "");

    ASSERT_EQ(property_set(key, "value"), 0);
    EXPECT_EQ(property_get(key, buf, "dflt"), 5);
    EXPECT_STREQ(buf, "value");

    // An empty value is the same as no value.
    clearProperty(key);
    EXPECT_EQ(property_get(key, buf, "dflt"), 4);
    EXPECT_STREQ(buf, "dflt");
}

TEST(PlatformProperties, OverlongValueIsRefusedAndOldValueKept) {
    const char* key = "test.platform.long";
    const std::string longest(PROPERTY_VALUE_MAX - 1, 'v');
    const std::string tooLong(PROPERTY_VALUE_MAX, 'w');
    ASSERT_EQ(property_set(key, longest.c_str()), 0);
    EXPECT_EQ(property_set(key, tooLong.c_str()), -1);
    char buf[PROPERTY_VALUE_MAX];
    EXPECT_EQ(property_get(key, buf, ""), PROPERTY_VALUE_MAX - 1);
    EXPECT_EQ(std::string(buf), longest);
    clearProperty(key);
}

TEST(PlatformProperties, BoolAcceptsTheDeviceSpellingsOnly) {
    const char* key = "test.platform.bool";
    for (const char* yes : {"1", "y", "yes", "on", "true"}) {
        property_set(key, yes);
        EXPECT_EQ(property_get_bool(key, 0), 1) << yes;
    }
    for (const char* no : {"0", "n", "no", "off", "false"}) {
        property_set(key, no);
        EXPECT_EQ(property_get_bool(key, 1), 0) << no;
    }
    for (const char* other : {"TRUE", "2", "yes ", "enable"}) {
        property_set(key, other);
        EXPECT_EQ(property_get_bool(key, 0), 0) << other;
        EXPECT_EQ(property_get_bool(key, 1), 1) << other;
    }
    clearProperty(key);
    EXPECT_EQ(property_get_bool(key, 1), 1);
    EXPECT_EQ(property_get_bool(key, 0), 0);
}

// --- trace -------------------------------------------------------------------------------------

TEST(PlatformTrace, MarkerWrittenOnlyWhenPropertyAndTagBitAllow) {
    struct Case {
        const char* traceProp;  // nullptr: unset
        const char* tags;       // nullptr: unset
        bool written;
    };
    const Case cases[] = {
        {nullptr, nullptr, false}, {nullptr, "1", false}, {"0", "1", false},
        {"1", nullptr, false},     {"1", "2", false},     {"1", "1", true},
        {"true", "3", true},       {"1", "0x7", true},
    };
    const std::string expected =
        "B|" + std::to_string(getpid()) + "|launch-mark" + "E|" + std::to_string(getpid());
    for (const Case& c : cases) {
        FixtureRoot root;
        root.addFile(kTraceMarker, "");
        // An empty value reads as unset.
        property_set(kTraceProperty, c.traceProp != nullptr ? c.traceProp : "");
        property_set(kTagsProperty, c.tags != nullptr ? c.tags : "");

        // The way a meter uses it: the property gates, the tag bit decides per marker.
        if (diag::traceEnabledByProperty())
            diag::traceMarker("launch-mark");
        EXPECT_EQ(root.read(kTraceMarker), c.written ? expected : "")
            << (c.traceProp ? c.traceProp : "unset") << " / " << (c.tags ? c.tags : "unset");
    }
    clearProperty(kTraceProperty);
    clearProperty(kTagsProperty);
}

// --- seams -------------------------------------------------------------------------------------

TEST(PlatformSeams, ResolvePathPutsAbsolutePathsUnderTheRoot) {
    RootEnvGuard guard;
    setenv("METERS_ROOT", "/tmp/fixture", 1);
    EXPECT_EQ(seams::resolvePath("/proc/12/status"), "/tmp/fixture/proc/12/status");
    EXPECT_EQ(seams::resolvePath("data/vendor/zq/x.csv"), "data/vendor/zq/x.csv");
    EXPECT_EQ(seams::resolvePath(""), "");
    setenv("METERS_ROOT", "/tmp/fixture//", 1);
    EXPECT_EQ(seams::resolvePath("/sys/a"), "/tmp/fixture/sys/a");

    setenv("METERS_ROOT", "", 1);
    EXPECT_EQ(seams::resolvePath("/sys/a"), "/sys/a");
    unsetenv("METERS_ROOT");
    EXPECT_EQ(seams::resolvePath("/sys/a"), "/sys/a");
    EXPECT_EQ(seams::resolvePath("rel"), "rel");
}

TEST(PlatformSeams, SleepHookReplacesTheSleepUntilCleared) {
    std::vector<uint32_t> seen;
    seams::setSleepHook([&seen](uint32_t us) { seen.push_back(us); });
    const auto before = std::chrono::steady_clock::now();
    seams::sleepUs(5000000);
    seams::sleepUs(300000);
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_EQ(seen, (std::vector<uint32_t>{5000000, 300000}));

    seams::setSleepHook(nullptr);
    const auto start = std::chrono::steady_clock::now();
    seams::sleepUs(20000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
    EXPECT_EQ(seen.size(), 2u);
}

TEST(PlatformSeams, ClockHookReplacesTheMonotonicClockUntilCleared) {
    const auto fixed = std::chrono::steady_clock::time_point(std::chrono::hours(5));
    seams::setClockHook([fixed] { return fixed; });
    EXPECT_EQ(seams::steadyNow(), fixed);
    seams::setClockHook(nullptr);
    const auto a = std::chrono::steady_clock::now();
    const auto b = seams::steadyNow();
    const auto c = std::chrono::steady_clock::now();
    EXPECT_LE(a, b);
    EXPECT_LE(b, c);
}

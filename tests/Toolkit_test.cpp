// The meters' shared toolkit: the node stream on real files and processes, the guarded
// arithmetic, configuration values.

#include <cmath>

#include "MeterConfig.h"
#include "MeterMath.h"
#include "NodeStream.h"
#include "TestSupport.h"

using namespace testsupport;

// Each step rewrites the node in place, rewinds, and reads with an 8-byte buffer. Reading just
// the pieces a text has (without reaching its end) is what leaves stdio a buffer to replay.
TEST(NodeFile, EveryRewindReadsTheNodeAsItIsNow) {
    FixtureRoot root;
    root.addFile("/sys/node", "");
    meters::NodeFile node("/sys/node");
    ASSERT_TRUE(node.isOpen());
    // clang-format off
    const std::pair<const char*, std::vector<const char*>> steps[] = {  // null: the end
        {"abc\n", {"abc\n"}}, {"def\n", {"def\n"}}, {"xyz", {"xyz", nullptr}}, {"", {nullptr}},
        {"0123456789ABC\n", {"0123456", "789ABC\n", nullptr}}, {"ghi\n", {"ghi\n", nullptr}}};
    // clang-format on
    for (const auto& [text, pieces] : steps) {
        root.addFile("/sys/node", text);
        EXPECT_TRUE(node.rewind());
        for (const char* piece : pieces) {
            char buf[8];
            const char* got = node.readLine(buf, sizeof(buf));
            EXPECT_STREQ(got ? got : "(end)", piece ? piece : "(end)") << text;
        }
    }
    meters::NodeFile missing("/sys/missing");
    char buf[8];
    EXPECT_FALSE(missing.isOpen() || missing.rewind() || missing.readLine(buf, 8) != nullptr);
}

// The line flavour keeps std::ifstream's rule: a reading that finds the end leaves the stream
// failed until it is opened again, however the node changes meanwhile.
TEST(NodeLines, EmptyReadingsStickUntilTheNodeIsOpenedAgainAndWritesReplaceTheText) {
    FixtureRoot root;
    root.addFile("/sys/node", "");
    std::ifstream node;
    ASSERT_TRUE(meters::openNode(node, "/sys/node"));
    const std::string longLine(5000, 'x');
    // clang-format off
    const std::tuple<std::string, bool, std::string, bool> steps[] = {  // read, line, rewound
        {"abc\n", true, "abc", true}, {"xyz", true, "xyz", true},
        {longLine + "\n", true, longLine, true}, {"\n", false, "", true}, {"", false, "", false},
        {"def\n", false, "", false}};
    // clang-format on
    std::string line = "stale";
    for (const auto& [text, read, expected, rewound] : steps) {
        root.addFile("/sys/node", text);
        EXPECT_EQ(meters::readNodeLine(node, line), read) << text;
        EXPECT_EQ(line, expected);
        EXPECT_EQ(meters::rewindNode(node), rewound) << text;
    }
    node.close();
    EXPECT_TRUE(meters::openNode(node, "/sys/node") && meters::readNodeLine(node, line));
    EXPECT_EQ(line, "def");
    std::ifstream missing;
    EXPECT_FALSE(meters::openNode(missing, "/sys/missing") || meters::readNodeLine(missing, line));
    // The writer's counterpart: the value replaces the text, with no newline.
    EXPECT_TRUE(meters::writeNode("/sys/node", 500));
    EXPECT_EQ(root.read("/sys/node"), "500");
    EXPECT_FALSE(meters::writeNode("/sys/missing/node", 500));
}

// Once the process is reaped, its kept-open status file must read nothing, never the text of
// the last reading again.
TEST(NodeFile, ANodeOfAProcessThatIsGoneReadsNothing) {
    ChildProcess child("node-probe");
    meters::NodeFile file("/proc/" + std::to_string(child.pid()) + "/status");
    char buf[150];
    for (int round = 0; round < 2; ++round) {
        // Stop mid-text, as a status parser does once it has its keys.
        while (file.readLine(buf, sizeof(buf)) != nullptr && strncmp(buf, "VmSwap:", 7) != 0) {
        }
        EXPECT_EQ(std::string(buf, 7), "VmSwap:");
        if (round == 1)
            child.kill();
        file.rewind();
    }
    EXPECT_EQ(file.readLine(buf, sizeof(buf)), nullptr);
}

// Integer products that do not fit give 1; the float guard also counts zero and negative
// factors as overflows unless the other factor is not positive, and denormal products too.
TEST(MeterMath, GuardedProductsGiveOneWhereTheyWouldNotFit) {
    // clang-format off
    const std::array<int32_t, 3> ints[] = {
        {46341, 46341, 1}, {-1, INT_MIN, 1}, {INT_MIN, -1, 1}, {0, INT_MIN, 0}, {INT_MIN, 1, INT_MIN},
        {21474836, 100, 2147483600}, {21474837, 100, 1}, {-21474836, 100, -2147483600},
        {-21474837, 100, 1}, {2, -1073741824, INT_MIN}, {2, -1073741825, 1},
        {-2, -1073741823, 2147483646}, {-2, -1073741824, 1}};
    const std::array<float, 3> floats[] = {
        {0.5F, 100, 50}, {0, 100, 1}, {-3, 100, 1}, {3.4028235e36F, 100, 3.4028235e38F},
        {3.5e36F, 100, 1}, {1e-40F, 100, 1}, {5, 0.5F, 2.5F}, {5, 0, 1}, {0, 0.5F, 1}, {0, -1, 0},
        {-5, 0.5F, 1}, {-5, -2, 10}, {10, 0.0001F, 0.001F}, {1e-35F, 0.0001F, 1}};
    // clang-format on
    for (const auto& [a, b, product] : ints)
        EXPECT_EQ(meters::guardedMultiply(a, b), product) << a << " * " << b;
    for (const auto& [a, b, product] : floats)
        EXPECT_FLOAT_EQ(meters::guardedMultiply(a, b), product) << a << " * " << b;
    EXPECT_EQ(meters::wrappingAdd(INT_MAX, 1), INT_MIN);
    EXPECT_EQ(meters::guardedSubtract(INT_MIN, 1), 0);
    EXPECT_EQ(meters::guardedSubtract(-1, INT_MAX), INT_MIN);
}

TEST(MeterConfig, APresentValueReplacesTheDefaultAsItStands) {
    MeterInfo info{"", {}, {}, {{"EMPTY", ""}, {"TEXT", "abc"}}, 0};
    EXPECT_EQ(meters::configValue(info, "EMPTY", "/sys/x"), "");
    EXPECT_EQ(meters::configValue(info, "TEXT", "7"), "abc");
    EXPECT_EQ(meters::configValue(info, "ABSENT", "/sys/x"), "/sys/x");
}

// Registration by name and the factory template.
#include "MeterRegistry.h"

#include <utility>

#include "FpsMeter.h"
#include "GpuMeter.h"
#include "LaunchMeter.h"
#include "MemoryMeter.h"
#include "MinDDRMeter.h"
#include "PerfCountersMeter.h"
#include "ProCompMeter.h"
#include "SchedParamsMeter.h"
#include "TestSupport.h"
#include "VmRssMeter.h"

using Reg = RegistryBase<Meter, MeterInfo>;

TEST(MeterRegistry, TheFirstFactoryRegisteredUnderANameIsKept) {
    EXPECT_TRUE(MeterRegistry::Register<ProCompMeter>("Test.First"));
    EXPECT_FALSE(MeterRegistry::Register<VmRssMeter>("Test.First"));
    EXPECT_EQ(Reg::classList->at("Test.First"), (&createClassObj<Meter, MeterInfo, ProCompMeter>));
}

TEST(MeterRegistry, EachNameBuildsItsOwnClassFromTheInfo) {
    // Memory takes its bound from configs, VmRss from numSamples.
    const MeterInfo info{
        "", {}, {}, {{"TotalSamplesToRun", "6"}, {"FPS_NODE", "/fps"}, {"GPU_MAX_CLK", "/clk"}}, 6};
    // {name, whether the meter is of the name's class and took its sample bound from info}; a
    // meter of another class fails the cast.
    const std::pair<const char*, bool (*)(Meter&)> cases[] = {
        {"VmRss", [](Meter& m) { return dynamic_cast<VmRssMeter&>(m).mNumSamples == 6; }},
        {"Memory", [](Meter& m) { return dynamic_cast<MemoryMeter&>(m).mTotalSamples == 6; }},
        {"ProComp", [](Meter& m) { return dynamic_cast<ProCompMeter*>(&m) != nullptr; }},
        {"Launch", [](Meter& m) { return dynamic_cast<LaunchMeter&>(m).mTotalSamples == 2000; }},
        {"Fps", [](Meter& m) { return dynamic_cast<FpsMeter&>(m).mFpsNodePath == "/fps"; }},
        {"Gpu", [](Meter& m) { return dynamic_cast<GpuMeter&>(m).mMaxClkPath == "/clk"; }},
        {"SchedParams", [](Meter& m) { return dynamic_cast<SchedParamsMeter*>(&m) != nullptr; }},
        {"PerfCounters", [](Meter& m) { return dynamic_cast<PerfCountersMeter*>(&m) != nullptr; }},
        {"MinDDR", [](Meter& m) { return dynamic_cast<MinDDRMeter&>(m).mWorker != nullptr; }}};
    for (auto [name, isItsClass] : cases) {
        std::unique_ptr<Meter> meter(Reg::classList->at(name)(info));
        ASSERT_NE(meter, nullptr) << name;
        EXPECT_TRUE(isItsClass(*meter)) << name;
    }
}

TEST(MeterRegistry, FailedAllocationsLeaveTheRegistryNullWithALinePerMeterAndFactoriesNull) {
    if (!testsupport::nothrowNewCanFail())
        GTEST_SKIP() << "the non-throwing allocation cannot be made to fail in this build";
    Reg::Map* saved = std::exchange(Reg::classList, nullptr);
    testsupport::LogCapture log;
    {
        testsupport::FailNothrowNew failing;
        EXPECT_FALSE(MeterRegistry::Register<ProCompMeter>("X"));
        EXPECT_FALSE(MeterRegistry::Register<VmRssMeter>("Y"));
        EXPECT_EQ(saved->at("VmRss")(MeterInfo()), nullptr);
    }
    EXPECT_EQ(Reg::classList, nullptr);
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "MeterRegistry: Registry() 97: getMap() returned nullptr, Class X not registered",
            "MeterRegistry: Registry() 97: getMap() returned nullptr, Class Y not registered"}));
    Reg::classList = saved;
}

// Registration by name and the factory template.
#include "MeterRegistry.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "RegistryBase.h"
#include "TestSupport.h"

using testsupport::FailNothrowNew;
using testsupport::LogCapture;
using Reg = RegistryBase<Meter, MeterInfo>;

namespace {

// Keeps the MeterInfo it was built from.
class RecordingMeter : public Meter {
  public:
    explicit RecordingMeter(MeterInfo info) : Meter(info), mInfo(std::move(info)) {}
    void start() override {}
    MeterInfo mInfo;
};

class ThrowingMeter : public Meter {
  public:
    explicit ThrowingMeter(MeterInfo) { throw std::runtime_error("construction failed"); }
    void start() override {}
};

Meter* nullFactoryA(MeterInfo) {
    return nullptr;
}
Meter* nullFactoryB(MeterInfo) {
    return nullptr;
}

// Swaps in an empty (null) registry for the test and puts the library's back afterwards.
class DetachedRegistry {
  public:
    DetachedRegistry() {
        std::lock_guard<std::mutex> lock(Reg::mMutex);
        mSaved = Reg::classList;
        Reg::classList = nullptr;
    }
    ~DetachedRegistry() {
        std::lock_guard<std::mutex> lock(Reg::mMutex);
        delete Reg::classList;
        Reg::classList = mSaved;
    }

  private:
    Reg::Map* mSaved;
};

// Whether FailNothrowNew takes effect in this build (not under the thread sanitizer, whose
// runtime owns the allocation operators). Called through a pointer so it is not optimised out.
bool nothrowNewCanFail() {
    void* (*volatile allocate)(std::size_t, const std::nothrow_t&) noexcept = &::operator new;
    void* p;
    {
        FailNothrowNew failing;
        p = allocate(1, std::nothrow);
    }
    ::operator delete(p);
    return p == nullptr;
}

Reg::Factory lookup(const std::string& name) {
    std::lock_guard<std::mutex> lock(Reg::mMutex);
    if (Reg::classList == nullptr)
        return nullptr;
    auto it = Reg::classList->find(name);
    return it == Reg::classList->end() ? nullptr : it->second;
}

}  // namespace

TEST(MeterRegistry, FirstFactoryRegisteredUnderANameIsKept) {
    EXPECT_TRUE(MeterRegistry::Registry("Test.First", nullFactoryA));
    EXPECT_FALSE(MeterRegistry::Registry("Test.First", nullFactoryB));
    EXPECT_EQ(lookup("Test.First"), &nullFactoryA);
    EXPECT_TRUE(MeterRegistry::Registry("Test.First", nullFactoryA));
    EXPECT_EQ(lookup("Test.First"), &nullFactoryA);
}

TEST(MeterRegistry, FirstRegistrationCreatesAnEmptyMapWithLoadFactorOne) {
    DetachedRegistry detached;
    ASSERT_TRUE(MeterRegistry::Registry("Fresh", nullFactoryA));
    std::lock_guard<std::mutex> lock(Reg::mMutex);
    ASSERT_NE(Reg::classList, nullptr);
    EXPECT_FLOAT_EQ(Reg::classList->max_load_factor(), 1.0f);
    ASSERT_EQ(Reg::classList->size(), 1u);
    EXPECT_EQ(Reg::classList->begin()->first, "Fresh");
}

TEST(MeterRegistry, FailedMapAllocationLogsAndLeavesRegistryNull) {
    if (!nothrowNewCanFail())
        GTEST_SKIP() << "the non-throwing allocation cannot be made to fail in this build";
    DetachedRegistry detached;
    LogCapture log;
    {
        FailNothrowNew failing;
        EXPECT_FALSE(MeterRegistry::Registry("X", nullFactoryA));
        EXPECT_FALSE(MeterRegistry::Register<RecordingMeter>("Gpu"));
    }
    EXPECT_EQ(Reg::classList, nullptr);
    EXPECT_EQ(log.records(),
              (std::vector<std::string>{
                  "6|ANDR-PERF-ZQ|MeterRegistry: Registry() 97: getMap() returned nullptr, Class X "
                  "not registered",
                  "6|ANDR-PERF-ZQ|MeterRegistry: Registry() 97: getMap() returned nullptr, Class "
                  "Gpu not registered"}));

    // Allocation works again: the next registration creates the map.
    EXPECT_TRUE(MeterRegistry::Registry("X", nullFactoryB));
    EXPECT_EQ(lookup("X"), &nullFactoryB);
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST(MeterRegistry, RegisteredFactoryBuildsTheClassFromACopyOfTheInfo) {
    ASSERT_TRUE(MeterRegistry::Register<RecordingMeter>("Test.Recording"));
    Reg::Factory factory = lookup("Test.Recording");
    ASSERT_NE(factory, nullptr);

    MeterInfo info;
    info.name = "Test.Recording";
    info.fieldNames = {"rss_swap"};
    info.configs = {{"TotalSamplesToRun", "40"}};
    info.numSamples = 12;
    Meter* meter = factory(info);
    ASSERT_NE(meter, nullptr);
    auto* recording = dynamic_cast<RecordingMeter*>(meter);
    ASSERT_NE(recording, nullptr);
    EXPECT_EQ(recording->mInfo.name, "Test.Recording");
    EXPECT_EQ(recording->mInfo.fieldNames, info.fieldNames);
    EXPECT_EQ(recording->mInfo.configs, info.configs);
    EXPECT_EQ(recording->mInfo.numSamples, 12);
    EXPECT_FALSE(meter->hasStopNotification());
    delete meter;
}

TEST(MeterRegistry, CreateClassObjReturnsNullWhenAllocationFails) {
    if (!nothrowNewCanFail())
        GTEST_SKIP() << "the non-throwing allocation cannot be made to fail in this build";
    LogCapture log;
    {
        FailNothrowNew failing;
        EXPECT_EQ((createClassObj<Meter, MeterInfo, RecordingMeter>(MeterInfo{})), nullptr);
    }
    EXPECT_TRUE(log.lines().empty());
    Meter* built = createClassObj<Meter, MeterInfo, RecordingMeter>(MeterInfo{});
    EXPECT_NE(built, nullptr);
    delete built;
}

TEST(MeterRegistry, CreateClassObjPassesAConstructorExceptionOn) {
    // The storage is released by the new-expression; the leak checker sees it otherwise.
    EXPECT_THROW((createClassObj<Meter, MeterInfo, ThrowingMeter>(MeterInfo{})),
                 std::runtime_error);
}

TEST(MeterRegistry, ConcurrentRegistrationsAllLandAndOneFactoryWinsAContestedName) {
    constexpr int kThreads = 4;
    constexpr int kNames = 50;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kNames; ++i) {
                MeterRegistry::Registry("Test.T" + std::to_string(t) + "." + std::to_string(i),
                                        nullFactoryA);
                MeterRegistry::Registry("Test.Contested", t % 2 == 0 ? nullFactoryA : nullFactoryB);
            }
        });
    }
    for (auto& th : threads)
        th.join();
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kNames; ++i)
            EXPECT_EQ(lookup("Test.T" + std::to_string(t) + "." + std::to_string(i)),
                      &nullFactoryA);
    }
    const Reg::Factory winner = lookup("Test.Contested");
    EXPECT_TRUE(winner == &nullFactoryA || winner == &nullFactoryB);
    EXPECT_FALSE(MeterRegistry::Registry("Test.Contested",
                                         winner == &nullFactoryA ? nullFactoryB : nullFactoryA));
}

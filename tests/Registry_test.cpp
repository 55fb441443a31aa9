// Registration by name and the factory template.
#include "MeterRegistry.h"

#include <gtest/gtest.h>

#include <memory>

#include "TestSupport.h"

using testsupport::FailNothrowNew;
using Reg = RegistryBase<Meter, MeterInfo>;

namespace {

// Keeps the name of the MeterInfo it was built from.
struct NamedMeter : Meter {
    explicit NamedMeter(MeterInfo info) : Meter(info), name(info.name) {}
    void start() override {}
    std::string name;
};

// Two factories that differ, so that no linker can fold them into one.
const Reg::Factory factoryA = [](MeterInfo) -> Meter* { return nullptr; };
const Reg::Factory factoryB = [](MeterInfo info) -> Meter* { return new NamedMeter(info); };

// Whether FailNothrowNew takes effect in this build (not under the thread sanitizer, whose
// runtime owns the allocation operators). Called through a pointer so it is not optimised out.
bool nothrowNewCanFail() {
    void* (*volatile allocate)(std::size_t, const std::nothrow_t&) noexcept = &::operator new;
    FailNothrowNew failing;
    void* p = allocate(1, std::nothrow);
    ::operator delete(p);
    return p == nullptr;
}

}  // namespace

TEST(MeterRegistry, FirstFactoryRegisteredUnderANameIsKept) {
    EXPECT_TRUE(MeterRegistry::Registry("Test.First", factoryA));
    EXPECT_FALSE(MeterRegistry::Registry("Test.First", factoryB));
    EXPECT_TRUE(MeterRegistry::Registry("Test.First", factoryA));
    EXPECT_EQ(Reg::classList->at("Test.First"), factoryA);
}

TEST(MeterRegistry, NewMapHasLoadFactorOneAndAFailedAllocationIsLoggedAndLeavesItNull) {
    Reg::Map* saved = Reg::classList;
    Reg::classList = nullptr;
    testsupport::LogCapture log;
    if (nothrowNewCanFail()) {  // the switch has no effect under the thread sanitizer
        FailNothrowNew failing;
        EXPECT_FALSE(MeterRegistry::Registry("X", factoryA));
        EXPECT_EQ(Reg::classList, nullptr);
        EXPECT_EQ(log.records(),
                  std::vector<std::string>{"6|ANDR-PERF-ZQ|MeterRegistry: Registry() 97: getMap() "
                                           "returned nullptr, Class X not registered"});
    }
    EXPECT_TRUE(MeterRegistry::Registry("X", factoryB));
    std::unique_ptr<Reg::Map> created(Reg::classList);
    Reg::classList = saved;
    ASSERT_NE(created, nullptr);
    EXPECT_FLOAT_EQ(created->max_load_factor(), 1.0f);
    EXPECT_EQ(created->size(), 1u);
}

TEST(MeterRegistry, RegisteredFactoryBuildsTheClassOrNullWhenAllocationFails) {
    ASSERT_TRUE(MeterRegistry::Register<NamedMeter>("Test.Named"));
    MeterInfo info;
    info.name = "Test.Named";
    std::unique_ptr<Meter> built(Reg::classList->at("Test.Named")(info));
    ASSERT_NE(dynamic_cast<NamedMeter*>(built.get()), nullptr);
    EXPECT_EQ(dynamic_cast<NamedMeter&>(*built).name, "Test.Named");
    if (!nothrowNewCanFail())
        GTEST_SKIP() << "the non-throwing allocation cannot be made to fail in this build";
    FailNothrowNew failing;
    EXPECT_EQ((createClassObj<Meter, MeterInfo, NamedMeter>(info)), nullptr);
}

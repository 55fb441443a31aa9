#include <gtest/gtest.h>
#include "MeterRegistry.h"
TEST(Smoke, Builds) {
    SUCCEED();
}

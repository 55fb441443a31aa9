#include "MeterRegistry.h"

#include <mutex>

#include "Diagnostics.h"

bool MeterRegistry::Registry(const std::string& name, Factory factory) {
    using Reg = RegistryBase<Meter, MeterInfo>;
    std::lock_guard<std::mutex> lock(Reg::mMutex);
    if (Reg::classList == nullptr) {
        auto* map = new (std::nothrow) Reg::Map();
        if (map == nullptr) {
            METER_LOGE("MeterRegistry", "Registry", 97,
                       "getMap() returned nullptr, Class %s not registered", name.c_str());
            return false;
        }
        map->max_load_factor(1.0f);
        Reg::classList = map;
    }
    auto inserted = Reg::classList->emplace(name, factory);
    return inserted.first->second == factory;
}

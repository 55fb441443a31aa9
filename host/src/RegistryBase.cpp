#include "RegistryBase.h"

template <>
RegistryBase<Meter, MeterInfo>::Map* RegistryBase<Meter, MeterInfo>::classList = nullptr;
template <>
std::mutex RegistryBase<Meter, MeterInfo>::mMutex{};

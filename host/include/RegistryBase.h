// The host's name-to-factory registry. Its two statics live once in the host library.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

#include "Meter.h"

template <class T, class Info>
class RegistryBase {
  public:
    using Factory = T* (*)(Info);
    using Map = std::unordered_map<std::string, Factory>;

    static Map* classList;
    static std::mutex mMutex;
};

// Defined in the host library, so every loader of it shares one registry.
template <>
RegistryBase<Meter, MeterInfo>::Map* RegistryBase<Meter, MeterInfo>::classList;
template <>
std::mutex RegistryBase<Meter, MeterInfo>::mMutex;

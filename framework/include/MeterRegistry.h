// How each meter makes itself creatable by name. A meter source file registers with one line:
//   bool VmRssMeter::registerMeter = MeterRegistry::Register<VmRssMeter>("VmRss");
#pragma once

#include <new>
#include <string>

#include "Meter.h"
#include "RegistryBase.h"

// Builds a T from a copy of info with the non-throwing allocation; null when that fails.
template <class Base, class Info, class T>
Base* createClassObj(Info info) {
    return new (std::nothrow) T(info);
}

class MeterRegistry {
  public:
    using Factory = RegistryBase<Meter, MeterInfo>::Factory;

    // Adds (name, factory) unless name is taken; the first registration wins. Returns whether
    // the registry now holds this factory under name.
    static bool Registry(const std::string& name, Factory factory);

    template <class T>
    static bool Register(const char* name) {
        return Registry(name, &createClassObj<Meter, MeterInfo, T>);
    }
};

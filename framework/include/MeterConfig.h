// Configuration comes only from MeterInfo::configs (and Android properties).
#pragma once

#include <string>

#include "Meter.h"

namespace meters {

// The value configured under key, or fallback when the key is absent. A present value replaces
// the fallback as it stands, even when empty or not a number: the meters do not second-guess it.
inline std::string configValue(const MeterInfo& info, const std::string& key,
                               const std::string& fallback) {
    auto it = info.configs.find(key);
    return it != info.configs.end() ? it->second : fallback;
}

}  // namespace meters

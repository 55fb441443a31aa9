// Linux stand-in for the device's property store: an in-process table shared by every library
// of the process. Values obey the device's limits (PROPERTY_VALUE_MAX including the NUL).
#include <cutils/properties.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

std::mutex gMutex;
std::map<std::string, std::string>& table() {
    static auto* t = new std::map<std::string, std::string>();  // never destroyed: used at exit
    return *t;
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    if (key == nullptr || value == nullptr)
        return -1;
    std::string found;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        auto it = table().find(key);
        if (it != table().end())
            found = it->second;
    }
    if (!found.empty()) {
        size_t len = std::min(found.size(), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
        std::memcpy(value, found.data(), len);
        value[len] = '\0';
        return static_cast<int>(len);
    }
    if (default_value != nullptr) {
        size_t len =
            std::min(std::strlen(default_value), static_cast<size_t>(PROPERTY_VALUE_MAX - 1));
        std::memcpy(value, default_value, len);
        value[len] = '\0';
        return static_cast<int>(len);
    }
    value[0] = '\0';
    return 0;
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") <= 0)
        return default_value;
    if (!strcmp(buf, "1") || !strcmp(buf, "y") || !strcmp(buf, "yes") || !strcmp(buf, "on") ||
        !strcmp(buf, "true")) {
        return 1;
    }
    if (!strcmp(buf, "0") || !strcmp(buf, "n") || !strcmp(buf, "no") || !strcmp(buf, "off") ||
        !strcmp(buf, "false")) {
        return 0;
    }
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, "") <= 0)
        return default_value;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(buf, &end, 0);
    if (errno != 0 || end == buf || *end != '\0')
        return default_value;
    return v;
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    int64_t v = property_get_int64(key, default_value);
    return (v < INT32_MIN || v > INT32_MAX) ? default_value : static_cast<int32_t>(v);
}

int property_set(const char* key, const char* value) {
    if (key == nullptr)
        return -1;
    if (value == nullptr)
        value = "";
    if (std::strlen(value) >= PROPERTY_VALUE_MAX)
        return -1;
    std::lock_guard<std::mutex> lock(gMutex);
    table()[key] = value;
    return 0;
}

}  // extern "C"

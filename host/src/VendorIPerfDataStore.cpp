#include "VendorIPerfDataStore.h"

#include <atomic>
#include <cstring>

namespace {
VendorIPerfDataStore gStore;
std::atomic<bool> gAvailable{true};
}  // namespace

VendorIPerfDataStore* VendorIPerfDataStore::getVendorIPerfDataStore() {
    return gAvailable.load() ? &gStore : nullptr;
}

void VendorIPerfDataStore::setAvailable(bool available) {
    gAvailable.store(available);
}

void VendorIPerfDataStore::Store(int key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mMutex);
    mValues[key] = value;
}

void VendorIPerfDataStore::Erase(int key) {
    std::lock_guard<std::mutex> lock(mMutex);
    mValues.erase(key);
}

void VendorIPerfDataStore::Retrieve(int key, char* buffer) {
    if (buffer == nullptr)
        return;
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mValues.find(key);
    if (it == mValues.end())
        return;
    size_t len = std::min(it->second.size(), static_cast<size_t>(kValueSize - 1));
    std::memcpy(buffer, it->second.data(), len);
    buffer[len] = '\0';
}

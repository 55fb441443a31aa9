// The host's key-to-text data store.
#pragma once

#include <map>
#include <mutex>
#include <string>

class VendorIPerfDataStore {
  public:
    static constexpr int kValueSize = 250;

    // The process's store, or null when the host has none.
    static VendorIPerfDataStore* getVendorIPerfDataStore();

    virtual void Store(int key, const std::string& value);
    virtual void Erase(int key);
    // Copies the text kept under key into buffer (kValueSize bytes, NUL-terminated, truncating);
    // leaves buffer untouched when the key is unknown.
    virtual void Retrieve(int key, char* buffer);
    virtual ~VendorIPerfDataStore() = default;

    // Host-owner hook (not used by meters): whether getVendorIPerfDataStore() answers.
    static void setAvailable(bool available);

  private:
    std::mutex mMutex;
    std::map<int, std::string> mValues;
};

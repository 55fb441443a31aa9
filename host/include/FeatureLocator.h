// The host's feature lookup (for example the application classifier, key "AppClassifier").
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <tuple>

class FeatureLocator {
  public:
    static FeatureLocator* mInstance;

    // Answer for (key, name, selector); 0 when nothing was set.
    int getData(const std::string& key, const std::string& name, int selector);

    // Host-owner hooks (not used by meters).
    void setData(const std::string& key, const std::string& name, int selector, int answer);
    void clearData();

  private:
    std::mutex mMutex;
    std::map<std::tuple<std::string, std::string, int>, int> mTable;
};

#include "FeatureLocator.h"

namespace {
FeatureLocator gLocator;
}

FeatureLocator* FeatureLocator::mInstance = &gLocator;

int FeatureLocator::getData(const std::string& key, const std::string& name, int selector) {
    std::lock_guard<std::mutex> lock(mMutex);
    auto it = mTable.find(std::make_tuple(key, name, selector));
    return it == mTable.end() ? 0 : it->second;
}

void FeatureLocator::setData(const std::string& key, const std::string& name, int selector,
                             int answer) {
    std::lock_guard<std::mutex> lock(mMutex);
    mTable[std::make_tuple(key, name, selector)] = answer;
}

void FeatureLocator::clearData() {
    std::lock_guard<std::mutex> lock(mMutex);
    mTable.clear();
}

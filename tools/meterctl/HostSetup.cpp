#include "HostSetup.h"

#include <cutils/properties.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "FeatureLocator.h"
#include "VendorIPerfDataStore.h"

namespace meterctl {

namespace {

using nlohmann::json;

constexpr char kRootVariable[] = "METERS_ROOT";
constexpr int kPerfCountersNodeKey = 5;
constexpr char kClassifierKey[] = "AppClassifier";
constexpr int kGame = 2;  // the classifier's answer for a game (selector 0)

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (;;) {
        const size_t end = text.find(separator, begin);
        parts.push_back(text.substr(begin, end - begin));
        if (end == std::string::npos)
            return parts;
        begin = end + 1;
    }
}

int32_t toInt32(long long value, const std::string& what) {
    if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max())
        throw std::invalid_argument(what + " " + std::to_string(value) + " is out of range");
    return static_cast<int32_t>(value);
}

uint32_t toHintId(long long value, const std::string& what) {
    if (value < 0 || value > std::numeric_limits<uint32_t>::max())
        throw std::invalid_argument(what + " " + std::to_string(value) + " is out of range");
    return static_cast<uint32_t>(value);
}

// ':'-separated integers; an empty text is an empty list.
std::vector<int32_t> parseIntList(const std::string& text, const std::string& what) {
    std::vector<int32_t> values;
    if (text.empty())
        return values;
    for (const std::string& part : split(text, ':'))
        values.push_back(toInt32(parseInteger(part, what), what));
    return values;
}

void fillIntArgs(AsyncTriggerPayload& payload, const std::vector<int32_t>& args) {
    if (args.size() > AsyncTriggerPayload::kNumIntArgs)
        throw std::invalid_argument("at most " + std::to_string(AsyncTriggerPayload::kNumIntArgs) +
                                    " intArgs, not " + std::to_string(args.size()));
    std::copy(args.begin(), args.end(), payload.intArgs);
}

// Reading a JSON document: every complaint names where in it the fault is.
class JsonReader {
  public:
    explicit JsonReader(std::string file) : mFile(std::move(file)) {}

    [[noreturn]] void fail(const std::string& where, const std::string& what) const {
        throw std::invalid_argument(mFile + ": " + where + " " + what);
    }

    void onlyKeys(const json& object, const std::string& where,
                  const std::set<std::string>& known) const {
        if (!object.is_object())
            fail(where, "must be an object");
        for (const auto& item : object.items()) {
            if (known.count(item.key()) == 0)
                fail(where, "has an unknown member \"" + item.key() + "\"");
        }
    }

    long long integer(const json& value, const std::string& where) const {
        if (!value.is_number_integer())
            fail(where, "must be an integer");
        return value.get<long long>();
    }

    // A hint id may be a number or a text such as "0x1081", as on the command line.
    uint32_t hintId(const json& value, const std::string& where) const {
        long long id = 0;
        if (value.is_string()) {
            try {
                id = parseInteger(value.get<std::string>(), "hint id", true);
            } catch (const std::invalid_argument& e) {
                fail(where, std::string("is not a hint id: ") + e.what());
            }
        } else {
            id = integer(value, where);
        }
        if (id < 0 || id > std::numeric_limits<uint32_t>::max())
            fail(where, "is out of range");
        return static_cast<uint32_t>(id);
    }

    int32_t int32(const json& value, const std::string& where) const {
        const long long v = integer(value, where);
        if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max())
            fail(where, "is out of range");
        return static_cast<int32_t>(v);
    }

    std::string text(const json& value, const std::string& where) const {
        if (!value.is_string())
            fail(where, "must be a string");
        return value.get<std::string>();
    }

    const json& array(const json& value, const std::string& where) const {
        if (!value.is_array())
            fail(where, "must be an array");
        return value;
    }

    std::vector<int32_t> int32s(const json& value, const std::string& where) const {
        std::vector<int32_t> out;
        for (size_t i = 0; i < array(value, where).size(); ++i)
            out.push_back(int32(value[i], where + "[" + std::to_string(i) + "]"));
        return out;
    }

    TimedEvent event(const json& value, const std::string& where) const {
        onlyKeys(value, where,
                 {"hintId", "hintType", "appName", "intArgs", "values", "longArg", "atMs"});
        if (!value.contains("hintId"))
            fail(where, "needs a \"hintId\"");
        TimedEvent event;
        AsyncTriggerPayload& p = event.payload;
        p.hintId = hintId(value["hintId"], where + ".hintId");
        if (value.contains("hintType"))
            p.hintType = int32(value["hintType"], where + ".hintType");
        if (value.contains("appName"))
            p.appName = text(value["appName"], where + ".appName");
        if (value.contains("intArgs")) {
            const std::vector<int32_t> args = int32s(value["intArgs"], where + ".intArgs");
            if (args.size() > AsyncTriggerPayload::kNumIntArgs)
                fail(where + ".intArgs", "has more than eleven entries");
            std::copy(args.begin(), args.end(), p.intArgs);
        }
        if (value.contains("values"))
            p.values = int32s(value["values"], where + ".values");
        if (value.contains("longArg"))
            p.longArg = integer(value["longArg"], where + ".longArg");
        if (value.contains("atMs")) {
            const long long at = integer(value["atMs"], where + ".atMs");
            if (at < 0 || at > std::numeric_limits<int>::max())
                fail(where + ".atMs", "must be a time in ms from 0");
            event.atMs = static_cast<int>(at);
        }
        return event;
    }

  private:
    std::string mFile;
};

}  // namespace

long long parseInteger(const std::string& text, const std::string& what, bool hex) {
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    int base = 10;
    if (hex && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        begin += 2;
        base = 16;
    }
    long long value = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, value, base);
    if (text.empty() || ec == std::errc::invalid_argument || ptr != end)
        throw std::invalid_argument(what + " '" + text + "' is not a whole number");
    if (ec == std::errc::result_out_of_range)
        throw std::invalid_argument(what + " '" + text + "' is out of range");
    return value;
}

TimedEvent parseEvent(const std::string& text) {
    TimedEvent event;
    std::string fields = text;
    const size_t at = text.rfind('@');
    if (at != std::string::npos) {
        const long long ms = parseInteger(text.substr(at + 1), "delivery time");
        if (ms < 0 || ms > std::numeric_limits<int>::max())
            throw std::invalid_argument("delivery time " + text.substr(at + 1) +
                                        " must be a time in ms from 0");
        event.atMs = static_cast<int>(ms);
        fields = text.substr(0, at);
    }
    const std::vector<std::string> parts = split(fields, ',');
    if (parts.size() > 5)
        throw std::invalid_argument("event '" + text +
                                    "' has more than five fields (ID,TYPE,APP,ARGS,VALUES)");
    AsyncTriggerPayload& p = event.payload;
    p.hintId = toHintId(parseInteger(parts[0], "hint id", true), "hint id");
    if (parts.size() > 1 && !parts[1].empty())
        p.hintType = toInt32(parseInteger(parts[1], "hint type"), "hint type");
    if (parts.size() > 2)
        p.appName = parts[2];
    if (parts.size() > 3)
        fillIntArgs(p, parseIntList(parts[3], "intArg"));
    if (parts.size() > 4)
        p.values = parseIntList(parts[4], "value");
    return event;
}

std::pair<std::string, std::string> parseKeyValue(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0)
        throw std::invalid_argument("'" + text + "' is not KEY=VALUE");
    return {text.substr(0, equals), text.substr(equals + 1)};
}

InfoFile loadInfoFile(const std::string& path) {
    std::ifstream in(path);
    if (!in)
        throw std::invalid_argument(path + ": cannot be read");
    json document;
    try {
        document = json::parse(in);
    } catch (const json::parse_error& e) {
        throw std::invalid_argument(path + ": not JSON (" + e.what() + ")");
    }
    const JsonReader reader(path);
    reader.onlyKeys(document, "the document",
                    {"name", "configs", "fieldNames", "numSamples", "asyncInfos", "events"});
    InfoFile file;
    MeterInfo& info = file.info;
    if (document.contains("name"))
        info.name = reader.text(document["name"], "\"name\"");
    if (document.contains("configs")) {
        const json& configs = document["configs"];
        if (!configs.is_object())
            reader.fail("\"configs\"", "must be an object of texts");
        for (const auto& item : configs.items())
            info.configs[item.key()] = reader.text(item.value(), "configs." + item.key());
    }
    if (document.contains("fieldNames")) {
        const json& names = reader.array(document["fieldNames"], "\"fieldNames\"");
        for (size_t i = 0; i < names.size(); ++i)
            info.fieldNames.push_back(
                reader.text(names[i], "fieldNames[" + std::to_string(i) + "]"));
    }
    if (document.contains("numSamples"))
        info.numSamples = reader.int32(document["numSamples"], "\"numSamples\"");
    if (document.contains("asyncInfos")) {
        const json& infos = reader.array(document["asyncInfos"], "\"asyncInfos\"");
        for (size_t i = 0; i < infos.size(); ++i) {
            const std::string where = "asyncInfos[" + std::to_string(i) + "]";
            reader.onlyKeys(infos[i], where, {"hintId", "hintType", "flags"});
            AsyncInfo asyncInfo;
            if (infos[i].contains("hintId"))
                asyncInfo.hintId = reader.int32(infos[i]["hintId"], where + ".hintId");
            if (infos[i].contains("hintType"))
                asyncInfo.hintType = reader.int32(infos[i]["hintType"], where + ".hintType");
            if (infos[i].contains("flags"))
                asyncInfo.flags = reader.int32(infos[i]["flags"], where + ".flags");
            info.asyncInfos.insert(asyncInfo);
        }
    }
    if (document.contains("events")) {
        const json& events = reader.array(document["events"], "\"events\"");
        for (size_t i = 0; i < events.size(); ++i)
            file.events.push_back(reader.event(events[i], "events[" + std::to_string(i) + "]"));
    }
    return file;
}

namespace {

std::atomic<bool> gInterrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "written in a signal handler");

extern "C" void onInterrupt(int) {
    gInterrupted.store(true);
}

}  // namespace

ScopedInterrupt::ScopedInterrupt() {
    gInterrupted.store(false);
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &mPreviousInt);
    sigaction(SIGTERM, &action, &mPreviousTerm);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, &mPreviousPipe);
}

ScopedInterrupt::~ScopedInterrupt() {
    sigaction(SIGINT, &mPreviousInt, nullptr);
    sigaction(SIGTERM, &mPreviousTerm, nullptr);
    sigaction(SIGPIPE, &mPreviousPipe, nullptr);
}

bool interrupted() {
    return gInterrupted.load();
}

ScopedRoot::ScopedRoot(const std::string& dir) {
    if (dir.empty())
        return;
    if (const char* previous = getenv(kRootVariable))
        mPrevious = previous;
    setenv(kRootVariable, dir.c_str(), 1);
    mChanged = true;
}

ScopedRoot::~ScopedRoot() {
    if (!mChanged)
        return;
    mPrevious ? setenv(kRootVariable, mPrevious->c_str(), 1) : unsetenv(kRootVariable);
}

ScopedProperties::ScopedProperties(const std::vector<std::string>& props) {
    std::vector<std::pair<std::string, std::string>> settings;
    for (const std::string& prop : props) {
        settings.push_back(parseKeyValue(prop));
        if (settings.back().second.size() >= PROPERTY_VALUE_MAX)
            throw std::invalid_argument("property " + settings.back().first +
                                        " cannot be set to a value of more than " +
                                        std::to_string(PROPERTY_VALUE_MAX - 1) + " characters");
    }
    for (const auto& [key, value] : settings) {
        char previous[PROPERTY_VALUE_MAX] = {};
        property_get(key.c_str(), previous, "");
        mPrevious.emplace_back(key, previous);
        property_set(key.c_str(), value.c_str());
    }
}

ScopedProperties::~ScopedProperties() {
    // Backwards, so a property set twice gets its first value back.
    for (auto it = mPrevious.rbegin(); it != mPrevious.rend(); ++it)
        property_set(it->first.c_str(), it->second.c_str());
}

ScopedPerfCountersNode::ScopedPerfCountersNode(const std::string& path) {
    if (path.empty())
        return;
    VendorIPerfDataStore* store = VendorIPerfDataStore::getVendorIPerfDataStore();
    if (store == nullptr)
        throw std::invalid_argument("the host has no data store to hold the counter node's path");
    char previous[VendorIPerfDataStore::kValueSize] = {};
    store->Retrieve(kPerfCountersNodeKey, previous);
    mPrevious = previous;
    store->Store(kPerfCountersNodeKey, path);
    mChanged = true;
}

ScopedPerfCountersNode::~ScopedPerfCountersNode() {
    VendorIPerfDataStore* store = VendorIPerfDataStore::getVendorIPerfDataStore();
    if (!mChanged || store == nullptr)
        return;
    mPrevious.empty() ? store->Erase(kPerfCountersNodeKey)
                      : store->Store(kPerfCountersNodeKey, mPrevious);
}

ScopedClassifier::ScopedClassifier(const std::vector<std::string>& apps, bool game, int appClass) {
    FeatureLocator* locator = FeatureLocator::mInstance;
    for (const std::string& app : apps) {
        for (const auto& [selector, answer] : {std::pair(0, game ? kGame : 0), {1, appClass}}) {
            mPrevious.push_back({app, selector, locator->getData(kClassifierKey, app, selector)});
            locator->setData(kClassifierKey, app, selector, answer);
        }
    }
}

ScopedClassifier::~ScopedClassifier() {
    for (auto it = mPrevious.rbegin(); it != mPrevious.rend(); ++it)
        FeatureLocator::mInstance->setData(kClassifierKey, it->app, it->selector, it->previous);
}

}  // namespace meterctl

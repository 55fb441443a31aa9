#include "DumpData.h"

#include <cutils/properties.h>

#include <cstdio>

#include "seams.h"

namespace {

constexpr char kCsvProperty[] = "debug.vendor.tarn.enable.zq_csv_dump";
constexpr size_t kPathSize = 150;

bool csvEnabled() {
    if (DumpData::mEnableCSV.load(std::memory_order_relaxed) == -1) {
        DumpData::mEnableCSV.store(DumpData::csvSwitchOn() ? 1 : 0, std::memory_order_relaxed);
    }
    return DumpData::mEnableCSV.load(std::memory_order_relaxed) == 1;
}

FILE* openCsv(const char* name) {
    char path[kPathSize];
    // A name too long for the buffer is cut: its dump goes to the file the cut path names.
    (void)snprintf(path, sizeof(path), "/data/vendor/zq/%s_vmrss.csv", name);
    return fopen(seams::resolvePath(path).c_str(), "a");
}

}  // namespace

std::atomic<int32_t> DumpData::mEnableCSV{-1};

void DumpData::Dump(const char* name, int duration, int* values, int count) {
    if (!csvEnabled() || name == nullptr)
        return;
    FILE* f = openCsv(name);
    if (f == nullptr)
        return;
    // The dumps are best effort: a write that fails loses the row, with no line about it.
    (void)fprintf(f, "%s,duration=%d,", name, duration);
    if (values != nullptr) {
        for (int i = 0; i < count; ++i)
            (void)fprintf(f, "%d,", values[i]);
    }
    (void)fputc('\n', f);
    (void)fclose(f);
}

void DumpData::Marker(const char* text, int value, const char* name) {
    if (!csvEnabled() || text == nullptr || name == nullptr)
        return;
    FILE* f = openCsv(name);
    if (f == nullptr)
        return;
    (void)fprintf(f, "%s, launchDuration = %d\n", text, value);
    (void)fclose(f);
}

bool DumpData::csvSwitchOn() {
    return property_get_bool(kCsvProperty, false) != 0;
}

bool DumpData::openForAppend(std::ofstream& out, const std::string& path) {
    out.open(seams::resolvePath(path), std::ios::out | std::ios::app);
    return out.is_open();
}

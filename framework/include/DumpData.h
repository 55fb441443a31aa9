// CSV dumps of sample series and launch markers under /data/vendor/zq/, switched on by the
// property "debug.vendor.tarn.enable.zq_csv_dump".
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

class DumpData {
  public:
    // -1 until the property is first read, then 0 or 1 for the life of the process.
    static std::atomic<int32_t> mEnableCSV;

    // Appends "<name>,duration=<duration>,<v0>,<v1>,...,\n" to the name's file.
    static void Dump(const char* name, int duration, int* values, int count);
    // Appends "<text>, launchDuration = <value>\n" to the name's file.
    static void Marker(const char* text, int value, const char* name);

    // The switch as it reads now (default false). Dump and Marker read it once per process;
    // other dumps may remember it differently.
    static bool csvSwitchOn();
    // Opens path for appending (an absolute path goes through the path seam); false when it
    // cannot be opened.
    static bool openForAppend(std::ofstream& out, const std::string& path);
};

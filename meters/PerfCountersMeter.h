// CPU instruction counters from a vendor node of colon-separated numbers, whose path the host's
// data store holds: instructions per cycle and an instruction total with its split.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Meter.h"

class PerfCountersMeter : public Meter {
  public:
    explicit PerfCountersMeter(MeterInfo info);
    PerfCountersMeter();
    explicit PerfCountersMeter(std::string& name);
    ~PerfCountersMeter() override;

    // On a stop notification, closes mNodeFd again (see mNodeFd); nothing else.
    void start() override;

    // Takes the node path from the data store again; nothing when there is no store.
    void setCpuInstSysNode();
    // One reading of the node into the counter fields: the bytes read, or -1.
    int getNodeData();
    // The second field after a reading, or 0 when the reading failed.
    int64_t getIPC();
    // {first + third field, first field's percentage of that}, or {-1, -1}.
    std::vector<int64_t> getInstructions();

    std::string mCpuInstNodePath;
    // The descriptor of the last opening. A reading closes it but keeps the number, which
    // start() closes a second time after a stop notification; that close is intended.
    int32_t mNodeFd = -1;
    int64_t mCounterField1 = -1;
    int64_t mCounterField2 = -1;  // the IPC
    int64_t mCounterField3 = -1;
    int64_t mCounterField4 = -1;
    bool mTraceEnabled = false;
    // Serialises the getters.
    std::mutex mNodeMutex;

    static bool registerMeter;
};

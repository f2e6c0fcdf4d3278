// DataControl.h: the host's controls over a device's data verification and
// latency figures: latency percentiles and raw buckets, recording on/off and
// reset, and saving / loading the lost-write journal. Safe from any thread.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

// Part of libMQB.so's exported interface, like DeviceTable.h: the host calls it.
#pragma GCC visibility push(default)
namespace mqb {

// Figures of one command kind since the last latency reset, in microseconds.
struct LatencyFigures {
    uint64_t count = 0;
    double   min = 0, mean = 0, p50 = 0, p90 = 0, p99 = 0, p999 = 0, p9999 = 0, max = 0;
};

// One non-empty histogram bucket: its first value in microseconds and count.
struct LatencyBucket {
    double   lowUs;
    uint64_t count;
};

// Kinds: 0 read, 1 write (WRITE and WRITE AND VERIFY), 2 verify.
constexpr int kLatencyKinds = 3;
extern const char* const kLatencyKindNames[kLatencyKinds];

// Each returns false when there is no device `idx`.
bool latencyFigures(int idx, int kind, LatencyFigures& out);
bool latencyBuckets(int idx, int kind, std::vector<LatencyBucket>& out);
bool latencyReset(int idx);
bool latencyEnable(int idx, bool on);
bool latencyEnabled(int idx, bool& on);

// False with `err` (no device, no journal, file trouble, mismatching device).
bool journalSave(int idx, const std::string& path, std::string& err);
bool journalLoad(int idx, const std::string& path, std::string& err);

// What a device's journal knows: blocks of each kind (see WriteJournal), the
// memory its entries take, and its file ("" in memory).
struct JournalInfo {
    uint64_t known = 0, ambiguous = 0, inDoubt = 0, unknown = 0;
    uint64_t residentBytes = 0;
    std::string file;
};
bool journalInfo(int idx, JournalInfo& out, std::string& err);

}  // namespace mqb
#pragma GCC visibility pop

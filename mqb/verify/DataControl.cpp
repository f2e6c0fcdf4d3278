// DataControl.cpp: host controls over latency figures and the journal.
#include "DataControl.h"
#include "channel/Device.h"

namespace mqb {

const char* const kLatencyKindNames[kLatencyKinds] = {"read", "write", "verify"};

namespace {
double us(double ns) { return ns / 1000.0; }

bool summary(int idx, int kind, LatencyHistogram::Summary& s) {
    Device* d = deviceAt(idx);
    if (!d || kind < 0 || kind >= kLatencyKinds) return false;
    d->data().latencySummary(DeviceData::Kind(kind), s);
    return true;
}
}  // namespace

bool latencyFigures(int idx, int kind, LatencyFigures& out) {
    LatencyHistogram::Summary s;
    if (!summary(idx, kind, s)) return false;
    out = LatencyFigures();
    out.count = s.count;
    if (s.count == 0) return true;
    out.min = us(double(s.min));
    out.max = us(double(s.max));
    out.mean = us(s.mean());
    out.p50 = us(s.percentile(0.50));
    out.p90 = us(s.percentile(0.90));
    out.p99 = us(s.percentile(0.99));
    out.p999 = us(s.percentile(0.999));
    out.p9999 = us(s.percentile(0.9999));
    return true;
}

bool latencyBuckets(int idx, int kind, std::vector<LatencyBucket>& out) {
    LatencyHistogram::Summary s;
    if (!summary(idx, kind, s)) return false;
    out.clear();
    for (int b = 0; b < LatencyHistogram::kBuckets; ++b)
        if (s.buckets[size_t(b)])
            out.push_back(LatencyBucket{us(double(LatencyHistogram::bucketLow(b))), s.buckets[size_t(b)]});
    return true;
}

bool latencyReset(int idx) {
    return withDevice(idx, [&](Device& d) { d.data().resetLatency(); });
}

bool latencyEnable(int idx, bool on) {
    return withDevice(idx, [&](Device& d) { d.data().setLatencyOn(on); });
}

bool latencyEnabled(int idx, bool& on) {
    return withDevice(idx, [&](Device& d) { on = d.data().latencyOn(); });
}

bool journalSave(int idx, const std::string& path, std::string& err) {
    Device* d = deviceAt(idx, err);
    if (!d) return false;
    return d->data().saveJournal(path, d->backend().geometry(), err);
}

bool journalLoad(int idx, const std::string& path, std::string& err) {
    Device* d = deviceAt(idx, err);
    if (!d) return false;
    return d->data().loadJournal(path, d->backend().geometry(), err);
}

bool journalInfo(int idx, JournalInfo& out, std::string& err) {
    Device* d = deviceAt(idx, err);
    if (!d) return false;
    WriteJournal::Counts c;
    if (!d->data().journalCounts(c, out.file, err)) return false;
    out.known = c.known, out.ambiguous = c.ambiguous, out.inDoubt = c.inDoubt, out.unknown = c.unknown;
    out.residentBytes = c.residentBytes;
    return true;
}

}  // namespace mqb

// Exposition.cpp: building one scrape in the Prometheus text format from the
// device table, the latency histograms and the run figures.
#include "Exposition.h"

#include <cinttypes>
#include <cstdarg>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "DataControl.h"
#include "DeviceTable.h"
#include "Metrics.h"
#include "kiv_version.h"

namespace kivmetrics {

const char* const kContentType = "text/plain; version=0.0.4; charset=utf-8";

namespace {

// The upper bounds (nanoseconds) of the latency histogram's buckets, in
// order: four per power of two from 1.024 us to 34.4 s, each the first value
// of a bucket of the device library's histogram, so folding is exact.
const std::vector<uint64_t>& latencyBoundsNs() {
    static const std::vector<uint64_t> bounds = [] {
        std::vector<uint64_t> b;
        for (int k = 10; k < 35; ++k)
            for (uint64_t j = 4; j < 8; ++j) b.push_back((uint64_t(1) << k) / 4 * j);
        b.push_back(uint64_t(1) << 35);
        return b;
    }();
    return bounds;
}

// Folds one kind's non-empty fine buckets ({first value in us, count}, in
// order) into cumulative counts per bound of latencyBoundsNs(), plus one last
// entry for +Inf (the total).
std::vector<uint64_t> foldLatency(const std::vector<std::pair<double, uint64_t>>& fine) {
    const std::vector<uint64_t>& bounds = latencyBoundsNs();
    std::vector<uint64_t> out(bounds.size() + 1, 0);
    size_t b = 0;
    uint64_t total = 0;
    for (const auto& f : fine) {
        // A fine bucket lies wholly at or below a bound when it starts below it
        // (bounds are fine-bucket starts).
        const uint64_t lowNs = uint64_t(std::llround(f.first * 1000.0));
        while (b < bounds.size() && lowNs >= bounds[b]) out[b++] = total;
        total += f.second;
    }
    while (b < out.size()) out[b++] = total;
    return out;
}

// A label value escaped for the text format (backslash, double quote, newline).
std::string escapeLabel(const std::string& v) {
    std::string out;
    out.reserve(v.size());
    for (char c : v) {
        if (c == '\\') out += "\\\\";
        else if (c == '"') out += "\\\"";
        else if (c == '\n') out += "\\n";
        else out += c;
    }
    return out;
}

// Appends printf-style text.
void put(std::string& s, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void put(std::string& s, const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (n < 0) return;
    if (size_t(n) < sizeof buf) {
        s.append(buf, size_t(n));
        return;
    }
    std::string big(size_t(n) + 1, '\0');
    va_start(ap, fmt);
    std::vsnprintf(&big[0], big.size(), fmt, ap);
    va_end(ap);
    s.append(big, 0, size_t(n));
}

void family(std::string& s, const char* name, const char* type, const char* help) {
    put(s, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
}

// A seconds value exactly as many digits as it needs.
std::string secs(uint64_t ns) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.9g", double(ns) / 1e9);
    return buf;
}

struct Dev {
    int idx;
    std::string labels;  // device="..",target="..",backend=".."
    uint32_t blockSize;
    mqb::DeviceMetrics m;
};

}  // namespace

std::string exposition() {
    std::vector<Dev> devs;
    const int n = mqb::deviceCount();
    for (int i = 0; i < n; ++i) {
        mqb::DeviceSummary sum;
        Dev d;
        if (!mqb::deviceSummary(i, sum) || !mqb::deviceMetrics(i, d.m)) continue;
        d.idx = i;
        d.blockSize = sum.blockSize;
        d.labels = "device=\"" + std::to_string(i) + "\",target=\"" + escapeLabel(sum.deviceText) +
                   "\",backend=\"" + escapeLabel(sum.backend) + "\"";
        devs.push_back(std::move(d));
    }
    mqb::RunFigures run;
    mqb::runFigures(run);

    std::string s;
    s.reserve(4096 + devs.size() * 16384);
    family(s, "kiv_build_info", "gauge", "The kiv build serving these metrics.");
    put(s, "kiv_build_info{version=\"%s\"} 1\n", KIV_VERSION);
    family(s, "kiv_test_running", "gauge", "1 while a kiv test runs, else 0.");
    put(s, "kiv_test_running %d\n", run.running ? 1 : 0);
    family(s, "kiv_test_elapsed_seconds", "gauge",
           "Whole seconds of the current (or last) test at its last statistics pass.");
    put(s, "kiv_test_elapsed_seconds %d\n", run.elapsedSec);

    family(s, "kiv_commands_total", "counter", "Commands the device received, by kind.");
    for (const Dev& d : devs) {
        const std::pair<const char*, uint64_t> kinds[] = {{"read", d.m.reads},     {"write", d.m.writes},
                                                          {"wrv", d.m.wrvs},       {"verify", d.m.verifies},
                                                          {"other", d.m.other}};
        for (const auto& k : kinds)
            put(s, "kiv_commands_total{%s,kind=\"%s\"} %" PRIu64 "\n", d.labels.c_str(), k.first, k.second);
    }
    family(s, "kiv_blocks_total", "counter",
           "Blocks of the commands the device received: read, or written (WRITE and WRITE AND VERIFY).");
    for (const Dev& d : devs) {
        put(s, "kiv_blocks_total{%s,direction=\"read\"} %" PRIu64 "\n", d.labels.c_str(), d.m.blocksRead);
        put(s, "kiv_blocks_total{%s,direction=\"written\"} %" PRIu64 "\n", d.labels.c_str(), d.m.blocksWritten);
    }
    family(s, "kiv_bytes_total", "counter", "Blocks times the device's own block size.");
    for (const Dev& d : devs) {
        put(s, "kiv_bytes_total{%s,direction=\"read\"} %" PRIu64 "\n", d.labels.c_str(),
            d.m.blocksRead * d.blockSize);
        put(s, "kiv_bytes_total{%s,direction=\"written\"} %" PRIu64 "\n", d.labels.c_str(),
            d.m.blocksWritten * d.blockSize);
    }
    family(s, "kiv_errors_total", "counter", "Commands that failed (refused or completed with an error).");
    for (const Dev& d : devs) put(s, "kiv_errors_total{%s} %" PRIu64 "\n", d.labels.c_str(), d.m.errors);
    family(s, "kiv_miscompares_total", "counter", "Commands failed by the keyed data check.");
    for (const Dev& d : devs)
        put(s, "kiv_miscompares_total{%s} %" PRIu64 "\n", d.labels.c_str(), d.m.miscompares);
    family(s, "kiv_outstanding_commands", "gauge", "Commands at the device now.");
    for (const Dev& d : devs)
        put(s, "kiv_outstanding_commands{%s} %" PRIu64 "\n", d.labels.c_str(), d.m.outstanding);
    family(s, "kiv_max_outstanding_commands", "gauge", "Most commands at the device at once.");
    for (const Dev& d : devs)
        put(s, "kiv_max_outstanding_commands{%s} %" PRIu64 "\n", d.labels.c_str(), d.m.maxOutstanding);
    family(s, "kiv_sense_errors_total", "counter",
           "Failed commands with sense data, by sense key, ASC and ASCQ (hex).");
    for (const Dev& d : devs)
        for (const mqb::SenseCount& c : d.m.sense)
            put(s, "kiv_sense_errors_total{%s,key=\"%02X\",asc=\"%02X\",ascq=\"%02X\"} %" PRIu64 "\n",
                d.labels.c_str(), c.key, c.asc, c.ascq, c.count);

    family(s, "kiv_latency_seconds", "histogram",
           "Time from send to completion, by kind (write includes WRITE AND VERIFY), while the device "
           "records latency.");
    const std::vector<uint64_t>& bounds = latencyBoundsNs();
    static const std::vector<std::string> les = [&] {
        std::vector<std::string> v;
        for (uint64_t b : bounds) v.push_back(secs(b));
        return v;
    }();
    for (const Dev& d : devs) {
        for (int k = 0; k < mqb::kLatencyKinds; ++k) {
            std::vector<mqb::LatencyBucket> fine;
            mqb::LatencyFigures f;
            mqb::latencyBuckets(d.idx, k, fine);
            mqb::latencyFigures(d.idx, k, f);
            std::vector<std::pair<double, uint64_t>> pairs;
            pairs.reserve(fine.size());
            for (const auto& b : fine) pairs.emplace_back(b.lowUs, b.count);
            const std::vector<uint64_t> cum = foldLatency(pairs);
            const char* kind = mqb::kLatencyKindNames[k];
            for (size_t i = 0; i < bounds.size(); ++i)
                put(s, "kiv_latency_seconds_bucket{%s,kind=\"%s\",le=\"%s\"} %" PRIu64 "\n", d.labels.c_str(),
                    kind, les[i].c_str(), cum[i]);
            const uint64_t total = cum.back();
            put(s, "kiv_latency_seconds_bucket{%s,kind=\"%s\",le=\"+Inf\"} %" PRIu64 "\n", d.labels.c_str(),
                kind, total);
            // The mean comes from a moment later than the buckets: scale it to their count.
            put(s, "kiv_latency_seconds_sum{%s,kind=\"%s\"} %.9g\n", d.labels.c_str(), kind,
                f.mean * 1e-6 * double(total));
            put(s, "kiv_latency_seconds_count{%s,kind=\"%s\"} %" PRIu64 "\n", d.labels.c_str(), kind, total);
        }
    }

    // The last statistics pass, labelled like the device series.
    family(s, "kiv_ops_per_second", "gauge", "Operations per second of the device in the last statistics pass.");
    for (const auto& r : run.devices)
        for (const Dev& d : devs)
            if (d.idx == r.device)
                put(s, "kiv_ops_per_second{%s} %" PRIu64 "\n", d.labels.c_str(), r.opsPerSec);
    family(s, "kiv_mb_per_second", "gauge",
           "Megabytes (10^6 bytes) per second of the last statistics pass, as its line shows them "
           "(every block counted as 512 bytes).");
    for (const auto& r : run.devices)
        for (const Dev& d : devs)
            if (d.idx == r.device) put(s, "kiv_mb_per_second{%s} %.6g\n", d.labels.c_str(), r.mbPerSec);
    return s;
}

}  // namespace kivmetrics

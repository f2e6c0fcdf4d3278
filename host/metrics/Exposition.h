// Exposition.h: the Prometheus text format (version 0.0.4, which OpenMetrics
// scrapers accept) of every device's counters and latency histograms and of
// the running test. Reads the device library only (no Tcl, no lock the command
// path takes).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kivmetrics {

// The content type of what exposition() returns.
extern const char* const kContentType;

// The upper bounds (nanoseconds) of the latency histogram's buckets, in
// order: four per power of two from 1.024 us to 34.4 s, each the first value
// of a bucket of the device library's histogram, so folding is exact.
const std::vector<uint64_t>& latencyBoundsNs();

// Folds one kind's non-empty fine buckets ({first value in us, count}, in
// order) into cumulative counts per bound of latencyBoundsNs(), plus one last
// entry for +Inf (the total).
std::vector<uint64_t> foldLatency(const std::vector<std::pair<double, uint64_t>>& fine);

// A label value escaped for the text format (backslash, double quote, newline).
std::string escapeLabel(const std::string& v);

// The whole scrape: every series of every device and of the run.
std::string exposition();

}  // namespace kivmetrics

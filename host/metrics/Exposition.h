// Exposition.h: the Prometheus text format (version 0.0.4, which OpenMetrics
// scrapers accept) of every device's counters and latency histograms and of
// the running test. Reads the device library only (no Tcl, no lock the command
// path takes).
#pragma once
#include <string>

namespace kivmetrics {

// The content type of what exposition() returns.
extern const char* const kContentType;

// The whole scrape: every series of every device and of the run.
std::string exposition();

}  // namespace kivmetrics

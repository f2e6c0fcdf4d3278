// MetricsServer.h: the process's one HTTP endpoint serving GET /metrics in
// the Prometheus text format, from libmicrohttpd's own thread. It reads the
// device library only, so a scrape neither takes the Tcl interpreter nor a
// lock of the command path.
#pragma once
#include <string>

namespace kivmetrics {

// Starts serving on "ADDR:PORT" or ":PORT" / "PORT" (address 127.0.0.1),
// replacing an endpoint already served. Port 0 takes a free port. Returns
// true with the address now served ("127.0.0.1:9464") in `bound`, or false
// with a message in `err` (bad address, port in use, ...), leaving any
// earlier endpoint as it was.
bool start(const std::string& spec, std::string& bound, std::string& err);
// Stops serving (nothing when not serving).
void stop();
// The address served, or "" when none.
std::string address();

}  // namespace kivmetrics

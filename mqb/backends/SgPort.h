// SgPort.h: one descriptor of a SCSI generic device as the sg queue uses it:
// start a command (write of an sg v3 header), take a finished one (read),
// and a descriptor to poll. Tests put a fake device behind it.
#pragma once
#include <scsi/sg.h>
#include <functional>
#include <memory>
#include <string>

namespace mqb {

class SgPort {
public:
    virtual ~SgPort() = default;
    // Starts the command `h` describes. Returns 0, -EAGAIN (or -EDOM) when the
    // descriptor holds all it can, or another -errno.
    virtual int start(sg_io_hdr_t& h) = 0;
    // Takes one finished command into `h` (pack_id and usr_ptr as they were
    // started). Returns 0, -EAGAIN when none has finished, or another -errno.
    virtual int finish(sg_io_hdr_t& h) = 0;
    // A descriptor that polls readable while a finished command waits.
    virtual int pollFd() const = 0;
    // Commands the descriptor holds at once.
    virtual int capacity() const = 0;
};

// Opens one more descriptor on the device; null when it cannot.
using SgPortOpener = std::function<std::unique_ptr<SgPort>()>;

// The real port: `path` opened non-blocking with command queueing on.
// Returns null with `err` set when it cannot be opened.
std::unique_ptr<SgPort> openSgPort(const std::string& path, std::string& err);

}  // namespace mqb

// Device.cpp: what every device of the table does on top of its backend:
// counters, the command trace and the scripted fault rules.
#include "Device.h"
#include "MQBErr.h"

namespace mqb {

namespace {
constexpr uint64_t kDefaultTraceLimit = 1000000;

// The fault-rule kind of a data command; false for anything else.
bool opKind(uint8_t opcode, FaultRule::Op& op) {
    switch (opcode) {
    case 0x28: op = FaultRule::Op::Read; return true;
    case 0x2A: op = FaultRule::Op::Write; return true;
    case 0x2E: op = FaultRule::Op::Wrv; return true;
    case 0x2F: op = FaultRule::Op::Verify; return true;
    default: return false;
    }
}
}  // namespace

Device::Device(std::string spec, std::unique_ptr<Backend> backend)
    : spec_(std::move(spec)), backend_(std::move(backend)) {}

bool Device::submit(const Command& c, uint32_t tag, Outcome& out, IoRequest* io, uint32_t* delayUs) {
    bump(commands_);
    switch (c.opcode) {
    case 0x28: bump(reads_); bump(blocksRead_, c.tl); break;
    case 0x2A: bump(writes_); bump(blocksWritten_, c.tl); break;
    case 0x2E: bump(wrvs_); bump(blocksWritten_, c.tl); break;
    case 0x2F: bump(verifies_); break;
    default: bump(other_); break;
    }
    if (slowPath_.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> g(lock_);
        if (tracing_ && trace_.size() < traceLimit_)
            trace_.push_back(TraceEntry{c.opcode, c.lba, c.tl, tag});
        bool refused = false;
        if (applyFaults(c, out, refused, delayUs)) {
            bump(errors_);
            return !refused;
        }
    }
    if (io && backend_->prepareAsync(c, *io)) {
        out.status = MQB_OK;
        out.senseLen = 0;
        return true;
    }
    backend_->execute(c, out);
    if (out.status != MQB_OK) bump(errors_);
    return true;
}

// Finds the first rule that fires for this command and writes its outcome.
// Every rule the command matches, up to that one, counts the match. Returns
// true when a rule fired; `refused` says whether the send is to be refused.
// A delay rule that fires adds to `*delayUs` and lets the search go on: the
// command still runs, only later.
bool Device::applyFaults(const Command& c, Outcome& out, bool& refused, uint32_t* delayUs) {
    FaultRule::Op op;
    if (faults_.empty() || !opKind(c.opcode, op)) return false;
    const uint64_t first = c.lba;
    const uint64_t last = c.lba + (c.tl ? c.tl : 1) - 1;
    for (FaultRule& r : faults_) {
        if (r.op != FaultRule::Op::Any && r.op != op) continue;
        if (last < r.lbaLo || first > r.lbaHi) continue;
        ++r.matches;
        if (r.matches % r.every != 0) continue;
        if (r.count != 0 && r.fired >= r.count) continue;
        ++r.fired;
        if (r.kind == FaultRule::Kind::Delay) {
            if (delayUs) *delayUs += r.delayUs;
            continue;
        }
        out.senseLen = 0;
        switch (r.kind) {
        case FaultRule::Kind::Check:
        case FaultRule::Kind::Refuse: {
            const uint64_t info = first > r.lbaLo ? first : r.lbaLo;
            buildFixedSense(out, r.key, r.asc, r.ascq, r.hasUec, r.uec, r.info,
                            info > 0xFFFFFFFFULL ? 0xFFFFFFFFU : uint32_t(info));
            refused = r.kind == FaultRule::Kind::Refuse;
            break;
        }
        case FaultRule::Kind::Timeout:
            out.status = MQB_ERR_TIMEOUT;
            break;
        case FaultRule::Kind::Status:
            out.status = r.status;
            break;
        case FaultRule::Kind::Delay:
            break;
        }
        return true;
    }
    return false;
}

void Device::enter() {
    const uint64_t now = inFlight_.fetch_add(1, std::memory_order_relaxed) + 1;
    uint64_t peak = maxOutstanding_.load(std::memory_order_relaxed);
    while (now > peak &&
           !maxOutstanding_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void Device::updateSlowPath() {
    slowPath_.store(tracing_ || !faults_.empty(), std::memory_order_release);
}

int Device::addFault(const FaultRule& rule) {
    std::lock_guard<std::mutex> g(lock_);
    FaultRule r = rule;
    r.id = nextFaultId_++;
    r.matches = 0;
    r.fired = 0;
    faults_.push_back(r);
    updateSlowPath();
    return r.id;
}

void Device::clearFaults() {
    std::lock_guard<std::mutex> g(lock_);
    faults_.clear();
    updateSlowPath();
}

void Device::listFaults(std::vector<FaultRule>& out) {
    std::lock_guard<std::mutex> g(lock_);
    out = faults_;
}

void Device::stats(DeviceStats& s) const {
    auto ld = [](const Counter& c) { return c.load(std::memory_order_relaxed); };
    s.commands = ld(commands_);
    s.reads = ld(reads_);
    s.writes = ld(writes_);
    s.wrvs = ld(wrvs_);
    s.verifies = ld(verifies_);
    s.other = ld(other_);
    s.blocksRead = ld(blocksRead_);
    s.blocksWritten = ld(blocksWritten_);
    s.errors = ld(errors_);
    s.maxOutstanding = ld(maxOutstanding_);
    s.queueing = queueing_.load(std::memory_order_relaxed);
    s.maxQueueDepth = maxDepth_.load(std::memory_order_relaxed);
    s.fastReads = fastReads_.load(std::memory_order_relaxed);
    s.dataMode = dataMode_.load(std::memory_order_relaxed);
    s.miscompares = data_.miscompares();
}

void Device::traceStart(uint64_t limit) {
    std::lock_guard<std::mutex> g(lock_);
    tracing_ = true;
    traceLimit_ = limit ? limit : kDefaultTraceLimit;
    updateSlowPath();
}

void Device::traceStop() {
    std::lock_guard<std::mutex> g(lock_);
    tracing_ = false;
    updateSlowPath();
}

void Device::traceGet(std::vector<TraceEntry>& out) {
    std::lock_guard<std::mutex> g(lock_);
    out = trace_;
}

void Device::traceClear() {
    std::lock_guard<std::mutex> g(lock_);
    trace_.clear();
}

// Back to the state of a freshly added device, except the lock flag and the
// commands still in flight (their completions are on their way).
void Device::reset() {
    std::lock_guard<std::mutex> g(lock_);
    for (Counter* c : {&commands_, &reads_, &writes_, &wrvs_, &verifies_, &other_,
                       &blocksRead_, &blocksWritten_, &errors_, &maxOutstanding_})
        c->store(0, std::memory_order_relaxed);
    queueing_.store(false, std::memory_order_relaxed);
    fastReads_.store(false, std::memory_order_relaxed);
    maxDepth_.store(0, std::memory_order_relaxed);
    dataMode_.store(0, std::memory_order_relaxed);
    faults_.clear();
    trace_.clear();
    tracing_ = false;
    updateSlowPath();
    data_.resetCounters();
    data_.resetLatency();
}

}  // namespace mqb

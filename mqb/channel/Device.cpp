// Device.cpp: what every device of the table does in front of its backend:
// counters, the command trace and the scripted fault rules.
#include "Device.h"
#include <algorithm>
#include "MQBErr.h"

namespace mqb {

namespace {
constexpr uint64_t kDefaultTraceLimit = 1000000;

// The fault-rule kind of a data command; false for anything else.
bool opKind(uint8_t opcode, FaultRule::Op& op) {
    switch (opcode) {
    case scsi::kRead10: op = FaultRule::Op::Read; return true;
    case scsi::kWrite10: op = FaultRule::Op::Write; return true;
    case scsi::kWriteVerify10: op = FaultRule::Op::Wrv; return true;
    case scsi::kVerify10: op = FaultRule::Op::Verify; return true;
    default: return false;
    }
}
}  // namespace

Device::Device(std::string deviceText, std::unique_ptr<Backend> backend)
    : deviceText_(std::move(deviceText)), backend_(std::move(backend)) {}

Device::Admit Device::traceAndFault(const Command& c, uint32_t tag, Outcome& out,
                                     ChannelCounters& k, uint32_t* delayUs) {
    std::lock_guard<std::mutex> g(lock_);
    if (tracing_ && trace_.size() < traceLimit_)
        trace_.push_back(TraceEntry{c.cdb ? c.cdb[0] : c.opcode, c.lba, c.tl, tag});
    bool refused = false;
    if (applyFaults(c, out, refused, delayUs)) {
        ChannelCounters::bump(k.errors);
        return refused ? Admit::Refused : Admit::Answered;
    }
    return Admit::Pass;
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
            // Several rules add up, saturating; the channel caps the sum at
            // the device's command time-out.
            if (delayUs)
                *delayUs = r.delayUs > UINT32_MAX - *delayUs ? UINT32_MAX : *delayUs + r.delayUs;
            continue;
        }
        out.senseLen = 0;
        switch (r.kind) {
        case FaultRule::Kind::Check:
        case FaultRule::Kind::Refuse: {
            const uint64_t info = first > r.lbaLo ? first : r.lbaLo;
            buildFixedSense(out, r.key, scsi::Asc{r.asc, r.ascq}, r.info, info, r.uec,
                            r.senseLen);
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

uint64_t Device::sumAtDevice() const {
    uint64_t now = 0;
    const int count = nTracked_.load(std::memory_order_acquire);
    for (int i = 0; i < count; ++i)
        now += tracked_[i].load(std::memory_order_relaxed)->atDevice.load(std::memory_order_relaxed);
    return now;
}

void Device::raisePeak(uint64_t now) {
    uint64_t peak = maxOutstanding_.load(std::memory_order_relaxed);
    while (now > peak &&
           !maxOutstanding_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

ChannelCounters* Device::attachChannel() {
    std::lock_guard<std::mutex> g(lock_);
    for (auto& c : channels_) {
        if (!c->inUse) {
            c->inUse = true;
            return c.get();
        }
    }
    channels_.push_back(std::make_unique<ChannelCounters>());
    ChannelCounters* c = channels_.back().get();
    c->inUse = true;
    const int n = nTracked_.load(std::memory_order_relaxed);
    if (n < kTracked) {
        tracked_[n].store(c, std::memory_order_relaxed);
        nTracked_.store(n + 1, std::memory_order_release);
    }
    return c;
}

void Device::detachChannel(ChannelCounters* c) {
    std::lock_guard<std::mutex> g(lock_);
    c->inUse = false;  // its counts stay in the device's sums
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
    s.commands = s.reads = s.writes = s.wrvs = s.verifies = s.other = 0;
    s.blocksRead = s.blocksWritten = s.errors = 0;
    {
        std::lock_guard<std::mutex> g(lock_);
        for (const auto& c : channels_) c->addTo(s);
    }
    s.maxOutstanding = ld(maxOutstanding_);
    s.queueing = queueing_.load(std::memory_order_relaxed);
    s.maxQueueDepth = maxDepth_.load(std::memory_order_relaxed);
    s.fastReads = fastReads_.load(std::memory_order_relaxed);
    s.dataMode = dataMode_.load(std::memory_order_relaxed);
    s.miscompares = data_.miscompares();
    s.staleBlocks = data_.damage(DeviceData::kStale);
    s.wrongLbaBlocks = data_.damage(DeviceData::kWrongLba);
    s.tornBlocks = data_.damage(DeviceData::kTorn);
    s.unstampedBlocks = data_.damage(DeviceData::kUnstamped);
}

void Device::traceStart(uint64_t limit) {
    std::lock_guard<std::mutex> g(lock_);
    tracing_ = true;
    traceLimit_ = limit == 0 ? kDefaultTraceLimit : std::min(limit, kMaxTraceLimit);
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
    // A channel counting at this very moment may put back a count it had
    // read before the reset: reset a device between runs, not during one.
    for (auto& k : channels_)
        for (Counter* c : {&k->commands, &k->reads, &k->writes, &k->wrvs, &k->verifies, &k->other,
                           &k->blocksRead, &k->blocksWritten, &k->errors})
            c->store(0, std::memory_order_relaxed);
    for (auto& k : channels_) k->sense.clear();
    maxOutstanding_.store(0, std::memory_order_relaxed);
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

void Device::noteQueueOpened(const char* kind) {
    std::lock_guard<std::mutex> g(lock_);
    queueKind_ = kind;
    queueError_.clear();
}

void Device::noteQueueFailed(const std::string& why) {
    std::lock_guard<std::mutex> g(lock_);
    queueError_ = why.empty() ? "the device gave no queue" : why;
}

std::string Device::queueKind() const {
    std::lock_guard<std::mutex> g(lock_);
    return queueKind_ ? queueKind_ : backend_->queueKind();
}

std::string Device::queueError() const {
    std::lock_guard<std::mutex> g(lock_);
    return queueError_;
}

}  // namespace mqb

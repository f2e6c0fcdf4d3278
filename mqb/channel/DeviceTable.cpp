// DeviceTable.cpp: the process-wide device table: adding devices from their
// device texts and the host's controls over them (lock, faults, counters, trace).
#include "DeviceTable.h"
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include "Device.h"
#include "backends/DeviceText.h"
#include "backends/FileDisk.h"
#include "backends/IscsiDisk.h"
#include "backends/SgDisk.h"
#include "backends/SimDisk.h"

namespace mqb {

namespace {

// The one global of the library. Devices are never freed while the process
// runs: channels keep plain pointers to their device, so clearAllDevices
// retires them instead.
struct Table {
    std::mutex lock;
    std::vector<std::unique_ptr<Device>> devices;
    std::vector<std::unique_ptr<Device>> retired;
};

Table& table() {
    static Table t;
    return t;
}

// The keys every device text takes, whatever its backend, and what the
// device's data-verification state needs to know about the backend.
struct CommonKeys {
    uint64_t journalMax = DeviceData::kDefaultJournalMax;
    bool     carriesData = true;   // reads give back what was written
    bool     recordLatency = true;
    std::string journalPath;       // journal=PATH: the journal in a file
    int      cdbForm = 0;          // "cdb=10|16": the one CDB form of data commands
};

// Takes the common "journalmax=BYTES", "journal=PATH" and "cdb=10|16" items
// out of a comma-separated device text tail, so the backend parsers never
// see them. False with `err` on a bad value.
bool stripCommonKeys(std::string& params, CommonKeys& keys, std::string& err) {
    static const std::string kKey = "journalmax=", kPath = "journal=", kCdbKey = "cdb=";
    std::string rest;
    bool first = true;
    size_t pos = 0;
    for (;;) {
        size_t comma = params.find(',', pos);
        const bool last = comma == std::string::npos;
        if (last) comma = params.size();
        const std::string item = params.substr(pos, comma - pos);
        pos = comma + 1;
        if (item.compare(0, kKey.size(), kKey) == 0) {
            if (!devtext::number("journalmax", item.substr(kKey.size()), 0, UINT64_MAX, keys.journalMax, err))
                return false;
        } else if (item.compare(0, kPath.size(), kPath) == 0) {
            keys.journalPath = item.substr(kPath.size());
            if (keys.journalPath.empty()) {
                err = "empty path for device text key \"journal\"";
                return false;
            }
        } else if (item.compare(0, kCdbKey.size(), kCdbKey) == 0) {
            const std::string text = item.substr(kCdbKey.size());
            if (text != "10" && text != "16") {
                err = devtext::badValue("cdb", text) + " (10 or 16)";
                return false;
            }
            keys.cdbForm = text == "10" ? 10 : 16;
        } else {
            // Everything else goes on unchanged, commas and all (a path may hold them).
            rest += first ? item : "," + item;
            first = false;
        }
        if (last) break;
    }
    params = rest;
    return true;
}

// Builds the backend a device text names; null with `err` set when it cannot.
std::unique_ptr<Backend> makeBackend(const std::string& deviceText, CommonKeys& keys, std::string& err) {
    if (deviceText.empty()) {
        err = "empty device text";
        return nullptr;
    }
    const size_t colon = deviceText.find(':');
    const std::string type = deviceText.substr(0, colon);
    std::string params = colon == std::string::npos ? "" : deviceText.substr(colon + 1);
    if (!stripCommonKeys(params, keys, err)) return nullptr;
    if (type == "sim") {
        SimConfig cfg;
        if (!parseSimConfig(params, cfg, err)) return nullptr;
        // Without a store a simulated disk gives no data back to check, and
        // at zero latency it records none unless asked (`mqb latency on`),
        // so the loop benchmark reads no clock per command.
        keys.carriesData = cfg.store;
        keys.recordLatency = cfg.latencyUs != 0;
        return std::make_unique<SimDisk>(cfg);
    }
    if (type == "file") return FileDisk::open(params, err);
    if (type == "sg") return SgDisk::open(params, err);
    if (type == "iscsi") return IscsiDisk::open(type + ":" + params, err);  // the URL, less the common keys
    err = "unknown device type \"" + type + "\"";
    return nullptr;
}

}  // namespace

Device* deviceAt(int idx) {
    Table& t = table();
    std::lock_guard<std::mutex> g(t.lock);
    if (idx < 0 || size_t(idx) >= t.devices.size()) return nullptr;
    return t.devices[size_t(idx)].get();
}

Device* deviceAt(int idx, std::string& err) {
    Device* d = deviceAt(idx);
    if (!d) err = "no device " + std::to_string(idx);
    return d;
}

int addDevice(const std::string& deviceText, std::string& err) {
    CommonKeys keys;
    std::unique_ptr<Backend> be = makeBackend(deviceText, keys, err);
    if (!be) return -1;
    auto dev = std::make_unique<Device>(deviceText, std::move(be));
    dev->data().configure(keys.journalMax, keys.carriesData, keys.recordLatency);
    // The journal names its device by the text without the journal's own path.
    std::string identity = deviceText;
    if (!keys.journalPath.empty()) {
        const std::string item = "journal=" + keys.journalPath;
        const size_t at = identity.find(item);
        if (at != std::string::npos) {
            const bool commaBefore = at > 0 && identity[at - 1] == ',';
            identity.erase(commaBefore ? at - 1 : at, item.size() + (commaBefore ? 1 : 0));
            if (!commaBefore && at < identity.size() && identity[at] == ',') identity.erase(at, 1);
        }
    }
    if (!dev->data().setJournalFile(keys.journalPath, identity, dev->backend().geometry(), err)) return -1;
    dev->setCdbForm(keys.cdbForm);
    Table& t = table();
    std::lock_guard<std::mutex> g(t.lock);
    t.devices.push_back(std::move(dev));
    return int(t.devices.size()) - 1;
}

int deviceCount() {
    Table& t = table();
    std::lock_guard<std::mutex> g(t.lock);
    return int(t.devices.size());
}

bool deviceSummary(int idx, DeviceSummary& out) {
    Device* d = deviceAt(idx);
    if (!d) return false;
    const Geometry geo = d->backend().geometry();
    out.deviceText = d->deviceText();
    out.backend = d->backend().kind();
    out.blocks = geo.blocks ? geo.blocks - 1 : 0;
    out.blockSize = geo.blockSize;
    out.locked = d->locked();
    out.direct = d->backend().direct();
    out.journal = d->data().carriesData() && d->data().journalAllowed(geo.blocks);
    out.queue = d->queueKind();
    out.queueError = d->queueError();
    return true;
}

bool setLocked(int idx, bool locked) {
    return withDevice(idx, [&](Device& d) { d.setLocked(locked); });
}

int addFault(int idx, const FaultRule& rule, std::string& err) {
    Device* d = deviceAt(idx, err);
    if (!d) return -1;
    if (rule.every == 0) {
        err = "fault rule \"every\" must be at least 1";
        return -1;
    }
    if (rule.lbaLo > rule.lbaHi) {
        err = "fault rule LBA range is empty (low above high)";
        return -1;
    }
    if (rule.kind == FaultRule::Kind::Status && rule.status >= 0) {
        err = "fault rule status must be a negative code";
        return -1;
    }
    if (rule.key > 0x0F) {
        err = "fault rule sense key must be 0 to 0F";
        return -1;
    }
    return d->addFault(rule);
}

bool clearFaults(int idx) {
    return withDevice(idx, [&](Device& d) { d.clearFaults(); });
}

bool listFaults(int idx, std::vector<FaultRule>& out) {
    return withDevice(idx, [&](Device& d) { d.listFaults(out); });
}

bool stats(int idx, DeviceStats& out) {
    return withDevice(idx, [&](Device& d) { d.stats(out); });
}

bool traceStart(int idx, uint64_t limit) {
    return withDevice(idx, [&](Device& d) { d.traceStart(limit); });
}

bool traceStop(int idx) {
    return withDevice(idx, [&](Device& d) { d.traceStop(); });
}

bool traceGet(int idx, std::vector<TraceEntry>& out) {
    return withDevice(idx, [&](Device& d) { d.traceGet(out); });
}

bool traceClear(int idx) {
    return withDevice(idx, [&](Device& d) { d.traceClear(); });
}

bool reset(int idx) {
    return withDevice(idx, [&](Device& d) { d.reset(); });
}

void clearAllDevices() {
    Table& t = table();
    std::lock_guard<std::mutex> g(t.lock);
    for (auto& d : t.devices) t.retired.push_back(std::move(d));
    t.devices.clear();
}

}  // namespace mqb

// IscsiDisk.cpp: the iscsi:// device text, the log-in and capacity read at
// `mqb add`, and the disk's own session for commands run synchronously.
#include "IscsiDisk.h"
#include <cstdio>
#include <cstdlib>
#include "DeviceText.h"
#include "IscsiQueue.h"
#include "MQBErr.h"
#include "SenseParser.h"

namespace mqb {

namespace {
constexpr const char* kScheme = "iscsi://";
constexpr int kDefaultPort = 3260;
constexpr int kMaxTimeoutSec = 3600;
constexpr int kMaxLun = 16383;  // flat space addressing

// Parses a decimal number of at most 9 digits into `out`; false for anything else.
bool parseSmall(const std::string& s, int& out) {
    if (s.empty() || s.size() > 9) return false;
    int v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    out = v;
    return true;
}

// Runs one command on `q` to its end; `out` holds the outcome.
void runOne(IscsiQueue& q, const Command& cmd, Outcome& out) {
    if (q.submit(cmd, &out, 0) != MQB_OK) return;
    uint64_t token;
    // The queue's own deadline ends the wait: a command that the target does
    // not answer completes with -14 within the time-out.
    while (q.outstanding() > 0 && q.reap(&token, 1, 1, -1) < 1) {
    }
}
}  // namespace

bool parseIscsiText(const std::string& deviceText, IscsiTarget& out, std::string& err) {
    const std::string scheme(kScheme);
    if (deviceText.compare(0, scheme.size(), scheme) != 0) {
        err = "an iSCSI device text begins with " + scheme;
        return false;
    }
    std::string rest = deviceText.substr(scheme.size());
    std::string query;
    const size_t q = rest.find('?');
    if (q != std::string::npos) {
        query = rest.substr(q + 1);
        rest.resize(q);
    }
    const size_t hostEnd = rest.find('/');
    const size_t lunStart = rest.rfind('/');
    if (hostEnd == std::string::npos || lunStart == hostEnd) {
        err = "iSCSI device text \"" + deviceText + "\" is not iscsi://HOST[:PORT]/TARGET-IQN/LUN";
        return false;
    }
    std::string host = rest.substr(0, hostEnd);
    const std::string iqn = rest.substr(hostEnd + 1, lunStart - hostEnd - 1);
    const std::string lun = rest.substr(lunStart + 1);

    // HOST, HOST:PORT, [V6ADDR] or [V6ADDR]:PORT.
    std::string portText;
    const size_t close = host.rfind(']');
    const size_t colon = host.rfind(':');
    const bool hasPort = !host.empty() && colon != std::string::npos &&
                         (host[0] != '[' || (close != std::string::npos && colon > close));
    if (hasPort) {
        portText = host.substr(colon + 1);
        host.resize(colon);
    }
    if (host.empty() || host == "[]" || (host[0] == '[' && host.back() != ']')) {
        err = "iSCSI device text \"" + deviceText + "\" has no host";
        return false;
    }
    int port = kDefaultPort;
    if (hasPort) {
        if (!parseSmall(portText, port) || port < 1 || port > 65535) {
            err = "iSCSI port \"" + portText + "\" is not a number from 1 to 65535";
            return false;
        }
    }
    if (iqn.empty()) {
        err = "iSCSI device text \"" + deviceText + "\" has no target name";
        return false;
    }
    int lunValue = 0;
    if (!parseSmall(lun, lunValue) || lunValue > kMaxLun) {
        err = "iSCSI LUN \"" + lun + "\" is not a number from 0 to " + std::to_string(kMaxLun);
        return false;
    }

    int timeout = 30;
    const bool optionsOk = devtext::forEachOption(query, '&', err, [&](const std::string& key,
                                                                       const std::string& value) {
        if (key != "timeout") {
            err = devtext::unknownKey(key);
            return false;
        }
        uint64_t v = 0;
        if (!devtext::number(key, value, 1, kMaxTimeoutSec, v, err)) return false;
        timeout = int(v);
        return true;
    });
    if (!optionsOk) return false;

    out.portal = host + ":" + std::to_string(port);
    out.host = host[0] == '[' ? host.substr(1, host.size() - 2) : host;
    out.port = port;
    out.iqn = iqn;
    out.lun = lunValue;
    out.timeoutSec = timeout;
    return true;
}

IscsiDisk::~IscsiDisk() = default;

std::unique_ptr<Backend> IscsiDisk::open(const std::string& deviceText, std::string& err) {
    IscsiTarget target;
    if (!parseIscsiText(deviceText, target, err)) return nullptr;
    std::unique_ptr<IscsiQueue> session = IscsiQueue::open(target, 1, err);
    if (!session) return nullptr;

    // READ CAPACITY(16): last LBA (64 bits) and block size. A first command
    // after log-in may draw a UNIT ATTENTION, so that one is asked again.
    uint8_t cdb[16] = {scsi::kServiceActionIn16, scsi::kSaReadCapacity16};
    uint8_t data[32] = {};
    cdb[13] = sizeof data;
    Command c;
    c.cdb = cdb;
    c.cdbLen = sizeof cdb;
    c.opcode = cdb[0];
    c.readBuf = data;
    c.readLen = sizeof data;
    Outcome out;
    for (int tries = 0; tries < 4; ++tries) {
        runOne(*session, c, out);
        SenseParser::Kcq kcq;
        SenseParser::getKcq(out.sense, out.senseLen, kcq);
        const bool unitAttention = out.status == MQB_ERR_CHECK && kcq.key == scsi::kKeyUnitAttention;
        if (!unitAttention) break;
    }
    if (out.status != MQB_OK) {
        err = "READ CAPACITY(16) on " + deviceText + " failed: " + MQBErr::errStr(out.status);
        if (session->lost()) err += " (" + session->lossReason() + ")";
        return nullptr;
    }
    Geometry geo;
    geo.blocks = scsi::be64(data) + 1;
    geo.blockSize = scsi::be32(data + 8);
    return std::unique_ptr<Backend>(new IscsiDisk(target, geo));
}

std::unique_ptr<Queue> IscsiDisk::openQueue(int depth, std::string& err) {
    return IscsiQueue::open(target_, depth, err);
}

}  // namespace mqb

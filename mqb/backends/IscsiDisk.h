// IscsiDisk.h: a LUN of an iSCSI target, reached through libiscsi. The device
// text names the target (`iscsi://HOST[:PORT]/IQN/LUN?timeout=SEC`); each
// command goes to the target with its CDB unchanged and comes back with the
// target's own status and sense. Each channel opens its own session
// (openQueue); the session made at `mqb add` only reads the capacity.
#pragma once
#include <memory>
#include <string>
#include "Backend.h"

namespace mqb {

// Where an iscsi:// device text points, and how long a command may take there.
struct IscsiTarget {
    std::string portal;          // "HOST:PORT" as libiscsi takes it (port 3260 added if absent)
    std::string host;            // HOST without brackets
    int         port = 3260;
    std::string iqn;             // target name
    int         lun = 0;
    int         timeoutSec = 30; // a command unanswered this long ends with -14
};

// Parses `deviceText` ("iscsi://HOST[:PORT]/IQN/LUN", optionally followed by
// "?timeout=SEC"). Returns true and fills `out`, or false with a message in
// `err`. Pure: touches no network.
bool parseIscsiText(const std::string& deviceText, IscsiTarget& out, std::string& err);

class IscsiDisk : public Backend {
public:
    // Logs in to the target named by `deviceText` (a full-feature session) and
    // reads the LUN's capacity and block size with READ CAPACITY(16).
    // Returns null with a message in `err` (the transport's own words when the
    // target cannot be reached) when any step fails; fails at once when the
    // library was built without libiscsi.
    static std::unique_ptr<Backend> open(const std::string& deviceText, std::string& err);
    ~IscsiDisk() override;
    Geometry geometry() const override { return geo_; }
    const char* kind() const override { return "iscsi"; }
    uint32_t commandTimeoutSec() const override { return uint32_t(target_.timeoutSec); }
    // A new session of up to `depth` commands in flight, for one channel.
    // Logs in a session of its own; a failed login is the reason in `err`.
    std::unique_ptr<Queue> openQueue(int depth, std::string& err) override;
    const char* queueKind() const override { return "iscsi"; }

    const IscsiTarget& target() const { return target_; }

private:
    IscsiDisk(const IscsiTarget& target, Geometry geo) : target_(target), geo_(geo) {}

    const IscsiTarget target_;
    const Geometry    geo_;
};

}  // namespace mqb

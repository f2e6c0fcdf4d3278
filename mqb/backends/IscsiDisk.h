// IscsiDisk.h: a LUN of an iSCSI target, reached through libiscsi. The device
// spec names the target (`iscsi://HOST[:PORT]/IQN/LUN?timeout=SEC`); each
// command goes to the target with its CDB unchanged and comes back with the
// target's own status and sense. Each channel opens its own session
// (openQueue); the disk keeps one more session for commands run through
// execute().
#pragma once
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include "Backend.h"

namespace mqb {

class IscsiQueue;

// Where an iscsi:// spec points, and how long a command may take there.
struct IscsiTarget {
    std::string portal;          // "HOST:PORT" as libiscsi takes it (port 3260 added if absent)
    std::string host;            // HOST without brackets
    int         port = 3260;
    std::string iqn;             // target name
    int         lun = 0;
    int         timeoutSec = 30; // a command unanswered this long ends with -14
};

// Parses `spec` ("iscsi://HOST[:PORT]/IQN/LUN", optionally followed by
// "?timeout=SEC"). Returns true and fills `out`, or false with a message in
// `err`. Pure: touches no network.
bool parseIscsiSpec(const std::string& spec, IscsiTarget& out, std::string& err);

class IscsiDisk : public Backend {
public:
    // Logs in to the target named by `spec` (a full-feature session) and
    // reads the LUN's capacity and block size with READ CAPACITY(16).
    // Returns null with a message in `err` (the transport's own words when the
    // target cannot be reached) when any step fails; fails at once when the
    // library was built without libiscsi.
    static std::unique_ptr<Backend> open(const std::string& spec, std::string& err);
    ~IscsiDisk() override;

    // Runs one command to its end on the disk's own session, one caller at a
    // time. Once that session is lost, commands end with -14 at once for one
    // time-out; the next command after that logs in again (-14 if it cannot).
    void execute(const Command& cmd, Outcome& out) override;
    Geometry geometry() const override { return geo_; }
    const char* kind() const override { return "iscsi"; }
    // A new session of up to `depth` commands in flight, for one channel.
    std::unique_ptr<Queue> openQueue(int depth) override;

    const IscsiTarget& target() const { return target_; }

private:
    IscsiDisk(const IscsiTarget& target, Geometry geo, std::unique_ptr<IscsiQueue> session);

    const IscsiTarget           target_;
    const Geometry              geo_;
    std::mutex                  lock_;     // guards session_ and retryAt_
    std::unique_ptr<IscsiQueue> session_;  // execute()'s session; null after a failed login
    std::chrono::steady_clock::time_point retryAt_{};  // no new log-in before this
};

}  // namespace mqb

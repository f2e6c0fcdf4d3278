// KivHost.h: the host of the kiv extension inside one Tcl interpreter. It owns
// the device manager handed to the extension, adds the `mqb` command and loads
// libkiv.so, whose entry adds `kiv`.
#pragma once
#include <memory>
#include <string>
#include <tcl.h>

class MQBManager;

class KivHost {
public:
    // Makes the manager with a current "sim" channel on device 0, adding that
    // simulated device first when the process has no devices yet.
    explicit KivHost(Tcl_Interp* interp);
    ~KivHost();
    KivHost(const KivHost&) = delete;
    KivHost& operator=(const KivHost&) = delete;

    // Creates the host for `interp`, ties its lifetime to the interpreter,
    // registers `mqb` and loads the extension. Returns TCL_OK, or TCL_ERROR with
    // a message when the extension cannot be loaded (`mqb` stays registered).
    static int install(Tcl_Interp* interp);

    // The host of `interp`, or null when none was installed there.
    static KivHost* of(Tcl_Interp* interp);

    MQBManager& manager() { return *manager_; }
    Tcl_Interp* interp() const { return interp_; }

    // Where the extension library is looked for: $KIV_LIBRARY (a file, or a
    // directory holding libkiv.so), else next to libkivhost.so itself.
    static std::string extensionPath();

private:
    // Loads libkiv.so and calls its entry. TCL_OK or TCL_ERROR with a message.
    int loadExtension();

    Tcl_Interp* interp_;
    std::unique_ptr<MQBManager> manager_;
};

// The package entry `load libkivhost.so Kivhost` calls: fills the library's
// Tcl stubs table, installs the host and provides package kiv at the build's
// version. The one symbol libkivhost.so exports (it is built with hidden
// visibility).
extern "C" __attribute__((visibility("default")))
int Kivhost_Init(Tcl_Interp* interp);

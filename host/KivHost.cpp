// KivHost.cpp: creating the host of an interpreter (manager, default device and
// channel), finding and loading libkiv.so, and the package entry Kivhost_Init.
#include "KivHost.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "DeviceTable.h"
#include "kiv_version.h"
#include "MQB.h"
#include "MQBManager.h"
#include "MqbCommand.h"

namespace {

constexpr const char* kAssocKey = "kivhost";
constexpr const char* kExtensionName = "libkiv.so";

using RunFn = int (*)(MQBManager*, void*, Tcl_Interp*);

// Frees the host when its interpreter is deleted.
void deleteHost(ClientData cd, Tcl_Interp*) {
    delete static_cast<KivHost*>(cd);
}

// The directory libkivhost.so was loaded from, found through one of its own
// symbols; empty when the loader cannot say.
std::string ownDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&Kivhost_Init), &info) == 0 || !info.dli_fname)
        return {};
    std::string path = info.dli_fname;
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

}  // namespace

KivHost::KivHost(Tcl_Interp* interp) : interp_(interp), manager_(std::make_unique<MQBManager>()) {
    if (mqb::deviceCount() == 0) {
        std::string err;
        mqb::addDevice("sim", err);
    }
    auto channel = std::make_unique<MQB>("sim");
    channel->setDeviceIndex(0);
    manager_->setCurrentMQB(std::move(channel));
}

// The extension is never unloaded: its global state may be shared with other
// interpreters of the process that also loaded it, and their `kiv` commands
// point into it.
KivHost::~KivHost() = default;

KivHost* KivHost::of(Tcl_Interp* interp) {
    return static_cast<KivHost*>(Tcl_GetAssocData(interp, kAssocKey, nullptr));
}

std::string KivHost::extensionPath() {
    const char* env = std::getenv("KIV_LIBRARY");
    if (env && *env) {
        struct stat st{};
        if (stat(env, &st) == 0 && S_ISDIR(st.st_mode))
            return std::string(env) + "/" + kExtensionName;
        return env;
    }
    std::string dir = ownDirectory();
    return dir.empty() ? std::string(kExtensionName) : dir + "/" + kExtensionName;
}

int KivHost::loadExtension() {
    const std::string path = extensionPath();
    // Local: the extension's symbols stay its own and cannot be bound by other
    // libraries the interpreter loads later.
    void* lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        const char* why = dlerror();
        Tcl_SetObjResult(interp_, Tcl_ObjPrintf("cannot load the kiv extension \"%s\": %s",
                                                path.c_str(), why ? why : "unknown error"));
        return TCL_ERROR;
    }
    dlerror();
    auto entry = reinterpret_cast<RunFn>(dlsym(lib, "run"));
    if (!entry) {
        Tcl_SetObjResult(interp_, Tcl_ObjPrintf("the kiv extension \"%s\" has no entry \"run\"",
                                                path.c_str()));
        return TCL_ERROR;
    }
    int rc = entry(manager_.get(), nullptr, interp_);
    if (rc != 0) {
        Tcl_AppendResult(interp_, " (kiv extension entry failed)", nullptr);
        return TCL_ERROR;
    }
    Tcl_ResetResult(interp_);
    return TCL_OK;
}

int KivHost::install(Tcl_Interp* interp) {
    if (of(interp)) return TCL_OK;
    auto* host = new KivHost(interp);
    // From here the interpreter owns the host and frees it when it is deleted.
    Tcl_SetAssocData(interp, kAssocKey, deleteHost, host);
    registerMqbCommand(interp, host);
    return host->loadExtension();
}

extern "C" int Kivhost_Init(Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, "8.6", 0) == nullptr) return TCL_ERROR;
    if (KivHost::install(interp) != TCL_OK) return TCL_ERROR;
    return Tcl_PkgProvide(interp, "kiv", KIV_VERSION);
}

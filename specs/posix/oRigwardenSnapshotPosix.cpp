// A Linux snapshot is replayed by reading it as the probes' root folder.
#include "../oRigwardenSnapshot.h"

#include "keel/klplatform.h"

#include <cstdlib>

namespace {
klString gRootBeforeReplay;
} // namespace

const char* oRigwardenSnapshot::Platform() {
    return "linux";
}

bool oRigwardenSnapshot::StartReplay(const klString& folder, klString& error) {
    const char* root = std::getenv("RIGWARDEN_ROOT");
    gRootBeforeReplay = root ? root : "";
    if (kl::platform::SetEnv("RIGWARDEN_ROOT", folder.Const())) return true;
    error = "cannot be made the probes' root folder";
    return false;
}

void oRigwardenSnapshot::StopReplay() {
    kl::platform::SetEnv("RIGWARDEN_ROOT", gRootBeforeReplay.Const());
}

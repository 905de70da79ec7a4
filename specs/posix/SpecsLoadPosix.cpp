// Starts and stops keel's singletons as the shared library is loaded and unloaded.
// This file is linked last, so its initialiser runs after every static object of the
// library has registered its singleton holder.
#include "keel/kllifetime.h"

__attribute__((constructor)) static void RigwardenLoaded() { klObjectLifetimeManager::Initialize(); }
__attribute__((destructor)) static void RigwardenUnloading() { klObjectLifetimeManager::Shutdown(); }

// Starts and stops keel's singletons as the shared library is loaded and unloaded.
// The library's static constructors run in link order, and keel's come after this
// one; the singletons they register after the start-up are created as they register.
#include "keel/kllifetime.h"

__attribute__((constructor)) static void RigwardenLoaded() { klObjectLifetimeManager::Initialize(); }
__attribute__((destructor)) static void RigwardenUnloading() { klObjectLifetimeManager::Shutdown(); }

// Every network test runs with keel's singletons (the connection pool among them) alive.
#include "keel/kllifetime.h"

#include <gtest/gtest.h>

namespace {

struct KeelRunning : testing::Environment {
    void SetUp() override { klObjectLifetimeManager::Initialize(); }
    void TearDown() override { klObjectLifetimeManager::Shutdown(); }
};
testing::Environment* const g_keel = testing::AddGlobalTestEnvironment(new KeelRunning);

} // namespace

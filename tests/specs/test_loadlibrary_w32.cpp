// rigwarden.dll as a Windows host meets it: loaded by name, its functions found by name.
// (rigwarden_exports_only_c checks that nothing else is in its export table.)
#include "Specs.h"

#include <gtest/gtest.h>

#include <windows.h>

// GetProcAddress hands every function back as FARPROC; the detour through void* says
// that the real type is known.
#define RIGWARDEN_FIND(library, name) \
    reinterpret_cast<decltype(&name)>(reinterpret_cast<void*>(GetProcAddress(library, #name)))

TEST(LoadLibraryW32, FindsTheThreeFunctionsByName) {
    HMODULE library = LoadLibraryA("rigwarden.dll");
    ASSERT_NE(nullptr, library) << GetLastError();
    auto get = RIGWARDEN_FIND(library, rigwarden_get_spec_info);
    auto release = RIGWARDEN_FIND(library, rigwarden_free_spec_info);
    auto getEx = RIGWARDEN_FIND(library, rigwarden_get_spec_info_ex);
    ASSERT_TRUE(get && release && getEx);
    // The device registry of the machine at hand (wine's, in CI) adds to the attached
    // adapters and never takes one away.
    rigwarden_spec_info *info = get("no-such-database"), *all = getEx("no-such-database", RIGWARDEN_QUERY_ALL_ADAPTERS);
    ASSERT_GE(all->gpu_count, info->gpu_count);
    for (uint32_t i = 0; i < info->gpu_count; ++i)
        EXPECT_STREQ(info->gpu_info[i].adapter_name, all->gpu_info[i].adapter_name);
    release(all);
    release(info);
    EXPECT_TRUE(FreeLibrary(library));
}

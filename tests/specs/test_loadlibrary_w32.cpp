// rigwarden.dll as a Windows host meets it: loaded by name, its functions found by name,
// and nothing else in its export table.
#include "Specs.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <set>
#include <string>

namespace {

std::set<std::string> ExportedNames(HMODULE module) {
    auto* base = reinterpret_cast<const BYTE*>(module);
    auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& entry = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    std::set<std::string> names;
    if (entry.Size == 0) return names;
    auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + entry.VirtualAddress);
    auto* nameOffsets = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
    for (DWORD i = 0; i < exports->NumberOfNames; ++i)
        names.insert(reinterpret_cast<const char*>(base + nameOffsets[i]));
    return names;
}

// GetProcAddress hands every function back as FARPROC; the detour through void* says
// that the real type is known.
template <class Function> Function Find(HMODULE library, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

} // namespace

TEST(LoadLibraryW32, FindsTheThreeFunctionsAndNothingElse) {
    HMODULE library = LoadLibraryA("rigwarden.dll");
    ASSERT_NE(nullptr, library) << GetLastError();
    auto get = Find<decltype(&rigwarden_get_spec_info)>(library, "rigwarden_get_spec_info");
    auto release = Find<decltype(&rigwarden_free_spec_info)>(library, "rigwarden_free_spec_info");
    auto getEx = Find<decltype(&rigwarden_get_spec_info_ex)>(library, "rigwarden_get_spec_info_ex");
    ASSERT_NE(nullptr, get);
    ASSERT_NE(nullptr, release);
    ASSERT_NE(nullptr, getEx);
    EXPECT_EQ((std::set<std::string>{"rigwarden_free_spec_info", "rigwarden_get_spec_info",
                                     "rigwarden_get_spec_info_ex"}),
              ExportedNames(library));

    rigwarden_spec_info* info = get("no-such-database");
    ASSERT_NE(nullptr, info);
    EXPECT_NE(nullptr, info->error_message);
    EXPECT_NE(nullptr, info->under_min_spec_reason);
    EXPECT_EQ(info->gpu_count == 0, info->gpu_info == nullptr);
    for (uint32_t i = 0; i < info->gpu_count; ++i) EXPECT_EQ(1, info->gpu_info[i].not_listed);
    // The device registry of the machine at hand (wine's, in CI) adds to the attached
    // adapters and never takes one away.
    rigwarden_spec_info* all = getEx("no-such-database", RIGWARDEN_QUERY_ALL_ADAPTERS);
    ASSERT_NE(nullptr, all);
    EXPECT_GE(all->gpu_count, info->gpu_count);
    for (uint32_t i = 0; i < info->gpu_count; ++i) {
        EXPECT_STREQ(info->gpu_info[i].adapter_name, all->gpu_info[i].adapter_name);
        EXPECT_EQ(info->gpu_info[i].vendor_id, all->gpu_info[i].vendor_id);
    }
    std::printf("attached adapters: %u, present display devices: %u\n", info->gpu_count, all->gpu_count);
    release(all);
    release(info);
    EXPECT_TRUE(FreeLibrary(library));
}

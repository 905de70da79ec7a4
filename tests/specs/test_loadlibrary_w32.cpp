// rigwarden.dll as a Windows host meets it: loaded by name, two functions found by name,
// and nothing else in its export table.
#include "Specs.h"

#include <gtest/gtest.h>

#include <windows.h>

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

TEST(LoadLibraryW32, FindsTheTwoFunctionsAndNothingElse) {
    HMODULE library = LoadLibraryA("rigwarden.dll");
    ASSERT_NE(nullptr, library) << GetLastError();
    auto get = Find<decltype(&rigwarden_get_spec_info)>(library, "rigwarden_get_spec_info");
    auto release = Find<decltype(&rigwarden_free_spec_info)>(library, "rigwarden_free_spec_info");
    ASSERT_NE(nullptr, get);
    ASSERT_NE(nullptr, release);
    EXPECT_EQ((std::set<std::string>{"rigwarden_free_spec_info", "rigwarden_get_spec_info"}), ExportedNames(library));

    rigwarden_spec_info* info = get("no-such-database");
    ASSERT_NE(nullptr, info);
    EXPECT_NE(nullptr, info->error_message);
    EXPECT_NE(nullptr, info->under_min_spec_reason);
    EXPECT_EQ(info->gpu_count == 0, info->gpu_info == nullptr);
    for (uint32_t i = 0; i < info->gpu_count; ++i) EXPECT_EQ(1, info->gpu_info[i].not_listed);
    release(info);
    EXPECT_TRUE(FreeLibrary(library));
}

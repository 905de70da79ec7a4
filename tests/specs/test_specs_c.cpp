// The C interface, through the shared library as a launcher loads it. This program does
// not link keel itself: the library must keep its allocator and everything else inside.
#include "Specs.h"
#include "specs_layout.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>

// The records' layout at this build's pointer size, checked by the compiler: the 32-bit
// builds (Windows i686, Linux i386) check the first column, the others the second.
static_assert(sizeof(void*) == 4 || sizeof(void*) == 8, "a pointer size the layout table knows");
#define RIGWARDEN_CHECK_FIELD(record, field, at32, at64) \
    static_assert(offsetof(record, field) == (sizeof(void*) == 4 ? (at32) : (at64)), #record "." #field);
#define RIGWARDEN_CHECK_SIZE(record, size32, size64) \
    static_assert(sizeof(record) == (sizeof(void*) == 4 ? (size32) : (size64)), "sizeof " #record);
RIGWARDEN_SPECS_LAYOUT(RIGWARDEN_CHECK_FIELD, RIGWARDEN_CHECK_SIZE)

#if !defined(_WIN32)
#include "fake_machine.h"

#include <dlfcn.h>

TEST(SpecsC, AnswerOnACapturedMachine) {
    FakeMachine machine("c-interface");
    machine.AddPciIds();
    machine.AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684, true);
    machine.AddPci("0000:02:00.0", 0x030000, 0x1002, 0x744c);
    machine.SetCpu("model name\t: CPU @ 3.00GHz\n", "0-15\n");
    machine.SetMemoryKB(32 * 1024 * 1024);
    machine.Write("db/nvidia.cfg", "10DE, 2684, 4, 3840, 9800, D ; GeForce RTX 4090\n");
    machine.Use();

    rigwarden_spec_info* info = rigwarden_get_spec_info((machine.Root() + "/db").c_str());
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(0, info->is_error);
    EXPECT_STREQ("", info->error_message);
    EXPECT_EQ(0, info->is_under_min_spec);
    EXPECT_STREQ("", info->under_min_spec_reason);
    ASSERT_EQ(2u, info->gpu_count);
    EXPECT_EQ(0u, info->best_gpu_index);
    const rigwarden_gpu_info& rtx = info->gpu_info[0];
    EXPECT_STREQ("NVIDIA Corporation AD102 [GeForce RTX 4090]", rtx.adapter_name);
    EXPECT_EQ(0x10DEu, rtx.vendor_id);
    EXPECT_EQ(0x2684u, rtx.device_id);
    EXPECT_EQ(0, rtx.not_listed);
    EXPECT_STREQ("", rtx.not_listed_info);
    EXPECT_EQ(4, rtx.recommended_video_quality);
    EXPECT_EQ(3840u, rtx.recommended_width);
    EXPECT_EQ(9800u, rtx.benchmark);
    EXPECT_EQ(0, rtx.mobile);
    EXPECT_EQ(1, info->gpu_info[1].not_listed);
    EXPECT_NE(nullptr,
              std::strstr(info->gpu_info[1].not_listed_info, "(0x1002, 0x744C, Advanced Micro"));

    // Every display device is listed on Linux already, so the flag changes nothing.
    rigwarden_spec_info* all =
        rigwarden_get_spec_info_ex((machine.Root() + "/db").c_str(), RIGWARDEN_QUERY_ALL_ADAPTERS);
    ASSERT_EQ(2u, all->gpu_count);
    EXPECT_STREQ(rtx.adapter_name, all->gpu_info[0].adapter_name);
    EXPECT_EQ(9800u, all->gpu_info[0].benchmark);
    EXPECT_EQ(0x744Cu, all->gpu_info[1].device_id);
    rigwarden_free_spec_info(all);
    rigwarden_free_spec_info(info);
}

TEST(SpecsC, HostKeepsItsOwnAllocator) {
    using NewFn = void* (*)(size_t);
    NewFn hostNew = &::operator new;
    Dl_info where;
    ASSERT_NE(0, dladdr(reinterpret_cast<void*>(hostNew), &where));
    EXPECT_EQ(nullptr, std::strstr(where.dli_fname, "rigwarden")) << where.dli_fname;
    void* library = dlopen(RIGWARDEN_LIBRARY_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(nullptr, library);
    // A lookup through the library's handle also searches its dependencies (the C++
    // runtime), so what matters is where the operator new it finds lives.
    void* newSeenByLibrary = dlsym(library, sizeof(size_t) == 4 ? "_Znwj" : "_Znwm");
    ASSERT_NE(0, dladdr(newSeenByLibrary, &where));
    EXPECT_EQ(nullptr, std::strstr(where.dli_fname, "rigwarden")) << where.dli_fname;
    EXPECT_EQ(nullptr, dlsym(library, "klAlloc"));
    EXPECT_NE(nullptr, dlsym(library, "rigwarden_get_spec_info"));
    EXPECT_NE(nullptr, dlsym(library, "rigwarden_get_spec_info_ex"));
    dlclose(library);
}
#endif

TEST(SpecsC, EveryTextIsThereWhateverTheInput) {
    for (const char* folder : {static_cast<const char*>(nullptr), "", "/no/such/folder"}) {
        rigwarden_spec_info* info = rigwarden_get_spec_info(folder);
        ASSERT_NE(nullptr, info);
        ASSERT_NE(nullptr, info->error_message);
        ASSERT_NE(nullptr, info->under_min_spec_reason);
        EXPECT_EQ(info->is_error != 0, info->error_message[0] != 0);
        EXPECT_EQ(info->gpu_count == 0, info->gpu_info == nullptr);
        if (info->gpu_count > 0) EXPECT_LT(info->best_gpu_index, info->gpu_count);
        else EXPECT_EQ(0u, info->best_gpu_index);
        for (uint32_t i = 0; i < info->gpu_count; ++i) {
            EXPECT_NE(nullptr, info->gpu_info[i].adapter_name);
            EXPECT_NE(nullptr, info->gpu_info[i].not_listed_info);
            EXPECT_EQ(1, info->gpu_info[i].not_listed); // no database was found
        }
        rigwarden_free_spec_info(info);
    }
    rigwarden_free_spec_info(nullptr);
}

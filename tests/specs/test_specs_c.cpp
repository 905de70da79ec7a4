// The C interface through the shared library, in a program without keel of its own.
#include "Specs.h"
#include "specs_layout.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <string>

// The records' layout at this build's pointer size: 32-bit builds check the first column.
#define RIGWARDEN_CHECK_FIELD(record, field, at32, at64) \
    static_assert(offsetof(record, field) == (sizeof(void*) == 4 ? (at32) : (at64)), #record "." #field);
#define RIGWARDEN_CHECK_SIZE(record, size32, size64) \
    static_assert(sizeof(record) == (sizeof(void*) == 4 ? (size32) : (size64)), "sizeof " #record);
RIGWARDEN_SPECS_LAYOUT(RIGWARDEN_CHECK_FIELD, RIGWARDEN_CHECK_SIZE)

#if !defined(_WIN32)
#include "fake_machine.h"

// The answer's fields as one text, each adapter's on a line of its own.
std::string Describe(const rigwarden_spec_info& info) {
    char line[4096];
    std::snprintf(line, sizeof(line), "%d '%s' %d '%s' %u\n", info.is_error, info.error_message,
                  info.is_under_min_spec, info.under_min_spec_reason, info.best_gpu_index);
    std::string text = line;
    for (const rigwarden_gpu_info* gpu = info.gpu_info; gpu < info.gpu_info + info.gpu_count; ++gpu) {
        std::snprintf(line, sizeof(line), "'%s' %x:%x %d '%.63s' %d %u %u %d\n", gpu->adapter_name, gpu->vendor_id,
                      gpu->device_id, gpu->not_listed, gpu->not_listed_info, gpu->recommended_video_quality,
                      gpu->recommended_width, gpu->benchmark, gpu->mobile);
        text += line;
    }
    return text;
}

TEST(SpecsC, AnswerOnACapturedMachine) {
    FakeMachine machine("c-interface");
    machine.AddPciIds();
    machine.AddPci("0000:01:00.0", 0x030000, 0x10de, 0x2684);
    machine.AddPci("0000:02:00.0", 0x030000, 0x1002, 0x744c, true); // the boot display comes first
    machine.Write("proc/cpuinfo", "processor\t: 0\nmodel name\t: CPU @ 3.00GHz\nprocessor\t: 1\n");
    machine.Write("proc/meminfo", "MemTotal:       33554432 kB\n");
    machine.Write("db/nvidia.cfg", "10DE, 2684, 4, 3840, 9800, D ; GeForce RTX 4090\n");
    machine.Use();
    const std::string expected =
        "0 '' 0 '' 1\n'Advanced Micro Devices, Inc. [AMD/ATI] Navi 31 [Radeon RX 7900 XT/7900 XTX]' 1002:744c 1 "
        "'Could not find graphics adapter (0x1002, 0x744C, Advanced Micro' 0 0 0 0\n"
        "'NVIDIA Corporation AD102 [GeForce RTX 4090]' 10de:2684 0 '' 4 3840 9800 0\n";
    // Every display device is listed on Linux already, so the flag changes nothing.
    for (uint32_t flags : {0u, uint32_t(RIGWARDEN_QUERY_ALL_ADAPTERS)}) {
        rigwarden_spec_info* info = rigwarden_get_spec_info_ex((machine.Root() + "/db").c_str(), flags);
        EXPECT_EQ(expected, Describe(*info));
        rigwarden_free_spec_info(info);
    }
}
#endif

TEST(SpecsC, EveryTextIsThereWhateverTheInput) {
    for (const char* folder : {static_cast<const char*>(nullptr), "", "/no/such/folder"}) {
        rigwarden_spec_info* info = rigwarden_get_spec_info(folder);
        ASSERT_TRUE(info && info->error_message && info->under_min_spec_reason);
        EXPECT_EQ(info->is_error != 0, info->error_message[0] != 0);
        EXPECT_EQ(info->gpu_count == 0, info->gpu_info == nullptr);
        for (const rigwarden_gpu_info* gpu = info->gpu_info; gpu < info->gpu_info + info->gpu_count; ++gpu)
            EXPECT_TRUE(gpu->adapter_name && gpu->not_listed_info && gpu->not_listed); // no database was found
        rigwarden_free_spec_info(info);
    }
    rigwarden_free_spec_info(nullptr);
}

// The shared library as a launcher loads it with dlopen: by the time dlopen returns, every
// singleton the library holds must exist. Each holder (a local symbol found with nm) has its
// instance pointer as its last member.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <cstring>
#include <string>

TEST(LoadPosix, LoadingTheLibraryCreatesEverySingleton) {
    void* library = dlopen(RIGWARDEN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    link_map* map = nullptr;
    ASSERT_TRUE(library && dlinfo(library, RTLD_DI_LINKMAP, &map) == 0) << dlerror();
    // Every klSingleton<T>::sInstance the library defines: "offset size type name" lines.
    std::string names, command = std::string(RIGWARDEN_NM) + " -C -S --defined-only " + RIGWARDEN_LIBRARY_PATH +
                                 " | grep ' klSingleton<.*>::sInstance$'";
    FILE* pipe = popen(command.c_str(), "r");
    char line[1024];
    unsigned long long offset = 0, size = 0;
    while (std::fgets(line, sizeof(line), pipe) && std::sscanf(line, "%llx %llx", &offset, &size) == 2) {
        names += line;
        void* instance = nullptr;
        std::memcpy(&instance, reinterpret_cast<const char*>(map->l_addr + offset + size) - sizeof(void*),
                    sizeof(void*));
        EXPECT_NE(nullptr, instance) << line << " was never created";
    }
    pclose(pipe);
    for (const char* wanted : {"klHTTPConnectionPool>", "klNetStartup>", "klThreadLocalMgr>"})
        EXPECT_NE(std::string::npos, names.find(wanted)) << names;
    dlclose(library);
}

// The shared library as a launcher loads it with dlopen: by the time dlopen returns, every
// singleton the library holds must exist. Their holders are local symbols, so the test
// finds them in the library's symbol table and reads each holder's instance pointer (its
// last member) in the loaded image.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <link.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Holder {
    std::string name;
    uintptr_t offset, size;
};

// Every klSingleton<T>::sInstance the library defines, from nm's listing.
std::vector<Holder> SingletonHolders(const char* library) {
    std::vector<Holder> holders;
    std::string command = std::string(RIGWARDEN_NM) + " -C -S --defined-only " + library;
    FILE* pipe = popen(command.c_str(), "r");
    char line[1024];
    while (pipe && std::fgets(line, sizeof(line), pipe)) {
        unsigned long long offset = 0, size = 0;
        char type = 0;
        int name = 0;
        if (std::sscanf(line, "%llx %llx %c %n", &offset, &size, &type, &name) < 3) continue;
        std::string symbol(line + name, std::strcspn(line + name, "\n"));
        if (symbol.rfind("klSingleton<", 0) == 0 && symbol.size() > 11 &&
            symbol.compare(symbol.size() - 11, 11, "::sInstance") == 0)
            holders.push_back({symbol, uintptr_t(offset), uintptr_t(size)});
    }
    if (pipe) pclose(pipe);
    return holders;
}

} // namespace

TEST(LoadPosix, LoadingTheLibraryCreatesEverySingleton) {
    std::vector<Holder> holders = SingletonHolders(RIGWARDEN_LIBRARY_PATH);
    std::string names;
    for (const Holder& holder : holders) names += holder.name + "\n";
    for (const char* wanted : {"klHTTPConnectionPool>", "klNetStartup>", "klThreadLocalMgr>"})
        ASSERT_NE(std::string::npos, names.find(wanted)) << names;

    void* library = dlopen(RIGWARDEN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, library) << dlerror();
    link_map* map = nullptr;
    ASSERT_EQ(0, dlinfo(library, RTLD_DI_LINKMAP, &map));
    for (const Holder& holder : holders) {
        ASSERT_GE(holder.size, sizeof(void*)) << holder.name;
        void* instance = nullptr;
        std::memcpy(&instance, reinterpret_cast<const char*>(map->l_addr + holder.offset + holder.size) - sizeof(void*),
                    sizeof(void*));
        EXPECT_NE(nullptr, instance) << holder.name << " was never created";
    }
    dlclose(library);
}

// A launcher that never unloads the library: at exit its static objects go first, then its
// unload hook shuts keel down. The process must still end cleanly.
TEST(LoadPosixDeathTest, ExitingWithoutUnloadingEndsCleanly) {
    EXPECT_EXIT(
        {
            void* library = dlopen(RIGWARDEN_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
            using Query = void* (*)(const char*);
            using Free = void (*)(void*);
            auto query = reinterpret_cast<Query>(dlsym(library, "rigwarden_get_spec_info"));
            auto release = reinterpret_cast<Free>(dlsym(library, "rigwarden_free_spec_info"));
            if (!query || !release) std::exit(2);
            release(query("/no/such/folder"));
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

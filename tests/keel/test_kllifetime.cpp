// Each scenario runs in a fresh process: the manager runs its two passes once per process.
#include "keel_test.h"

#include "keel/kllifetime.h"
#include "keel/klsystem.h"

#include <cstdlib>

using keeltest::HasAll;

namespace {

std::string gLog;

void Note(const char* text) { gLog += std::string(text) + " "; }
void PrintReport(const char* expr, const char*, int, const char*) { std::fprintf(stderr, "report(%s)\n", expr); }

struct Base {
    Base() { Note("+Base"); }
    ~Base() { Note("-Base"); }
};
// Uses Base, so Base must be born first and die last whatever the registration order.
struct User {
    klUsesSingleton<Base> mBase;
    User() { Note("+User"); }
    ~User() { Note("-User"); }
};
// The system's own singletons are there for their users too, and outlive them.
bool SystemLive() { return klSingleton<GlobalArgs>::IsLive() && klSingleton<ProxyInfo>::IsLive(); }
struct Top {
    klUsesSingleton<User> mUser;
    klUsesSingleton<GlobalArgs> mArgs;
    klUsesSingleton<ProxyInfo> mProxy;
    Top() { Note(SystemLive() ? "+Top(args,proxy)" : "+Top"); }
    ~Top() { Note(SystemLive() ? "-Top(args,proxy)" : "-Top"); }
};
[[noreturn]] void Finish() {
    std::fprintf(stderr, "log: %s\n", gLog.c_str());
    std::exit(0);
}

} // namespace

TEST(LifetimeDeathTest, DependenciesComeFirstAndGoLast) {
    EXPECT_EXIT(
        {
            klAssertReportHook = PrintReport;
            Note(klSingleton<GlobalArgs>::IsLive() || klSingleton<ProxyInfo>::IsLive() ? "early" : "none");
            klObjectLifetimeManager::Initialize();
            Note(klSingleton<Top>::Instance() && klSingleton<Base>::Instance() ? "live" : "missing");
            klObjectLifetimeManager::Shutdown();
            Note(klSingleton<Base>::sInstance.Instance() ? "kept" : "gone");
            Note(klSingleton<GlobalArgs>::IsLive() || klSingleton<ProxyInfo>::IsLive() ? "kept" : "gone");
            Finish();
        },
        testing::ExitedWithCode(0),
        (HasAll({{"log: none +Base +User +Top(args,proxy) live -Top(args,proxy) -User -Base gone gone ", 1},
                 {"report(", 1}, {"report(sInstance.mPointer != 0)", 1}})));
}

TEST(LifetimeDeathTest, MisuseIsReported) {
    EXPECT_EXIT(
        {
            klAssertReportHook = PrintReport;
            klSingleton<Base>::Instance();          // before Initialize
            klObjectLifetimeManager::Shutdown();    // without Initialize
            klObjectLifetimeManager::Initialize();
            klObjectLifetimeManager::Initialize();  // twice
            klSingleton<Base>::sInstance.Destroy(); // not the newest: refused
            klObjectLifetimeManager::Shutdown();
            klUsesSingleton<Base> late;             // outside both passes, and already destroyed
            Finish();
        },
        testing::ExitedWithCode(123),
        (HasAll({{"report(sInstance.mPointer != 0)\n"
                 "report(sInitialized)\n"
                 "report(!sInitialized)\n"
                 "report(klObjectLifetimeManager::IsOperating())\n"
                 "report(sCreateRoot == this)\n"
                 "report(klObjectLifetimeManager::IsOperating())\nERROR ",
                 1},
                {") assertmsg(!mInitialized, if you see this we have a circular dependency", 1}})));
}

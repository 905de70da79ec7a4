// Linux half of the system module: the description from uname and os-release, and the
// kill signals SIGINT, SIGTERM and SIGHUP.
#include "keel/klsystem.h"
#include "keel/klplatform.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>

klString kl::detail::QueryOperatingSystemDescription() {
    utsname name;
    const char* release = uname(&name) == 0 ? name.release : "";
    return klDescribeOperatingSystem("/", release, sizeof(void*) == 8);
}

namespace {

const int kKillSignals[] = {SIGINT, SIGTERM, SIGHUP};
// The self-pipe: the signal handler writes the signal's number, the watcher reads it.
int gKillPipe[2] = {-1, -1};

void SignalToPipe(int signo) {
    int saved = errno; // the interrupted code may be about to read it
    unsigned char byte = static_cast<unsigned char>(signo);
    ssize_t written = write(gKillPipe[1], &byte, 1); // a full pipe already holds a signal
    (void)written;
    errno = saved;
}

void* WatchKillSignals(void*) {
    unsigned char signo = 0;
    for (;;) {
        ssize_t got = read(gKillPipe[0], &signo, 1);
        if (got == 1) break;
        if (got < 0 && errno == EINTR) continue;
        return nullptr; // the pipe is gone; nothing more can arrive
    }
    kl::detail::OnKillSignal();
    // Nothing ends a Linux process after the grace period, so the signal's own default
    // action does it, and the parent sees the process killed by that signal.
    signal(signo, SIG_DFL);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signo);
    pthread_sigmask(SIG_UNBLOCK, &only, nullptr); // in case the installer's mask held it
    kl::platform::FlushCoverage();
    raise(signo);
    return nullptr;
}

} // namespace

void kl::detail::InstallKillSignalHandler() {
    if (pipe2(gKillPipe, O_CLOEXEC) != 0) return;
    fcntl(gKillPipe[1], F_SETFL, O_NONBLOCK); // the handler must never block
    pthread_t watcher;
    if (pthread_create(&watcher, nullptr, WatchKillSignals, nullptr) != 0) return;
    pthread_detach(watcher);
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = SignalToPipe;
    action.sa_flags = SA_RESTART;
    for (int signo : kKillSignals) sigaction(signo, &action, nullptr);
}

namespace {

// The first of two environment variables that is set and not empty; null when neither is.
const char* EitherVariable(const char* name, const char* other) {
    const char* value = std::getenv(name);
    return value && *value ? value : std::getenv(other);
}

} // namespace

void kl::detail::ReadProxySettings(klString& server, klString& bypass) {
    server = EitherVariable("http_proxy", "HTTP_PROXY");
    bypass = EitherVariable("no_proxy", "NO_PROXY");
}

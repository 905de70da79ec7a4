// Built against the installed keel: an assertion in keel's headers names core/keel/<file>, not the install folder.
#include <keel/klbuffer.h>

#include <cstdio>
#include <cstring>

static const char* gFile = "(no report)";
static void Keep(const char*, const char* file, int, const char*) { gFile = file; }

int main() {
    klAssertReportHook = Keep;
    klBufferStream stream(nullptr, 0); // its constructor asserts "data != NULL"
    std::printf("assertion file: %s\n", gFile);
    return std::strcmp(gFile, "core/keel/klbuffer.h") == 0 ? 0 : 1;
}

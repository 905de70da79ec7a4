// Linux half of library loading.
#include "keel/kldll.h"

#include <dlfcn.h>

#include <string>

namespace {

// dlopen takes UTF-8; wchar_t holds UTF-32 here.
std::string ToUtf8(const wchar_t* text) {
    std::string out;
    for (; *text; ++text) {
        uint32_t c = static_cast<uint32_t>(*text);
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | c >> 6);
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | c >> 12);
            out += char(0x80 | (c >> 6 & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | c >> 18);
            out += char(0x80 | (c >> 12 & 0x3F));
            out += char(0x80 | (c >> 6 & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

} // namespace

namespace kl::dll {

void* Open(const char* libname) { return dlopen(libname, RTLD_NOW | RTLD_LOCAL); }
void* OpenWide(const wchar_t* libname) { return Open(ToUtf8(libname).c_str()); }
bool Close(void* handle) { return dlclose(handle) == 0; }
void* Symbol(void* handle, const char* name) { return dlsym(handle, name); }

} // namespace kl::dll

// The UTF-8 code page conversions of Windows itself.
#include "keel/kltext.h"

#include <windows.h>

int32_t kl::platform::Utf8ToWideUnits(const char* text, uint32_t len, klWideChar* out, uint32_t outUnits) {
    const int written = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(len), out, out ? static_cast<int>(outUnits) : 0);
    return written > 0 ? written : -1;
}

int32_t kl::platform::WideToUtf8Units(const klWideChar* text, uint32_t len, char* out, uint32_t outUnits) {
    const int written = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(len), out,
                                            out ? static_cast<int>(outUnits) : 0, nullptr, nullptr);
    return written > 0 ? written : -1;
}

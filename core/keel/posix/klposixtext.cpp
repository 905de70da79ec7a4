// UTF-8 and UTF-16 conversions for systems without the Windows calls, giving the same
// results: each ill-formed part of a UTF-8 text (the longest prefix of a valid sequence,
// or one byte) and each unpaired surrogate becomes U+FFFD.
#include "keel/kltext.h"

namespace {

constexpr uint32_t kReplacement = 0xFFFD;

// The next code point of well-formed UTF-8 at text[at..len), advancing at; U+FFFD and
// the ill-formed prefix for anything else.
uint32_t NextCodePoint(const unsigned char* text, uint32_t len, uint32_t& at) {
    const uint32_t lead = text[at++];
    if (lead < 0x80) return lead;
    uint32_t extra, value, low = 0x80, high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        extra = 1, value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        extra = 2, value = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;  // no overlong forms
        if (lead == 0xED) high = 0x9F; // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        extra = 3, value = lead & 0x07;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F; // nothing above U+10FFFF
    } else {
        return kReplacement;
    }
    for (uint32_t i = 0; i < extra; ++i) {
        if (at >= len || text[at] < low || text[at] > high) return kReplacement;
        value = (value << 6) | (text[at++] & 0x3F);
        low = 0x80, high = 0xBF;
    }
    return value;
}

// Appends units to out while they fit; false once they do not.
template <class Unit> struct Sink {
    Unit* out;
    uint32_t room;
    uint32_t count = 0;
    bool Put(uint32_t unit) {
        if (out) {
            if (count >= room) return false;
            out[count] = static_cast<Unit>(unit);
        }
        ++count;
        return true;
    }
};

} // namespace

int32_t kl::platform::Utf8ToWideUnits(const char* text, uint32_t len, klWideChar* out, uint32_t outUnits) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    Sink<klWideChar> sink{out, outUnits};
    for (uint32_t at = 0; at < len;) {
        const uint32_t cp = NextCodePoint(bytes, len, at);
        const bool fits = cp < 0x10000 ? sink.Put(cp)
                                       : sink.Put(0xD800 + ((cp - 0x10000) >> 10)) && sink.Put(0xDC00 + (cp & 0x3FF));
        if (!fits) return -1;
    }
    return static_cast<int32_t>(sink.count);
}

int32_t kl::platform::WideToUtf8Units(const klWideChar* text, uint32_t len, char* out, uint32_t outUnits) {
    Sink<char> sink{out, outUnits};
    for (uint32_t at = 0; at < len; ++at) {
        uint32_t cp = static_cast<uint32_t>(text[at]);
        if (cp >= 0xD800 && cp <= 0xDBFF && at + 1 < len && text[at + 1] >= 0xDC00 && text[at + 1] <= 0xDFFF)
            cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<uint32_t>(text[++at]) - 0xDC00);
        else if (cp >= 0xD800 && cp <= 0xDFFF)
            cp = kReplacement;
        char encoded[4];
        const uint32_t size = klTextBuffer::EncodeChar(cp, encoded);
        for (uint32_t i = 0; i < size; ++i)
            if (!sink.Put(static_cast<unsigned char>(encoded[i]))) return -1;
    }
    return static_cast<int32_t>(sink.count);
}

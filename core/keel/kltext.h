// klTextBuffer: UTF-8 text addressed by character (code point) index while it is stored
// as bytes. It keeps both lengths, remembers the last character-to-byte lookup so that
// walking forward costs constant time a step, edits by character index, decodes a few
// named entities on assignment, and converts to and from the platform's wide text.
//
// A character starts at every byte below 128 and every byte with bit 6 set, that is at
// every byte that is not a continuation byte (10xxxxxx); the character count is the
// number of such bytes, whether or not the sequences are well formed.
//
// A view (View) reads text it does not own; every change to a view is refused with an
// assertion report.
#pragma once

#include "keel/klstring.h"

#include <cstdint>

class klTextBuffer {
public:
    klTextBuffer() = default;
    explicit klTextBuffer(const char* text);
    klTextBuffer(const klTextBuffer& other);
    klTextBuffer& operator=(const klTextBuffer& other);
    ~klTextBuffer();

    // A read-only view of len bytes at text (which must stay valid and end in a zero byte
    // at text[len]).
    static klTextBuffer View(const char* text, uint32_t len);

    // Replaces the text with len bytes of data, stored in exactly len + 1 bytes.
    void Set(const char* data, uint32_t len);
    // Replaces the text with text, decoding "&amp;", "&quot;", "&nbsp;", "&copy;",
    // "&reg;", "&tm;" and "&#<decimal>;"; other entities are dropped.
    void SetDecoded(const char* text);
    // Inserts len bytes of UTF-8 before character charIndex (charIndex == CharLength()
    // appends).
    void Insert(uint32_t charIndex, const char* data, uint32_t len);
    void InsertChar(uint32_t charIndex, uint32_t codePoint);
    // Removes count characters from start; count is clipped to the end. Returns 0, or
    // CharLength() when start is at or past the end and nothing was removed.
    uint32_t Erase(uint32_t start, uint32_t count);
    // Empties the text and keeps the storage.
    void Clear();

    // Characters before byteIndex (byteIndex <= ByteLength()).
    uint32_t ByteToCharIndex(uint32_t byteIndex) const;
    // Byte offset of character charIndex (charIndex <= CharLength()). Cached: the next
    // larger index walks on from here, a smaller one walks from the start.
    uint32_t CharToByteIndex(uint32_t charIndex) const;
    // Character index of the first occurrence of needle at or after character start, or
    // -1. Without caseSensitive only 'A'..'Z' are folded to 'a'..'z'. An empty needle
    // is found at start.
    int32_t Find(const klTextBuffer& needle, uint32_t start, bool caseSensitive) const;

    // The code point of the UTF-8 sequence at bytes (up to 6 bytes long, as UTF-8 was
    // first defined) and its length in *lenOut; -1 (and 0) for a null pointer, a
    // continuation byte, 0xFE/0xFF or a broken sequence.
    static int32_t DecodeChar(const char* bytes, uint32_t* lenOut);
    // The bytes, and the character starts among them.
    static void CountChars(const char* bytes, uint32_t len, uint32_t* byteCount, uint32_t* charCount);
    // The UTF-8 form of codePoint into out (at least 4 bytes); its length. Values above
    // U+10FFFF are not encoded (length 0).
    static uint32_t EncodeChar(uint32_t codePoint, char* out);

    const char* Bytes() const { return mBytes ? mBytes : ""; }
    uint32_t ByteLength() const { return mBufLen; }
    uint32_t CharLength() const { return mCharLen; }
    uint32_t Capacity() const { return mCapacity; }
    bool IsView() const { return mSlave; }

private:
    bool Writable() const;
    void Reserve(uint32_t needed);
    void ResetCache() const { mCacheByte = mCacheChar = 0; }

    char* mBytes = nullptr;
    uint32_t mBufLen = 0;
    uint32_t mCapacity = 0; // bytes allocated, terminator included
    uint32_t mCharLen = 0;
    bool mSlave = false;
    mutable uint32_t mCacheByte = 0; // byte offset of character mCacheChar
    mutable uint32_t mCacheChar = 0;
};

// The platform's wide text: UTF-16 in wchar_t on Windows; UTF-16 in char16_t elsewhere,
// converted the same way.
#ifdef _WIN32
using klWideChar = wchar_t;
#else
using klWideChar = char16_t;
#endif

// UTF-8 to wide text in out (outChars units, terminator included). False for a null
// text or out, outChars 0, a text that does not fit, or a failed conversion. An
// outChars of 1 only terminates out. Bytes that are not UTF-8 become U+FFFD.
bool Utf8ToWide(const char* text, klWideChar* out, uint32_t outChars);
// Wide text to UTF-8 in out (outBytes bytes, terminator included), by the same rules;
// an unpaired surrogate becomes U+FFFD.
bool WideToUtf8(const klWideChar* text, char* out, uint32_t outBytes);
// The UTF-8 form of a wide text; empty for null, empty or unconvertible text.
klString WideToUtf8String(const klWideChar* text);
// True when any unit of the zero-terminated text is above 127.
bool HasNonAscii(const klWideChar* text);

namespace kl::platform {
// The conversions themselves: units written (terminator not counted) into out of
// outUnits units, or the units needed when out is null; -1 when it does not fit.
int32_t Utf8ToWideUnits(const char* text, uint32_t len, klWideChar* out, uint32_t outUnits);
int32_t WideToUtf8Units(const klWideChar* text, uint32_t len, char* out, uint32_t outUnits);
} // namespace kl::platform

#include "keel/kltext.h"

#include "keel/klassert.h"
#include "keel/klmalloc.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

namespace {

bool IsCharStart(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 || (byte & 0x40) != 0;
}

uint32_t CountStarts(const char* bytes, uint32_t len) {
    uint32_t count = 0;
    for (uint32_t i = 0; i < len; ++i) count += IsCharStart(bytes[i]) ? 1 : 0;
    return count;
}

// Whether p points into the size bytes at begin: source text taken from the buffer's own
// storage, which an edit may free or move before reading it.
bool Inside(const char* p, const char* begin, uint32_t size) {
    const auto at = reinterpret_cast<uintptr_t>(p), from = reinterpret_cast<uintptr_t>(begin);
    return p && begin && at >= from && at < from + size;
}

char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

// The value of the entity whose name runs from name for length bytes; 0 drops it. The
// three symbols map to private-use code points, whose glyphs the renderer supplies.
uint32_t EntityValue(const char* name, uint32_t length) {
    if (length >= 2 && name[0] == '#') {
        uint32_t value = 0;
        for (uint32_t i = 1; i < length; ++i) {
            if (!std::isdigit(static_cast<unsigned char>(name[i]))) return i == 1 ? 0 : value;
            value = value * 10 + static_cast<uint32_t>(name[i] - '0');
            if (value > 0x10FFFF) return 0; // beyond Unicode: nothing to write
        }
        return value;
    }
    static const struct {
        const char* name;
        uint32_t value;
    } kEntities[] = {{"amp", 38},      {"quot", 34},     {"copy", 0xF6D9},
                     {"reg", 0xF6DA},  {"tm", 0xF6DB},   {"nbsp", 32}};
    char lower[8];
    if (length == 0 || length >= sizeof(lower)) return 0;
    for (uint32_t i = 0; i < length; ++i) lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
    lower[length] = 0;
    for (const auto& entity : kEntities)
        if (std::strcmp(lower, entity.name) == 0) return entity.value;
    return 0;
}

// Length of the entity at text (which points at '&'): the bytes up to and including its
// ';', or 0 when white space or the end comes first and the '&' is an ordinary character.
uint32_t EntityLength(const char* text) {
    for (uint32_t i = 1; text[i]; ++i) {
        if (text[i] == ';') return i + 1;
        if (std::isspace(static_cast<unsigned char>(text[i]))) return 0;
    }
    return 0;
}

// One scan of SetDecoded: writes into out when it is not null; returns the byte count.
uint32_t DecodeEntities(const char* text, char* out) {
    uint32_t pos = 0;
    for (const char* p = text; *p;) {
        const uint32_t length = *p == '&' ? EntityLength(p) : 0;
        if (length == 0) {
            if (out) out[pos] = *p;
            ++pos;
            ++p;
            continue;
        }
        char encoded[4];
        const uint32_t value = EntityValue(p + 1, length - 2);
        const uint32_t size = value ? klTextBuffer::EncodeChar(value, encoded) : 0;
        if (out) std::memcpy(out + pos, encoded, size);
        pos += size;
        p += length;
    }
    return pos;
}

} // namespace

// ---------------------------------------------------------------------------------------

klTextBuffer::klTextBuffer(const char* text) { Set(text, text ? static_cast<uint32_t>(std::strlen(text)) : 0); }

klTextBuffer::klTextBuffer(const klTextBuffer& other) { Set(other.Bytes(), other.mBufLen); }

klTextBuffer& klTextBuffer::operator=(const klTextBuffer& other) {
    if (this != &other) Set(other.Bytes(), other.mBufLen);
    return *this;
}

klTextBuffer::~klTextBuffer() {
    if (!mSlave) klFree(mBytes);
}

klTextBuffer klTextBuffer::View(const char* text, uint32_t len) {
    klTextBuffer view;
    view.mBytes = const_cast<char*>(text ? text : "");
    view.mBufLen = text ? len : 0;
    view.mCapacity = view.mBufLen + 1;
    view.mCharLen = CountStarts(view.mBytes, view.mBufLen);
    view.mSlave = true;
    return view;
}

bool klTextBuffer::Writable() const { return klAssert(!mSlave); }

void klTextBuffer::Set(const char* data, uint32_t len) {
    if (!Writable()) return;
    char* bytes = static_cast<char*>(klAlloc(len + 1));
    if (len) std::memcpy(bytes, data, len);
    bytes[len] = 0;
    klFree(mBytes);
    mBytes = bytes;
    mBufLen = len;
    mCapacity = len + 1;
    mCharLen = CountStarts(bytes, len);
    ResetCache();
}

void klTextBuffer::SetDecoded(const char* text) {
    if (!Writable()) return;
    if (!text) text = "";
    const uint32_t size = DecodeEntities(text, nullptr);
    char* bytes = static_cast<char*>(klAlloc(size + 1));
    // Decoded before the old bytes go: text may be this buffer's own (t.SetDecoded(t.Bytes())).
    const uint32_t pos = DecodeEntities(text, bytes);
    klFree(mBytes);
    mBytes = bytes;
    mCapacity = size + 1;
    mBufLen = size;
    klAssert(pos == mBufLen);
    bytes[size] = 0;
    mCharLen = CountStarts(bytes, size);
    ResetCache();
}

// Grows to (needed rounded down to a multiple of 4) + 16 bytes, which leaves room for a
// few more small inserts.
void klTextBuffer::Reserve(uint32_t needed) {
    if (needed <= mCapacity) return;
    const uint32_t capacity = (needed & ~3u) + 16;
    char* bytes = static_cast<char*>(klAlloc(capacity));
    if (mBytes) std::memcpy(bytes, mBytes, mBufLen + 1);
    klFree(mBytes);
    mBytes = bytes;
    mCapacity = capacity;
}

void klTextBuffer::Insert(uint32_t charIndex, const char* data, uint32_t len) {
    if (!Writable() || len == 0 || !data) return;
    if (!klAssertAs(charIndex <= mCharLen, "idx <= mCharLen")) return;
    if (Inside(data, mBytes, mCapacity)) {
        // Our own bytes would be freed by the growth or shifted by the move before they
        // are copied: insert a copy of them instead.
        klTextBuffer copy;
        copy.Set(data, len);
        Insert(charIndex, copy.mBytes, len);
        return;
    }
    const uint32_t offset = CharToByteIndex(charIndex);
    Reserve(mBufLen + len + 1);
    if (mBufLen == 0) mBytes[0] = 0;
    std::memmove(mBytes + offset + len, mBytes + offset, mBufLen - offset + 1);
    std::memcpy(mBytes + offset, data, len);
    mBufLen += len;
    mCharLen += CountStarts(data, len);
    ResetCache();
}

void klTextBuffer::InsertChar(uint32_t charIndex, uint32_t codePoint) {
    char encoded[4];
    Insert(charIndex, encoded, EncodeChar(codePoint, encoded));
}

uint32_t klTextBuffer::Erase(uint32_t start, uint32_t count) {
    if (!Writable() || !klAssert(count > 0)) return mCharLen;
    if (start >= mCharLen) return mCharLen;
    if (count > mCharLen - start) count = mCharLen - start;
    const uint32_t startmem = CharToByteIndex(start);
    const uint32_t endmem = CharToByteIndex(start + count);
    if (!klAssert(endmem > startmem)) return mCharLen;
    const uint32_t len = endmem - startmem;
    std::memmove(mBytes + startmem, mBytes + endmem, mBufLen - endmem + 1);
    klAssert(len <= mBufLen);
    mBufLen -= len;
    klAssert(count <= mCharLen);
    mCharLen -= count;
    ResetCache();
    return 0;
}

void klTextBuffer::Clear() {
    if (!Writable()) return;
    if (mBytes) mBytes[0] = 0;
    mBufLen = mCharLen = 0;
    ResetCache();
}

uint32_t klTextBuffer::ByteToCharIndex(uint32_t idx) const {
    if (!klAssert(idx <= mBufLen)) idx = mBufLen;
    if (idx == 0) return 0;
    if (idx == mBufLen) return mCharLen;
    return CountStarts(mBytes + 1, idx);
}

uint32_t klTextBuffer::CharToByteIndex(uint32_t idx) const {
    klAssert(idx <= mCharLen);
    if (idx == 0) return 0;
    if (idx == mCharLen) return mBufLen;
    if (idx < mCacheChar) ResetCache();
    uint32_t count = mCacheChar;
    for (uint32_t pos = mCacheByte; pos <= mBufLen; ++pos) {
        if (!IsCharStart(mBytes[pos])) continue;
        if (++count == idx + 1) {
            mCacheByte = pos;
            mCacheChar = idx;
            return pos;
        }
    }
    klAssertMsg(false, "index out of bounds");
    return 0;
}

// Tries every character start in turn, so an occurrence that begins inside a failed
// partial match is still found.
int32_t klTextBuffer::Find(const klTextBuffer& needle, uint32_t start, bool caseSensitive) const {
    if (!klAssert(start < mCharLen)) return -1;
    if (needle.mBufLen == 0) return static_cast<int32_t>(start);
    const char* want = needle.Bytes();
    uint32_t charIndex = start;
    for (uint32_t pos = CharToByteIndex(start); pos + needle.mBufLen <= mBufLen; ++pos) {
        if (!IsCharStart(mBytes[pos])) continue;
        uint32_t i = 0;
        while (i < needle.mBufLen && (caseSensitive ? mBytes[pos + i] == want[i]
                                                    : FoldAscii(mBytes[pos + i]) == FoldAscii(want[i])))
            ++i;
        if (i == needle.mBufLen) return static_cast<int32_t>(charIndex);
        ++charIndex;
    }
    return -1;
}

int32_t klTextBuffer::DecodeChar(const char* bytes, uint32_t* lenOut) {
    if (!klAssertAs(lenOut != nullptr, "len_out != NULL")) return -1;
    *lenOut = 0;
    if (!bytes) return -1;
    const auto lead = static_cast<unsigned char>(bytes[0]);
    if (lead < 0x80) {
        *lenOut = 1;
        return lead;
    }
    // The count of leading one bits gives the sequence length; 10xxxxxx, 0xFE and 0xFF
    // start nothing.
    uint32_t length = 0;
    while (length < 8 && (lead & (0x80u >> length))) ++length;
    if (length < 2 || length > 6) return -1;
    uint32_t value = lead & (0x7Fu >> length);
    for (uint32_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(bytes[i]);
        if ((next & 0xC0) != 0x80) return -1;
        value = (value << 6) | (next & 0x3F);
    }
    *lenOut = length;
    return static_cast<int32_t>(value);
}

void klTextBuffer::CountChars(const char* bytes, uint32_t len, uint32_t* byteCount, uint32_t* charCount) {
    if (byteCount) *byteCount = len;
    if (charCount) *charCount = bytes ? CountStarts(bytes, len) : 0;
}

uint32_t klTextBuffer::EncodeChar(uint32_t cp, char* out) {
    auto put = [out](uint32_t i, uint32_t byte) { out[i] = static_cast<char>(byte); };
    if (cp < 0x80) {
        put(0, cp);
        return 1;
    }
    if (cp < 0x800) {
        put(0, 0xC0 | (cp >> 6));
        put(1, 0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        put(0, 0xE0 | (cp >> 12));
        put(1, 0x80 | ((cp >> 6) & 0x3F));
        put(2, 0x80 | (cp & 0x3F));
        return 3;
    }
    if (cp > 0x10FFFF) return 0;
    put(0, 0xF0 | (cp >> 18));
    put(1, 0x80 | ((cp >> 12) & 0x3F));
    put(2, 0x80 | ((cp >> 6) & 0x3F));
    put(3, 0x80 | (cp & 0x3F));
    return 4;
}

// ---------------------------------------------------------------------------------------
// Wide text

namespace {

uint32_t WideLength(const klWideChar* text) {
    uint32_t length = 0;
    while (text[length]) ++length;
    return length;
}

// The shared frame of both directions: argument checks, the empty text, the one-unit
// output that only terminates (what the Windows calls give when asked with no room),
// then the conversion and its terminator.
template <class From, class To, class Convert>
bool ConvertInto(const From* text, uint32_t length, To* out, uint32_t outUnits, Convert convert) {
    if (!text || !out || outUnits == 0) return false;
    out[0] = 0;
    if (length == 0 || outUnits == 1) return true;
    const int32_t written = convert(text, length, out, outUnits - 1);
    if (written <= 0) {
        out[0] = 0;
        return false;
    }
    out[written] = 0;
    return true;
}

} // namespace

bool Utf8ToWide(const char* text, klWideChar* out, uint32_t outChars) {
    return ConvertInto(text, text ? static_cast<uint32_t>(std::strlen(text)) : 0, out, outChars,
                       kl::platform::Utf8ToWideUnits);
}

bool WideToUtf8(const klWideChar* text, char* out, uint32_t outBytes) {
    return ConvertInto(text, text ? WideLength(text) : 0, out, outBytes, kl::platform::WideToUtf8Units);
}

klString WideToUtf8String(const klWideChar* text) {
    klString result;
    const uint32_t length = text ? WideLength(text) : 0;
    const int32_t size = length ? kl::platform::WideToUtf8Units(text, length, nullptr, 0) : 0;
    if (size <= 0) return result;
    result.AllocUniqueBuffer(static_cast<uint32_t>(size), false);
    const int32_t written =
        kl::platform::WideToUtf8Units(text, length, result.Ptr(), static_cast<uint32_t>(size));
    if (written != size) return klString();
    result.Ptr()[size] = 0;
    return result;
}

bool HasNonAscii(const klWideChar* text) {
    for (; text && *text; ++text)
        if (static_cast<uint32_t>(*text) > 127) return true;
    return false;
}

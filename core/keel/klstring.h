// klString: the library's text type. Eight-bit, zero-terminated, byte-counted text whose
// storage is shared between copies and copied only when a holder writes to it.
//
// A string is one pointer wide: it points at the first character of a heap block whose
// header sits immediately before the text. Two header forms exist, told apart by the
// 16-bit word 8 bytes before the text (non-zero: small form, the word is the capacity):
//
//   small (capacity 23..65535):  u16 capacity, u16 size, u32 use count          = 8 bytes
//   large (capacity > 65535):    u32 capacity, u32 size, u16 0, u16 0, u32 use  = 16 bytes
//
// The use count is changed only atomically; whoever drops it to 0 frees the block.
// Capacity-23 blocks come from a lock-free 32-byte block pool, all others from klAlloc.
#pragma once

#include "keel/kllockfree.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__GNUC__)
#define KL_PRINTF_LIKE(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define KL_PRINTF_LIKE(fmt, first)
#endif

namespace klStringDetails {
// Smallest capacity ever allocated: 8-byte header + 23 characters + terminator = 32 bytes.
constexpr uint32_t smallCapacitySize = 23;
// Largest capacity the small header can describe.
constexpr uint32_t largestSmallCapacity = 65535;
constexpr uint32_t smallBlockSize = 32;
constexpr uint32_t smallPoolGrowBy = 128;
constexpr uint32_t smallPoolAlignment = 16;

// The process-wide pool of 32-byte blocks that holds every capacity-23 string.
klSafeQueue::NodePool& SmallStringPool();
// Copies count bytes from in to out with 'A'..'Z' folded to lower case, eight at a time.
void FoldAsciiLower(char* out, const char* in, size_t count);
} // namespace klStringDetails

// Owns (a share of) one string block.
class klStringData {
public:
    klStringData() = default;
    klStringData(const klStringData& other) { Set(other.mData); }
    klStringData(klStringData&& other) noexcept : mData(other.mData) { other.mData = nullptr; }
    klStringData& operator=(const klStringData& other) {
        Set(other.mData);
        return *this;
    }
    klStringData& operator=(klStringData&& other) noexcept;
    ~klStringData() { Release(); }

    // Takes a share of text, which must be null or another holder's mData.
    void Set(char* text);
    // Drops this holder's share; mData is null afterwards.
    void Release();

    uint32_t UseCount() const { return mData ? klAtomicLoad(reinterpret_cast<const uint32_t*>(mData - 4)) : 0; }
    // Read inline from the header (layout above): every comparison and copy asks for them.
    uint32_t Size() const {
        if (!mData) return 0;
        return SmallForm() ? HeaderField<uint16_t>(-6) : HeaderField<uint32_t>(-12);
    }
    uint32_t Capacity() const {
        if (!mData) return 0;
        return SmallForm() ? HeaderField<uint16_t>(-8) : HeaderField<uint32_t>(-16);
    }
    // Leaves this holder the only owner of a buffer of at least newSize characters, with
    // size newSize. Existing text up to newSize is kept; characters past the old size are
    // the caller's to fill. With freeIfEmpty, a newSize of 0 releases the buffer.
    void AllocUniqueBuffer(uint32_t newSize, bool freeIfEmpty);

    bool operator!() const { return mData == nullptr; }

protected:
    // A holder that keeps this string's current block alive while p or q, which may
    // point into it, is still being read during a reallocation.
    klStringData KeepIfInside(const char* p, const char* q = nullptr) const;

    char* mData = nullptr;

private:
    // The small form's capacity word is never 0; the large form keeps 0 in that slot.
    bool SmallForm() const { return HeaderField<uint16_t>(-8) != 0; }
    // The header field that starts offset bytes from the text.
    template <class Field> Field HeaderField(int offset) const {
        Field value;
        std::memcpy(&value, mData + offset, sizeof(value));
        return value;
    }
};

class klString : public klStringData {
public:
    klString() = default;
    klString(const klString&) = default;
    klString(klString&&) noexcept = default;
    klString(const char* s) { *this = s; }
    klString(const char* data, uint32_t len) { Copy(data, len); }
    klString& operator=(const klString&) = default;
    klString& operator=(klString&&) noexcept = default;
    klString& operator=(const char* s);

    void Copy(const char* data, uint32_t len);
    void Append(const char* data, uint32_t len);
    void Append(const char* s);
    void Append(const klString& s) { Append(s.Const(), s.Size()); }
    klString& operator+=(const char* s) {
        Append(s);
        return *this;
    }
    klString& operator+=(const klString& s) {
        Append(s);
        return *this;
    }
    klString& operator<<(const char* s) { return *this += s; }
    klString& operator<<(const klString& s) { return *this += s; }
    int AppendFormat(const char* format, ...) KL_PRINTF_LIKE(2, 3);
    int AppendFormatP(const char* format, ...);
    // Append printf-style output of at most 2047 characters; longer output appends nothing,
    // is reported and gives -1. The P form accepts positional references ("%2$s").
    int AppendFormatV(const char* format, va_list args);
    int AppendFormatPV(const char* format, va_list args);

    // Size 0; with freeMemory the buffer goes too, else an unshared buffer is kept.
    void Clear(bool freeMemory);
    void clear() { AllocUniqueBuffer(0, true); }

    // Never null: the empty string reads as a static zero byte.
    const char* Const() const {
        static const char EMPTY = 0;
        return mData ? mData : &EMPTY;
    }
    operator const char*() const { return Const(); }
    const char* c_str() const { return Const(); }
    // Writable text (unshared first); null for a string that holds no buffer. The size
    // must not be changed through it.
    char* Ptr();

    bool IsEmpty() const { return Size() == 0; }
    // First (or last) index of ch, or -1.
    int32_t Find(char ch, bool fromEnd = false) const;
    // First index at or after start where needle begins, or -1.
    int32_t Find(const char* needle, int32_t start = 0) const;
    bool EqualsNoCase(const char* s) const;
    bool IsLowerCase() const;
    uint32_t ToULong(int base) const;

    void Insert(uint32_t index, const char* data, uint32_t len);
    void Insert(uint32_t index, const char* s);
    void ReplaceRange(uint32_t start, uint32_t len, const char* data, uint32_t dataLen);
    uint32_t Replace(const char* szOld, const char* szNew, bool all);
    uint32_t ReplaceChar(char ch, char newCh, bool all);

    klString SubString(uint32_t start, uint32_t end) const;
    klString Trim() const;
    klString GetLineAt(uint32_t index) const;

    klString& ToUpper();
    klString& ToLower();

    friend bool operator==(const klString& a, const klString& b);
    friend bool operator==(const klString& a, const char* b);

private:
    int AppendFormatted(int (*format)(char*, size_t, const char*, va_list), const char* fmt,
                        va_list args);
    klString& ConvertCase(int (*convert)(int), uint8_t first, uint8_t last);
};

static_assert(sizeof(klString) == sizeof(void*), "klString is passed around as one pointer");

// A klString whose text is lower case: a case-folded key.
class klLCaseString : public klString {
public:
    klLCaseString() = default;
    klLCaseString(const klLCaseString&) = default;
    klLCaseString(klLCaseString&&) noexcept = default;
    klLCaseString(const klString& s) : klString(s) { ToLower(); }
    // Takes the text over, so an unshared one is folded where it lies.
    klLCaseString(klString&& s) noexcept : klString(std::move(s)) { ToLower(); }
    klLCaseString(const char* s) : klString(s) { ToLower(); }
    klLCaseString& operator=(const klLCaseString&) = default;
    klLCaseString& operator=(klLCaseString&&) noexcept = default;
};

// Orderings of text keys for ordered containers: bytes compared unsigned, then length.
// The order of the map keys: unsigned bytes, then the shorter first. Inline, since a map
// lookup makes several comparisons.
inline bool klTextLess(const klString& a, const klString& b) {
    const uint32_t sizeA = a.Size(), sizeB = b.Size();
    const int order = std::memcmp(a.Const(), b.Const(), sizeA < sizeB ? sizeA : sizeB);
    return order != 0 ? order < 0 : sizeA < sizeB;
}
struct klStringLessThan {
    bool operator()(const klString& a, const klString& b) const { return klTextLess(a, b); }
};
struct klLCaseStringLessThan {
    bool operator()(const klLCaseString& a, const klLCaseString& b) const { return klTextLess(a, b); }
};

// printf into a new string; output past 2047 characters is silently cut.
klString klpf(const char* format, ...) KL_PRINTF_LIKE(1, 2);
// Tokens of source between runs of the characters in splitChars; never an empty token.
std::vector<klString> Split(const char* source, const char* splitChars);
// The parts with separator between neighbours, built in one allocation.
klString Join(const char* separator, const std::vector<klString>& parts);
// strncpy that always terminates dst within dstBufferSize bytes.
char* klStrNCopy(char* dst, const char* src, size_t dstBufferSize);
// Case-insensitive strstr; null when not found or haystack is empty.
const char* klStrIStr(const char* haystack, const char* needle);
// "1", "t", "true" and numbers above 0 are true; "0", "f", "false" and numbers up to 0
// are false (letters in any case); anything else, and empty text, gives defaultValue.
bool klStringToBool(const char* text, bool defaultValue);

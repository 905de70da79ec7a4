#include "keel/klstring.h"

#include "keel/klassert.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

using klStringDetails::largestSmallCapacity;
using klStringDetails::smallCapacitySize;

namespace {

struct SmallHeader {
    uint16_t stringCapacity;
    uint16_t size;
    uint32_t useCount;
};
struct LargeHeader {
    uint32_t capacity;
    uint32_t size;
    uint16_t marker; // the small form's capacity slot; 0 says "large"
    uint16_t reserved;
    uint32_t useCount;
};
static_assert(sizeof(SmallHeader) == 8 && sizeof(LargeHeader) == 16, "header layout");
static_assert(offsetof(SmallHeader, useCount) == 4 && offsetof(LargeHeader, useCount) == 12,
              "the use count sits just before the text in both forms");
static_assert(offsetof(LargeHeader, marker) == 8,
              "the form marker shares the small capacity's slot");
static_assert(offsetof(SmallHeader, size) == 2 && offsetof(LargeHeader, size) == 4,
              "klStringData::Size reads the size 6 (small) or 12 (large) bytes before the text");

// Bytes of text covered by one word of the word-parallel case conversion.
constexpr uintptr_t kWordBytes = sizeof(uint64_t);

bool IsSmall(const char* text) {
    uint16_t word;
    std::memcpy(&word, text - sizeof(SmallHeader), sizeof(word));
    return word != 0;
}
SmallHeader* SmallOf(char* text) {
    return reinterpret_cast<SmallHeader*>(text - sizeof(SmallHeader));
}
LargeHeader* LargeOf(char* text) {
    return reinterpret_cast<LargeHeader*>(text - sizeof(LargeHeader));
}
uint32_t* UseCountOf(char* text) {
    return reinterpret_cast<uint32_t*>(text - sizeof(uint32_t));
}

// Writes a size into whichever header form the text has, and terminates the text there.
void StoreSize(char* text, uint32_t size) {
    if (IsSmall(text))
        SmallOf(text)->size = static_cast<uint16_t>(size);
    else
        LargeOf(text)->size = size;
    text[size] = 0;
}

// A block sized exactly for newSize characters, born with its first holder (use count
// 1), which saves an atomic increment on every allocation. Growth is deliberately exact
// rather than geometric: most strings are written once, and Join reserves up front.
char* NewBlock(uint32_t newSize) {
    char* text;
    if (newSize > largestSmallCapacity) {
        auto* block = static_cast<char*>(klAlloc(size_t(newSize) + sizeof(LargeHeader) + 1));
        auto* header = new (block) LargeHeader{newSize, newSize, 0, 0, 0};
        text = reinterpret_cast<char*>(header + 1);
    } else {
        const uint32_t capacity = std::max(newSize, smallCapacitySize);
        void* block = capacity == smallCapacitySize ? klStringDetails::SmallStringPool().Alloc()
                                                    : klAlloc(capacity + sizeof(SmallHeader) + 1);
        auto* header = new (block)
            SmallHeader{static_cast<uint16_t>(capacity), static_cast<uint16_t>(newSize), 0};
        text = reinterpret_cast<char*>(header + 1);
    }
    // The sequentially consistent store fences the header fields written above.
    klAtomicStore(UseCountOf(text), 1u);
    text[newSize] = 0;
    return text;
}

void FreeBlock(char* text) {
    if (!IsSmall(text)) {
        klFree(LargeOf(text));
        return;
    }
    SmallHeader* header = SmallOf(text);
    // A small capacity below the minimum means a damaged header; where the block came from
    // is then unknown, so it is leaked rather than handed to the wrong allocator.
    if (!klAssert(header->stringCapacity >= klStringDetails::smallCapacitySize)) return;
    if (header->stringCapacity == smallCapacitySize)
        klStringDetails::SmallStringPool().Free(header);
    else
        klFree(header);
}

bool Inside(const char* p, const char* begin, uint32_t count) {
    const auto at = reinterpret_cast<uintptr_t>(p);
    const auto from = reinterpret_cast<uintptr_t>(begin);
    return p && begin && at >= from && at <= from + count;
}

int ToLowerByte(int c) {
    return std::tolower(static_cast<unsigned char>(c));
}

// Flips the case of every byte of word in [first, last] in one go. Each byte's low seven
// bits are biased so that their high bit reports "byte >= bound" without carrying into the
// next lane; bytes above 127 are masked out. Both ASCII cases differ only in bit 0x20.
uint64_t FlipCaseInRange(uint64_t word, uint8_t first, uint8_t last) {
    constexpr uint64_t ones = 0x0101010101010101ull;
    constexpr uint64_t highBits = ones * 0x80;
    const uint64_t low7 = word & ~highBits;
    const uint64_t atLeastFirst = low7 + ones * (0x80u - first);
    const uint64_t aboveLast = low7 + ones * (0x80u - (last + 1u));
    const uint64_t inRange = atLeastFirst & ~aboveLast & ~word & highBits;
    return word ^ (inRange >> 2);
}

} // namespace

void klStringDetails::FoldAsciiLower(char* out, const char* in, size_t count) {
    if (count < kWordBytes) {
        for (size_t i = 0; i < count; ++i) out[i] = char(FlipCaseInRange(uint8_t(in[i]), 'A', 'Z'));
        return;
    }
    // The last word may overlap the one before it: folding is the same done twice.
    for (size_t i = 0;; i = std::min(i + kWordBytes, count - kWordBytes)) {
        uint64_t word;
        std::memcpy(&word, in + i, kWordBytes);
        word = FlipCaseInRange(word, 'A', 'Z');
        std::memcpy(out + i, &word, kWordBytes);
        if (i == count - kWordBytes) return;
    }
}

klSafeQueue::NodePool& klStringDetails::SmallStringPool() {
    // Never destroyed: strings in static storage may give their blocks back after the
    // exit-time destructors have run, and the pool must still be there to take them.
    static auto* pool =
        new klSafeQueue::NodePool(smallBlockSize, smallPoolGrowBy, smallPoolAlignment);
    return *pool;
}

// ---------------------------------------------------------------------------------------
// klStringData

klStringData& klStringData::operator=(klStringData&& other) noexcept {
    if (this != &other) {
        Release();
        mData = other.mData;
        other.mData = nullptr;
    }
    return *this;
}

void klStringData::Set(char* text) {
    if (text == mData) return;
    Release();
    mData = text;
    if (text) klXchgAdd(UseCountOf(text), 1u);
}

void klStringData::Release() {
    char* text = mData;
    if (!text) return;
    mData = nullptr;
    if (klXchgAdd(UseCountOf(text), ~0u) == 1) FreeBlock(text);
}

void klStringData::AllocUniqueBuffer(uint32_t newSize, bool freeIfEmpty) {
    if (newSize == 0 && freeIfEmpty) {
        Release();
        return;
    }
    // Text that another holder sees is never written, whatever room it has.
    const bool shared = mData && UseCount() > 1;
    if (!shared && !freeIfEmpty && newSize <= Capacity()) {
        if (mData) StoreSize(mData, newSize);
        return;
    }
    char* text = NewBlock(newSize);
    if (mData) {
        const uint32_t kept = std::min(newSize, Size());
        std::memcpy(text, mData, kept);
        text[kept] = 0;
    }
    Release(); // other holders keep the old text
    mData = text;
}

klStringData klStringData::KeepIfInside(const char* p, const char* q) const {
    klStringData keeper;
    if (Inside(p, mData, Capacity()) || Inside(q, mData, Capacity())) keeper.Set(mData);
    return keeper;
}

// ---------------------------------------------------------------------------------------
// klString: filling and growing

klString& klString::operator=(const char* s) {
    Copy(s, s ? static_cast<uint32_t>(std::strlen(s)) : 0);
    return *this;
}

void klString::Copy(const char* data, uint32_t len) {
    if (!data || len == 0) {
        Release();
        return;
    }
    // The common case (a line parser's line, a reused buffer): an unshared block with room
    // and a source outside it is simply overwritten.
    const uint32_t capacity = Capacity();
    if (len <= capacity && !Inside(data, mData, capacity) && UseCount() == 1) {
        std::memcpy(mData, data, len);
        StoreSize(mData, len);
        return;
    }
    // Source text from our own block (s = s.Const() + n) must not be overwritten by the
    // resize before it is read: with a second holder the resize goes to a fresh block.
    klStringData keeper = KeepIfInside(data);
    AllocUniqueBuffer(len, false);
    std::memcpy(mData, data, len);
    mData[len] = 0;
}

void klString::Append(const char* data, uint32_t len) {
    if (!data || len == 0) return;
    klStringData keeper = KeepIfInside(data); // s.Append(s) reads the block it replaces
    const uint32_t oldSize = Size();
    AllocUniqueBuffer(oldSize + len, false);
    std::memcpy(mData + oldSize, data, len);
    mData[oldSize + len] = 0;
}

void klString::Append(const char* s) {
    if (s && *s) Append(s, static_cast<uint32_t>(std::strlen(s)));
}

int klString::AppendFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int count = AppendFormatV(format, args);
    va_end(args);
    return count;
}

int klString::AppendFormatP(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int count = AppendFormatPV(format, args);
    va_end(args);
    return count;
}

int klString::AppendFormatV(const char* format, va_list args) {
    return AppendFormatted(kl::platform::FormatV, format, args);
}

int klString::AppendFormatPV(const char* format, va_list args) {
    return AppendFormatted(kl::platform::FormatPositionalV, format, args);
}

int klString::AppendFormatted(int (*format)(char*, size_t, const char*, va_list), const char* fmt,
                              va_list args) {
    char buffer[2048];
    const int written = format(buffer, sizeof(buffer), fmt, args);
    // Unlike klpf, a cut here would silently lose the end of a larger text: append nothing.
    if (!klAssertMsg(written >= 0, "buffer overflow")) return -1;
    Append(buffer, static_cast<uint32_t>(written));
    return written;
}

void klString::Clear(bool freeMemory) {
    if (mData) AllocUniqueBuffer(0, freeMemory);
}

char* klString::Ptr() {
    if (Capacity() > 0 && UseCount() > 1) AllocUniqueBuffer(Size(), false);
    return mData;
}

// ---------------------------------------------------------------------------------------
// klString: queries

int32_t klString::Find(char ch, bool fromEnd) const {
    const char* text = Const();
    const char* hit = fromEnd ? std::strrchr(text, ch) : std::strchr(text, ch);
    return hit ? static_cast<int32_t>(hit - text) : -1;
}

int32_t klString::Find(const char* needle, int32_t start) const {
    // A negative start would read before the text; treat it like one past the end.
    if (!needle || start < 0 || start >= static_cast<int32_t>(Size())) return -1;
    const char* text = Const();
    const char* hit = std::strstr(text + start, needle);
    return hit ? static_cast<int32_t>(hit - text) : -1;
}

bool klString::EqualsNoCase(const char* s) const {
    return s && kl::platform::StrICmp(Const(), s) == 0;
}

bool klString::IsLowerCase() const {
    const char* text = Const();
    return std::all_of(text, text + Size(),
                       [](char c) { return ToLowerByte(c) == static_cast<unsigned char>(c); });
}

uint32_t klString::ToULong(int base) const {
    if (!mData) return 0;
    // Read as a 32-bit unsigned long everywhere: overflow saturates and a leading minus
    // negates modulo 2^32, whatever width the platform's unsigned long has.
    const unsigned long value = std::strtoul(mData, nullptr, base);
    const char* first = mData + std::strspn(mData, " \t\n\v\f\r");
    if (value > UINT32_MAX && *first != '-') return UINT32_MAX;
    return static_cast<uint32_t>(value);
}

// ---------------------------------------------------------------------------------------
// klString: editing

void klString::Insert(uint32_t index, const char* data, uint32_t len) {
    klAssert(index <= Size());
    if (!data || len == 0 || index > Size()) return;
    // A string's own text (also through a copy that shares it) is never inserted into
    // itself: the growth may free it. Touching ranges are refused too, to be safe.
    const auto from = reinterpret_cast<uintptr_t>(data);
    const auto text = reinterpret_cast<uintptr_t>(mData);
    if (!klAssertAs(!mData || from > text + Size() || from + len < text,
                    "!mData || data > reinterpret_cast<const char*>(mData.bytes) + Size() || "
                    "data + insertLen < reinterpret_cast<const char*>(mData.bytes)"))
        return;
    const uint32_t oldSize = Size();
    AllocUniqueBuffer(oldSize + len, false);
    std::memmove(mData + index + len, mData + index, oldSize - index);
    std::memcpy(mData + index, data, len);
    mData[oldSize + len] = 0;
}

void klString::Insert(uint32_t index, const char* s) {
    Insert(index, s, s ? static_cast<uint32_t>(std::strlen(s)) : 0);
}

void klString::ReplaceRange(uint32_t start, uint32_t len, const char* data, uint32_t dataLen) {
    const uint32_t curSize = Size();
    if (!klAssertAs(uint64_t(start) + len <= curSize, "start + len <= curSize")) return;
    const uint32_t newSize = curSize - len + dataLen;
    if (!mData && newSize == 0) return;
    klStringData keeper = KeepIfInside(data);
    // A shrinking replacement works inside the existing buffer.
    AllocUniqueBuffer(dataLen > len ? newSize : curSize, false);
    if (start + len != curSize)
        std::memmove(mData + start + dataLen, mData + start + len, curSize - start - len);
    if (dataLen != 0) std::memcpy(mData + start, data, dataLen);
    StoreSize(mData, newSize);
}

uint32_t klString::Replace(const char* szOld, const char* szNew, bool all) {
    klAssert(szOld && szNew);
    if (!szOld || !*szOld) return 0;
    if (!szNew) szNew = "";
    // The patterns may come from this very text; keep it alive across every replacement.
    klStringData keeper = KeepIfInside(szOld, szNew);
    const auto oldLen = static_cast<uint32_t>(std::strlen(szOld));
    const auto newLen = static_cast<uint32_t>(std::strlen(szNew));
    uint32_t count = 0;
    uint32_t pos = 0;
    do {
        const int32_t found = pos < Size() ? Find(szOld, static_cast<int32_t>(pos)) : -1;
        if (found < 0) break;
        ReplaceRange(static_cast<uint32_t>(found), oldLen, szNew, newLen);
        ++count;
        // Resume after the inserted text so that it is never matched again.
        pos = static_cast<uint32_t>(found) + newLen;
    } while (all);
    return count;
}

uint32_t klString::ReplaceChar(char ch, char newCh, bool all) {
    const uint32_t size = Size();
    const auto* hit = static_cast<const char*>(std::memchr(Const(), ch, size));
    if (!hit) return 0; // nothing to change, so a shared text stays shared
    const auto first = static_cast<uint32_t>(hit - Const());
    char* text = Ptr();
    uint32_t count = 0;
    for (uint32_t i = first; i < size && (all || count == 0); ++i) {
        if (text[i] == ch) {
            text[i] = newCh;
            ++count;
        }
    }
    return count;
}

klString klString::SubString(uint32_t start, uint32_t end) const {
    if (end <= start || start >= Size()) return {};
    return klString(Const() + start, std::min(end, Size()) - start);
}

klString klString::Trim() const {
    const char* text = Const();
    uint32_t first = 0;
    uint32_t end = Size();
    auto blank = [&](uint32_t i) { return std::isspace(static_cast<unsigned char>(text[i])) != 0; };
    while (first < end && blank(first))
        ++first;
    if (first == end) return {};
    while (blank(end - 1))
        --end;
    return SubString(first, end);
}

klString klString::GetLineAt(uint32_t index) const {
    const uint32_t size = Size();
    if (index >= size) return {};
    const char* text = Const();
    uint32_t first = index;
    while (first > 0 && text[first - 1] != '\n')
        --first;
    uint32_t end = index;
    while (end < size && text[end] != '\n')
        ++end;
    // Deliberate: a line that ends exactly at position 10 is returned with one more
    // character (its line feed), the result long-standing callers were built around.
    if (end == 10) end = 11;
    return SubString(first, end);
}

klString& klString::ToUpper() {
    return ConvertCase([](int c) { return std::toupper(c); }, 'a', 'z');
}

klString& klString::ToLower() {
    return ConvertCase([](int c) { return std::tolower(c); }, 'A', 'Z');
}

klString& klString::ConvertCase(int (*convert)(int), uint8_t first, uint8_t last) {
    AllocUniqueBuffer(Size(), false);
    if (!mData) return *this;
    char* p = mData;
    char* end = mData + Size();
    auto convertByte = [convert](char& c) {
        c = static_cast<char>(convert(static_cast<unsigned char>(c)));
    };
    // Single bytes up to the first word boundary, whole aligned words, then the tail.
    while (p < end && reinterpret_cast<uintptr_t>(p) % kWordBytes != 0)
        convertByte(*p++);
    for (; end - p >= static_cast<ptrdiff_t>(kWordBytes); p += kWordBytes) {
        uint64_t word;
        std::memcpy(&word, p, kWordBytes);
        word = FlipCaseInRange(word, first, last);
        std::memcpy(p, &word, kWordBytes);
    }
    while (p < end)
        convertByte(*p++);
    return *this;
}

bool operator==(const klString& a, const klString& b) {
    return a.Size() == b.Size() && std::memcmp(a.Const(), b.Const(), a.Size()) == 0;
}

bool operator==(const klString& a, const char* b) {
    const size_t length = b ? std::strlen(b) : 0;
    return a.Size() == length && std::memcmp(a.Const(), b ? b : "", length) == 0;
}

// ---------------------------------------------------------------------------------------
// Free functions

klString klpf(const char* format, ...) {
    char buffer[2048];
    va_list args;
    va_start(args, format);
    // The formatter cuts and terminates by itself; the cut is silent by design, since
    // klpf feeds log lines and messages where a truncated text is better than none.
    kl::platform::FormatV(buffer, sizeof(buffer), format, args);
    va_end(args);
    return klString(buffer);
}

std::vector<klString> Split(const char* source, const char* splitChars) {
    klAssert(source != NULL);
    klAssert(splitChars != NULL);
    std::vector<klString> tokens;
    if (!source) return tokens;
    if (!splitChars) splitChars = "";
    const char* p = source;
    for (;;) {
        p += std::strspn(p, splitChars);
        if (!*p) return tokens;
        const size_t length = std::strcspn(p, splitChars);
        tokens.emplace_back(p, static_cast<uint32_t>(length));
        p += length;
    }
}

klString Join(const char* separator, const std::vector<klString>& parts) {
    klString result;
    if (parts.empty()) return result;
    const auto sepLen = static_cast<uint32_t>(separator ? std::strlen(separator) : 0);
    uint32_t total = sepLen * static_cast<uint32_t>(parts.size() - 1);
    for (const klString& part : parts)
        total += part.Size();
    // One exact allocation up front, then every piece copied straight into place.
    result.AllocUniqueBuffer(total, false);
    char* out = result.Ptr();
    if (!out) return result; // every part empty: there is no buffer to fill
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0 && sepLen > 0) { // a null separator must not reach memcpy
            std::memcpy(out, separator, sepLen);
            out += sepLen;
        }
        const uint32_t size = parts[i].Size();
        std::memcpy(out, parts[i].Const(), size);
        out += size;
    }
    return result;
}

char* klStrNCopy(char* dst, const char* src, size_t dstBufferSize) {
    if (!klAssert(dstBufferSize > 0)) return dst;
    std::strncpy(dst, src, dstBufferSize - 1);
    dst[dstBufferSize - 1] = 0;
    return dst;
}

const char* klStrIStr(const char* haystack, const char* needle) {
    if (!haystack || !needle || !*haystack) return nullptr;
    for (const char* start = haystack; *start; ++start) {
        size_t i = 0;
        while (needle[i] && ToLowerByte(start[i]) == ToLowerByte(needle[i]))
            ++i;
        if (!needle[i]) return start;
    }
    return nullptr;
}

bool klStringToBool(const char* text, bool defaultValue) {
    if (!text || !*text) return defaultValue;
    if (!text[1]) {
        switch (text[0]) {
        case '0':
        case 'F':
        case 'f':
            return false;
        case '1':
        case 'T':
        case 't':
            return true;
        default:
            return defaultValue;
        }
    }
    if (text[0] == '-' || std::isdigit(static_cast<unsigned char>(text[0])))
        return std::atoi(text) > 0;
    if (kl::platform::StrICmp(text, "true") == 0) return true;
    if (kl::platform::StrICmp(text, "false") == 0) return false;
    return defaultValue;
}

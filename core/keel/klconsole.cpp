#include "keel/klconsole.h"

#include "keel/kllog.h"
#include "keel/klmalloc.h"
#include "keel/klplatform.h"

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

bool klConsole::sStartupProcessed = false;

namespace {

// References constructed before start-up, newest first. Only static construction and
// destruction touch it, on one thread, so it has no lock.
constinit klVarRef* gQueueHead = nullptr;
// Every record ever made; keeps them reachable for the life of the process.
constinit klCvar* gRecords = nullptr;

bool ValueGiven(const char* val) { return klAssert(val != NULL); }

const char* SkipSpace(const char* text) {
    while (std::isspace(static_cast<unsigned char>(*text))) ++text;
    return text;
}

// Decimal text only: hexadecimal, "inf" and "nan" read as 0 on every C library.
double ParseFloat(const char* text) {
    const char* at = SkipSpace(text);
    if (*at == '+' || *at == '-') ++at;
    const bool digitFirst = std::isdigit(static_cast<unsigned char>(*at)) ||
                            (*at == '.' && std::isdigit(static_cast<unsigned char>(at[1])));
    if (!digitFirst || (at[0] == '0' && (at[1] == 'x' || at[1] == 'X'))) return 0.0;
    return std::atof(text);
}

// The numbers read as a 32-bit long would give them, whatever the platform's long is:
// signed values saturate, unsigned ones saturate on magnitude and a minus negates mod 2^32.
int32_t ParseInt(const char* text) {
    const long long value = std::strtoll(text, nullptr, 0);
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

uint32_t ParseUInt(const char* text) {
    errno = 0;
    const unsigned long long value = std::strtoull(text, nullptr, 0);
    const bool negative = *SkipSpace(text) == '-';
    const unsigned long long magnitude = negative ? 0ull - value : value;
    if (errno == ERANGE || magnitude > UINT32_MAX) return UINT32_MAX;
    return static_cast<uint32_t>(value);
}

// Plain decimal text of one to nine digits, not starting with 0, with an optional sign and
// perhaps a letter after it ("1280", "-3", "720p"): every reading of it is the number
// itself, so the C library's general parsers can be skipped. Anything else (blanks, a
// leading zero, a fraction, an exponent, punctuation) gives false.
bool ParsePlainInteger(const char* text, int32_t& value) {
    const char* at = text;
    const bool negative = *at == '-';
    if (*at == '+' || *at == '-') ++at;
    if (*at < '1' || *at > '9') return false;
    int32_t magnitude = 0;
    for (const char* first = at; *at >= '0' && *at <= '9'; ++at) {
        if (at - first == 9) return false;
        magnitude = magnitude * 10 + (*at - '0');
    }
    const char letter = char(*at | 0x20);
    if (*at != 0 && (letter < 'a' || letter > 'z' || letter == 'e' || letter == 'x')) return false;
    value = negative ? -magnitude : magnitude;
    return true;
}

// A cvar name lower-cased on the stack (on the tracked heap only when it is long), so a
// set by name makes no string unless it creates the cvar.
class FoldedName {
public:
    explicit FoldedName(const char* name) : mLength(std::strlen(name)) {
        mText = mLength < sizeof(mShort) ? mShort : static_cast<char*>(klAlloc(mLength + 1));
        // Only 'A'..'Z' fold, as in klLCaseString, which keys the map.
        klStringDetails::FoldAsciiLower(mText, name, mLength + 1);
    }
    ~FoldedName() {
        if (mText != mShort) klFree(mText);
    }
    FoldedName(const FoldedName&) = delete;
    FoldedName& operator=(const FoldedName&) = delete;
    std::string_view View() const { return {mText, mLength}; }

private:
    size_t mLength;
    char* mText;
    char mShort[96];
};

// Runs read on the record under the cvar lock while the console lives; without a console
// there is no other thread that could set it.
template <class Read> auto ReadLocked(const klCvar& record, Read read) {
    klConsole* console = klConsole::Live();
    if (!console) return read(record);
    klScopedLock<klMutex> hold(console->Lock());
    return read(record);
}

} // namespace

// ---------------------------------------------------------------------------------------
// klCvar

klCvar::klCvar()
    : mText(mInline), mHeap(nullptr), mHeapSize(0), mFloat(0.0), mInt(0), mUInt(0),
      mNextRecord(gRecords) {
    mInline[0] = 0;
    gRecords = this;
}

void klCvar::Set(const char* val) {
    if (!ValueGiven(val)) return;
    const size_t size = std::strlen(val) + 1;
    char* target = mInline;
    char* spare = nullptr; // freed only after the copy: val may be this record's own text
    if (size > kInlineSize) {
        if (size > mHeapSize) {
            spare = mHeap;
            mHeap = static_cast<char*>(klAlloc(size));
            mHeapSize = static_cast<uint32_t>(size);
        }
        target = mHeap;
    } else {
        spare = mHeap;
        mHeap = nullptr;
        mHeapSize = 0;
    }
    std::memmove(target, val, size);
    mText = target;
    klFree(spare);
    if (int32_t plain; ParsePlainInteger(mText, plain)) {
        mFloat = plain;
        mInt = plain;
        mUInt = static_cast<uint32_t>(plain); // strtoul's wrap of a negative number
        return;
    }
    mFloat = ParseFloat(mText);
    mInt = ParseInt(mText);
    mUInt = ParseUInt(mText);
}

// ---------------------------------------------------------------------------------------
// klConsole

klConsole::klConsole() {
    klAssert(!klConsole::sStartupProcessed);
    for (klVarRef* ref = gQueueHead; ref;) {
        klVarRef* next = ref->mNext;
        ref->BindQueued(*this);
        ref = next;
    }
    gQueueHead = nullptr;
    sStartupProcessed = true;
}

// The records stay in gRecords, so bound references keep reading their last values.
klConsole::~klConsole() { sStartupProcessed = false; }

klConsole* klConsole::Live() {
    return klSingleton<klConsole>::IsLive() ? klSingleton<klConsole>::Instance() : nullptr;
}

klCvar* klConsole::Lookup(std::string_view key) const {
    const auto found = mVars.find(key);
    return found == mVars.end() ? nullptr : found->second;
}

klCvar* klConsole::Insert(std::string_view key) {
    klCvar* record = new klCvar();
    mVars.emplace(klLCaseString(klString(key.data(), uint32_t(key.size()))), record);
    return record;
}

void klConsole::Set(const char* name, const char* value) {
    if (!klAssert(name != NULL) || !ValueGiven(value)) return;
    klScopedLock<klMutex> hold(mLock);
    const FoldedName key(name);
    klCvar* record = Lookup(key.View());
    if (record) {
        klConsoleLogger().Debug("Updating cvar %s = %s", name, value);
    } else {
        klConsoleLogger().Debug("Manually creating cvar %s = %s", name, value);
        record = Insert(key.View());
    }
    record->Set(value);
}

klCvar* klConsole::Find(const char* name) {
    if (!klAssert(name != NULL)) return nullptr;
    klScopedLock<klMutex> hold(mLock);
    return Lookup(FoldedName(name).View());
}

klCvar* klConsole::FindOrCreate(const char* name) {
    if (!klAssert(name != NULL)) return nullptr;
    klScopedLock<klMutex> hold(mLock);
    const FoldedName key(name);
    klCvar* record = Lookup(key.View());
    return record ? record : Insert(key.View());
}

bool klSetCvar(const char* name, const char* value) {
    klConsole* console = klConsole::Live();
    if (!console) return false;
    console->Set(name, value);
    return name && value;
}

// ---------------------------------------------------------------------------------------
// klVarRef

klVarRef::klVarRef(const char* name) { Init(name); }

klVarRef::~klVarRef() { Unqueue(); }

void klVarRef::Init(const char* name) {
    mVal = nullptr;
    mName = name;
    mNext = nullptr;
    mQueued = false;
    if (!klAssert(name != NULL)) return;
    klConsole* console = klConsole::sStartupProcessed ? klConsole::Live() : nullptr;
    if (console) {
        mVal = console->FindOrCreate(name);
        return;
    }
    mNext = gQueueHead;
    gQueueHead = this;
    mQueued = true;
}

void klVarRef::Reconstruct(const char* name) {
    const bool sameName = name && mName && kl::platform::StrICmp(name, mName) == 0;
    if (klConsole::sStartupProcessed && sameName) {
        klAssert(!mQueued);
        klAssert(mVal != NULL);
        return;
    }
    Unqueue();
    Init(name);
}

void klVarRef::BindQueued(klConsole& console) {
    mQueued = false;
    mNext = nullptr;
    if (klAssert(mVal == NULL)) mVal = console.FindOrCreate(mName);
}

void klVarRef::Unqueue() {
    if (!mQueued) return;
    for (klVarRef** link = &gQueueHead; *link; link = &(*link)->mNext) {
        if (*link == this) {
            *link = mNext;
            break;
        }
    }
    mNext = nullptr;
    mQueued = false;
}

const klCvar* klVarRef::Bound() const {
    klAssert(mVal != NULL);
    return mVal;
}

const char* klVarRef::GetString() const {
    const klCvar* record = Bound();
    return record ? record->GetString() : "";
}

klString klVarRef::Copy() const {
    const klCvar* record = Bound();
    if (!record) return klString();
    return ReadLocked(*record, [](const klCvar& r) { return klString(r.GetString()); });
}

double klVarRef::GetFloat() const {
    const klCvar* record = Bound();
    return record ? ReadLocked(*record, [](const klCvar& r) { return r.GetFloat(); }) : 0.0;
}

int32_t klVarRef::GetInt() const {
    const klCvar* record = Bound();
    return record ? ReadLocked(*record, [](const klCvar& r) { return r.GetInt(); }) : 0;
}

uint32_t klVarRef::GetUInt() const {
    const klCvar* record = Bound();
    return record ? ReadLocked(*record, [](const klCvar& r) { return r.GetUInt(); }) : 0u;
}

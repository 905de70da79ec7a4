// Console variables (cvars): named tunables held as text and as three numbers read from
// that text, declared anywhere through klVarRef and set by name at run time.
//
//   static klVarRef gWidth("Width");          // waits until the console exists
//   ...
//   klSetCvar("width", "1280");               // names are case-insensitive
//   int32_t w = gWidth.GetInt();              // 1280
//
// klConsole is the singleton klSingleton<klConsole>. References constructed before it
// exists wait in a queue and are bound when klObjectLifetimeManager::Initialize creates it;
// later references bind at once.
//
// Records are never freed: they stay in a process-wide list, so a reference that outlives
// Shutdown (a static one, say) still reads its last value. After Shutdown the console is
// gone for good (a destroyed singleton is never created again), so klSetCvar refuses and
// references constructed from then on wait unbound in the queue again.
#pragma once

#include "keel/kllifetime.h"
#include "keel/kllock.h"
#include "keel/klstring.h"

#include <cstdint>
#include <string_view>
#include <unordered_map>

// One cvar's value. Only the console creates records, under its lock, and none is ever freed.
class klCvar {
public:
    // Texts up to this size, terminator included, stay inside the record.
    static constexpr uint32_t kInlineSize = 128;

    klCvar(const klCvar&) = delete;
    klCvar& operator=(const klCvar&) = delete;

    // Stores a copy of val and the numbers read from it; a null val is reported and
    // nothing changes. The caller holds the console's lock when the record is shared.
    void Set(const char* val);

    // The text; stable until the next Set of this record.
    const char* GetString() const { return mText; }
    double GetFloat() const { return mFloat; }  // decimal only: "0x10" reads as 0
    int32_t GetInt() const { return mInt; }     // base detected: "0x10" 16, "010" 8
    uint32_t GetUInt() const { return mUInt; }  // the same, unsigned: "-1" is 4294967295
    // True while the text lives in the record's own buffer.
    bool IsInline() const { return mText == mInline; }

private:
    friend class klConsole;
    klCvar(); // links the record into the process-wide list
    ~klCvar() = delete;

    char* mText;        // mInline or mHeap
    char* mHeap;        // the record's heap block, null when none
    uint32_t mHeapSize; // bytes in mHeap
    double mFloat;
    int32_t mInt;
    uint32_t mUInt;
    // Every record ever made, newest first; the chain only keeps them reachable.
    [[maybe_unused]] klCvar* mNextRecord;
    char mInline[kInlineSize];
};

class klConsole {
public:
    // Binds every queued reference. Built once, by the lifetime manager.
    klConsole();
    // Forgets the map (the records live on) and lets later references queue again.
    ~klConsole();
    klConsole(const klConsole&) = delete;
    klConsole& operator=(const klConsole&) = delete;

    // Sets (or creates) the cvar name to value, under "(klConsole)cvarLock"; debug messages
    // "Updating cvar %s = %s" / "Manually creating cvar %s = %s" on klConsoleLogger().
    void Set(const char* name, const char* value);
    // The record of name (any case), or null when no cvar has that name.
    klCvar* Find(const char* name);
    // The record of name, created with an empty value when missing.
    klCvar* FindOrCreate(const char* name);

    // Guards the map and every record.
    klMutex& Lock() { return mLock; }

    // The console while it lives, else null.
    static klConsole* Live();

    // True once the live console has bound the queue; false again after it is destroyed.
    static bool sStartupProcessed;

private:
    // Both take a lower-cased name and need the lock held.
    klCvar* Lookup(std::string_view key) const;
    klCvar* Insert(std::string_view key);

    // Hashed: a set by name is one hash and one comparison, not a walk down a tree. Both
    // functors also take a plain view, so a lookup needs no string of its own.
    struct KeyHash {
        using is_transparent = void;
        // The standard library's hash takes eight bytes a step, where FNV-1a takes one.
        size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
        size_t operator()(const klLCaseString& key) const { return (*this)(std::string_view(key.Const(), key.Size())); }
    };
    struct KeyEqual {
        using is_transparent = void;
        static std::string_view View(const klLCaseString& key) { return {key.Const(), key.Size()}; }
        static std::string_view View(std::string_view key) { return key; }
        template <class A, class B> bool operator()(const A& a, const B& b) const { return View(a) == View(b); }
    };
    std::unordered_map<klLCaseString, klCvar*, KeyHash, KeyEqual> mVars;
    klMutex mLock{"(klConsole)cvarLock"};
};

// Sets a cvar through the singleton. False (and nothing set) when the console singleton
// is not alive (before klObjectLifetimeManager::Initialize or after Shutdown).
bool klSetCvar(const char* name, const char* value);

// A named handle on one cvar. Declare it anywhere, static objects included.
class klVarRef {
public:
    explicit klVarRef(const char* name);
    // Before start-up the reference leaves the queue; afterwards the record simply stays.
    virtual ~klVarRef();
    klVarRef(const klVarRef&) = delete;
    klVarRef& operator=(const klVarRef&) = delete;

    // Runs construction again over this live reference. Over one already bound to the
    // same name it only checks that it is bound and not queued; otherwise it binds name
    // (or queues it) like a fresh reference.
    void Reconstruct(const char* name);

    // The text. Stable while no other thread sets this cvar; use Copy when one may.
    const char* GetString() const;
    // A copy of the text taken under the cvar lock: never half of one value.
    klString Copy() const;
    // The numbers, read under the cvar lock while the console lives.
    double GetFloat() const;
    int32_t GetInt() const;
    uint32_t GetUInt() const;
    bool IsBound() const { return mVal != nullptr; }
    const char* Name() const { return mName; }
    klCvar* Record() const { return mVal; }

private:
    friend class klConsole;
    void Init(const char* name);
    // Start-up binding of a queued reference; the console holds nothing yet.
    void BindQueued(klConsole& console);
    // Leaves the queue when waiting in it.
    void Unqueue();
    // The bound record, or null after reporting that there is none.
    const klCvar* Bound() const;

    klCvar* mVal;       // null until bound
    const char* mName;  // the caller's text
    klVarRef* mNext;    // next reference in the queue
    bool mQueued;       // waiting in the queue
};

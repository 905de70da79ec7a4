// Process-wide services as singletons with a defined order of birth and death.
//
// Every klSingleton<T> holder is constant-initialised (so it is valid before any static
// constructor runs, even one of a shared library that starts keel from its load hook)
// and registers itself during static construction, doing nothing else.
// klObjectLifetimeManager::Initialize creates all registered singletons in one pass, each
// after the singletons it uses (declared with klUsesSingleton<T> members); a holder that
// registers later, while the manager is initialized (a library's static constructors
// that run after its load hook), is created as it registers. Shutdown destroys them in
// exactly the reverse order of creation.
#pragma once

#include "keel/klassert.h"

#include <cstddef>

class klSingletonBase {
public:
    klSingletonBase(const klSingletonBase&) = delete;
    klSingletonBase& operator=(const klSingletonBase&) = delete;

protected:
    constexpr klSingletonBase() : mInitialized(false), mNextRegistered(nullptr), mNextCreated(nullptr) {}
    // Trivial on purpose: a holder must outlive static destruction. A library unloaded at
    // process exit runs its unload hook (and so Shutdown, which walks the holders) after
    // the static objects are gone; a holder with a destructor would be half-destroyed by
    // then. Destroying T is Shutdown's work alone.
    ~klSingletonBase() = default;
    // Pushes the holder on the registration list, and creates it when Initialize has run
    // already; run once, by its klSingletonRegistration.
    void Register();
    virtual void Create() = 0;
    virtual void Destroy() = 0;

    // The creation stack: a created singleton is pushed, and only the top may be popped.
    void PushCreated();
    void PopCreated();
    bool IsCreationTop() const;

    bool mInitialized;                // creation has begun; never cleared again
    klSingletonBase* mNextRegistered; // next older holder
    klSingletonBase* mNextCreated;    // the singleton created just before this one

    friend class klObjectLifetimeManager;
    friend class klSingletonRegistration;
};

// Registers one holder during static construction.
class klSingletonRegistration {
public:
    explicit klSingletonRegistration(klSingletonBase* holder) { holder->Register(); }
};

class klObjectLifetimeManager {
public:
    static void Initialize();
    static void Shutdown();
    static bool IsOperating() { return sOperating; }
    // Between Initialize and Shutdown.
    static bool IsInitialized() { return sInitialized; }
    // Marks the process as ending in error: any part of the host or library that wants a
    // failing exit code records it, and klExitReport turns it into exit code 5.
    static void RecordErrorCondition();
    static bool HasErrorCondition();

private:
    friend class klSingletonBase;
    static bool sInitialized;
    static bool sOperating;
    static klSingletonBase* sRegisteredRoot;
    static klSingletonBase* sCreateRoot;
    static bool sErrorCondition;
};

template <class T> class klSingleton : public klSingletonBase {
public:
    // The singleton; it must have been created (Instance never creates it).
    static T* Instance() {
        (void)&sRegistration;
        klAssert(sInstance.mPointer != 0);
        return sInstance.mPointer;
    }
    // True while the singleton exists (between its creation and its destruction).
    static bool IsLive() {
        (void)&sRegistration;
        return sInstance.mPointer != nullptr;
    }

    static klSingleton sInstance;
    static klSingletonRegistration sRegistration;

    // Both run only inside Initialize or Shutdown (or on the way, for dependencies).
    void Create() override {
        klAssert(klObjectLifetimeManager::IsOperating());
        // mPointer stays null while T is built, so T asking for itself lands here.
        if (mInitialized) {
            klFatal("!mInitialized", "if you see this we have a circular dependency of singletons");
            return;
        }
        mInitialized = true;
        mPointer = new T();
        PushCreated();
    }
    void Destroy() override {
        klAssert(klObjectLifetimeManager::IsOperating());
        if (!klAssert(mInitialized && mPointer != NULL)) return;
        if (!klAssertAs(IsCreationTop(), "sCreateRoot == this")) return;
        PopCreated();
        T* doomed = mPointer;
        mPointer = nullptr;
        delete doomed; // mInitialized stays set: a destroyed singleton is never reborn
    }

private:
    constexpr klSingleton() : mPointer(nullptr) {}
    ~klSingleton() = default;

    T* mPointer;
    template <class> friend class klUsesSingleton;
};

template <class T> constinit klSingleton<T> klSingleton<T>::sInstance;
template <class T> klSingletonRegistration klSingleton<T>::sRegistration(&klSingleton<T>::sInstance);

// Holding one guarantees that singleton T exists: constructing it creates T when needed.
template <class T> class klUsesSingleton {
public:
    klUsesSingleton() {
        (void)&klSingleton<T>::sRegistration;
        if (!klSingleton<T>::sInstance.mPointer) klSingleton<T>::sInstance.Create();
    }
    virtual ~klUsesSingleton() = default;
};

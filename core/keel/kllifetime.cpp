#include "keel/kllifetime.h"

#include "keel/klbuffer.h"

bool klObjectLifetimeManager::sInitialized = false;
bool klObjectLifetimeManager::sOperating = false;
klSingletonBase* klObjectLifetimeManager::sRegisteredRoot = nullptr;
klSingletonBase* klObjectLifetimeManager::sCreateRoot = nullptr;
bool klObjectLifetimeManager::sErrorCondition = false;

// Any thread may record it, so it is read and written atomically.
void klObjectLifetimeManager::RecordErrorCondition() { __atomic_store_n(&sErrorCondition, true, __ATOMIC_SEQ_CST); }
bool klObjectLifetimeManager::HasErrorCondition() { return __atomic_load_n(&sErrorCondition, __ATOMIC_SEQ_CST); }

void klSingletonBase::Register() {
    mNextRegistered = klObjectLifetimeManager::sRegisteredRoot;
    klObjectLifetimeManager::sRegisteredRoot = this;
    // A shared library starts keel from its load hook, and the order in which a library's
    // static constructors run follows its link order: holders that register after the
    // start-up are created as they arrive, so none is left out whatever that order is.
    if (!klObjectLifetimeManager::sInitialized || klObjectLifetimeManager::sOperating || mInitialized) return;
    klObjectLifetimeManager::sOperating = true;
    Create();
    klObjectLifetimeManager::sOperating = false;
}

void klSingletonBase::PushCreated() {
    mNextCreated = klObjectLifetimeManager::sCreateRoot;
    klObjectLifetimeManager::sCreateRoot = this;
}

void klSingletonBase::PopCreated() {
    klObjectLifetimeManager::sCreateRoot = mNextCreated;
    mNextCreated = nullptr;
}

bool klSingletonBase::IsCreationTop() const { return klObjectLifetimeManager::sCreateRoot == this; }

void klObjectLifetimeManager::Initialize() {
    if (!klAssert(!sInitialized)) return;
    sInitialized = true;
    sOperating = true;
    // Any singleton may hold small buffers, so the bucket pool is born before all of them
    // and, being the oldest, dies after all of them.
    klUsesSingleton<klBlobBucketPool> bucketPool;
    // Newest registration first; a holder already created as someone's dependency is skipped.
    for (klSingletonBase* holder = sRegisteredRoot; holder; holder = holder->mNextRegistered) {
        if (!holder->mInitialized) holder->Create();
    }
    sOperating = false;
}

void klObjectLifetimeManager::Shutdown() {
    if (!klAssert(sInitialized)) return;
    sInitialized = false;
    sOperating = true;
    while (klSingletonBase* top = sCreateRoot) {
        top->Destroy();
        if (sCreateRoot == top) break; // Destroy refused (and reported); do not spin on it
    }
    sOperating = false;
}

#include "keel/kllifetime.h"

bool klObjectLifetimeManager::sInitialized = false;
bool klObjectLifetimeManager::sOperating = false;
klSingletonBase* klObjectLifetimeManager::sRegisteredRoot = nullptr;
klSingletonBase* klObjectLifetimeManager::sCreateRoot = nullptr;

klSingletonBase::klSingletonBase() : mInitialized(false), mNextRegistered(nullptr), mNextCreated(nullptr) {
    mNextRegistered = klObjectLifetimeManager::sRegisteredRoot;
    klObjectLifetimeManager::sRegisteredRoot = this;
}

klSingletonBase::~klSingletonBase() {
    mNextRegistered = nullptr;
    mNextCreated = nullptr;
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

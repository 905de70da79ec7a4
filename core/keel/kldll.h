// Loading dynamic libraries without letting them take over the process's crash handling:
// whatever crash handlers were in force before a load are in force after it.
#pragma once

// Owns one loaded library for its lifetime.
class klDLL {
public:
    // A failed load leaves Handle() null and reports on the "Console" logger.
    explicit klDLL(const char* libname);
    ~klDLL() { Unload(); }
    klDLL(const klDLL&) = delete;
    klDLL& operator=(const klDLL&) = delete;

    // Frees the library; a second call does nothing.
    void Unload();
    void* Handle() const { return mHandle; }
    // The address of an exported symbol, or null (also when nothing is loaded).
    void* Symbol(const char* name) const;

private:
    void* mHandle = nullptr;
};

// Loads a library by a wide-character name; returns its handle or null, with no message.
void* klLoadLibrary(const wchar_t* libname);

// The platform halves (LoadLibrary and friends on Windows, dlopen and friends on Linux).
namespace kl::dll {
void* Open(const char* libname);
void* OpenWide(const wchar_t* libname);
bool Close(void* handle);
void* Symbol(void* handle, const char* name);
} // namespace kl::dll

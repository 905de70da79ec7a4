// Hashes of text and bytes: FNV-1a in 32 bits (with a final avalanche step, for hash
// containers) and in 64 bits (plain, for identifiers), and an incremental MD5 digest.
// The text and block forms of one width agree on the same bytes; the terminator of a
// text is never hashed.
#pragma once

#include <cstdint>

uint32_t klHashString32(const char* text);
uint32_t klHashBytes32(const void* data, uint32_t len);
uint64_t klHashString64(const char* text);
uint64_t klHashBytes64(const void* data, uint32_t len);

// The 16 bytes of an MD5 digest, in the order the algorithm emits them.
struct klMD5Digest {
    uint8_t mBytes[16];
};

struct klMD5Context;

// Incremental MD5. A digest is in progress from construction (or Start) until Finish;
// after Finish the object may be started again. Update or Finish with no digest in
// progress is a broken contract: it is reported, Update then ignores the bytes and
// Finish returns 16 zero bytes.
class klHashMD5 {
public:
    klHashMD5();
    ~klHashMD5();
    klHashMD5(const klHashMD5&) = delete;
    klHashMD5& operator=(const klHashMD5&) = delete;

    // Begins a new digest, dropping any one in progress.
    void Start();
    void Update(const void* data, uint32_t len);
    klMD5Digest Finish();
    bool InProgress() const { return _internal != nullptr; }

private:
    klMD5Context* _internal; // heap context of the digest in progress, null when idle
};

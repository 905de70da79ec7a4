#include "keel/klmath.h"

#include <cctype>

uint32_t kl::math::hexCharToNumber(char c) {
    int upper = std::toupper(static_cast<unsigned char>(c));
    return static_cast<uint32_t>(upper >= 'A' ? upper - 55 : upper - 48);
}

uint32_t kl::math::hexStringToNumber(const char* text) {
    uint32_t value = 0;
    for (; *text; ++text) value = (value << 4) | hexCharToNumber(*text);
    return value;
}

// Small numeric helpers.
#pragma once

#include <cstdint>

namespace kl::math {

// Value of one hexadecimal digit. Nothing is validated: letters count from 'A' (10) on,
// whatever they are, and every other character counts as (character - '0').
uint32_t hexCharToNumber(char c);

// Hexadecimal text up to its terminating zero. Every character counts as a digit (see
// hexCharToNumber) and more than eight digits keep only the last eight; ids read from
// device strings are trusted to be well formed.
uint32_t hexStringToNumber(const char* text);

} // namespace kl::math

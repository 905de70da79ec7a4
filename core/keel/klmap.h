// Ordered maps and the lookup helper that goes with them.
#pragma once

#include "keel/klassert.h"

#include <functional>
#include <map>

// The ordered map of the library; string keys use klStringLessThan or klLCaseStringLessThan.
template <class Key, class Value, class Less = std::less<Key>>
using klMap = std::map<Key, Value, Less>;

// Looks key up in map. When present, copies the mapped value to *pOut and returns true;
// when absent, returns false and leaves *pOut alone. A null pOut is reported and nothing
// is looked up: the caller gets false because nothing could be delivered.
template <class Map, class Key, class Value>
bool klMapFind(const Map& map, const Key& key, Value* pOut) {
    // The report names the C spelling of null, like the rest of the library's reports.
    if (!klAssertAs(pOut != nullptr, "pOut != NULL")) return false;
    const auto found = map.find(key);
    if (found == map.end()) return false;
    *pOut = found->second;
    return true;
}

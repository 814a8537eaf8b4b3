// What each key means for each kind of object: the numeric attributes answered by queries and
// matched by the find keys, names, owners, and the attributes that can be set.
#pragma once

#include "Model.h"

#include <cstdint>
#include <cstring>
#include <string_view>

namespace brix {

template <class T> bool Load(const void *p, T &out) {
    if (!p)
        return false;
    std::memcpy(&out, p, sizeof(T));
    return true;
}

// Width in bytes of a key's numeric value; 0 for keys whose value is not a number.
unsigned NumericWidth(uint32_t key);
// The numeric attributes of every kind; false when the key does not apply to the object.
bool NumericAttribute(const CHandleEntry &e, uint32_t key, uint64_t &out);
// The name of a section or symbol; false for other kinds.
bool NameOf(const CHandleEntry &e, std::string_view &out);
// Whether an object's attribute `key` has the value `value` points at (BRX_ANY: any object).
bool Matches(const CHandleEntry &e, uint32_t key, const void *value);
// Changes one attribute of an object; false when the key does not apply or the value is refused.
bool SetAttribute(const CHandleEntry &e, uint32_t key, const void *value);
// Writes the bytes of a key-38 record into a section at its offset (inside or at the end).
bool WriteBytes(CSection &s, BrxBytes *rec);

} // namespace brix

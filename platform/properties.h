// Android's system properties. On Android the system's own header; elsewhere the same declaration.

#pragma once

#ifdef __ANDROID__
#include <cutils/properties.h>
#else

#include <cstdint>

extern "C" {

// Returns 1 or 0 for a property whose value means true or false, `defaultValue` for one that is
// unset or whose value means neither.
int8_t property_get_bool(const char* key, int8_t defaultValue);

// Returns the number with which a property's value begins, decimal, octal behind 0 or hexadecimal
// behind 0x; `defaultValue` for a property that is unset or does not begin with one of 32 bits.
int32_t property_get_int32(const char* key, int32_t defaultValue);

}  // extern "C"

#endif

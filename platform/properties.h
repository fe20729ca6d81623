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

}  // extern "C"

#endif

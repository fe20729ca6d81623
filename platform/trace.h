// Android's trace facility. On Android the system's own header; elsewhere the same declarations.

#pragma once

#include <cstdint>

#ifdef __ANDROID__
#include <cutils/trace.h>
#else

// The trace tags that this library looks at; the values are Android's.
#define ATRACE_TAG_CAMERA (1 << 10)
#define ATRACE_TAG_HAL (1 << 11)

extern "C" {

// Returns the mask of the trace tags that are switched on.
uint64_t atrace_get_enabled_tags();

}  // extern "C"

#endif

extern "C" {

// Sets the counter `name` to `value`. Android's header declares it only inside other functions.
void atrace_int_body(const char* name, int32_t value);

}  // extern "C"

// Android's log. On Android the system's own header; elsewhere the same declaration.

#pragma once

#ifdef __ANDROID__
#include <android/log.h>
#else

// The priorities in use, the library's debug lines and the boost service's lines; the values are
// Android's.
enum { ANDROID_LOG_DEBUG = 3, ANDROID_LOG_INFO = 4, ANDROID_LOG_WARN = 5 };

extern "C" {

// Writes one line: `format` and the values after it are printf's.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's name.
int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((__format__(printf, 3, 4)));

}  // extern "C"

#endif

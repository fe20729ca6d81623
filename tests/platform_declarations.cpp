// Our declarations of Android's functions and Android's own in one unit: the compiler refuses a
// function that the two declare with different types or linkage. static_assert compares the
// constants.

#define ANDROID_LOG_DEBUG OUR_LOG_DEBUG
#define ANDROID_LOG_INFO OUR_LOG_INFO
#define ANDROID_LOG_WARN OUR_LOG_WARN
#include "platform/log.h"
#undef ANDROID_LOG_DEBUG
#undef ANDROID_LOG_INFO
#undef ANDROID_LOG_WARN

#include "platform/properties.h"
#include "platform/trace.h"

constexpr int OUR_TAG_CAMERA = ATRACE_TAG_CAMERA;
constexpr int OUR_TAG_HAL = ATRACE_TAG_HAL;
#undef ATRACE_TAG_CAMERA
#undef ATRACE_TAG_HAL

#include <android/log.h>
#include <cutils/properties.h>
#include <cutils/trace.h>

static_assert(static_cast<int>(OUR_LOG_DEBUG) == static_cast<int>(ANDROID_LOG_DEBUG));
static_assert(static_cast<int>(OUR_LOG_INFO) == static_cast<int>(ANDROID_LOG_INFO));
static_assert(static_cast<int>(OUR_LOG_WARN) == static_cast<int>(ANDROID_LOG_WARN));
static_assert(OUR_LOG_DEBUG == 3);
static_assert(OUR_TAG_CAMERA == ATRACE_TAG_CAMERA && OUR_TAG_CAMERA == 0x400);
static_assert(OUR_TAG_HAL == ATRACE_TAG_HAL && OUR_TAG_HAL == 0x800);

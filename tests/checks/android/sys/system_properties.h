// As much of Android's header as cutils/properties.h needs; Debian has none.

#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

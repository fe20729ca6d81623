// The hardware configuration store, a closed platform library that serves a device's setup by
// section and key.
//
// All texts are zero-terminated. A status of 0 means success. For a missing section or key
// expect a count of 0 or below, or a status other than 0; the store's exact answer is not known.

#pragma once

#include <cstdint>

extern "C" {

// Fills `value`; returns a status.
int32_t GetIntegerConfiguration(const char* section, const char* key, int32_t* value);

// Fills `flag`, non-zero for true; returns a status.
int32_t GetBooleanConfiguration(const char* section, const char* key, uint32_t* flag);

// Returns the number of values that a list key holds.
int32_t GetValuesCount(const char* section, const char* key);

// Fills the first `count` slots of the caller's array `values`; returns a status.
int32_t GetUIntegerListConfiguration(const char* section, const char* key, uint32_t* values,
                                     uint32_t count);

// Returns the number of locale keys below a key.
int32_t GetLocaleKeyCount(const char* section, const char* key);

// Returns the number of texts in a locale key's list.
int32_t GetLocaleKeyValuesCount(const char* section, const char* key, const char* localeKey);

// Fills the first `count` slots of the caller's array `values` with texts that the store allocates
// with new char[]; returns a status. The caller owns every slot that is not null, also after a
// failure, and releases it with delete[].
int32_t GetLocaleStringListConfiguration(const char* section, const char* key,
                                         const char* localeKey, char** values, int32_t count);

}  // extern "C"

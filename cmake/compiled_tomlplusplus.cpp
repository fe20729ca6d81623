// toml++'s own functions, compiled once, where Debian's library does not fit: see
// Dependencies.cmake.

#define TOML_IMPLEMENTATION
#include <toml++/toml.h>

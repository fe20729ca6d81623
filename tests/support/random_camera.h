// Random cameras to simulate.

#pragma once

#include <cstdint>

#include "tools/check/check.h"
#include "tools/play/camera.h"

// A random camera with some faults, far enough apart that each shows by itself. Without them no
// frame is late or in error. The same seed gives the same camera.
tools::Camera RandomCamera(uint64_t seed);

// The configuration under which the camera's scene is boosted.
tools::Configuration ConfigurationOf(const tools::Camera& camera);

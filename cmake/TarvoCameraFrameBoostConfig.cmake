include(${CMAKE_CURRENT_LIST_DIR}/TarvoCameraFrameBoostTargets.cmake)

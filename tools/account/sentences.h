// What is said of causes, and how frames and stages are named in it.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/account/cause.h"

namespace tools {

// Some frames: a first and a last number.
struct FrameRange {
    int64_t first = 0, last = 0;
};

// As ranges of numbers that follow one another; the numbers are ascending.
std::vector<FrameRange> RangesOf(const std::vector<int64_t>& numbers);
// "121", "301 to 305", "1, 4 and 9", "1, 2, 4, 5, 7, 8 and 13 more".
std::string NumbersText(const std::vector<int64_t>& numbers);
// "frame 121", "frames 301 to 305".
std::string FramesText(const std::vector<int64_t>& numbers);
// "stage 1 (ToneMapper)"; "the pipeline" below 0.
std::string StageName(const Scene& scene, int32_t stage);
// Whole milliseconds: "45".
std::string Ms(Micros time);

// What happened, and what followed from it.
std::string SentenceOf(const Scene& scene, const Columns& columns, const Cause& cause);

}  // namespace tools

// The page's drawings of a scene over time, as SVG that takes any width.

#pragma once

#include <ostream>

#include "tools/output/drawn_scene.h"

namespace tools {

// A sign of its own for each look, for those who do not see its colour.
const char* MarkOf(Look look);

// The whole scene: the output interval, and a lane for each look that a frame has. A column's worst
// frame wins, so that no bad frame ever disappears.
void WriteOverview(std::ostream& out, const DrawnScene& drawn, size_t columns);
void WriteLegend(std::ostream& out, const DrawnScene& drawn);
// A row a stage, a bar a frame and stage; what a script needs to know stands in classes, ids and
// titles.
void WriteTimeline(std::ostream& out, const DrawnScene& drawn, const Span& window);

}  // namespace tools

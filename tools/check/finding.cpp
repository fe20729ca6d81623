#include "tools/check/finding.h"

#include <array>
#include <cstddef>

namespace tools {

const char* NameOf(Severity severity) {
    constexpr std::array<const char*, 3> names = {"note", "warning", "error"};
    return names[static_cast<size_t>(severity)];
}

std::string ToString(const Finding& finding, const std::string& file) {
    std::string text = file;
    if (finding.place.line != 0) {
        text += ":" + std::to_string(finding.place.line);
    }
    if (finding.column != 0) {
        text += ":" + std::to_string(finding.column);
    }
    return text + ": " + NameOf(finding.severity) + ": " + finding.message + " [" + finding.check +
           "]";
}

}  // namespace tools

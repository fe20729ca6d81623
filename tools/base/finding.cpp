#include "tools/base/finding.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <numeric>
#include <vector>

namespace tools {
namespace {

// How many letters have to be put in, taken out or changed; case does not count.
size_t Distance(std::string_view from, std::string_view to) {
    const auto lower = [](char letter) { return std::tolower(static_cast<unsigned char>(letter)); };
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (const char letter : from) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t changed = diagonal + (lower(letter) == lower(to[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

const char* NameOf(Severity severity) {
    constexpr std::array<const char*, 3> names = {"note", "warning", "error"};
    return names[static_cast<size_t>(severity)];
}

std::string ToString(const Finding& finding, const std::string& file) {
    const auto part = [](uint32_t number) { return number == 0 ? "" : fmt::format(":{}", number); };
    return fmt::format("{}{}{}: {}: {} [{}]", file, part(finding.place.line), part(finding.column),
                       NameOf(finding.severity), finding.message, finding.check);
}

std::string Printable(std::string_view text, size_t longest) {
    const bool isLong = text.size() > longest;
    std::string printable;
    for (const char character : text.substr(0, isLong ? longest - 3 : text.size())) {
        if (character >= ' ' && character <= '~') {
            printable += character;
        } else {
            printable += fmt::format("\\x{:02X}", static_cast<unsigned char>(character));
        }
    }
    return printable + (isLong ? "..." : "");
}

std::string Quoted(std::string_view text, size_t longest) {
    return '"' + Printable(text, longest) + '"';
}

std::optional<std::string> Meant(std::string_view given, const std::vector<std::string>& known) {
    std::optional<std::string> meant;
    size_t fewest = given.size();
    for (const std::string& name : known) {
        const size_t changes =
            given.size() < 2 * name.size() ? Distance(given, name) : std::string_view::npos;
        if (changes <= name.size() / 3 && changes < fewest) {
            fewest = changes;
            meant = name;
        }
    }
    return meant;
}

}  // namespace tools

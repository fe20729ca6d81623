// The name of a processing node, for telling quickly which others occur in it. Internal.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "cameraframeboost/tarvocameraframeboostutils.h"

struct LocalConfig::NodeName {
    constexpr explicit NodeName(std::string_view name) : text(name), pairs(PairsOf(name)) {}

    // Whether `part` occurs anywhere in the name. `pairsOfPart`: PairsOfPart(part). A part that
    // does not occur mostly has a pair of characters that the name lacks, and is not searched for.
    bool Contains(std::string_view part, const std::array<uint64_t, 2>& pairsOfPart) const {
        const bool mayContain = (pairsOfPart[0] & ~pairs) == 0 || (pairsOfPart[1] & ~pairs) == 0;
        return mayContain && text.find(part) != std::string_view::npos;
    }

    // The pairs of characters that a text consists of, from its first character on, a bit each;
    // some share one.
    static constexpr uint64_t PairsOf(std::string_view text) {
        uint64_t pairs = 0;
        for (size_t i = 1; i < text.size(); i += 2) {
            const unsigned first = static_cast<unsigned char>(text[i - 1]);
            const unsigned second = static_cast<unsigned char>(text[i]);
            pairs |= uint64_t{1} << ((first + 5 * second) % 64);
        }
        return pairs;
    }

    // The same for what is looked for in a name: from its first character on, and from its second,
    // as it may begin in the middle of one of the name's pairs.
    static constexpr std::array<uint64_t, 2> PairsOfPart(std::string_view part) {
        return {PairsOf(part), PairsOf(part.substr(part.empty() ? 0 : 1))};
    }

    std::string_view text;
    uint64_t pairs;
};

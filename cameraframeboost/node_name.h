// The name of a processing node, for telling quickly which others occur in it. Internal.

#pragma once

#include <cstdint>
#include <string_view>

#include "cameraframeboost/tarvocameraframeboostutils.h"

struct LocalConfig::NodeName {
    constexpr explicit NodeName(std::string_view name) : text(name), letters(LettersOf(name)) {}
    constexpr NodeName(std::string_view name, uint64_t itsLetters)
        : text(name), letters(itsLetters) {}

    // Whether `part` occurs anywhere in the name. A part that does not occur mostly has a letter
    // that the name lacks; one that does mostly stands at the beginning.
    bool Contains(const NodeName& part) const {
        return (part.letters & ~letters) == 0 && (text.substr(0, part.text.size()) == part.text ||
                                                  text.find(part.text) != std::string_view::npos);
    }

    // The letters that occur in a text, a bit each; some share one.
    static constexpr uint64_t LettersOf(std::string_view text) {
        uint64_t letters = 0;
        for (const char letter : text) {
            letters |= uint64_t{1} << (static_cast<unsigned char>(letter) % 64);
        }
        return letters;
    }

    std::string_view text;
    uint64_t letters;
};

// Fields of a message in protobuf's wire format.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <protozero/pbf_reader.hpp>
#include <string_view>

namespace tools {

// Calls `take` with the number and the content of each field that is a text, a message or a list.
template <typename Take>
void ForEachField(std::string_view message, Take take) {
    protozero::pbf_reader fields(message);
    while (fields.next()) {
        const uint32_t field = fields.tag();
        if (fields.wire_type() == protozero::pbf_wire_type::length_delimited) {
            take(field, std::string_view(fields.get_view()));
        } else {
            fields.skip();
        }
    }
}

// The fields of a message that occur at most once and have numbers up to MOST.
template <size_t MOST>
class Fields {
  public:
    explicit Fields(std::string_view message) {
        protozero::pbf_reader fields(message);
        while (fields.next()) {
            const size_t field = fields.tag();
            const auto type = fields.wire_type();
            if (field <= MOST && type == protozero::pbf_wire_type::varint) {
                numbers[field] = fields.get_uint64();
            } else if (field <= MOST && type == protozero::pbf_wire_type::length_delimited) {
                texts[field] = fields.get_view();
            } else {
                fields.skip();
            }
        }
    }

    // 0, or empty, where the message has no such field.
    template <typename Value = uint64_t>
    Value Number(size_t field) const {
        return static_cast<Value>(numbers[field]);
    }
    std::string_view Text(size_t field) const { return texts[field]; }

  private:
    std::array<uint64_t, MOST + 1> numbers{};
    std::array<std::string_view, MOST + 1> texts{};
};

}  // namespace tools

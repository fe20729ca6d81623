// The facade's operations as a session names them: what arguments each takes, and how to call it.

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cameraframeboost/tarvocameraframeboost.h"

namespace tools {

// An argument, of whatever type the operation takes.
using Value = std::variant<bool, int32_t, int64_t, std::string, std::vector<int32_t>>;

struct OperationForm {
    std::string_view name;
    std::vector<std::string_view> parameters;  // Their names.
    std::vector<Value> types;  // A value of each parameter's type; what value does not matter.
    // Calls the operation with a value for each parameter, of its type. Nothing comes back from an
    // operation without a result.
    std::function<std::optional<int32_t>(TarvoCameraFrameBoost&, const std::vector<Value>&)> call;
};

// The parameter that files and transcripts show in hexadecimal.
inline constexpr std::string_view OPERATION_MODE = "operationMode";

// All operations of the facade.
std::span<const OperationForm> Operations();
// The operation of that name; null where there is none.
const OperationForm* FormOf(std::string_view name);

// A call of one of them.
struct Call {
    const OperationForm* form;
    std::vector<Value> arguments;  // A value for each parameter, of its type.

    // The value of a parameter that the operation has, of type T.
    template <typename T>
    const T& Get(std::string_view parameter) const {
        const auto& names = form->parameters;
        const auto found = std::find(names.begin(), names.end(), parameter);
        return std::get<T>(arguments.at(static_cast<size_t>(found - names.begin())));
    }

    bool operator==(const Call&) const = default;
};

}  // namespace tools

// The facade's operations as a session names them: what arguments each takes, and how to call it.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cameraframeboost/tarvocameraframeboost.h"

namespace tools {

// An argument, of whatever type the operation takes.
using Value = std::variant<bool, int32_t, int64_t, std::string, std::vector<int32_t>>;

struct Parameter {
    Value type;  // A value of the parameter's type; what value does not matter.
    std::string_view name;
    bool isMode = false;  // An operation mode, which people know in hexadecimal.
};

struct Operation {
    std::string_view name;
    std::vector<Parameter> parameters;
    // Calls the operation with a value for each parameter, of its type. Nothing comes back from an
    // operation without a result.
    std::function<std::optional<int32_t>(TarvoCameraFrameBoost&, const std::vector<Value>&)> call;
};

// All operations of the facade.
const std::vector<Operation>& Operations();

// The operation of that name; null when there is none.
const Operation* FindOperation(std::string_view name);

}  // namespace tools

// A portable copy of an Automation Variant's value, for the few operations
// that take one. The hosting layer converts the platform's VARIANT into it
// (object references and arrays have no portable form and arrive empty).
#pragma once

#include <string>
#include <variant>

#include "frame/arith.h"

namespace valmetra {

using Variant = std::variant<std::monostate, Integer, Long, Single, Double, std::u16string>;

}  // namespace valmetra

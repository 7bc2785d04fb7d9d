// A new IntegerData COM object made by `new` (see wrapped_object.cpp).
#pragma once

#include <windows.h>
#include <oleauto.h>

#include "valmetra.h"

namespace valmetra::bench {

// One reference, or nullptr when memory is exhausted.
[[gnu::noinline]] _IntegerData* new_integer_data_object();

}  // namespace valmetra::bench

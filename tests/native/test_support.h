// Helpers shared by the native tests.
#pragma once

#include "frame/error.h"

namespace valmetra::test {

// The number of the library error that f throws, or 0 when it succeeds.
int error_of(auto&& f) {
  try {
    f();
  } catch (const Error& e) {
    return e.number();
  }
  return 0;
}

}  // namespace valmetra::test

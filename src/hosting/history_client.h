// The value history as the library's value classes see it on Windows: the
// apartment's ValueStack component, called through its vtable.
#pragma once

#include <memory>

#include "frame/history.h"

namespace valmetra::hosting {

// The history factory installed at load (set_history_factory): enters the
// calling apartment's state (so the history is released when the apartment
// ends) and creates the apartment's ValueStack object by its class
// identifier. A failure (no apartment, component not registered) is thrown
// as the error the platform reported and reaches the caller of the value
// operation; the next history call tries again.
std::unique_ptr<ValueHistory> make_component_history();

}  // namespace valmetra::hosting

// InterfaceStack: a creatable class without fields whose five operations
// succeed and change nothing. No class of the library calls it.
#pragma once

#include "frame/variant.h"

namespace valmetra {

class InterfaceStack {
 public:
  void Drop() noexcept {}
  void Pop() noexcept {}
  void Push() noexcept {}
  // Takes its own copy of the Variant and discards it.
  void PushAndSet(const Variant& SetToValue) { [[maybe_unused]] Variant copy = SetToValue; }
  void Snag() noexcept {}
};

}  // namespace valmetra

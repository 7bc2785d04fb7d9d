#include "frame/error.h"

namespace valmetra {

std::u16string_view describe(std::int32_t number) noexcept {
  switch (static_cast<ErrorNumber>(number)) {
    case ErrorNumber::InvalidProcedureCall: return u"Invalid procedure call or argument";
    case ErrorNumber::Overflow: return u"Overflow";
    case ErrorNumber::OutOfMemory: return u"Out of memory";
    case ErrorNumber::DivisionByZero: return u"Division by zero";
    case ErrorNumber::TypeMismatch: return u"Type mismatch";
  }
  return {};
}

void raise(ErrorNumber number) { throw Error(number); }

}  // namespace valmetra

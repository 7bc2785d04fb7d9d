// The library's error vocabulary and the one error type that carries it.
//
// Every failing operation throws valmetra::Error; the hosting layer turns it
// into the failure status the host sees (HRESULT 0x800A0000 | number plus the
// platform's error information). Numbers and texts are listed in
// docs/errors.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace valmetra {

// The source every error raised by this library carries.
inline constexpr std::u16string_view kLibrarySource = u"KARVO_Valmetra";

// Error numbers. Only these leave the library's own code; errors of called
// objects pass on with whatever number they carry.
enum class ErrorNumber : std::int32_t {
  InvalidProcedureCall = 5,  // power service: result is not a number
  Overflow = 6,              // checked integer arithmetic, conversions, floating overflow/invalid
  OutOfMemory = 7,           // runtime service ran out of memory
  DivisionByZero = 11,       // integer division by zero, floating division by zero
  TypeMismatch = 13,         // text that is not a number
};

// The standard description of a vocabulary number ("Overflow", ...);
// empty for a number outside the vocabulary.
std::u16string_view describe(std::int32_t number) noexcept;

class Error {
 public:
  Error(std::int32_t number, std::u16string description,
        std::u16string source = std::u16string(kLibrarySource))
      : number_(number), description_(std::move(description)), source_(std::move(source)) {}
  explicit Error(ErrorNumber number)
      : Error(static_cast<std::int32_t>(number),
              std::u16string(describe(static_cast<std::int32_t>(number)))) {}

  std::int32_t number() const noexcept { return number_; }
  const std::u16string& description() const noexcept { return description_; }
  const std::u16string& source() const noexcept { return source_; }

 private:
  std::int32_t number_;
  std::u16string description_;
  std::u16string source_;
};

[[noreturn]] void raise(ErrorNumber number);
[[noreturn]] inline void raise_overflow() { raise(ErrorNumber::Overflow); }
[[noreturn]] inline void raise_division_by_zero() { raise(ErrorNumber::DivisionByZero); }
[[noreturn]] inline void raise_type_mismatch() { raise(ErrorNumber::TypeMismatch); }

}  // namespace valmetra

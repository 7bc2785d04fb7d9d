#include "frame/fp.h"

namespace valmetra::fp {

Scope::Scope() noexcept {
  std::fegetenv(&saved_);
  std::fesetenv(FE_DFL_ENV);
  asm volatile("" ::: "memory");
}

Scope::~Scope() {
  asm volatile("" ::: "memory");
  std::fesetenv(&saved_);
}

void clear() noexcept {
  asm volatile("" ::: "memory");
  std::feclearexcept(FE_ALL_EXCEPT);
}

void check() {
  asm volatile("" ::: "memory");
  const int raised = std::fetestexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
  if (raised == 0) return;
  std::feclearexcept(FE_ALL_EXCEPT);
  if (raised & FE_DIVBYZERO) raise(kDivideByZeroError);
  if (raised & FE_INVALID) raise(kInvalidError);
  raise(kOverflowError);
}

}  // namespace valmetra::fp

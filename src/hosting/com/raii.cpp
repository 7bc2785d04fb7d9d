#include "hosting/com/raii.h"

namespace valmetra::com {

Bstr::Bstr(std::u16string_view text) {
  b_ = SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text.data()), static_cast<UINT>(text.size()));
  if (!b_) throw std::bad_alloc();
}

Bstr::Bstr(std::wstring_view text) {
  b_ = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
  if (!b_) throw std::bad_alloc();
}

void Bstr::reset() noexcept {
  if (BSTR b = std::exchange(b_, nullptr)) SysFreeString(b);
}

BSTR make_bstr(std::u16string_view text) { return Bstr(text).detach(); }

void Variant::reset() noexcept { VariantClear(&v_); }

}  // namespace valmetra::com

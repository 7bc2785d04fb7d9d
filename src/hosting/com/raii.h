// Owning wrappers for the platform's reference-counted and allocated types.
//
// Every interface pointer, BSTR and VARIANT that this layer holds lives in
// one of these: ComPtr (one reference), Bstr (one string allocation) and
// Variant (one VARIANT, cleared on destruction). Raw AddRef/Release and
// SysAllocString/SysFreeString pairs appear only here. Values handed out
// through a caller's out-parameter are detach()ed: the caller owns them.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstddef>
#include <new>
#include <string_view>
#include <utility>

namespace valmetra::com {

// One reference to an interface.
template <class T>
class ComPtr {
 public:
  ComPtr() noexcept = default;
  ComPtr(std::nullptr_t) noexcept {}
  // Takes a new reference to `p`.
  explicit ComPtr(T* p) noexcept : p_(p) {
    if (p_) p_->AddRef();
  }
  ComPtr(const ComPtr& other) noexcept : ComPtr(other.p_) {}
  ComPtr(ComPtr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
  ~ComPtr() { reset(); }
  ComPtr& operator=(ComPtr other) noexcept {
    std::swap(p_, other.p_);
    return *this;
  }

  // Takes over a reference the caller already owns.
  static ComPtr adopt(T* p) noexcept {
    ComPtr r;
    r.p_ = p;
    return r;
  }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }

  // For out-parameters: releases what is held and gives the slot.
  T** put() noexcept {
    reset();
    return &p_;
  }
  void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

  // Hands the reference to the caller.
  [[nodiscard]] T* detach() noexcept { return std::exchange(p_, nullptr); }
  void reset() noexcept {
    if (T* p = std::exchange(p_, nullptr)) p->Release();
  }

  // QueryInterface into another smart pointer.
  template <class U>
  HRESULT query(REFIID iid, ComPtr<U>& out) const noexcept {
    if (!p_) return E_POINTER;
    return p_->QueryInterface(iid, out.put_void());
  }
  // QueryInterface into a caller's out-parameter.
  HRESULT query(REFIID iid, void** out) const noexcept {
    if (!out) return E_POINTER;
    *out = nullptr;
    if (!p_) return E_POINTER;
    return p_->QueryInterface(iid, out);
  }

 private:
  T* p_ = nullptr;
};

// One BSTR allocation. Construction from text throws std::bad_alloc when
// the allocation fails.
class Bstr {
 public:
  Bstr() noexcept = default;
  explicit Bstr(std::u16string_view text);
  explicit Bstr(std::wstring_view text);
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  Bstr(Bstr&& other) noexcept : b_(std::exchange(other.b_, nullptr)) {}
  Bstr& operator=(Bstr&& other) noexcept {
    if (this != &other) {
      reset();
      b_ = std::exchange(other.b_, nullptr);
    }
    return *this;
  }
  ~Bstr() { reset(); }

  static Bstr adopt(BSTR b) noexcept {
    Bstr r;
    r.b_ = b;
    return r;
  }

  BSTR get() const noexcept { return b_; }
  BSTR* put() noexcept {
    reset();
    return &b_;
  }
  [[nodiscard]] BSTR detach() noexcept { return std::exchange(b_, nullptr); }
  void reset() noexcept;

  UINT length() const noexcept { return b_ ? SysStringLen(b_) : 0; }
  std::u16string_view view() const noexcept {
    return b_ ? std::u16string_view(reinterpret_cast<const char16_t*>(b_), SysStringLen(b_))
              : std::u16string_view();
  }

 private:
  BSTR b_ = nullptr;
};

// A new BSTR holding `text`, owned by whoever receives it (an out-parameter).
// Throws std::bad_alloc when the allocation fails.
[[nodiscard]] BSTR make_bstr(std::u16string_view text);

// One VARIANT, initialised empty and cleared on destruction.
class Variant {
 public:
  Variant() noexcept { VariantInit(&v_); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  Variant(Variant&& other) noexcept : v_(other.v_) { VariantInit(&other.v_); }
  Variant& operator=(Variant&& other) noexcept {
    if (this != &other) {
      reset();
      v_ = other.v_;
      VariantInit(&other.v_);
    }
    return *this;
  }
  ~Variant() { reset(); }

  VARIANT* get() noexcept { return &v_; }
  const VARIANT* get() const noexcept { return &v_; }
  VARIANT* operator->() noexcept { return &v_; }
  const VARIANT* operator->() const noexcept { return &v_; }
  // For out-parameters: clears and gives the slot.
  VARIANT* put() noexcept {
    reset();
    return &v_;
  }
  // Moves the value into a caller's VARIANT (which must hold nothing owned).
  void detach_to(VARIANT* out) noexcept {
    *out = v_;
    VariantInit(&v_);
  }
  void reset() noexcept;

 private:
  VARIANT v_;
};

}  // namespace valmetra::com

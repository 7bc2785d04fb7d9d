// The one place where failures become what a COM caller sees.
//
// An operation's valmetra::Error becomes the HRESULT 0x800A0000 | number
// (FACILITY_CONTROL, severity error) plus an IErrorInfo for the calling
// thread carrying the description, the source and the GUID of the
// interface that was called. A number that is itself a failure HRESULT (an
// error passed on from a called object that did not use the control
// facility) travels unchanged. std::bad_alloc becomes error 7 "Out of
// memory"; any other exception becomes E_UNEXPECTED. Every failure that
// leaves through this layer sets fresh error information, so the dispatch
// layer never reports a stale one.
//
// The other direction: a failed call into another object becomes a
// valmetra::Error with the callee's number, description and source, so the
// error passes on unchanged.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstdint>
#include <utility>

#include "frame/error.h"

namespace valmetra::com {

// 0x800A0000 | number for numbers 1..65535; a negative number is taken as
// an HRESULT and returned as it is; anything else is E_FAIL.
HRESULT hresult_of(std::int32_t number) noexcept;
// The inverse: the code of a FACILITY_CONTROL failure, else the HRESULT.
std::int32_t number_of(HRESULT hr) noexcept;

// Sets the thread's error information and returns the failure HRESULT.
HRESULT report(const valmetra::Error& error, REFIID iid) noexcept;
// Same for a failure of the hosting layer itself (E_POINTER, E_NOTIMPL...);
// `description` must be NUL-terminated; the source is the library's.
HRESULT report(HRESULT hr, const char16_t* description, REFIID iid) noexcept;

// Call only inside a catch block: translates the exception in flight.
HRESULT translate_current_exception(REFIID iid) noexcept;

// Runs `f`; S_OK, or the translated failure of whatever it threw.
template <class F>
HRESULT guarded(REFIID iid, F&& f) noexcept {
  try {
    std::forward<F>(f)();
    return S_OK;
  } catch (...) {
    return translate_current_exception(iid);
  }
}

// The error behind a failure HRESULT: number from the HRESULT, description
// and source from the thread's error information (which this takes and
// clears), or, when there is none, the standard text of the number or the
// system's message for the HRESULT with the library as source.
valmetra::Error error_from_thread(HRESULT hr);
// The error a failed call into `callee` (through interface `iid`)
// reported: as error_from_thread, but the error information is used only
// when the callee declares it through ISupportErrorInfo for `iid`.
valmetra::Error error_from_call(HRESULT hr, IUnknown* callee, REFIID iid);
// Throws that error.
[[noreturn]] void raise_call_failure(HRESULT hr, IUnknown* callee, REFIID iid);
// Throws the error of a failed platform call that sets no error information
// (CoCreateInstance, ...): the HRESULT with the system's message.
[[noreturn]] void raise_platform_failure(HRESULT hr);
// Throws when `hr` is a failure.
inline void check_call(HRESULT hr, IUnknown* callee, REFIID iid) {
  if (FAILED(hr)) raise_call_failure(hr, callee, iid);
}

}  // namespace valmetra::com

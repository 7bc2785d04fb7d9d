#include "hosting/com/error.h"

#include <new>
#include <string>

#include "hosting/com/raii.h"

namespace valmetra::com {

namespace {

// The library's source text, NUL-terminated for the error object.
constexpr char16_t kSource[] = u"KARVO_Valmetra";
static_assert(std::u16string_view(kSource) == kLibrarySource);

const wchar_t* wide(const char16_t* s) noexcept { return reinterpret_cast<const wchar_t*>(s); }

HRESULT set_error_info(HRESULT hr, const char16_t* description, const char16_t* source, REFIID iid) noexcept {
  ComPtr<ICreateErrorInfo> create;
  if (SUCCEEDED(CreateErrorInfo(create.put()))) {
    create->SetGUID(iid);
    create->SetSource(const_cast<LPOLESTR>(wide(source)));
    create->SetDescription(const_cast<LPOLESTR>(wide(description)));
    ComPtr<IErrorInfo> info;
    if (SUCCEEDED(create.query(IID_IErrorInfo, info))) SetErrorInfo(0, info.get());
  }
  return hr;
}

std::u16string system_message(HRESULT hr) {
  wchar_t* text = nullptr;
  const DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                     FORMAT_MESSAGE_IGNORE_INSERTS,
                                 nullptr, static_cast<DWORD>(hr), 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
  std::u16string r;
  if (n && text) {
    r.assign(reinterpret_cast<const char16_t*>(text), n);
    while (!r.empty() && (r.back() == u'\n' || r.back() == u'\r' || r.back() == u' ')) r.pop_back();
  }
  LocalFree(text);
  if (r.empty()) r = u"Automation error";
  return r;
}

}  // namespace

HRESULT hresult_of(std::int32_t number) noexcept {
  if (number > 0 && number <= 0xFFFF) return MAKE_HRESULT(SEVERITY_ERROR, FACILITY_CONTROL, number);
  if (number < 0) return static_cast<HRESULT>(number);
  return E_FAIL;
}

std::int32_t number_of(HRESULT hr) noexcept {
  if (HRESULT_FACILITY(hr) == FACILITY_CONTROL && HRESULT_SEVERITY(hr) == SEVERITY_ERROR)
    return HRESULT_CODE(hr);
  return static_cast<std::int32_t>(hr);
}

HRESULT report(const valmetra::Error& error, REFIID iid) noexcept {
  return set_error_info(hresult_of(error.number()), error.description().c_str(), error.source().c_str(), iid);
}

HRESULT report(HRESULT hr, const char16_t* description, REFIID iid) noexcept {
  return set_error_info(hr, description, kSource, iid);
}

HRESULT translate_current_exception(REFIID iid) noexcept {
  try {
    throw;
  } catch (const valmetra::Error& e) {
    return report(e, iid);
  } catch (const std::bad_alloc&) {
    return set_error_info(hresult_of(static_cast<std::int32_t>(ErrorNumber::OutOfMemory)), u"Out of memory",
                          kSource, iid);
  } catch (...) {
    return report(E_UNEXPECTED, u"Unexpected failure", iid);
  }
}

namespace {

// `info` is the thread's error object taken right after the failure (or
// null); it describes this failure only when `use_info`.
valmetra::Error error_from(HRESULT hr, IErrorInfo* info, bool use_info) {
  const std::int32_t number = number_of(hr);
  if (use_info && info) {
    Bstr description, source;
    info->GetDescription(description.put());
    info->GetSource(source.put());
    return valmetra::Error(number, std::u16string(description.view()), std::u16string(source.view()));
  }
  std::u16string description(valmetra::describe(number));
  if (description.empty()) description = system_message(hr);
  return valmetra::Error(number, std::move(description));
}

}  // namespace

valmetra::Error error_from_thread(HRESULT hr) {
  ComPtr<IErrorInfo> info;
  if (GetErrorInfo(0, info.put()) != S_OK) info.reset();
  return error_from(hr, info.get(), true);
}

valmetra::Error error_from_call(HRESULT hr, IUnknown* callee, REFIID iid) {
  // Take the thread's error object first (it is cleared either way, so a
  // stale one cannot linger), then ask whether the callee set it.
  ComPtr<IErrorInfo> info;
  if (GetErrorInfo(0, info.put()) != S_OK) info.reset();
  bool supported = false;
  if (callee && info) {
    ComPtr<ISupportErrorInfo> support;
    ComPtr<IUnknown> unknown(callee);
    supported = SUCCEEDED(unknown.query(IID_ISupportErrorInfo, support)) &&
                support->InterfaceSupportsErrorInfo(iid) == S_OK;
  }
  return error_from(hr, info.get(), supported);
}

void raise_call_failure(HRESULT hr, IUnknown* callee, REFIID iid) { throw error_from_call(hr, callee, iid); }

void raise_platform_failure(HRESULT hr) { throw error_from(hr, nullptr, false); }

}  // namespace valmetra::com

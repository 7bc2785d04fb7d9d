#include "support.h"

#include <map>
#include <mutex>

#include <cstdlib>
#include <cwctype>

namespace vt {

namespace {

Dll g_library;
Dll g_value_stack;

std::wstring folder_of_program() {
  wchar_t buffer[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  std::wstring path(buffer, n);
  return path.substr(0, path.find_last_of(L"\\/") + 1);
}

Dll load(const wchar_t* relative) {
  Dll d;
  std::wstring path = folder_of_program() + relative;
  for (auto& c : path)
    if (c == L'/') c = L'\\';
  d.module = LoadLibraryW(path.c_str());
  if (!d.module) return d;
  wchar_t buffer[MAX_PATH];
  d.path.assign(buffer, GetModuleFileNameW(d.module, buffer, MAX_PATH));
  d.get_class_object = reinterpret_cast<decltype(d.get_class_object)>(
      reinterpret_cast<void*>(GetProcAddress(d.module, "DllGetClassObject")));
  d.can_unload_now = reinterpret_cast<decltype(d.can_unload_now)>(
      reinterpret_cast<void*>(GetProcAddress(d.module, "DllCanUnloadNow")));
  d.register_server = reinterpret_cast<decltype(d.register_server)>(
      reinterpret_cast<void*>(GetProcAddress(d.module, "DllRegisterServer")));
  d.unregister_server = reinterpret_cast<decltype(d.unregister_server)>(
      reinterpret_cast<void*>(GetProcAddress(d.module, "DllUnregisterServer")));
  return d;
}

class Environment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_library = load(VALMETRA_DLL_FROM_TESTS);
    g_value_stack = load(VALUESTACK_DLL_FROM_TESTS);
    ASSERT_TRUE(g_library.module) << "cannot load " << VALMETRA_DLL_FROM_TESTS;
    ASSERT_TRUE(g_library.get_class_object && g_library.can_unload_now && g_library.register_server &&
                g_library.unregister_server);
    ASSERT_EQ(g_library.register_server(), S_OK);
    ASSERT_TRUE(g_value_stack.module) << "cannot load " << VALUESTACK_DLL_FROM_TESTS;
    ASSERT_TRUE(g_value_stack.register_server);
    ASSERT_EQ(g_value_stack.register_server(), S_OK);
  }
  // The registration stays: script tests that run after this program use it.
};

void clear_all(std::vector<VARIANT>& args) {
  for (auto& v : args) VariantClear(&v);
}

}  // namespace

const Dll& library() { return g_library; }
const Dll& value_stack() { return g_value_stack; }

std::size_t class_index(const wchar_t* name) {
  for (std::size_t i = 0; i < kClassCount; ++i)
    if (std::wstring(kClasses[i].name) == name) return i;
  ADD_FAILURE() << "no class " << std::string(name, name + wcslen(name));
  return 0;
}

void ApartmentTest::SetUp() { ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK); }

void ApartmentTest::TearDown() {
  CoUninitialize();
  EXPECT_EQ(library().can_unload_now(), S_OK) << "the test left an object, global instance or lock alive";
}

ComPtr<IDispatch> create(const wchar_t* class_name) {
  ComPtr<IDispatch> out;
  ComPtr<IClassFactory> factory;
  const auto& c = kClasses[class_index(class_name)];
  EXPECT_EQ(library().get_class_object(c.clsid, IID_IClassFactory, factory.put_void()), S_OK);
  if (factory) {
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IDispatch, out.put_void()), S_OK);
  }
  return out;
}

Call::~Call() {
  Bstr::adopt(exception.bstrSource).reset();
  Bstr::adopt(exception.bstrDescription).reset();
  Bstr::adopt(exception.bstrHelpFile).reset();
}

std::wstring text_of(BSTR b) { return b ? std::wstring(b, SysStringLen(b)) : std::wstring(); }
std::wstring Call::source() const { return text_of(exception.bstrSource); }
std::wstring Call::description() const { return text_of(exception.bstrDescription); }

DISPID dispid_of(IDispatch* object, const wchar_t* name) {
  DISPID id = DISPID_UNKNOWN;
  LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
  EXPECT_EQ(object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK)
      << std::string(name, name + wcslen(name));
  return id;
}

void invoke(Call& call, IDispatch* object, DISPID id, WORD flags, std::vector<VARIANT> args) {
  std::vector<VARIANT> reversed(args.rbegin(), args.rend());
  DISPID put_id = DISPID_PROPERTYPUT;
  DISPPARAMS params{reversed.empty() ? nullptr : reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
  if (flags & DISPATCH_PROPERTYPUT) {
    params.rgdispidNamedArgs = &put_id;
    params.cNamedArgs = 1;
  }
  call.hr = object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, call.result.put(), &call.exception,
                           &call.arg_error);
  clear_all(reversed);
}

void call(Call& c, IDispatch* object, const wchar_t* name, std::vector<VARIANT> args) {
  invoke(c, object, dispid_of(object, name), DISPATCH_METHOD | DISPATCH_PROPERTYGET, std::move(args));
}

HRESULT put(IDispatch* object, const wchar_t* name, VARIANT value) {
  Call c;
  invoke(c, object, dispid_of(object, name), DISPATCH_PROPERTYPUT, {value});
  return c.hr;
}

double get_number(IDispatch* object, const wchar_t* name) {
  Call c;
  call(c, object, name);
  EXPECT_EQ(c.hr, S_OK);
  Variant d;
  EXPECT_EQ(VariantChangeType(d.get(), c.result.get(), 0, VT_R8), S_OK);
  return d->dblVal;
}

namespace {

// Every block allocated through the OLE task allocator while registered,
// numbered in allocation order, with its size.
class Spy final : public IMallocSpy {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
    if (riid == IID_IUnknown || riid == IID_IMallocSpy) {
      *object = static_cast<IMallocSpy*>(this);
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  // A static object: reference counting has nothing to free.
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }

  SIZE_T STDMETHODCALLTYPE PreAlloc(SIZE_T size) override {
    std::lock_guard lock(mutex_);
    pending_size_ = size;
    return size;
  }
  void* STDMETHODCALLTYPE PostAlloc(void* actual) override {
    std::lock_guard lock(mutex_);
    if (actual) live_[actual] = Block{++serial_, pending_size_};
    return actual;
  }
  void* STDMETHODCALLTYPE PreFree(void* request, BOOL) override {
    std::lock_guard lock(mutex_);
    live_.erase(request);
    return request;
  }
  void STDMETHODCALLTYPE PostFree(BOOL) override {}
  SIZE_T STDMETHODCALLTYPE PreRealloc(void* request, SIZE_T size, void** new_request, BOOL) override {
    std::lock_guard lock(mutex_);
    if (request) live_.erase(request);
    pending_size_ = size;
    *new_request = request;
    return size;
  }
  void* STDMETHODCALLTYPE PostRealloc(void* actual, BOOL) override {
    std::lock_guard lock(mutex_);
    if (actual) live_[actual] = Block{++serial_, pending_size_};
    return actual;
  }
  void* STDMETHODCALLTYPE PreGetSize(void* request, BOOL) override { return request; }
  SIZE_T STDMETHODCALLTYPE PostGetSize(SIZE_T size, BOOL) override { return size; }
  void* STDMETHODCALLTYPE PreDidAlloc(void* request, BOOL) override { return request; }
  int STDMETHODCALLTYPE PostDidAlloc(void*, BOOL, int result) override { return result; }
  void STDMETHODCALLTYPE PreHeapMinimize() override {}
  void STDMETHODCALLTYPE PostHeapMinimize() override {}

  unsigned long long serial() {
    std::lock_guard lock(mutex_);
    return serial_;
  }
  // Blocks allocated after `serial` and still alive.
  std::map<unsigned long long, SIZE_T> since(unsigned long long serial) {
    std::lock_guard lock(mutex_);
    std::map<unsigned long long, SIZE_T> out;
    for (const auto& [pointer, block] : live_)
      if (block.serial > serial) out[block.serial] = block.size;
    return out;
  }

 private:
  struct Block {
    unsigned long long serial;
    SIZE_T size;
  };
  std::mutex mutex_;
  std::map<void*, Block> live_;
  unsigned long long serial_ = 0;
  SIZE_T pending_size_ = 0;
};

Spy& spy() {
  static Spy* instance = [] {
    // Without the cache a freed string goes back to the allocator at once.
    auto no_cache = reinterpret_cast<void(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), "SetOaNoCache")));
    if (no_cache) no_cache();
    auto* s = new Spy;
    EXPECT_EQ(CoRegisterMallocSpy(s), S_OK);
    return s;
  }();
  return *instance;
}

// After every test, nothing of either DLL may be left alive.
class AliveChecker final : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo&) override {
    if (!library().can_unload_now) return;  // the environment failed; reported there
    EXPECT_EQ(library().can_unload_now(), S_OK) << "the test left an object, global instance or lock alive";
    if (value_stack().can_unload_now) {
      EXPECT_EQ(value_stack().can_unload_now(), S_OK) << "the test left a value history component alive";
    }
  }
};

[[maybe_unused]] const bool kAliveCheckerInstalled = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new AliveChecker);
  return true;
}();

}  // namespace

MemoryLeaks::MemoryLeaks() : start_(spy().serial()) {}

std::size_t MemoryLeaks::count() const {
  SetErrorInfo(0, nullptr);
  return spy().since(start_).size();
}

std::string MemoryLeaks::describe() const {
  SetErrorInfo(0, nullptr);
  std::string out;
  int shown = 0;
  for (const auto& [serial, size] : spy().since(start_)) {
    if (++shown > 8) break;
    out += " #" + std::to_string(serial) + ":" + std::to_string(size) + "B";
  }
  return out;
}

bool nothing_alive() {
  return library().can_unload_now() == S_OK &&
         (!value_stack().can_unload_now || value_stack().can_unload_now() == S_OK);
}

}  // namespace vt

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new vt::Environment);
  return RUN_ALL_TESTS();
}

#include "support.h"

#include <map>
#include <mutex>

#include "valuestack.h"

namespace vt {

namespace {

Dll g_library, g_value_stack;

// The DLL registered as the class's in-process server.
void load(Dll& d, REFCLSID clsid) {
  wchar_t id[40], buffer[MAX_PATH];
  DWORD size = sizeof buffer;
  StringFromGUID2(clsid, id, 40);
  ASSERT_EQ(RegGetValueW(HKEY_CLASSES_ROOT, (L"CLSID\\" + std::wstring(id) + L"\\InprocServer32").c_str(), nullptr,
                         RRF_RT_REG_SZ, nullptr, buffer, &size), ERROR_SUCCESS) << "not registered: " << narrow(id);
  const HMODULE module = LoadLibraryW(buffer);
  ASSERT_TRUE(module) << "cannot load " << narrow(buffer);
  d.path.assign(buffer, GetModuleFileNameW(module, buffer, MAX_PATH));
  auto entry = [&](const char* name) { return reinterpret_cast<void*>(GetProcAddress(module, name)); };
  d.get_class_object = reinterpret_cast<decltype(d.get_class_object)>(entry("DllGetClassObject"));
  d.can_unload_now = reinterpret_cast<decltype(d.can_unload_now)>(entry("DllCanUnloadNow"));
  ASSERT_TRUE(d.get_class_object && d.can_unload_now);
}

struct Environment : ::testing::Environment {
  void SetUp() override { load(g_library, kClasses[0].clsid), load(g_value_stack, CLSID_ValueStack); }
};

}  // namespace

const Dll& library() { return g_library; }
const Dll& value_stack() { return g_value_stack; }

std::size_t class_index(const wchar_t* name) {
  for (std::size_t i = 0; i < kClassCount; ++i)
    if (std::wstring(kClasses[i].name) == name) return i;
  ADD_FAILURE() << "no class " << narrow(name);
  return 0;
}

Call::~Call() {
  SysFreeString(exception.bstrSource);
  SysFreeString(exception.bstrDescription);
  SysFreeString(exception.bstrHelpFile);
}

DISPID dispid_of(IDispatch* object, const wchar_t* name) {
  DISPID id = DISPID_UNKNOWN;
  LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
  EXPECT_EQ(object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK) << narrow(name);
  return id;
}

void invoke(Call& call, IDispatch* object, DISPID id, WORD flags, std::vector<VARIANT> args, bool keep) {
  std::vector<VARIANT> reversed(args.rbegin(), args.rend());
  DISPID put_id = DISPID_PROPERTYPUT;
  const UINT named = flags & DISPATCH_PROPERTYPUT ? 1 : 0;
  DISPPARAMS params{reversed.empty() ? nullptr : reversed.data(), named ? &put_id : nullptr,
                    static_cast<UINT>(reversed.size()), named};
  call.hr = object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, call.result.put(), &call.exception,
                           &call.arg_error);
  if (!keep)
    for (auto& v : reversed) VariantClear(&v);
}

void call(Call& c, IDispatch* object, const wchar_t* name, std::vector<VARIANT> args) {
  invoke(c, object, dispid_of(object, name), DISPATCH_METHOD | DISPATCH_PROPERTYGET, std::move(args));
}

namespace {

// Every block of the OLE task allocator while registered, by address: its
// serial number (allocation order) and size.
class Spy final : public IMallocSpy {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
    *object = riid == IID_IUnknown || riid == IID_IMallocSpy ? this : nullptr;
    return *object ? S_OK : E_NOINTERFACE;
  }
  // A static object: reference counting has nothing to free.
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  SIZE_T STDMETHODCALLTYPE PreAlloc(SIZE_T size) override {
    std::lock_guard lock(mutex_);
    return pending_ = size;
  }
  void* STDMETHODCALLTYPE PostAlloc(void* actual) override { return note(actual); }
  void* STDMETHODCALLTYPE PreFree(void* request, BOOL) override { return forget(request); }
  void STDMETHODCALLTYPE PostFree(BOOL) override {}
  SIZE_T STDMETHODCALLTYPE PreRealloc(void* request, SIZE_T size, void** new_request, BOOL) override {
    *new_request = forget(request);
    std::lock_guard lock(mutex_);
    return pending_ = size;
  }
  void* STDMETHODCALLTYPE PostRealloc(void* actual, BOOL) override { return note(actual); }
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
  std::string since(unsigned long long serial) {
    std::lock_guard lock(mutex_);
    std::string out;
    for (const auto& [pointer, block] : live_)
      if (block.first > serial) out += " #" + std::to_string(block.first) + ":" + std::to_string(block.second);
    return out;
  }

 private:
  void* note(void* actual) {
    std::lock_guard lock(mutex_);
    if (actual) live_[actual] = {++serial_, pending_};
    return actual;
  }
  void* forget(void* request) {
    std::lock_guard lock(mutex_);
    live_.erase(request);
    return request;
  }
  std::mutex mutex_;
  std::map<void*, std::pair<unsigned long long, SIZE_T>> live_;
  unsigned long long serial_ = 0;
  SIZE_T pending_ = 0;
};

Spy& spy() {
  static Spy* instance = [] {
    auto no_cache = reinterpret_cast<void(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"oleaut32.dll"), "SetOaNoCache")));
    if (no_cache) no_cache();
    auto* s = new Spy;
    EXPECT_EQ(CoRegisterMallocSpy(s), S_OK);
    return s;
  }();
  return *instance;
}

class AliveChecker final : public ::testing::EmptyTestEventListener {
  void OnTestEnd(const ::testing::TestInfo&) override {
    if (library().can_unload_now && value_stack().can_unload_now) {  // else the environment failed
      EXPECT_TRUE(nothing_alive()) << "the test left an object, global instance or lock alive";
    }
  }
};

}  // namespace

MemoryLeaks::MemoryLeaks() : start(spy().serial()) {}

std::string MemoryLeaks::unfreed() const {
  SetErrorInfo(0, nullptr);
  return spy().since(start);
}

}  // namespace vt

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new vt::Environment);
  ::testing::UnitTest::GetInstance()->listeners().Append(new vt::AliveChecker);
  return RUN_ALL_TESTS();
}

#include "leaks.h"

#include <ole2.h>
#include <oleauto.h>

#include <map>
#include <mutex>

#include "support.h"

namespace vt {

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

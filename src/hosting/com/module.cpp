#include "hosting/com/module.h"

#include <atomic>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace valmetra::com::module {

namespace {
std::atomic<long> g_count{0};
std::atomic<long> g_locks{0};
}  // namespace

void add_object() noexcept { g_count.fetch_add(1, std::memory_order_acq_rel); }
void remove_object() noexcept { g_count.fetch_sub(1, std::memory_order_acq_rel); }

void lock() noexcept {
  g_locks.fetch_add(1, std::memory_order_acq_rel);
  g_count.fetch_add(1, std::memory_order_acq_rel);
}

bool unlock() noexcept {
  long locks = g_locks.load(std::memory_order_acquire);
  do {
    if (locks <= 0) return false;
  } while (!g_locks.compare_exchange_weak(locks, locks - 1, std::memory_order_acq_rel));
  g_count.fetch_sub(1, std::memory_order_acq_rel);
  return true;
}

bool can_unload() noexcept { return g_count.load(std::memory_order_acquire) == 0; }
long count() noexcept { return g_count.load(std::memory_order_acquire); }

HMODULE handle() noexcept { return reinterpret_cast<HMODULE>(&__ImageBase); }

std::wstring path() {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD n = GetModuleFileNameW(handle(), buffer.data(), static_cast<DWORD>(buffer.size()));
    if (n == 0) return {};
    if (n < buffer.size()) {
      buffer.resize(n);
      return buffer;
    }
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace valmetra::com::module

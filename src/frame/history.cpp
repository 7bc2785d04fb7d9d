#include "frame/history.h"

#include <atomic>
#include <utility>

namespace valmetra {

namespace {
std::unique_ptr<ValueHistory> make_in_process() { return std::make_unique<InProcessHistory>(); }

std::atomic<HistoryFactory> g_factory{&make_in_process};
#ifdef _WIN32
// In the Windows DLLs (static mingw runtime) a thread_local with a destructor
// makes the runtime run per-thread exit handlers that crash in its thread
// cleanup for threads the DLL did not create, and the process then hangs at
// exit. There the slot is a plain pointer; the hosting layer ends each
// apartment's history with release_thread_history().
thread_local ValueHistory* t_history = nullptr;
ValueHistory* adopt(std::unique_ptr<ValueHistory> h) noexcept { return h.release(); }
void drop_thread_history() noexcept { delete std::exchange(t_history, nullptr); }
#else
thread_local std::unique_ptr<ValueHistory> t_history;
std::unique_ptr<ValueHistory> adopt(std::unique_ptr<ValueHistory> h) noexcept { return h; }
void drop_thread_history() noexcept { t_history.reset(); }
#endif

template <class T>
T pop(std::vector<T>& v, std::u16string_view name) {
  if (v.empty()) raise_history_empty(name);
  T r = v.back();
  v.pop_back();
  return r;
}
template <class T>
void drop(std::vector<T>& v, std::u16string_view name) {
  if (v.empty()) raise_history_empty(name);
  v.pop_back();
}
template <class T>
void push_and_set(std::vector<T>& v, T& target, T set_to) {
  v.push_back(target);
  target = set_to;
}
}  // namespace

void raise_history_empty(std::u16string_view type_name) {
  std::u16string text = u"The value history holds no ";
  text += type_name;
  throw Error(kHistoryEmptyNumber, std::move(text), std::u16string(kHistorySource));
}

ValueHistory& history() {
  if (!t_history) t_history = adopt(g_factory.load(std::memory_order_acquire)());
  return *t_history;
}

void set_history_factory(HistoryFactory factory) noexcept {
  g_factory.store(factory ? factory : &make_in_process, std::memory_order_release);
}

void release_thread_history() noexcept { drop_thread_history(); }

Flag InProcessHistory::PopBoolean() { return pop(booleans_, u"Boolean"); }
void InProcessHistory::PushBoolean(Flag& value) { booleans_.push_back(value); }
void InProcessHistory::PushAndSetBoolean(Flag& t, Flag s) { push_and_set(booleans_, t, s); }
void InProcessHistory::DropDouble() { drop(doubles_, u"Double"); }
Double InProcessHistory::PopDouble() { return pop(doubles_, u"Double"); }
void InProcessHistory::PushDouble(Double& value) { doubles_.push_back(value); }
void InProcessHistory::PushAndSetDouble(Double& t, Double s) { push_and_set(doubles_, t, s); }
void InProcessHistory::DropInteger() { drop(integers_, u"Integer"); }
Integer InProcessHistory::PopInteger() { return pop(integers_, u"Integer"); }
void InProcessHistory::PushInteger(Integer& value) { integers_.push_back(value); }
void InProcessHistory::PushAndSetInteger(Integer& t, Integer s) { push_and_set(integers_, t, s); }
void InProcessHistory::DropLong() { drop(longs_, u"Long"); }
Long InProcessHistory::PopLong() { return pop(longs_, u"Long"); }
void InProcessHistory::PushLong(Long& value) { longs_.push_back(value); }
void InProcessHistory::PushAndSetLong(Long& t, Long s) { push_and_set(longs_, t, s); }
void InProcessHistory::DropSingle() { drop(singles_, u"Single"); }
Single InProcessHistory::PopSingle() { return pop(singles_, u"Single"); }
void InProcessHistory::PushSingle(Single& value) { singles_.push_back(value); }
void InProcessHistory::PushAndSetSingle(Single& t, Single s) { push_and_set(singles_, t, s); }

void InProcessHistory::clear() noexcept {
  booleans_.clear();
  doubles_.clear();
  integers_.clear();
  longs_.clear();
  singles_.clear();
}

}  // namespace valmetra

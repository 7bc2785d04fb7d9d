// The value history service as the value classes see it.
//
// One service object per thread (apartment), created on first use through
// the installed factory and shared by every value object of that thread, so
// a Pop on one IntegerData receives what a Push on another pushed. A failure
// of the service is thrown as the service's own Error and passes on
// unchanged; a failed Pop changes nothing.
//
// Natively the factory makes an InProcessHistory; the Windows library
// installs one that calls the ValueStack component of the apartment.
#pragma once

#include <memory>
#include <vector>

#include "frame/arith.h"

namespace valmetra {

class ValueHistory {
 public:
  virtual ~ValueHistory() = default;

  virtual Flag PopBoolean() = 0;
  virtual void PushBoolean(Flag& value) = 0;
  virtual void PushAndSetBoolean(Flag& target, Flag set_to) = 0;

  virtual void DropDouble() = 0;
  virtual Double PopDouble() = 0;
  virtual void PushDouble(Double& value) = 0;
  virtual void PushAndSetDouble(Double& target, Double set_to) = 0;

  virtual void DropInteger() = 0;
  virtual Integer PopInteger() = 0;
  virtual void PushInteger(Integer& value) = 0;
  virtual void PushAndSetInteger(Integer& target, Integer set_to) = 0;

  virtual void DropLong() = 0;
  virtual Long PopLong() = 0;
  virtual void PushLong(Long& value) = 0;
  virtual void PushAndSetLong(Long& target, Long set_to) = 0;

  virtual void DropSingle() = 0;
  virtual Single PopSingle() = 0;
  virtual void PushSingle(Single& value) = 0;
  virtual void PushAndSetSingle(Single& target, Single set_to) = 0;
};

using HistoryFactory = std::unique_ptr<ValueHistory> (*)();

// The calling thread's service, created by the factory on first use.
ValueHistory& history();
// Replaces the factory (process-wide; set once at load). nullptr restores
// the in-process default.
void set_history_factory(HistoryFactory factory) noexcept;
// Ends the calling thread's service (apartment end). The next history call
// of the thread creates a new one.
void release_thread_history() noexcept;

// Error number and source of the service's own errors: Pop or Drop on an
// empty history ("The value history holds no Integer", ...).
inline constexpr std::int32_t kHistoryEmptyNumber = 5;
inline constexpr std::u16string_view kHistorySource = u"ValueStack";

// One history per type, unbounded but for memory.
class InProcessHistory final : public ValueHistory {
 public:
  Flag PopBoolean() override;
  void PushBoolean(Flag& value) override;
  void PushAndSetBoolean(Flag& target, Flag set_to) override;
  void DropDouble() override;
  Double PopDouble() override;
  void PushDouble(Double& value) override;
  void PushAndSetDouble(Double& target, Double set_to) override;
  void DropInteger() override;
  Integer PopInteger() override;
  void PushInteger(Integer& value) override;
  void PushAndSetInteger(Integer& target, Integer set_to) override;
  void DropLong() override;
  Long PopLong() override;
  void PushLong(Long& value) override;
  void PushAndSetLong(Long& target, Long set_to) override;
  void DropSingle() override;
  Single PopSingle() override;
  void PushSingle(Single& value) override;
  void PushAndSetSingle(Single& target, Single set_to) override;

  // Number of entries of each type, for tests and the component's extras.
  std::size_t size_boolean() const noexcept { return booleans_.size(); }
  std::size_t size_double() const noexcept { return doubles_.size(); }
  std::size_t size_integer() const noexcept { return integers_.size(); }
  std::size_t size_long() const noexcept { return longs_.size(); }
  std::size_t size_single() const noexcept { return singles_.size(); }
  void clear() noexcept;

 private:
  std::vector<Flag> booleans_;
  std::vector<Double> doubles_;
  std::vector<Integer> integers_;
  std::vector<Long> longs_;
  std::vector<Single> singles_;
};

// Raises the service's "empty history" error for the named type.
[[noreturn]] void raise_history_empty(std::u16string_view type_name);

}  // namespace valmetra

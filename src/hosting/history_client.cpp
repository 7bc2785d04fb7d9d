#include "hosting/history_client.h"

#include <windows.h>
#include <initguid.h>
#include <ole2.h>

#include "hosting/apartment.h"
#include "hosting/com/error.h"
#include "hosting/com/raii.h"
#include "valuestack.h"  // widl, from components/valuestack/valuestack.idl

namespace valmetra::hosting {

namespace {

// Every call passes a failure on as the component reported it (number,
// description, source from its error information).
class ComponentHistory final : public ValueHistory {
 public:
  explicit ComponentHistory(com::ComPtr<_ValueStack> stack) noexcept : stack_(std::move(stack)) {}

  Flag PopBoolean() override {
    VARIANT_BOOL v = 0;
    check(stack_->PopBoolean(&v));
    return v;
  }
  void PushBoolean(Flag& value) override { check(stack_->PushBoolean(&value)); }
  void PushAndSetBoolean(Flag& target, Flag set_to) override {
    check(stack_->PushAndSetBoolean(&target, &set_to));
  }

  void DropDouble() override { check(stack_->DropDouble()); }
  Double PopDouble() override {
    DOUBLE v = 0;
    check(stack_->PopDouble(&v));
    return v;
  }
  void PushDouble(Double& value) override { check(stack_->PushDouble(&value)); }
  void PushAndSetDouble(Double& target, Double set_to) override { check(stack_->PushAndSetDouble(&target, &set_to)); }

  void DropInteger() override { check(stack_->DropInteger()); }
  Integer PopInteger() override {
    SHORT v = 0;
    check(stack_->PopInteger(&v));
    return v;
  }
  void PushInteger(Integer& value) override { check(stack_->PushInteger(&value)); }
  void PushAndSetInteger(Integer& target, Integer set_to) override {
    check(stack_->PushAndSetInteger(&target, &set_to));
  }

  void DropLong() override { check(stack_->DropLong()); }
  Long PopLong() override {
    LONG v = 0;
    check(stack_->PopLong(&v));
    return static_cast<Long>(v);
  }
  // LONG and Long are both 32 bits but distinct types: the value travels
  // through a LONG and comes back after the call.
  void PushLong(Long& value) override {
    LONG v = value;
    check(stack_->PushLong(&v));
  }
  void PushAndSetLong(Long& target, Long set_to) override {
    LONG t = target;
    LONG s = set_to;
    check(stack_->PushAndSetLong(&t, &s));
    target = static_cast<Long>(t);
  }

  void DropSingle() override { check(stack_->DropSingle()); }
  Single PopSingle() override {
    FLOAT v = 0;
    check(stack_->PopSingle(&v));
    return v;
  }
  void PushSingle(Single& value) override { check(stack_->PushSingle(&value)); }
  void PushAndSetSingle(Single& target, Single set_to) override { check(stack_->PushAndSetSingle(&target, &set_to)); }

 private:
  void check(HRESULT hr) const { com::check_call(hr, stack_.get(), IID__ValueStack); }

  com::ComPtr<_ValueStack> stack_;
};

}  // namespace

std::unique_ptr<ValueHistory> make_component_history() {
  HRESULT hr = enter_apartment();
  if (FAILED(hr)) com::raise_platform_failure(hr);
  com::ComPtr<_ValueStack> stack;
  hr = CoCreateInstance(CLSID_ValueStack, nullptr, CLSCTX_INPROC_SERVER, IID__ValueStack, stack.put_void());
  if (FAILED(hr)) com::raise_platform_failure(hr);
  return std::make_unique<ComponentHistory>(std::move(stack));
}

}  // namespace valmetra::hosting

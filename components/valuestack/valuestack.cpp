// ValueStack.dll: the value history component.
//
// Each ValueStack object owns one valmetra::InProcessHistory (one push-down
// history per value type). The library creates one object per apartment and
// shares it between all value objects there; a script that creates two
// objects gets two independent histories.
//
// The object is a com::Object: the shared COM runtime supplies IUnknown,
// ISupportErrorInfo, the call frame that turns a thrown valmetra::Error into
// 0x800A0000 | number plus error information (Pop on an empty history: 5,
// source "ValueStack"), and the table-driven IDispatch. The member table
// below mirrors valuestack.idl entry by entry (names, dispatch identifiers,
// parameter types); the Windows tests compare it with the embedded type
// library. Its invokers call the vtable methods, so the slot order is the
// IDL's by construction.
//
// By-name callers pass variables by reference: the receiving variable of
// Pop<T> and the target of PushAndSet<T> are written back (converted to the
// history's type), the argument of Push<T> and the set-to value never are.
#include <windows.h>
#include <initguid.h>
#include <ole2.h>
#include <olectl.h>

#include <string>

#include "frame/history.h"
#include "hosting/com/factory.h"
#include "hosting/com/object.h"
#include "hosting/com/raii.h"
#include "hosting/com/registry.h"
#include "valuestack.h"

namespace {

namespace com = valmetra::com;
using com::Arg;
using com::Kind;
using com::Member;
using com::Passing;

class ValueStackObject final : public com::Object<ValueStackObject, _ValueStack> {
 public:
  static const com::DispatchTable& dispatch_table() noexcept;

  // 0..7: Boolean history and whole-service members. There is no Boolean
  // Drop in the history interface; Pop discards just the same.
  HRESULT STDMETHODCALLTYPE DropBoolean() noexcept override {
    return frame([&] { history_.PopBoolean(); });
  }
  HRESULT STDMETHODCALLTYPE PopBoolean(VARIANT_BOOL* value) noexcept override {
    return pop(value, [&] { return history_.PopBoolean(); });
  }
  HRESULT STDMETHODCALLTYPE PushBoolean(VARIANT_BOOL* value) noexcept override {
    return push<valmetra::Flag>(value, [&](valmetra::Flag& v) { history_.PushBoolean(v); });
  }
  HRESULT STDMETHODCALLTYPE PushAndSetBoolean(VARIANT_BOOL* target, VARIANT_BOOL* set_to) noexcept override {
    return push_and_set<valmetra::Flag>(target, set_to,
                                        [&](valmetra::Flag& t, valmetra::Flag s) { history_.PushAndSetBoolean(t, s); });
  }
  HRESULT STDMETHODCALLTYPE PeekBoolean(VARIANT_BOOL* value) noexcept override {
    return peek(value, [&] { return history_.PopBoolean(); }, [&](valmetra::Flag& v) { history_.PushBoolean(v); });
  }
  HRESULT STDMETHODCALLTYPE get_BooleanCount(LONG* count) noexcept override {
    return size(count, history_.size_boolean());
  }
  HRESULT STDMETHODCALLTYPE get_Count(LONG* count) noexcept override { return size(count, total()); }
  HRESULT STDMETHODCALLTYPE Clear() noexcept override {
    history_.clear();
    return S_OK;
  }

  // 8..13: Double history
  HRESULT STDMETHODCALLTYPE DropDouble() noexcept override {
    return frame([&] { history_.DropDouble(); });
  }
  HRESULT STDMETHODCALLTYPE PopDouble(double* value) noexcept override {
    return pop(value, [&] { return history_.PopDouble(); });
  }
  HRESULT STDMETHODCALLTYPE PushDouble(double* value) noexcept override {
    return push<valmetra::Double>(value, [&](valmetra::Double& v) { history_.PushDouble(v); });
  }
  HRESULT STDMETHODCALLTYPE PeekDouble(double* value) noexcept override {
    return peek(value, [&] { return history_.PopDouble(); }, [&](valmetra::Double& v) { history_.PushDouble(v); });
  }
  HRESULT STDMETHODCALLTYPE PushAndSetDouble(double* target, double* set_to) noexcept override {
    return push_and_set<valmetra::Double>(
        target, set_to, [&](valmetra::Double& t, valmetra::Double s) { history_.PushAndSetDouble(t, s); });
  }
  HRESULT STDMETHODCALLTYPE get_DoubleCount(LONG* count) noexcept override {
    return size(count, history_.size_double());
  }

  // 14..19: Integer history
  HRESULT STDMETHODCALLTYPE DropInteger() noexcept override {
    return frame([&] { history_.DropInteger(); });
  }
  HRESULT STDMETHODCALLTYPE PopInteger(short* value) noexcept override {
    return pop(value, [&] { return history_.PopInteger(); });
  }
  HRESULT STDMETHODCALLTYPE PushInteger(short* value) noexcept override {
    return push<valmetra::Integer>(value, [&](valmetra::Integer& v) { history_.PushInteger(v); });
  }
  HRESULT STDMETHODCALLTYPE PeekInteger(short* value) noexcept override {
    return peek(value, [&] { return history_.PopInteger(); },
                [&](valmetra::Integer& v) { history_.PushInteger(v); });
  }
  HRESULT STDMETHODCALLTYPE PushAndSetInteger(short* target, short* set_to) noexcept override {
    return push_and_set<valmetra::Integer>(
        target, set_to, [&](valmetra::Integer& t, valmetra::Integer s) { history_.PushAndSetInteger(t, s); });
  }
  HRESULT STDMETHODCALLTYPE get_IntegerCount(LONG* count) noexcept override {
    return size(count, history_.size_integer());
  }

  // 20..25: Long history
  HRESULT STDMETHODCALLTYPE DropLong() noexcept override {
    return frame([&] { history_.DropLong(); });
  }
  HRESULT STDMETHODCALLTYPE PopLong(LONG* value) noexcept override {
    return pop(value, [&] { return history_.PopLong(); });
  }
  HRESULT STDMETHODCALLTYPE PushLong(LONG* value) noexcept override {
    return push<valmetra::Long>(value, [&](valmetra::Long& v) { history_.PushLong(v); });
  }
  HRESULT STDMETHODCALLTYPE PushAndSetLong(LONG* target, LONG* set_to) noexcept override {
    return push_and_set<valmetra::Long>(target, set_to,
                                        [&](valmetra::Long& t, valmetra::Long s) { history_.PushAndSetLong(t, s); });
  }
  HRESULT STDMETHODCALLTYPE PeekLong(LONG* value) noexcept override {
    return peek(value, [&] { return history_.PopLong(); }, [&](valmetra::Long& v) { history_.PushLong(v); });
  }
  HRESULT STDMETHODCALLTYPE get_LongCount(LONG* count) noexcept override {
    return size(count, history_.size_long());
  }

  // 26..29: Single extras and whole-service members
  HRESULT STDMETHODCALLTYPE PeekSingle(float* value) noexcept override {
    return peek(value, [&] { return history_.PopSingle(); }, [&](valmetra::Single& v) { history_.PushSingle(v); });
  }
  HRESULT STDMETHODCALLTYPE get_SingleCount(LONG* count) noexcept override {
    return size(count, history_.size_single());
  }
  HRESULT STDMETHODCALLTYPE get_IsEmpty(VARIANT_BOOL* empty) noexcept override {
    if (!empty) return pointer_error();
    *empty = total() == 0 ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
  }
  // "Boolean 0, Double 2, Integer 1, Long 0, Single 0"
  HRESULT STDMETHODCALLTYPE get_Summary(BSTR* text) noexcept override {
    if (!text) return pointer_error();
    *text = nullptr;
    return frame([&] {
      const std::wstring s = L"Boolean " + std::to_wstring(history_.size_boolean()) + L", Double " +
                             std::to_wstring(history_.size_double()) + L", Integer " +
                             std::to_wstring(history_.size_integer()) + L", Long " +
                             std::to_wstring(history_.size_long()) + L", Single " +
                             std::to_wstring(history_.size_single());
      *text = com::Bstr(std::wstring_view(s)).detach();
    });
  }

  // 30..33: Single history
  HRESULT STDMETHODCALLTYPE DropSingle() noexcept override {
    return frame([&] { history_.DropSingle(); });
  }
  HRESULT STDMETHODCALLTYPE PopSingle(float* value) noexcept override {
    return pop(value, [&] { return history_.PopSingle(); });
  }
  HRESULT STDMETHODCALLTYPE PushSingle(float* value) noexcept override {
    return push<valmetra::Single>(value, [&](valmetra::Single& v) { history_.PushSingle(v); });
  }
  HRESULT STDMETHODCALLTYPE PushAndSetSingle(float* target, float* set_to) noexcept override {
    return push_and_set<valmetra::Single>(
        target, set_to, [&](valmetra::Single& t, valmetra::Single s) { history_.PushAndSetSingle(t, s); });
  }

 private:
  // Pop: the receiving variable is written only when the history had a value.
  template <class T, class Pop>
  HRESULT pop(T* value, Pop&& op) noexcept {
    if (!value) return pointer_error();
    return frame([&] { *value = static_cast<T>(op()); });
  }
  // Push records a copy of the caller's variable, which is never written.
  template <class Core, class T, class Push>
  HRESULT push(T* value, Push&& op) noexcept {
    if (!value) return pointer_error();
    return frame([&] {
      Core copy = static_cast<Core>(*value);
      op(copy);
    });
  }
  // PushAndSet records the target's value, then stores the new value into
  // the target; a failure leaves the target alone.
  template <class Core, class T, class PushAndSet>
  HRESULT push_and_set(T* target, T* set_to, PushAndSet&& op) noexcept {
    if (!target || !set_to) return pointer_error();
    return frame([&] {
      Core t = static_cast<Core>(*target);
      op(t, static_cast<Core>(*set_to));
      *target = static_cast<T>(t);
    });
  }
  // Peek is Pop followed by Push of the same value: the history ends as it
  // was, and an empty history fails as Pop does.
  template <class T, class Pop, class Push>
  HRESULT peek(T* value, Pop&& pop_op, Push&& push_op) noexcept {
    if (!value) return pointer_error();
    return frame([&] {
      auto v = pop_op();
      push_op(v);
      *value = static_cast<T>(v);
    });
  }
  HRESULT size(LONG* out, std::size_t n) noexcept {
    if (!out) return pointer_error();
    *out = static_cast<LONG>(n);
    return S_OK;
  }
  std::size_t total() const noexcept {
    return history_.size_boolean() + history_.size_double() + history_.size_integer() + history_.size_long() +
           history_.size_single();
  }

  valmetra::InProcessHistory history_;
};

// ---- the member table of _ValueStack ------------------------------------------

// Dispatch identifiers: 0x60030000 + position for methods, 0x68030000 +
// position for properties (position 0 is the first entry after IDispatch).
constexpr DISPID method_id(int position) { return 0x60030000 + position; }
constexpr DISPID property_id(int position) { return 0x68030000 + position; }

_ValueStack* self(void* p) noexcept { return static_cast<_ValueStack*>(p); }

template <VARTYPE Type>
constexpr com::Param kReceive[] = {{L"Value", Type, Passing::InOut}};
template <VARTYPE Type>
constexpr com::Param kRecord[] = {{L"Value", Type, Passing::Ref}};
template <VARTYPE Type>
constexpr com::Param kTargetAndValue[] = {{L"Target", Type, Passing::InOut}, {L"SetToValue", Type, Passing::Ref}};

constexpr Member method(const wchar_t* name, int position, com::Invoker invoke) {
  return {name, method_id(position), Kind::Method, static_cast<std::uint16_t>(position + 1), 0, nullptr, VT_EMPTY,
          invoke};
}
template <VARTYPE Type>
constexpr Member receive(const wchar_t* name, int position, com::Invoker invoke) {
  return {name, method_id(position), Kind::Method, static_cast<std::uint16_t>(position + 1), 1, kReceive<Type>,
          VT_EMPTY, invoke};
}
template <VARTYPE Type>
constexpr Member record(const wchar_t* name, int position, com::Invoker invoke) {
  return {name, method_id(position), Kind::Method, static_cast<std::uint16_t>(position + 1), 1, kRecord<Type>,
          VT_EMPTY, invoke};
}
template <VARTYPE Type>
constexpr Member record_and_set(const wchar_t* name, int position, com::Invoker invoke) {
  return {name, method_id(position), Kind::Method, static_cast<std::uint16_t>(position + 1), 2,
          kTargetAndValue<Type>, VT_EMPTY, invoke};
}
constexpr Member peek(const wchar_t* name, int position, VARTYPE result, com::Invoker invoke) {
  return {name, method_id(position), Kind::Method, static_cast<std::uint16_t>(position + 1), 0, nullptr, result,
          invoke};
}
constexpr Member property(const wchar_t* name, int position, VARTYPE result, com::Invoker invoke) {
  return {name, property_id(position), Kind::Get, static_cast<std::uint16_t>(position + 1), 0, nullptr, result,
          invoke};
}

constexpr Member kMembers[] = {
    method(L"DropBoolean", 0, [](void* s, Arg*, Arg*) { return self(s)->DropBoolean(); }),
    receive<VT_BOOL>(L"PopBoolean", 1, [](void* s, Arg* a, Arg*) { return self(s)->PopBoolean(&a[0].b); }),
    record<VT_BOOL>(L"PushBoolean", 2, [](void* s, Arg* a, Arg*) { return self(s)->PushBoolean(&a[0].b); }),
    record_and_set<VT_BOOL>(L"PushAndSetBoolean", 3,
                            [](void* s, Arg* a, Arg*) { return self(s)->PushAndSetBoolean(&a[0].b, &a[1].b); }),
    peek(L"PeekBoolean", 4, VT_BOOL, [](void* s, Arg*, Arg* r) { return self(s)->PeekBoolean(&r->b); }),
    property(L"BooleanCount", 5, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->get_BooleanCount(&r->i4); }),
    property(L"Count", 6, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->get_Count(&r->i4); }),
    method(L"Clear", 7, [](void* s, Arg*, Arg*) { return self(s)->Clear(); }),

    method(L"DropDouble", 8, [](void* s, Arg*, Arg*) { return self(s)->DropDouble(); }),
    receive<VT_R8>(L"PopDouble", 9, [](void* s, Arg* a, Arg*) { return self(s)->PopDouble(&a[0].r8); }),
    record<VT_R8>(L"PushDouble", 10, [](void* s, Arg* a, Arg*) { return self(s)->PushDouble(&a[0].r8); }),
    peek(L"PeekDouble", 11, VT_R8, [](void* s, Arg*, Arg* r) { return self(s)->PeekDouble(&r->r8); }),
    record_and_set<VT_R8>(L"PushAndSetDouble", 12,
                          [](void* s, Arg* a, Arg*) { return self(s)->PushAndSetDouble(&a[0].r8, &a[1].r8); }),
    property(L"DoubleCount", 13, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->get_DoubleCount(&r->i4); }),

    method(L"DropInteger", 14, [](void* s, Arg*, Arg*) { return self(s)->DropInteger(); }),
    receive<VT_I2>(L"PopInteger", 15, [](void* s, Arg* a, Arg*) { return self(s)->PopInteger(&a[0].i2); }),
    record<VT_I2>(L"PushInteger", 16, [](void* s, Arg* a, Arg*) { return self(s)->PushInteger(&a[0].i2); }),
    peek(L"PeekInteger", 17, VT_I2, [](void* s, Arg*, Arg* r) { return self(s)->PeekInteger(&r->i2); }),
    record_and_set<VT_I2>(L"PushAndSetInteger", 18,
                          [](void* s, Arg* a, Arg*) { return self(s)->PushAndSetInteger(&a[0].i2, &a[1].i2); }),
    property(L"IntegerCount", 19, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->get_IntegerCount(&r->i4); }),

    method(L"DropLong", 20, [](void* s, Arg*, Arg*) { return self(s)->DropLong(); }),
    receive<VT_I4>(L"PopLong", 21, [](void* s, Arg* a, Arg*) { return self(s)->PopLong(&a[0].i4); }),
    record<VT_I4>(L"PushLong", 22, [](void* s, Arg* a, Arg*) { return self(s)->PushLong(&a[0].i4); }),
    record_and_set<VT_I4>(L"PushAndSetLong", 23,
                          [](void* s, Arg* a, Arg*) { return self(s)->PushAndSetLong(&a[0].i4, &a[1].i4); }),
    peek(L"PeekLong", 24, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->PeekLong(&r->i4); }),
    property(L"LongCount", 25, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->get_LongCount(&r->i4); }),

    peek(L"PeekSingle", 26, VT_R4, [](void* s, Arg*, Arg* r) { return self(s)->PeekSingle(&r->r4); }),
    property(L"SingleCount", 27, VT_I4, [](void* s, Arg*, Arg* r) { return self(s)->get_SingleCount(&r->i4); }),
    property(L"IsEmpty", 28, VT_BOOL, [](void* s, Arg*, Arg* r) { return self(s)->get_IsEmpty(&r->b); }),
    property(L"Summary", 29, VT_BSTR, [](void* s, Arg*, Arg* r) { return self(s)->get_Summary(&r->bstr); }),

    method(L"DropSingle", 30, [](void* s, Arg*, Arg*) { return self(s)->DropSingle(); }),
    receive<VT_R4>(L"PopSingle", 31, [](void* s, Arg* a, Arg*) { return self(s)->PopSingle(&a[0].r4); }),
    record<VT_R4>(L"PushSingle", 32, [](void* s, Arg* a, Arg*) { return self(s)->PushSingle(&a[0].r4); }),
    record_and_set<VT_R4>(L"PushAndSetSingle", 33,
                          [](void* s, Arg* a, Arg*) { return self(s)->PushAndSetSingle(&a[0].r4, &a[1].r4); }),
};

constexpr auto kTable = com::make_dispatch_table(kMembers);

const com::DispatchTable& ValueStackObject::dispatch_table() noexcept {
  static const com::DispatchTable table = kTable.view(IID__ValueStack);
  return table;
}

// ---- registration ---------------------------------------------------------------

constexpr com::RegisteredClass kClasses[] = {{CLSID_ValueStack, L"ValueStack", L"ValueStack.ValueStack"}};
constexpr com::RegisteredInterface kInterfaces[] = {{IID__ValueStack, L"_ValueStack"}};

com::ServerRegistration registration() noexcept {
  return {LIBID_ValueStack, 1, 0, L"ValueStack: per-apartment value history", kClasses, kInterfaces};
}

HRESULT create_value_stack(REFIID riid, void** object) noexcept {
  return com::create<ValueStackObject>(riid, object);
}

}  // namespace

// ---- entry points -------------------------------------------------------------------

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (clsid != CLSID_ValueStack) return CLASS_E_CLASSNOTAVAILABLE;
  return com::ClassFactory::make(&create_value_stack, riid, object);
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow() { return com::module::can_unload() ? S_OK : S_FALSE; }

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer() { return com::register_server(registration()); }

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer() { return com::unregister_server(registration()); }

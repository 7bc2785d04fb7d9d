// Calls by name and dispatch identifier (IDispatch) against calls through
// the vtable, argument handling, the value member and how failures reach
// the caller.
#include "support.h"

#include <cstdint>
#include <cstring>

namespace vt {
namespace {

using Dispatch = ApartmentTest;

// ------------------------------------------------------------ names

TEST_F(Dispatch, EveryNameResolvesInAnyCaseToItsIdentifier) {
  for (std::size_t i = 0; i < kClassCount; ++i) {
    ComPtr<IDispatch> object = create(kClasses[i].name);
    ASSERT_TRUE(object);
    const auto& table = *kClasses[i].table;
    for (unsigned k = 0; k < table.count; ++k) {
      const auto& m = table.members[k];
      std::wstring upper(m.name), lower(m.name);
      for (auto& ch : upper) ch = static_cast<wchar_t>(towupper(ch));
      for (auto& ch : lower) ch = static_cast<wchar_t>(towlower(ch));
      for (const std::wstring& name : {std::wstring(m.name), upper, lower}) {
        LPOLESTR names[] = {const_cast<LPOLESTR>(name.c_str())};
        DISPID id = 12345;
        ASSERT_EQ(object->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id), S_OK);
        EXPECT_EQ(id, m.dispid) << std::string(name.begin(), name.end());
      }
    }
  }
}

TEST_F(Dispatch, UnknownNamesAndParameterNames) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  struct Row {
    std::vector<const wchar_t*> names;
    HRESULT hr;
    std::vector<DISPID> ids;
  };
  const DISPID add = kClasses[class_index(L"IntegerData")].table->members[0].dispid;
  const Row rows[] = {
      {{L"NoSuchMember"}, DISP_E_UNKNOWNNAME, {DISPID_UNKNOWN}},
      {{L"Ad"}, DISP_E_UNKNOWNNAME, {DISPID_UNKNOWN}},
      {{L"Add2"}, DISP_E_UNKNOWNNAME, {DISPID_UNKNOWN}},
      {{L""}, DISP_E_UNKNOWNNAME, {DISPID_UNKNOWN}},
      {{L"NoSuchMember", L"ThisValue"}, DISP_E_UNKNOWNNAME, {DISPID_UNKNOWN, DISPID_UNKNOWN}},
      {{L"add", L"thisvalue"}, S_OK, {add, 0}},
      {{L"Add", L"Other"}, DISP_E_UNKNOWNNAME, {add, DISPID_UNKNOWN}},
      {{L"SetTheLimits", L"UpperLimitValue", L"LowerLimitValue"},
       S_OK,
       {dispid_of(object.get(), L"SetTheLimits"), 1, 0}},
      // The put's parameter, under the property's name.
      {{L"Value", L"DataValue"}, S_OK, {dispid_of(object.get(), L"Value"), 0}},
  };
  for (const auto& r : rows) {
    std::vector<DISPID> ids(r.names.size(), 777);
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, const_cast<LPOLESTR*>(r.names.data()),
                                    static_cast<UINT>(r.names.size()), 0, ids.data()),
              r.hr);
    EXPECT_EQ(ids, r.ids);
  }
  LPOLESTR name[] = {const_cast<LPOLESTR>(L"Add")};
  DISPID id;
  EXPECT_EQ(object->GetIDsOfNames(IID_IDispatch, name, 1, 0, &id), DISP_E_UNKNOWNINTERFACE);
}

// ------------------------------------------------------------ by name and by slot

TEST_F(Dispatch, AddByNameAndThroughSlotOneReachTheSameOperation) {
  ComPtr<_IntegerData> object = create_as<_IntegerData>(L"IntegerData");
  ASSERT_TRUE(object);
  ASSERT_EQ(object->put_Value(5), S_OK);

  // Slot 1 of _IntegerData: the first entry after the 7 IDispatch slots.
  using AddFn = HRESULT(STDMETHODCALLTYPE*)(_IntegerData*, SHORT*);
  void** vtable = *reinterpret_cast<void***>(object.get());
  SHORT seven = 7;
  ASSERT_EQ(reinterpret_cast<AddFn>(vtable[7])(object.get(), &seven), S_OK);
  SHORT value = 0;
  ASSERT_EQ(object->get_Value(&value), S_OK);
  EXPECT_EQ(value, 12);

  Call c;
  call(c, object.get(), L"Add", {v_i2(30)});
  ASSERT_EQ(c.hr, S_OK);
  EXPECT_EQ(c.result->vt, VT_EMPTY);
  ASSERT_EQ(object->get_Value(&value), S_OK);
  EXPECT_EQ(value, 42);
  // And the overflow of either path is the same failure.
  ASSERT_EQ(object->put_Value(32767), S_OK);
  SHORT one = 1;
  EXPECT_EQ(reinterpret_cast<AddFn>(vtable[7])(object.get(), &one), static_cast<HRESULT>(0x800A0006));
  Call fail;
  call(fail, object.get(), L"Add", {v_i2(1)});
  EXPECT_EQ(fail.hr, DISP_E_EXCEPTION);
  EXPECT_EQ(fail.exception.scode, static_cast<SCODE>(0x800A0006));
}

// ------------------------------------------------------------ arguments

// Add to Value 10 with the argument in every form a host may pass.
TEST_F(Dispatch, ArgumentsAreTakenOrConvertedLikeAutomationDoes) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  short i2 = 3;
  VARIANT inner_i2 = v_i2(4);
  VARIANT inner_text = v_text(L"6");
  long i4 = 9;
  struct Row {
    const char* what;
    VARIANT arg;
    double expected;
  };
  const Row rows[] = {
      {"VT_I2", v_i2(5), 15},
      {"VT_I4", v_i4(-4), 6},
      {"VT_R8 rounds half to even", v_r8(2.5), 12},
      {"VT_R8", v_r8(-3.7), 6},
      {"text", v_text(L"5"), 15},
      {"text with blanks", v_text(L" 7 "), 17},
      {"VT_BOOL true", v_bool(true), 9},
      {"VT_BYREF|VT_I2", v_ref(&i2), 13},
      {"VT_BYREF|VT_I4", v_ref(&i4), 19},
      {"VT_BYREF|VT_VARIANT holding VT_I2", v_ref(&inner_i2), 14},
      {"VT_BYREF|VT_VARIANT holding text", v_ref(&inner_text), 16},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    ASSERT_EQ(put(object.get(), L"Value", v_i2(10)), S_OK);
    Call c;
    call(c, object.get(), L"Add", {r.arg});
    EXPECT_EQ(c.hr, S_OK);
    EXPECT_EQ(get_number(object.get(), L"Value"), r.expected);
  }
  // By-reference arguments of Add are read, never written.
  EXPECT_EQ(i2, 3);
  EXPECT_EQ(inner_i2.vt, VT_I2);
  EXPECT_EQ(inner_i2.iVal, 4);
  EXPECT_EQ(inner_text.vt, VT_BSTR);
  VariantClear(&inner_text);
}

TEST_F(Dispatch, ArgumentFailuresNameTheArgument) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  const DISPID limits = dispid_of(object.get(), L"SetTheLimits");
  const DISPID add = dispid_of(object.get(), L"Add");
  VARIANT empty_text = v_text(L"");
  struct Row {
    const char* what;
    DISPID id;
    std::vector<VARIANT> args;  // natural order
    HRESULT hr;
    UINT arg_error;             // index into rgvarg (last argument is 0)
  };
  const Row rows[] = {
      {"not a number", add, {v_text(L"abc")}, DISP_E_TYPEMISMATCH, 0},
      {"out of range", add, {v_i4(40000)}, DISP_E_OVERFLOW, 0},
      {"missing", add, {v_missing()}, DISP_E_PARAMNOTOPTIONAL, 0},
      {"second of two", limits, {v_i2(1), v_text(L"x")}, DISP_E_TYPEMISMATCH, 0},
      {"first of two", limits, {v_r8(1e6), v_i2(1)}, DISP_E_OVERFLOW, 1},
      {"by reference to empty text", add, {v_ref(&empty_text)}, DISP_E_TYPEMISMATCH, 0},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    ASSERT_EQ(put(object.get(), L"Value", v_i2(10)), S_OK);
    Call c;
    invoke(c, object.get(), r.id, DISPATCH_METHOD, r.args);
    EXPECT_EQ(c.hr, r.hr);
    EXPECT_EQ(c.arg_error, r.arg_error);
    EXPECT_EQ(c.result->vt, VT_EMPTY);
    EXPECT_EQ(get_number(object.get(), L"Value"), 10);  // the operation did not run
  }
  VariantClear(&empty_text);
}

TEST_F(Dispatch, CountsKindsAndNamedArguments) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  const DISPID add = dispid_of(object.get(), L"Add");
  const DISPID value = dispid_of(object.get(), L"Value");
  const DISPID after = dispid_of(object.get(), L"ValueAfterIncrement");
  const DISPID even = dispid_of(object.get(), L"IsEven");
  Call c1, c2, c3, c4, c5, c6;
  invoke(c1, object.get(), add, DISPATCH_METHOD, {});
  EXPECT_EQ(c1.hr, DISP_E_BADPARAMCOUNT);
  invoke(c2, object.get(), add, DISPATCH_METHOD, {v_i2(1), v_i2(2)});
  EXPECT_EQ(c2.hr, DISP_E_BADPARAMCOUNT);
  invoke(c3, object.get(), after, DISPATCH_PROPERTYPUT, {v_i2(1)});  // a get without a put
  EXPECT_EQ(c3.hr, DISP_E_MEMBERNOTFOUND);
  invoke(c4, object.get(), even, DISPATCH_PROPERTYGET, {});  // a method is no property
  EXPECT_EQ(c4.hr, DISP_E_MEMBERNOTFOUND);
  invoke(c5, object.get(), 0x60031234, DISPATCH_METHOD, {});
  EXPECT_EQ(c5.hr, DISP_E_MEMBERNOTFOUND);
  invoke(c6, object.get(), value, DISPATCH_METHOD, {v_i2(1)});  // a get takes nothing
  EXPECT_EQ(c6.hr, DISP_E_BADPARAMCOUNT);

  // A get is also reachable as a method; a put also without the named argument.
  Call get;
  invoke(get, object.get(), value, DISPATCH_METHOD, {});
  EXPECT_EQ(get.hr, S_OK);
  VARIANT arg = v_i2(21);
  DISPPARAMS positional{&arg, nullptr, 1, 0};
  EXPECT_EQ(object->Invoke(value, IID_NULL, 0, DISPATCH_PROPERTYPUT, &positional, nullptr, nullptr, nullptr), S_OK);
  EXPECT_EQ(get_number(object.get(), L"Value"), 21);

  // Named arguments other than the put's value are not supported.
  DISPID named = 0;
  DISPPARAMS by_name{&arg, &named, 1, 1};
  EXPECT_EQ(object->Invoke(add, IID_NULL, 0, DISPATCH_METHOD, &by_name, nullptr, nullptr, nullptr),
            DISP_E_NONAMEDARGS);
  EXPECT_EQ(object->Invoke(value, IID_NULL, 0, DISPATCH_PROPERTYPUT, &by_name, nullptr, nullptr, nullptr),
            DISP_E_NONAMEDARGS);
  EXPECT_EQ(object->Invoke(add, IID_IDispatch, 0, DISPATCH_METHOD, &positional, nullptr, nullptr, nullptr),
            DISP_E_UNKNOWNINTERFACE);
  EXPECT_EQ(get_number(object.get(), L"Value"), 21);
}

// Swap writes the caller's variable, only when the call succeeds.
TEST_F(Dispatch, WrittenBackArgumentsReachTheCallersVariable) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  const DISPID swap = dispid_of(object.get(), L"Swap");

  ASSERT_EQ(put(object.get(), L"Value", v_i2(1)), S_OK);
  short typed = 2;
  Call a;
  invoke(a, object.get(), swap, DISPATCH_METHOD, {v_ref(&typed)});
  ASSERT_EQ(a.hr, S_OK);
  EXPECT_EQ(typed, 1);
  EXPECT_EQ(get_number(object.get(), L"Value"), 2);

  // A script's variable: a Variant passed by reference; it takes the
  // parameter's type.
  VARIANT variable = v_text(L"7");
  Call b;
  invoke(b, object.get(), swap, DISPATCH_METHOD, {v_ref(&variable)});
  ASSERT_EQ(b.hr, S_OK);
  EXPECT_EQ(variable.vt, VT_I2);
  EXPECT_EQ(variable.iVal, 2);
  EXPECT_EQ(get_number(object.get(), L"Value"), 7);

  // By value: the operation runs, nothing is written anywhere.
  Call d;
  invoke(d, object.get(), swap, DISPATCH_METHOD, {v_i2(9)});
  ASSERT_EQ(d.hr, S_OK);
  EXPECT_EQ(get_number(object.get(), L"Value"), 9);

  // A reference to another type cannot receive the value: refused before the call.
  long wrong = 5;
  Call e;
  invoke(e, object.get(), swap, DISPATCH_METHOD, {v_ref(&wrong)});
  EXPECT_EQ(e.hr, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(e.arg_error, 0u);
  EXPECT_EQ(wrong, 5);
  EXPECT_EQ(get_number(object.get(), L"Value"), 9);
}

// ------------------------------------------------------------ results

TEST_F(Dispatch, ResultsOfEveryKind) {
  ComPtr<IDispatch> integer = create(L"IntegerData");
  ASSERT_EQ(put(integer.get(), L"Value", v_i2(4)), S_OK);
  Call between;
  call(between, integer.get(), L"IsBetween", {v_i2(1), v_i2(9)});
  ASSERT_EQ(between.hr, S_OK);
  EXPECT_EQ(between.result->vt, VT_BOOL);
  EXPECT_EQ(between.result->boolVal, VARIANT_TRUE);

  Call next;
  call(next, integer.get(), L"IncrementAndGet");
  ASSERT_EQ(next.hr, S_OK);
  EXPECT_EQ(next.result->vt, VT_I2);
  EXPECT_EQ(next.result->iVal, 5);

  ComPtr<IDispatch> texts = create(L"TextConstants");
  Call text;
  call(text, texts.get(), L"cstKarvoSoftwareExit");  // a Variant result holding text
  ASSERT_EQ(text.hr, S_OK);
  ASSERT_EQ(text.result->vt, VT_BSTR);
  EXPECT_EQ(text_of(text.result->bstrVal), L"KARVO  SOFTWARE  EXIT");
  Call crlf;
  call(crlf, texts.get(), L"CR_NL");
  ASSERT_EQ(crlf.hr, S_OK);
  ASSERT_EQ(crlf.result->vt, VT_BSTR);
  EXPECT_EQ(text_of(crlf.result->bstrVal), L"\r\n");

  // Without a place for the result the call still runs (and frees it).
  DISPID id = dispid_of(texts.get(), L"CR_NL");
  DISPPARAMS none{nullptr, nullptr, 0, 0};
  EXPECT_EQ(texts->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr), S_OK);
}

// ------------------------------------------------------------ the value member

TEST_F(Dispatch, ValueMemberWhereTheClassHasOne) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  ASSERT_EQ(put(object.get(), L"Value", v_i2(17)), S_OK);
  Call read;
  invoke(read, object.get(), DISPID_VALUE, DISPATCH_PROPERTYGET, {});
  ASSERT_EQ(read.hr, S_OK);
  EXPECT_EQ(read.result->vt, VT_I2);
  EXPECT_EQ(read.result->iVal, 17);
  Call assign;
  invoke(assign, object.get(), DISPID_VALUE, DISPATCH_PROPERTYPUT, {v_i2(-3)});
  ASSERT_EQ(assign.hr, S_OK);
  EXPECT_EQ(get_number(object.get(), L"Value"), -3);

  // Classes without one, including those whose Default is an ordinary property.
  for (const wchar_t* name : {L"BooleanData", L"LongPercentData", L"TextConstants", L"SingleAverage",
                              L"InterfaceStack"}) {
    SCOPED_TRACE(std::string(name, name + wcslen(name)));
    ComPtr<IDispatch> other = create(name);
    Call as_value;
    invoke(as_value, other.get(), DISPID_VALUE, DISPATCH_PROPERTYGET | DISPATCH_METHOD, {});
    EXPECT_EQ(as_value.hr, DISP_E_MEMBERNOTFOUND);
    Call assigned;
    invoke(assigned, other.get(), DISPID_VALUE, DISPATCH_PROPERTYPUT, {v_i2(1)});
    EXPECT_EQ(assigned.hr, DISP_E_MEMBERNOTFOUND);
  }
  ComPtr<IDispatch> flag = create(L"BooleanData");
  ASSERT_EQ(put(flag.get(), L"Default", v_bool(true)), S_OK);
  EXPECT_EQ(get_number(flag.get(), L"Value"), -1);
}

// ------------------------------------------------------------ failures

TEST_F(Dispatch, OperationErrorsAsExceptionInformation) {
  ComPtr<IDispatch> object = create(L"IntegerData");
  struct Row {
    const wchar_t* member;
    VARIANT arg;
    short before;
    SCODE scode;
    const wchar_t* description;
  };
  const Row rows[] = {
      {L"Add", v_i2(1), 32767, static_cast<SCODE>(0x800A0006), L"Overflow"},
      {L"IDivide", v_i2(0), 5, static_cast<SCODE>(0x800A000B), L"Division by zero"},
      {L"Subtract", v_i2(1), -32768, static_cast<SCODE>(0x800A0006), L"Overflow"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.member, r.member + wcslen(r.member)));
    ASSERT_EQ(put(object.get(), L"Value", v_i2(r.before)), S_OK);
    Call c;
    call(c, object.get(), r.member, {r.arg});
    EXPECT_EQ(c.hr, DISP_E_EXCEPTION);
    EXPECT_EQ(c.exception.scode, r.scode);
    EXPECT_EQ(c.exception.wCode, 0);
    EXPECT_EQ(c.source(), L"KARVO_Valmetra");
    EXPECT_EQ(c.description(), r.description);
    EXPECT_EQ(c.result->vt, VT_EMPTY);
    EXPECT_EQ(get_number(object.get(), L"Value"), r.before);
  }
}

TEST_F(Dispatch, ErrorsThroughTheVtableCarryErrorInformation) {
  ComPtr<_IntegerData> object = create_as<_IntegerData>(L"IntegerData");
  const IID& iid = kClasses[class_index(L"IntegerData")].iid;
  ComPtr<ISupportErrorInfo> support;
  ASSERT_EQ(object.query(IID_ISupportErrorInfo, support), S_OK);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(iid), S_OK);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IDispatch), S_OK);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IClassFactory), S_FALSE);

  ASSERT_EQ(object->put_Value(5), S_OK);
  SHORT zero = 0;
  EXPECT_EQ(object->IDivide(&zero), static_cast<HRESULT>(0x800A000B));
  ComPtr<IErrorInfo> info;
  ASSERT_EQ(GetErrorInfo(0, info.put()), S_OK);
  Bstr description, source;
  GUID guid{};
  ASSERT_EQ(info->GetDescription(description.put()), S_OK);
  ASSERT_EQ(info->GetSource(source.put()), S_OK);
  ASSERT_EQ(info->GetGUID(&guid), S_OK);
  EXPECT_EQ(text_of(description.get()), L"Division by zero");
  EXPECT_EQ(text_of(source.get()), L"KARVO_Valmetra");
  EXPECT_TRUE(guid == iid);

  // A null pointer is refused with its own status and error information.
  EXPECT_EQ(object->Add(nullptr), E_POINTER);
  ASSERT_EQ(GetErrorInfo(0, info.put()), S_OK);
  ASSERT_EQ(info->GetGUID(&guid), S_OK);
  EXPECT_TRUE(guid == iid);
  SHORT value = 0;
  ASSERT_EQ(object->get_Value(&value), S_OK);
  EXPECT_EQ(value, 5);
}

// A text result is empty until the operation succeeds: the 32,768th item
// overflows the count of GiveMeYourNumbers.
TEST_F(Dispatch, FailedCallLeavesTextResultEmpty) {
  ComPtr<_IntegerAverage> average = create_as<_IntegerAverage>(L"IntegerAverage");
  ASSERT_TRUE(average);
  SHORT item = 1;
  for (int i = 0; i < 32768; ++i) ASSERT_EQ(average->AddAPieceOfData(&item), S_OK);
  BSTR text = reinterpret_cast<BSTR>(static_cast<std::uintptr_t>(1));  // whatever the caller had there
  EXPECT_EQ(average->get_GiveMeYourNumbers(&text), static_cast<HRESULT>(0x800A0006));
  EXPECT_EQ(text, nullptr);

  Call c;
  call(c, average.get(), L"GiveMeYourNumbers");
  EXPECT_EQ(c.hr, DISP_E_EXCEPTION);
  EXPECT_EQ(c.exception.scode, static_cast<SCODE>(0x800A0006));
  EXPECT_EQ(c.result->vt, VT_EMPTY);
}

}  // namespace
}  // namespace vt

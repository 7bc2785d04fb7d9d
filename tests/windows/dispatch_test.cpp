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

// Swap writes the caller's typed variable; a reference to another type is
// refused before the call. (A script's Variant variable: classes.vbs.)
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

  // A reference to another type cannot receive the value: refused before the call.
  long wrong = 5;
  Call e;
  invoke(e, object.get(), swap, DISPATCH_METHOD, {v_ref(&wrong)});
  EXPECT_EQ(e.hr, DISP_E_TYPEMISMATCH);
  EXPECT_EQ(e.arg_error, 0u);
  EXPECT_EQ(wrong, 5);
  EXPECT_EQ(get_number(object.get(), L"Value"), 2);
}

// ------------------------------------------------------------ failures

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

// Creating the classes: by class identifier through the library's factory,
// through the platform by class and programmatic identifier, and what a
// factory answers.
#include "support.h"

namespace vt {
namespace {

using Creation = ApartmentTest;

TEST_F(Creation, EveryClassByItsClassIdentifier) {
  for (std::size_t i = 0; i < kClassCount; ++i) {
    const auto& c = kClasses[i];
    SCOPED_TRACE(std::string(c.name, c.name + wcslen(c.name)));
    ComPtr<IClassFactory> factory;
    ASSERT_EQ(library().get_class_object(c.clsid, IID_IClassFactory, factory.put_void()), S_OK);
    ComPtr<IUnknown> object;
    ASSERT_EQ(factory->CreateInstance(nullptr, c.iid, object.put_void()), S_OK);
    // One identity whichever interface is asked for.
    ComPtr<IUnknown> unknown;
    ComPtr<IDispatch> dispatch;
    ComPtr<IUnknown> own;
    ASSERT_EQ(object.query(IID_IUnknown, unknown), S_OK);
    ASSERT_EQ(object.query(IID_IDispatch, dispatch), S_OK);
    ASSERT_EQ(dispatch.query(c.iid, own), S_OK);
    ComPtr<IUnknown> again;
    ASSERT_EQ(own.query(IID_IUnknown, again), S_OK);
    EXPECT_EQ(unknown.get(), again.get());
    ComPtr<IUnknown> none;
    EXPECT_EQ(object.query(IID_IClassFactory, none), E_NOINTERFACE);
    EXPECT_FALSE(none);
    // The type information of the object is its interface's.
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(dispatch->GetTypeInfo(0, 0, info.put()), S_OK);
    TYPEATTR* attr = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attr), S_OK);
    EXPECT_TRUE(attr->guid == c.iid);
    info->ReleaseTypeAttr(attr);
    EXPECT_EQ(dispatch->GetTypeInfo(1, 0, info.put()), DISP_E_BADINDEX);
    UINT count = 0;
    EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    // Objects are not aggregatable.
    ComPtr<IUnknown> aggregated;
    EXPECT_EQ(factory->CreateInstance(unknown.get(), IID_IUnknown, aggregated.put_void()), CLASS_E_NOAGGREGATION);
    EXPECT_FALSE(aggregated);
  }
}

TEST_F(Creation, UnknownClassIdentifierIsNotAvailable) {
  const GUID unknown = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
  void* object = reinterpret_cast<void*>(static_cast<std::uintptr_t>(1));
  EXPECT_EQ(library().get_class_object(unknown, IID_IClassFactory, &object), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(object, nullptr);
  // The interface identifier of a class is no class identifier.
  EXPECT_EQ(library().get_class_object(kClasses[0].iid, IID_IClassFactory, &object), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(library().get_class_object(kClasses[0].clsid, IID_IClassFactory, nullptr), E_POINTER);
  ComPtr<IUnknown> through_platform;
  EXPECT_EQ(CoCreateInstance(unknown, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, through_platform.put_void()),
            REGDB_E_CLASSNOTREG);
}

// Through the registration: ProgID to class identifier, and the platform's
// own creation gives an object of that class.
TEST_F(Creation, EveryClassByProgrammaticIdentifier) {
  for (std::size_t i = 0; i < kClassCount; ++i) {
    const auto& c = kClasses[i];
    const std::wstring prog_id = std::wstring(L"KARVO_Valmetra.") + c.name;
    SCOPED_TRACE(std::string(prog_id.begin(), prog_id.end()));
    CLSID clsid{};
    ASSERT_EQ(CLSIDFromProgID(prog_id.c_str(), &clsid), S_OK);
    EXPECT_TRUE(clsid == c.clsid);
    ASSERT_EQ(CLSIDFromProgID((prog_id + L".1").c_str(), &clsid), S_OK);
    EXPECT_TRUE(clsid == c.clsid);
    LPOLESTR back = nullptr;
    ASSERT_EQ(ProgIDFromCLSID(c.clsid, &back), S_OK);
    EXPECT_EQ(std::wstring(back), prog_id);
    CoTaskMemFree(back);

    ComPtr<IDispatch> object;
    ASSERT_EQ(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.put_void()), S_OK);
    ComPtr<IUnknown> own;
    EXPECT_EQ(object.query(c.iid, own), S_OK);
    // The same table answers: the first entry's name gives its identifier.
    EXPECT_EQ(dispid_of(object.get(), c.table->members[0].name), c.table->members[0].dispid);
  }
}

// Creation through the platform and through the library's own factory give
// the same kind of object with fields at zero.
TEST_F(Creation, NewObjectsStartAtZero) {
  ComPtr<IDispatch> by_platform;
  ASSERT_EQ(CoCreateInstance(kClasses[class_index(L"IntegerData")].clsid, nullptr, CLSCTX_INPROC_SERVER,
                             IID_IDispatch, by_platform.put_void()),
            S_OK);
  ComPtr<IDispatch> by_factory = create(L"IntegerData");
  for (IDispatch* object : {by_platform.get(), by_factory.get()}) {
    EXPECT_EQ(get_number(object, L"Value"), 0);
    EXPECT_EQ(get_number(object, L"UpperLimit"), 0);
    ASSERT_EQ(put(object, L"Value", v_i2(8)), S_OK);
  }
  EXPECT_EQ(get_number(by_platform.get(), L"Value"), 8);  // two objects, two values
}

TEST_F(Creation, FactoryInterfaces) {
  const auto& global = kClasses[class_index(L"IntegerData")];
  const auto& creatable = kClasses[class_index(L"InterfaceStack")];
  ComPtr<IClassFactory> factory;
  ASSERT_EQ(library().get_class_object(global.clsid, IID_IUnknown, factory.put_void()), S_OK);
  ComPtr<IUnknown> extra;
  EXPECT_EQ(factory.query(valmetra::hosting::kGlobalInstanceIid, extra), S_OK);
  EXPECT_EQ(factory.query(IID_IDispatch, extra), S_OK);
  EXPECT_EQ(factory.query(global.iid, extra), E_NOINTERFACE);
  ComPtr<IUnknown> identity, from_extra;
  ASSERT_EQ(factory.query(IID_IUnknown, identity), S_OK);
  ASSERT_EQ(factory.query(IID_IDispatch, extra), S_OK);
  ASSERT_EQ(extra.query(IID_IUnknown, from_extra), S_OK);
  EXPECT_EQ(identity.get(), from_extra.get());

  // A creatable class has no global instance.
  ASSERT_EQ(library().get_class_object(creatable.clsid, IID_IClassFactory, factory.put_void()), S_OK);
  EXPECT_EQ(factory.query(valmetra::hosting::kGlobalInstanceIid, extra), E_NOINTERFACE);
  EXPECT_EQ(factory.query(IID_IDispatch, extra), E_NOINTERFACE);
}

}  // namespace
}  // namespace vt

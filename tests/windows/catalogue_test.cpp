// The catalogue compiled into the library against the type library
// embedded in it, entry by entry, and the library's identity records.
#include "support.h"

#include <winver.h>

#include "valuestack.h"

#include <cstring>
#include <set>

namespace vt {
namespace {

using valmetra::com::Kind;
using valmetra::com::Passing;

std::wstring name_of(ITypeInfo* info, MEMBERID id = MEMBERID_NIL) {
  Bstr name;
  EXPECT_EQ(info->GetDocumentation(id, name.put(), nullptr, nullptr, nullptr), S_OK);
  return std::wstring(name.get() ? name.get() : L"");
}

// Every coclass, interface and member carries a help string.
void expect_help(ITypeInfo* info, MEMBERID id, const std::wstring& what) {
  Bstr help;
  EXPECT_EQ(info->GetDocumentation(id, nullptr, help.put(), nullptr, nullptr), S_OK);
  EXPECT_FALSE(text_of(help.get()).empty()) << "no help string: " << std::string(what.begin(), what.end());
}

class TypeLibrary : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(LoadTypeLibEx(library().path.c_str(), REGKIND_NONE, lib_.put()), S_OK); }
  ComPtr<ITypeLib> lib_;
};

TEST_F(TypeLibrary, IdentityOfTheLibrary) {
  TLIBATTR* attr = nullptr;
  ASSERT_EQ(lib_->GetLibAttr(&attr), S_OK);
  EXPECT_TRUE(attr->guid == kLibrary.libid);
  EXPECT_EQ(attr->wMajorVerNum, 54);
  EXPECT_EQ(attr->wMinorVerNum, 0);
  EXPECT_EQ(attr->lcid, 0x409u);
  EXPECT_EQ(attr->syskind, sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32);
  lib_->ReleaseTLibAttr(attr);
  Bstr name, doc;
  ASSERT_EQ(lib_->GetDocumentation(-1, name.put(), doc.put(), nullptr, nullptr), S_OK);
  EXPECT_EQ(text_of(name.get()), L"KARVO_Valmetra");
  EXPECT_EQ(text_of(doc.get()), L"KARVO: Valmetra (4.45) --- Version 4.0x - 02-23-2009");
  EXPECT_EQ(text_of(doc.get()), kLibrary.description);
}

// Thirteen classes in this order, each with its interface and entry count.
TEST_F(TypeLibrary, ClassesInCatalogueOrderWithTheirEntryCounts) {
  struct Expected {
    const wchar_t* name;
    unsigned entries;
    bool global;
  };
  const Expected expected[] = {
      {L"DoubleData", 25, true},        {L"IntegerData", 54, true},    {L"DoublePercentData", 7, true},
      {L"LongData", 42, true},          {L"SingleData", 35, true},     {L"SinglePercentData", 7, true},
      {L"LongPercentData", 7, true},    {L"IntegerPercent", 7, true},  {L"SingleAverage", 14, true},
      {L"InterfaceStack", 5, false},    {L"IntegerAverage", 14, true}, {L"BooleanData", 15, true},
      {L"TextConstants", 133, true},
  };
  ASSERT_EQ(kClassCount, std::size(expected));
  std::vector<std::wstring> coclasses;
  for (UINT i = 0; i < lib_->GetTypeInfoCount(); ++i) {
    TYPEKIND kind;
    ASSERT_EQ(lib_->GetTypeInfoType(i, &kind), S_OK);
    if (kind != TKIND_COCLASS) continue;
    ComPtr<ITypeInfo> info;
    ASSERT_EQ(lib_->GetTypeInfo(i, info.put()), S_OK);
    coclasses.push_back(name_of(info.get()));
  }
  ASSERT_EQ(coclasses.size(), kClassCount);
  for (std::size_t i = 0; i < kClassCount; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(coclasses[i], expected[i].name);
    EXPECT_STREQ(kClasses[i].name, expected[i].name);
    EXPECT_EQ(kClasses[i].table->count, expected[i].entries);
    EXPECT_EQ(kClasses[i].instancing == valmetra::hosting::Instancing::Global, expected[i].global);
  }
}

// Per class: the coclass and its interface as the type library describes
// them, against the catalogue table.
class ClassDescription : public TypeLibrary, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(ClassDescription, CoclassFlagsAndDefaultInterface) {
  const auto& c = kClasses[GetParam()];
  ComPtr<ITypeInfo> coclass;
  ASSERT_EQ(lib_->GetTypeInfoOfGuid(c.clsid, coclass.put()), S_OK);
  TYPEATTR* attr = nullptr;
  ASSERT_EQ(coclass->GetTypeAttr(&attr), S_OK);
  EXPECT_EQ(attr->typekind, TKIND_COCLASS);
  EXPECT_EQ(attr->cImplTypes, 1);
  const WORD app = TYPEFLAG_FAPPOBJECT | TYPEFLAG_FPREDECLID;
  if (c.instancing == valmetra::hosting::Instancing::Global)
    EXPECT_EQ(attr->wTypeFlags & (app | TYPEFLAG_FCANCREATE), app | TYPEFLAG_FCANCREATE);
  else
    EXPECT_EQ(attr->wTypeFlags & (app | TYPEFLAG_FCANCREATE), TYPEFLAG_FCANCREATE);
  coclass->ReleaseTypeAttr(attr);
  EXPECT_EQ(name_of(coclass.get()), c.name);
  expect_help(coclass.get(), MEMBERID_NIL, c.name);

  INT impl_flags = 0;
  ASSERT_EQ(coclass->GetImplTypeFlags(0, &impl_flags), S_OK);
  EXPECT_EQ(impl_flags & IMPLTYPEFLAG_FDEFAULT, IMPLTYPEFLAG_FDEFAULT);
  HREFTYPE ref = 0;
  ASSERT_EQ(coclass->GetRefTypeOfImplType(0, &ref), S_OK);
  ComPtr<ITypeInfo> iface;
  ASSERT_EQ(coclass->GetRefTypeInfo(ref, iface.put()), S_OK);
  ASSERT_EQ(iface->GetTypeAttr(&attr), S_OK);
  EXPECT_TRUE(attr->guid == c.iid);
  iface->ReleaseTypeAttr(attr);
  EXPECT_EQ(name_of(iface.get()), c.interface_name);
  expect_help(iface.get(), MEMBERID_NIL, c.interface_name);
  // The value member is the default property, where the class has one.
  const auto* value = c.table->find(DISPID_VALUE);
  EXPECT_EQ(value != nullptr, c.value_member != nullptr);
  if (value && c.value_member) {
    EXPECT_STREQ(c.table->members[value->get].name, c.value_member);
  }
}

TEST_P(ClassDescription, InterfaceEntriesMatchTheCatalogue) {
  const auto& c = kClasses[GetParam()];
  const auto& table = *c.table;
  EXPECT_TRUE(table.iid == c.iid);
  ComPtr<ITypeInfo> dispatch;
  ASSERT_EQ(lib_->GetTypeInfoOfGuid(c.iid, dispatch.put()), S_OK);
  TYPEATTR* attr = nullptr;
  ASSERT_EQ(dispatch->GetTypeAttr(&attr), S_OK);
  EXPECT_EQ(attr->typekind, TKIND_DISPATCH);
  const WORD flags = TYPEFLAG_FDUAL | TYPEFLAG_FHIDDEN | TYPEFLAG_FNONEXTENSIBLE;
  EXPECT_EQ(attr->wTypeFlags & flags, flags);
  dispatch->ReleaseTypeAttr(attr);

  // The vtable side of the dual interface: one function per entry, in slot
  // order after the seven IUnknown and IDispatch slots.
  HREFTYPE ref = 0;
  ASSERT_EQ(dispatch->GetRefTypeOfImplType(-1, &ref), S_OK);
  ComPtr<ITypeInfo> info;
  ASSERT_EQ(dispatch->GetRefTypeInfo(ref, info.put()), S_OK);
  ASSERT_EQ(info->GetTypeAttr(&attr), S_OK);
  EXPECT_EQ(attr->typekind, TKIND_INTERFACE);
  // (The automation flag is reported on the vtable side of a dual interface.)
  EXPECT_EQ(attr->wTypeFlags & (flags | TYPEFLAG_FOLEAUTOMATION), flags | TYPEFLAG_FOLEAUTOMATION);
  ASSERT_EQ(attr->cFuncs, table.count);
  const WORD funcs = attr->cFuncs;
  info->ReleaseTypeAttr(attr);

  for (WORD f = 0; f < funcs; ++f) {
    const auto& m = table.members[f];
    SCOPED_TRACE(std::string(m.name, m.name + wcslen(m.name)));
    FUNCDESC* fd = nullptr;
    ASSERT_EQ(info->GetFuncDesc(f, &fd), S_OK);
    EXPECT_EQ(m.slot, f + 1);
    EXPECT_EQ(fd->oVft, static_cast<SHORT>((7 + f) * sizeof(void*)));
    EXPECT_EQ(fd->memid, m.dispid);
    EXPECT_EQ(static_cast<int>(fd->invkind), static_cast<int>(m.kind));
    EXPECT_EQ(fd->elemdescFunc.tdesc.vt, VT_HRESULT);
    const bool has_result = m.result != VT_EMPTY;
    ASSERT_EQ(fd->cParams, m.param_count + (has_result ? 1 : 0));
    EXPECT_EQ(fd->cParamsOpt, 0);

    std::vector<BSTR> names(fd->cParams + 1u, nullptr);
    UINT got = 0;
    // (A get and its put share the identifier; GetNames answers for the get.)
    ASSERT_EQ(info->GetNames(fd->memid, names.data(), fd->cParams + 1u, &got), S_OK);
    EXPECT_EQ(text_of(names[0]), m.name);
    expect_help(info.get(), fd->memid, std::wstring(c.name) + L"." + m.name);
    for (unsigned p = 0; p < m.param_count; ++p) {
      const ELEMDESC& e = fd->lprgelemdescParam[p];
      const auto& param = m.params[p];
      SCOPED_TRACE(p);
      if (m.kind != Kind::Put) {
        EXPECT_EQ(text_of(names[p + 1]), param.name);
      }
      if (param.passing == Passing::Value) {
        EXPECT_EQ(e.tdesc.vt, param.type);
        EXPECT_EQ(e.paramdesc.wParamFlags & (PARAMFLAG_FIN | PARAMFLAG_FOUT), PARAMFLAG_FIN);
      } else {
        ASSERT_EQ(e.tdesc.vt, VT_PTR);
        EXPECT_EQ(e.tdesc.lptdesc->vt, param.type);
        EXPECT_EQ(e.paramdesc.wParamFlags & (PARAMFLAG_FIN | PARAMFLAG_FOUT), PARAMFLAG_FIN | PARAMFLAG_FOUT);
      }
    }
    if (has_result) {
      const ELEMDESC& e = fd->lprgelemdescParam[m.param_count];
      ASSERT_EQ(e.tdesc.vt, VT_PTR);
      EXPECT_EQ(e.tdesc.lptdesc->vt, m.result);
      EXPECT_EQ(e.paramdesc.wParamFlags & (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL), PARAMFLAG_FOUT | PARAMFLAG_FRETVAL);
    }
    for (auto b : names) Bstr::adopt(b).reset();
    info->ReleaseFuncDesc(fd);
  }
}

INSTANTIATE_TEST_SUITE_P(AllClasses, ClassDescription, ::testing::Range<std::size_t>(0, kClassCount),
                         [](const auto& param_info) {
                           const wchar_t* n = kClasses[param_info.param].name;
                           return std::string(n, n + wcslen(n));
                         });


// The value history component's slots that callers bind to by position
// (after the seven of IUnknown and IDispatch): a published contract.
TEST(ValueStackLibrary, VtablePositionsAreTheContract) {
  ComPtr<ITypeLib> lib;
  ASSERT_EQ(LoadTypeLibEx(value_stack().path.c_str(), REGKIND_NONE, lib.put()), S_OK);
  ComPtr<ITypeInfo> dispatch, info;
  HREFTYPE ref = 0;
  ASSERT_EQ(lib->GetTypeInfoOfGuid(IID__ValueStack, dispatch.put()), S_OK);
  ASSERT_EQ(dispatch->GetRefTypeOfImplType(-1, &ref), S_OK);
  ASSERT_EQ(dispatch->GetRefTypeInfo(ref, info.put()), S_OK);
  const std::pair<const wchar_t*, int> contract[] = {
      {L"PopBoolean", 1},  {L"PushBoolean", 2},  {L"PushAndSetBoolean", 3}, {L"DropDouble", 8},
      {L"PopDouble", 9},   {L"PushDouble", 10},  {L"PushAndSetDouble", 12}, {L"DropInteger", 14},
      {L"PopInteger", 15}, {L"PushInteger", 16}, {L"PushAndSetInteger", 18}, {L"DropLong", 20},
      {L"PopLong", 21},    {L"PushLong", 22},    {L"PushAndSetLong", 23},   {L"DropSingle", 30},
      {L"PopSingle", 31},  {L"PushSingle", 32},  {L"PushAndSetSingle", 33}};
  for (const auto& [name, position] : contract) {
    FUNCDESC* f = nullptr;
    ASSERT_EQ(info->GetFuncDesc(position, &f), S_OK);
    EXPECT_EQ(name_of(info.get(), f->memid), name) << position;
    EXPECT_EQ(f->oVft, static_cast<SHORT>((7 + position) * sizeof(void*))) << position;
    info->ReleaseFuncDesc(f);
  }
}

// ------------------------------------------------------------ the DLL file

std::wstring version_string(const std::vector<BYTE>& block, const wchar_t* name) {
  const std::wstring path = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
  void* value = nullptr;
  UINT size = 0;
  if (!VerQueryValueW(block.data(), path.c_str(), &value, &size)) return L"<missing>";
  return size ? std::wstring(static_cast<const wchar_t*>(value)) : std::wstring();
}

TEST(LibraryFile, VersionRecord) {
  const std::wstring& path = library().path;
  DWORD handle = 0;
  const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &handle);
  ASSERT_GT(size, 0u);
  std::vector<BYTE> block(size);
  ASSERT_TRUE(GetFileVersionInfoW(path.c_str(), 0, size, block.data()));
  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
  EXPECT_EQ(fixed->dwFileVersionMS, 0x00040000u);
  EXPECT_EQ(fixed->dwFileVersionLS, 0x00000001u);
  EXPECT_EQ(fixed->dwProductVersionMS, 0x00040000u);
  EXPECT_EQ(fixed->dwProductVersionLS, 0x00000001u);
  EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));

  const std::pair<const wchar_t*, std::wstring> strings[] = {
      {L"FileVersion", L"4.00.0001"},       {L"ProductVersion", L"4.00.0001"}, {L"ProductName", L"Valmetra"},
      {L"InternalName", L"Valmetra-445"},   {L"OriginalFilename", L"Valmetra-445.Dll"},
      {L"FileDescription", kLibrary.description}, {L"OLESelfRegister", L""}};
  for (const auto& [name, text] : strings) EXPECT_EQ(version_string(block, name), text);
  WORD* translation = nullptr;
  ASSERT_TRUE(VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translation),
                             &length));
  ASSERT_EQ(length, 4u);
  EXPECT_EQ(translation[0], 0x409);
  EXPECT_EQ(translation[1], 1200);
}

}  // namespace
}  // namespace vt

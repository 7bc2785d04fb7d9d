// The catalogue compiled into the library against the type library embedded
// in it and against GetIDsOfNames, entry by entry; the library's identity.
#include "support.h"

#include <sstream>

#include "valuestack.h"

namespace vt {
namespace {

using valmetra::com::Kind;
using valmetra::com::Member;
using valmetra::hosting::Instancing;

std::wstring doc(ITypeInfo* info, MEMBERID id, bool help = false) {
  Bstr text;
  EXPECT_EQ(info->GetDocumentation(id, help ? nullptr : text.put(), help ? text.put() : nullptr, nullptr, nullptr),
            S_OK);
  return text_of(text.get());
}

// One entry as a line: name, kind, identifier, slot, parameters (with their
// names, except for a put, whose names the type library files under the
// get), result. Built once from the catalogue and once from the type library.
std::string describe(const Member& m) {
  std::ostringstream s;
  s << narrow(m.name) << " kind " << int(m.kind) << " id " << std::hex << m.dispid << std::dec << " slot " << m.slot
    << " hresult (";
  for (unsigned p = 0; p < m.param_count; ++p)
    s << (m.kind == Kind::Put ? "" : narrow(m.params[p].name) + " ") << m.params[p].type
      << (m.params[p].passing == valmetra::com::Passing::Value ? " in, " : "* in out, ");
  s << ") -> " << m.result;
  return s.str();
}
std::string describe(ITypeInfo* info, const FUNCDESC& f) {
  std::vector<BSTR> names(f.cParams + 1u, nullptr);
  UINT got = 0;
  EXPECT_EQ(info->GetNames(f.memid, names.data(), f.cParams + 1u, &got), S_OK);
  std::ostringstream s;
  s << narrow(text_of(names[0])) << " kind " << f.invkind << " id " << std::hex << f.memid << std::dec << " slot "
    << int(f.oVft / sizeof(void*)) - 6 << (f.elemdescFunc.tdesc.vt == VT_HRESULT ? " hresult (" : " (")
    << (f.cParamsOpt ? "optional " : "");
  VARTYPE result = VT_EMPTY;
  for (SHORT p = 0; p < f.cParams; ++p) {
    const ELEMDESC& e = f.lprgelemdescParam[p];
    const USHORT flags = e.paramdesc.wParamFlags;
    const bool ptr = e.tdesc.vt == VT_PTR;
    if (ptr && flags & PARAMFLAG_FRETVAL && flags & PARAMFLAG_FOUT && p == f.cParams - 1) {
      result = e.tdesc.lptdesc->vt;
      break;
    }
    s << (f.invkind == INVOKE_PROPERTYPUT ? "" : narrow(text_of(names[p + 1])) + " ")
      << (ptr ? e.tdesc.lptdesc->vt : e.tdesc.vt) << (ptr ? "*" : "") << (flags & PARAMFLAG_FIN ? " in" : "")
      << (flags & PARAMFLAG_FOUT ? " out" : "") << ", ";
  }
  for (BSTR b : names) SysFreeString(b);
  s << ") -> " << result;
  return s.str();
}

// A type as a line: name, kind, the flags of `mask`, the types it
// implements and its functions, and whether it lacks a help string.
std::string line(const wchar_t* name, int kind, int flags, int implemented, int functions, bool help = true) {
  return narrow(name) + " kind " + std::to_string(kind) + " flags " + std::to_string(flags) + " implements " +
         std::to_string(implemented) + " functions " + std::to_string(functions) + (help ? "" : " without help");
}
std::string type_line(ITypeInfo* info, WORD mask) {
  TYPEATTR* a = nullptr;
  if (info->GetTypeAttr(&a) != S_OK) return "no attributes";
  const std::string out = line(doc(info, MEMBERID_NIL).c_str(), a->typekind, a->wTypeFlags & mask, a->cImplTypes,
                               a->cFuncs, !doc(info, MEMBERID_NIL, true).empty());
  info->ReleaseTypeAttr(a);
  return out;
}

TEST(TypeLibrary, IdentityAndClassesInCatalogueOrder) {
  ComPtr<ITypeLib> lib;
  ASSERT_EQ(LoadTypeLibEx(library().path.c_str(), REGKIND_NONE, lib.put()), S_OK);
  TLIBATTR* attr = nullptr;
  ASSERT_EQ(lib->GetLibAttr(&attr), S_OK);
  EXPECT_TRUE(attr->guid == kLibrary.libid);
  EXPECT_EQ(attr->wMajorVerNum * 100 + attr->wMinorVerNum, 5400);
  EXPECT_EQ(attr->lcid, 0x409u);
  EXPECT_EQ(attr->syskind, sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32);
  lib->ReleaseTLibAttr(attr);
  Bstr name, help;
  ASSERT_EQ(lib->GetDocumentation(-1, name.put(), help.put(), nullptr, nullptr), S_OK);
  EXPECT_EQ(text_of(name.get()), L"KARVO_Valmetra");
  EXPECT_EQ(text_of(help.get()), L"KARVO: Valmetra (4.45) --- Version 4.0x - 02-23-2009");
  std::wstring coclasses, catalogue;
  for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
    TYPEKIND kind;
    ComPtr<ITypeInfo> info;
    if (lib->GetTypeInfoType(i, &kind) == S_OK && kind == TKIND_COCLASS && lib->GetTypeInfo(i, info.put()) == S_OK)
      coclasses += doc(info.get(), MEMBERID_NIL) + L" ";
  }
  for (const auto& c : kClasses) catalogue += c.name + std::wstring(L" ");
  EXPECT_EQ(coclasses, catalogue);
}

// Per class: the coclass, its dual interface and every entry as the type
// library describes them against the catalogue; every name (in any case)
// and parameter name as GetIDsOfNames resolves it.
class ClassDescription : public ApartmentTest, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(ClassDescription, TypeLibraryAndNamesMatchTheCatalogue) {
  const auto& c = kClasses[GetParam()];
  const auto& table = *c.table;
  ComPtr<ITypeLib> lib;
  ASSERT_EQ(LoadTypeLibEx(library().path.c_str(), REGKIND_NONE, lib.put()), S_OK);
  ComPtr<ITypeInfo> coclass, dispatch, info;
  HREFTYPE ref = 0;
  INT impl_flags = 0;
  ASSERT_EQ(lib->GetTypeInfoOfGuid(c.clsid, coclass.put()), S_OK);
  ASSERT_EQ(coclass->GetImplTypeFlags(0, &impl_flags), S_OK);
  EXPECT_EQ(impl_flags & IMPLTYPEFLAG_FDEFAULT, IMPLTYPEFLAG_FDEFAULT);
  ASSERT_EQ(coclass->GetRefTypeOfImplType(0, &ref), S_OK);
  ASSERT_EQ(coclass->GetRefTypeInfo(ref, dispatch.put()), S_OK);
  ASSERT_EQ(dispatch->GetRefTypeOfImplType(-1, &ref), S_OK);  // the vtable side of the dual interface
  ASSERT_EQ(dispatch->GetRefTypeInfo(ref, info.put()), S_OK);
  const WORD app = TYPEFLAG_FAPPOBJECT | TYPEFLAG_FPREDECLID;
  const WORD dual = TYPEFLAG_FDUAL | TYPEFLAG_FHIDDEN | TYPEFLAG_FNONEXTENSIBLE;
  EXPECT_EQ(type_line(coclass.get(), app | TYPEFLAG_FCANCREATE),
            line(c.name, TKIND_COCLASS, (c.instancing == Instancing::Global ? app : 0) | TYPEFLAG_FCANCREATE, 1, 0));
  EXPECT_EQ(type_line(dispatch.get(), dual), line(c.interface_name, TKIND_DISPATCH, dual, 1, table.count + 7));
  // (The automation flag is reported on the vtable side.)
  EXPECT_EQ(type_line(info.get(), dual | TYPEFLAG_FOLEAUTOMATION),
            line(c.interface_name, TKIND_INTERFACE, dual | TYPEFLAG_FOLEAUTOMATION, 1, table.count));
  TYPEATTR* attr = nullptr;
  ASSERT_EQ(dispatch->GetTypeAttr(&attr), S_OK);
  EXPECT_TRUE(attr->guid == c.iid && table.iid == c.iid);
  dispatch->ReleaseTypeAttr(attr);

  ComPtr<IDispatch> object = create(c.name);
  ASSERT_TRUE(object);
  auto ids_of = [&](std::vector<std::wstring> words, HRESULT hr, REFIID iid = IID_NULL) {
    std::vector<LPOLESTR> p;
    for (auto& w : words) p.push_back(w.data());
    std::vector<DISPID> ids(words.size(), 777);
    EXPECT_EQ(object->GetIDsOfNames(iid, p.data(), static_cast<UINT>(p.size()), 0, ids.data()), hr)
        << narrow(words[0]);
    return ids;
  };
  for (unsigned k = 0; k < table.count; ++k) {
    const Member& m = table.members[k];
    FUNCDESC* f = nullptr;
    ASSERT_EQ(info->GetFuncDesc(k, &f), S_OK);
    EXPECT_EQ(describe(info.get(), *f), describe(m));
    EXPECT_NE(doc(info.get(), f->memid, true), L"") << "help of " << narrow(m.name);
    info->ReleaseFuncDesc(f);
    std::wstring upper(m.name);
    for (auto& ch : upper) ch = static_cast<wchar_t>(towupper(ch));
    EXPECT_EQ(ids_of({upper}, S_OK)[0], m.dispid);
    EXPECT_EQ(ids_of({upper + L"_"}, DISP_E_UNKNOWNNAME)[0], DISPID_UNKNOWN);
    // Parameter names, last first, get their positions; an unknown one is
    // refused alone.
    if (m.kind == Kind::Get) continue;
    std::vector<std::wstring> words{upper};
    std::vector<DISPID> expected{m.dispid};
    for (unsigned p = m.param_count; p-- > 0;) words.push_back(m.params[p].name), expected.push_back(p);
    EXPECT_EQ(ids_of(words, S_OK), expected);
    words.push_back(L"NoSuchParameter"), expected.push_back(DISPID_UNKNOWN);
    EXPECT_EQ(ids_of(words, DISP_E_UNKNOWNNAME), expected);
  }
  EXPECT_EQ(ids_of({L"NoSuchMember", c.table->members[0].name}, DISP_E_UNKNOWNNAME),
            (std::vector<DISPID>{DISPID_UNKNOWN, DISPID_UNKNOWN}));
  ids_of({table.members[0].name}, DISP_E_UNKNOWNINTERFACE, IID_IDispatch);
}

INSTANTIATE_TEST_SUITE_P(AllClasses, ClassDescription, ::testing::Range<std::size_t>(0, kClassCount),
                         [](const auto& i) { return narrow(kClasses[i.param].name); });

// The value history component's slots that callers bind to by position
// (after the seven of IUnknown and IDispatch): a published contract.
TEST(ValueStackLibrary, VtablePositionsAreTheContract) {
  ComPtr<ITypeLib> lib;
  ComPtr<ITypeInfo> dispatch, info;
  HREFTYPE ref = 0;
  ASSERT_EQ(LoadTypeLibEx(value_stack().path.c_str(), REGKIND_NONE, lib.put()), S_OK);
  ASSERT_EQ(lib->GetTypeInfoOfGuid(IID__ValueStack, dispatch.put()), S_OK);
  ASSERT_EQ(dispatch->GetRefTypeOfImplType(-1, &ref), S_OK);
  ASSERT_EQ(dispatch->GetRefTypeInfo(ref, info.put()), S_OK);
  std::wistringstream contract(
      L"1 PopBoolean 2 PushBoolean 3 PushAndSetBoolean 8 DropDouble 9 PopDouble 10 PushDouble 12 PushAndSetDouble "
      L"14 DropInteger 15 PopInteger 16 PushInteger 18 PushAndSetInteger 20 DropLong 21 PopLong 22 PushLong "
      L"23 PushAndSetLong 30 DropSingle 31 PopSingle 32 PushSingle 33 PushAndSetSingle");
  std::wstring name;
  for (int position; contract >> position >> name;) {
    FUNCDESC* f = nullptr;
    ASSERT_EQ(info->GetFuncDesc(position, &f), S_OK);
    EXPECT_EQ(doc(info.get(), f->memid), name) << position;
    EXPECT_EQ(f->oVft, static_cast<SHORT>((7 + position) * sizeof(void*))) << position;
    info->ReleaseFuncDesc(f);
  }
}

}  // namespace
}  // namespace vt

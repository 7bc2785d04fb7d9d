"""Windows outputs of the catalogue generator (called by gencatalogue.py).

Writes into the output directory:
  valmetra.idl        the type library source; widl turns it into the .tlb and
                      the C/C++ header, so the vtable order is the catalogue's
  catalogue_table.inc the library identity, the class list and per class the
                      member table (slot, name, kind, dispatch identifier,
                      parameters, result, invoker thunk) that Invoke,
                      GetIDsOfNames, the factories and registration read;
                      each table is a template over the class whose methods
                      the invokers call: by default the widl interface
                      (a vtable call), in the DLL the final COM class (the
                      same methods, called directly)
  com_objects.inc     one COM class per catalogue class: a thin override per
                      interface entry that calls the core object, and the
                      typed path of its Invoke (invoke_typed: a switch on
                      the dispatch identifier, types fixed at compile time)
  valmetra_version.h  the version resource's texts (included by the .rc)

The core signature conventions are those of src/hosting/catalogue/FORMAT.md.
"""

import gencatalogue  # the shared literal helper

# Identifier of the custom interface that the class factories of global
# classes answer, giving hosts the apartment's global instance. Fixed.
GLOBAL_INSTANCE_IID = "b5f0c1e2-7a44-4c1b-9d0e-3f6a2c8e5d17"

IDL_TYPE = {"I2": "short", "I4": "long", "R4": "float", "R8": "double",
            "BOOL": "VARIANT_BOOL", "BSTR": "BSTR", "VARIANT": "VARIANT"}
CXX_TYPE = {"I2": "SHORT", "I4": "LONG", "R4": "FLOAT", "R8": "DOUBLE",
            "BOOL": "VARIANT_BOOL", "BSTR": "BSTR", "VARIANT": "VARIANT"}
VARTYPE = {"I2": "VT_I2", "I4": "VT_I4", "R4": "VT_R4", "R8": "VT_R8",
           "BOOL": "VT_BOOL", "BSTR": "VT_BSTR", "VARIANT": "VT_VARIANT"}
ARG_FIELD = {"I2": "i2", "I4": "i4", "R4": "r4", "R8": "r8",
             "BOOL": "b", "BSTR": "bstr", "VARIANT": "var"}
CORE_TYPE = {"I2": "valmetra::Integer", "I4": "valmetra::Long", "R4": "valmetra::Single",
             "R8": "valmetra::Double", "BOOL": "valmetra::Flag"}
SCALARS = {"I2", "I4", "R4", "R8", "BOOL"}
KIND = {"method": "com::Kind::Method", "get": "com::Kind::Get", "put": "com::Kind::Put"}
PASSING = {"val": "com::Passing::Value", "ref": "com::Passing::Ref", "inout": "com::Passing::InOut"}

RESULT_NAME = "pRetVal"
MAX_PARAMS = 8  # com::kMaxParams


class GenError(Exception):
    pass


def guid_parts(text):
    h = text.replace("-", "")
    if len(h) != 32:
        raise GenError(f"bad identifier {text}")
    d1, d2, d3 = h[0:8], h[8:12], h[12:16]
    d4 = [h[16 + 2 * i:18 + 2 * i] for i in range(8)]
    return f"0x{d1}, 0x{d2}, 0x{d3}, {{{', '.join('0x' + b for b in d4)}}}"


def guid_cxx(text):
    return f"GUID{{{guid_parts(text)}}}"


def wide(s):
    return gencatalogue.cxx_literal(s, "L")


def rc_string(s):
    return '"' + s.replace('"', '""') + '"'


def idl_string(s):
    return '"' + s.replace("\\", "\\\\").replace('"', '\\"') + '"'


def cxx_name(m):
    return {"get": "get_", "put": "put_"}.get(m.kind, "") + m.name


def check(lib, classes):
    for c in classes:
        if c.members is None:
            raise GenError(f"{c.name}: no member file")
        seen = set()
        for m in c.members:
            key = (m.kind, m.name)
            if key in seen:
                raise GenError(f"{c.name}: entry {m.kind} {m.name} appears twice")
            seen.add(key)
            if len(m.params) > MAX_PARAMS:
                raise GenError(f"{c.name}.{m.name}: more than {MAX_PARAMS} parameters")
            for p in m.params:
                if p.passing == "inout" and p.type not in SCALARS:
                    raise GenError(f"{c.name}.{m.name}: written-back parameters must be numbers or flags")
                if p.name == RESULT_NAME:
                    raise GenError(f"{c.name}.{m.name}: parameter name {RESULT_NAME} is reserved")
            if (m.text is not None or m.alias is not None) and (m.params or m.result not in ("BSTR", "VARIANT")):
                raise GenError(f"{c.name}.{m.name}: a stored text needs an entry without parameters "
                               "and a text or Variant result")
        if c.value_member is not None and not any(m.name == c.value_member for m in c.members):
            raise GenError(f"{c.name}: value member {c.value_member} is not an entry")
        names = {}
        for m in c.members:
            names.setdefault(m.name.upper(), set()).add(m.dispid)
        for n, ids in names.items():
            if len(ids) != 1:
                raise GenError(f"{c.name}: name {n} has more than one dispatch identifier")


# ---------------------------------------------------------------- IDL

def idl_params(m):
    out = []
    for p in m.params:
        t = IDL_TYPE[p.type]
        if p.passing == "val":
            out.append(f"[in] {t} {p.name}")
        else:
            out.append(f"[in, out] {t}* {p.name}")
    if m.result is not None:
        out.append(f"[out, retval] {IDL_TYPE[m.result]}* {RESULT_NAME}")
    return ", ".join(out)


def interface_help(c):
    """The interface's help string, made from its class's: the class is what a host names."""
    return f"The members of {c.name}. {c.help}"[:gencatalogue.HELP_MAX]


def gen_idl(lib, classes):
    major, minor = lib.version.split(".")
    L = ["// Generated by tools/gencom.py from src/hosting/catalogue. Do not edit.",
         "// The type library of the component library; widl makes the .tlb and the header.",
         "",
         'import "oaidl.idl";',
         "",
         "// Answered by the class factory of every global class: the calling",
         "// apartment's global instance of that class (created on first use).",
         f"[object, uuid({GLOBAL_INSTANCE_IID}), pointer_default(unique)]",
         "interface IValmetraGlobalInstance : IUnknown",
         "{",
         "    HRESULT GetGlobalInstance([in] REFIID riid, [out, iid_is(riid)] void** object);",
         "}",
         "",
         f"[uuid({lib.libid}), version({int(major)}.{int(minor)}), lcid({lib.lcid}),",
         f" helpstring({idl_string(lib.description)})]",
         f"library {lib.name}",
         "{",
         '    importlib("stdole2.tlb");',
         ""]
    for c in classes:
        L.append(f"    [uuid({c.iid}), dual, oleautomation, nonextensible, hidden,")
        L.append(f"     helpstring({idl_string(interface_help(c))})]")
        L.append(f"    interface _{c.name} : IDispatch")
        L.append("    {")
        for m in c.members:
            attrs = [f"id(0x{m.dispid:08x})"]
            if m.kind == "get":
                attrs.append("propget")
            elif m.kind == "put":
                attrs.append("propput")
            attrs.append(f"helpstring({idl_string(m.help)})")
            L.append(f"        [{', '.join(attrs)}]")
            L.append(f"        HRESULT {m.name}({idl_params(m)});")
        L.append("    };")
        L.append("")
        attrs = [f"uuid({c.clsid})"]
        if c.instancing == "global":
            attrs.append("appobject")
        attrs.append(f"helpstring({idl_string(c.help)})")
        L.append(f"    [{', '.join(attrs)}]")
        L.append(f"    coclass {c.name}")
        L.append("    {")
        L.append(f"        [default] interface _{c.name};")
        L.append("    };")
        L.append("")
    L.append("}")
    L.append("")
    return "\n".join(L)


# ---------------------------------------------------------------- member tables

def thunk(c, m):
    """Calls the vtable method of the widl interface with the converted arguments."""
    args = []
    for i, p in enumerate(m.params):
        field = f"a[{i}].{ARG_FIELD[p.type]}"
        args.append(field if p.passing == "val" else "&" + field)
    if m.result is not None:
        args.append(f"&r->{ARG_FIELD[m.result]}")
    a_name = "a" if m.params else ""
    r_name = "r" if m.result is not None else ""
    return (f"+[](void* s, com::Arg* {a_name}, com::Arg* {r_name}) -> HRESULT {{ "
            f"return static_cast<Impl*>(static_cast<_{c.name}*>(s))->{cxx_name(m)}({', '.join(args)}); }}")


def gen_table(lib, classes):
    major, minor = lib.version.split(".")
    L = ["// Generated by tools/gencom.py from src/hosting/catalogue. Do not edit.",
         "// The class catalogue: library identity, classes and member tables.",
         "// Each member table is a template over the class whose methods its invokers",
         "// call: the interface itself (the default: a call through the vtable) or the",
         "// final COM class implementing it (the same methods, called directly).",
         "// Needs hosting/com/dispatch.h, hosting/catalogue.h and the widl header.",
         "",
         "namespace valmetra::hosting {",
         "",
         "inline constexpr LibraryInfo kLibrary{",
         f"    {wide(lib.name)}, {guid_cxx(lib.libid)}, {wide('{' + lib.libid.upper() + '}')},",
         f"    {int(major)}, {int(minor)}, {lib.lcid}, {wide(lib.description)}}};",
         "",
         f"inline constexpr GUID kGlobalInstanceIid = {guid_cxx(GLOBAL_INSTANCE_IID)};",
         ""]
    for c in classes:
        L.append(f"// {c.name}: {len(c.members)} entries")
        for m in c.members:
            if m.params:
                ps = ", ".join(f"{{{wide(p.name)}, {VARTYPE[p.type]}, {PASSING[p.passing]}}}" for p in m.params)
                L.append(f"inline constexpr com::Param kParams_{c.name}_{m.slot}[] = {{{ps}}};")
        L.append(f"template <class Impl = _{c.name}>")
        L.append(f"inline constexpr com::Member kMembers_{c.name}[] = {{")
        for m in c.members:
            params = f"kParams_{c.name}_{m.slot}" if m.params else "nullptr"
            result = VARTYPE[m.result] if m.result is not None else "VT_EMPTY"
            L.append(f"    {{{wide(m.name)}, 0x{m.dispid:08x}, {KIND[m.kind]}, {m.slot}, {len(m.params)}, "
                     f"{params}, {result},")
            L.append(f"     {thunk(c, m)}}},")
        L.append("};")
        L.append(f"template <class Impl = _{c.name}>")
        L.append(f"inline constexpr auto kTableData_{c.name} = com::make_dispatch_table(kMembers_{c.name}<Impl>);")
        L.append(f"template <class Impl = _{c.name}>")
        L.append(f"inline constexpr com::DispatchTable kTable_{c.name} = "
                 f"kTableData_{c.name}<Impl>.view({guid_cxx(c.iid)});")
        L.append("")
    L.append(f"inline constexpr std::size_t kClassCount = {len(classes)};")
    L.append("inline constexpr ClassInfo kClasses[kClassCount] = {")
    for c in classes:
        inst = "Instancing::Global" if c.instancing == "global" else "Instancing::Creatable"
        value = wide(c.value_member) if c.value_member else "nullptr"
        L.append(f"    {{{wide(c.name)}, {wide('_' + c.name)},")
        L.append(f"     {guid_cxx(c.clsid)}, {wide('{' + c.clsid.upper() + '}')},")
        L.append(f"     {guid_cxx(c.iid)}, {wide('{' + c.iid.upper() + '}')},")
        L.append(f"     {inst}, {value}, {'true' if c.core_type else 'false'}, &kTable_{c.name}<>}},")
    L.append("};")
    L.append("")
    L.append("}  // namespace valmetra::hosting")
    L.append("")
    return "\n".join(L)


# ---------------------------------------------------------------- COM classes

def com_signature(m):
    ps = []
    for p in m.params:
        t = CXX_TYPE[p.type]
        ps.append(f"{t} {p.name}" if p.passing == "val" else f"{t}* {p.name}")
    if m.result is not None:
        ps.append(f"{CXX_TYPE[m.result]}* {RESULT_NAME}")
    return f"HRESULT STDMETHODCALLTYPE {cxx_name(m)}({', '.join(ps)}) override"


def core_arg(p):
    if p.passing == "inout":
        return f"v_{p.name}"
    src = p.name if p.passing == "val" else f"*{p.name}"
    if p.type in SCALARS:
        return f"static_cast<{CORE_TYPE[p.type]}>({src})"
    if p.type == "BSTR":
        return f"com::text_view({src})"
    return f"com::to_core_variant({src})"


def com_body(c, m, stored_text):
    pointers = [p.name for p in m.params if p.passing != "val"]
    if m.result is not None:
        pointers.append(RESULT_NAME)
    lines = []
    if pointers:
        cond = " || ".join(f"!{n}" for n in pointers)
        lines.append(f"if ({cond}) return pointer_error();")
    if m.result == "BSTR":
        lines.append(f"*{RESULT_NAME} = nullptr;")
    elif m.result == "VARIANT":
        lines.append(f"VariantInit({RESULT_NAME});")
    if stored_text and m.result == "BSTR":
        lines.append(f"return frame([&] {{ *{RESULT_NAME} = com::make_bstr(valmetra::TextConstants::slot_text({m.slot})); }});")
        return lines
    if stored_text:
        lines.append(f"return frame([&] {{ com::make_text_variant(valmetra::TextConstants::slot_text({m.slot}), {RESULT_NAME}); }});")
        return lines
    if not c.core_type:
        lines += [f"(void){p.name};" for p in m.params if p.passing == "val"]
        lines.append("return not_implemented();")
        return lines
    body = []
    for p in m.params:
        if p.passing == "inout":
            body.append(f"{CORE_TYPE[p.type]} v_{p.name} = static_cast<{CORE_TYPE[p.type]}>(*{p.name});")
    call = f"core_.{m.name}({', '.join(core_arg(p) for p in m.params)})"
    if m.result is None:
        body.append(f"{call};")
    elif m.result in SCALARS:
        body.append(f"const auto result = {call};")
    else:
        body.append(f"auto result = {call};")
    for p in m.params:
        if p.passing == "inout":
            body.append(f"*{p.name} = v_{p.name};")
    if m.result in SCALARS:
        body.append(f"*{RESULT_NAME} = static_cast<{CXX_TYPE[m.result]}>(result);")
    elif m.result == "BSTR":
        body.append(f"*{RESULT_NAME} = com::make_bstr(result);")
    elif m.result == "VARIANT":
        body.append(f"com::to_com_variant(result, {RESULT_NAME});")
    lines.append("return frame([&] {")
    lines += ["  " + b for b in body]
    lines.append("});")
    return lines


TYPED = SCALARS | {"BSTR"}


def typed_case(c, cls, m):
    """The typed-path statements of one entry, or None when it has none
    (a Variant parameter: those always take the table path)."""
    if any(p.type not in TYPED for p in m.params):
        return None
    n = len(m.params)
    if m.kind == "method":
        gate = f"com::typed::is_method_call(flags, params, {n})"
    elif m.kind == "get":
        gate = f"com::typed::is_get_call(flags, params, {n})"
    else:
        gate = "com::typed::is_put_call(flags, params)"
    L = [f"if ({gate}) {{"]
    loads = []
    for i, p in enumerate(m.params):
        L.append(f"  com::typed::type_of<{VARTYPE[p.type]}> a{i};")
        loads.append(f"com::typed::load<{VARTYPE[p.type]}>(params->rgvarg[{n - 1 - i}], a{i})")
    inner = []
    args = [f"a{i}" if p.passing == "val" else f"&a{i}" for i, p in enumerate(m.params)]
    if m.result == "VARIANT":
        inner.append("VARIANT r{};")
    elif m.result is not None:
        inner.append(f"com::typed::type_of<{VARTYPE[m.result]}> r{{}};")
    if m.result is not None:
        args.append("&r")
    inner.append(f"hr = this->{cls}::{cxx_name(m)}({', '.join(args)});")
    for i, p in enumerate(m.params):
        if p.passing == "inout":
            inner.append(f"if (SUCCEEDED(hr)) com::typed::write_back<{VARTYPE[p.type]}>("
                         f"kParams_{c.name}_{m.slot}[{i}], a{i}, params->rgvarg[{n - 1 - i}]);")
    if m.result is None:
        inner.append("hr = com::typed::finish(hr, result, exception);")
    elif m.result == "VARIANT":
        inner.append("hr = com::typed::finish_variant(hr, r, result, exception);")
    else:
        inner.append(f"hr = com::typed::finish<{VARTYPE[m.result]}>(hr, r, result, exception);")
    inner.append("return true;")
    if loads:
        L.append(f"  if ({' && '.join(loads)}) {{")
        L += ["    " + x for x in inner]
        L.append("  }")
    else:
        L += ["  " + x for x in inner]
    L.append("}")
    return L


def gen_invoke_typed(c, cls):
    """A switch on the dispatch identifier over the class's own entries."""
    by_id = {}
    for m in c.members:
        by_id.setdefault(m.dispid, []).append(m)
    L = ["// The typed path of Invoke (com::typed in dispatch.h); false sends the",
         "// call on to the table path.",
         "VALMETRA_HOT_INLINE bool invoke_typed(DISPID id, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,",
         "                                      HRESULT& hr) noexcept {",
         "  switch (id) {"]
    for dispid in sorted(by_id):
        # A put first: a put call carries the put flag, whatever else it has.
        entries = sorted(by_id[dispid], key=lambda m: {"put": 0, "method": 1, "get": 2}[m.kind])
        body = []
        for m in entries:
            case = typed_case(c, cls, m)
            if case is not None:
                body += case
        if not body:
            continue
        L.append(f"    case 0x{dispid:08x}: {{  // {entries[0].name}")
        L += ["      " + x for x in body]
        L.append("      break;")
        L.append("    }")
    L += ["    default: break;",
          "  }",
          "  return false;",
          "}"]
    return L


def gen_objects(lib, classes):
    headers = sorted({c.core_header for c in classes if c.core_header})
    L = ["// Generated by tools/gencom.py from src/hosting/catalogue. Do not edit.",
         "// One COM class per catalogue class; each entry calls the core object",
         "// (see src/hosting/catalogue/FORMAT.md for the core signatures).",
         "// Needs catalogue_table.inc, hosting/com/object.h and hosting/com/convert.h.",
         ""]
    L += [f'#include "{h}"' for h in headers]
    L += ["",
          "namespace valmetra::hosting {",
          ""]
    for c in classes:
        cls = f"{c.name}Object"
        L.append(f"class {cls} final : public com::Object<{cls}, _{c.name}> {{")
        L.append(" public:")
        L.append(f"  static const com::DispatchTable& dispatch_table() noexcept {{ return kTable_{c.name}<{cls}>; }}")
        L.append("")
        L += ["  " + x for x in gen_invoke_typed(c, cls)]
        L.append("")
        for m in c.members:
            stored = m.text is not None or m.alias is not None
            L.append(f"  {com_signature(m)} {{")
            L += ["    " + b for b in com_body(c, m, stored)]
            L.append("  }")
        if c.core_type:
            L.append("")
            L.append(" private:")
            L.append(f"  {c.core_type} core_{{}};")
        L.append("};")
        L.append("")
    L.append("// Creates a new object of the catalogue class at `index` (kClasses order).")
    L.append("inline HRESULT create_object(std::size_t index, REFIID riid, void** object) noexcept {")
    L.append("  switch (index) {")
    for i, c in enumerate(classes):
        L.append(f"    case {i}: return com::create<{c.name}Object>(riid, object);")
    L.append("    default: return CLASS_E_CLASSNOTAVAILABLE;")
    L.append("  }")
    L.append("}")
    L.append("")
    L.append("}  // namespace valmetra::hosting")
    L.append("")
    return "\n".join(L)


def gen_version(lib):
    return "\n".join([
        "/* Generated by tools/gencom.py from src/hosting/catalogue/classes.txt. Do not edit. */",
        f"#define VALMETRA_FILE_DESCRIPTION {rc_string(lib.description)}",
        ""])


def generate(lib, classes, out_dir, write_if_changed):
    import os
    import sys
    try:
        check(lib, classes)
    except GenError as e:
        print(f"gencom: {e}", file=sys.stderr)
        sys.exit(1)
    write_if_changed(os.path.join(out_dir, "valmetra.idl"), gen_idl(lib, classes))
    write_if_changed(os.path.join(out_dir, "catalogue_table.inc"), gen_table(lib, classes))
    write_if_changed(os.path.join(out_dir, "com_objects.inc"), gen_objects(lib, classes))
    write_if_changed(os.path.join(out_dir, "valmetra_version.h"), gen_version(lib))

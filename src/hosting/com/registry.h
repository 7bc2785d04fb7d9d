// Registration of an in-process Automation server, per machine
// (HKEY_LOCAL_MACHINE\Software\Classes), from a description of the server.
//
// register_server writes, with `path` the module's own file:
//   TypeLib\{libid}\<major>.<minor>           = description   (version in hex, as
//                                                the platform looks it up)
//           ...\<major>.<minor>\FLAGS         = "0"
//           ...\<major>.<minor>\HELPDIR       = folder of path
//           ...\<major>.<minor>\0\win32|win64 = path           (neutral locale 0)
//   CLSID\{clsid}                             = ProgID
//           ...\InprocServer32                = path, ThreadingModel = Apartment
//           ...\ProgID, VersionIndependentProgID = ProgID
//           ...\TypeLib = {libid}, Version = <major>.<minor>, Programmable
//   <ProgID>            = class name; CLSID = {clsid}; CurVer = <ProgID>.1
//   <ProgID>.1          = class name; CLSID = {clsid}
//   Interface\{iid}     = interface name; ProxyStubClsid32 and ProxyStubClsid =
//                         the Automation marshaler {00020424-...}; TypeLib = {libid},
//                         Version = <major>.<minor> in hex
// The type library is filed under locale 0 whatever locale it declares, so
// that a lookup in any locale finds it; that is why this writes the
// TypeLib keys itself instead of calling RegisterTypeLib, which files a
// library under its own locale.
//
// unregister_server removes exactly these: the class, ProgID and interface
// trees, and this platform's path of this version of the type library,
// with the version and library keys once nothing else is left in them.
// A failed registration undoes what it wrote. Results are HRESULTs.
#pragma once

#include <windows.h>

#include <span>

namespace valmetra::com {

struct RegisteredClass {
  GUID clsid;
  const wchar_t* name;     // IntegerData
  const wchar_t* prog_id;  // KARVO_Valmetra.IntegerData
};

struct RegisteredInterface {
  GUID iid;
  const wchar_t* name;  // _IntegerData
};

struct ServerRegistration {
  GUID libid;
  WORD major;
  WORD minor;
  const wchar_t* description;
  std::span<const RegisteredClass> classes;
  std::span<const RegisteredInterface> interfaces;
};

HRESULT register_server(const ServerRegistration& server) noexcept;
HRESULT unregister_server(const ServerRegistration& server) noexcept;

}  // namespace valmetra::com

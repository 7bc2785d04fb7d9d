// MachineGuard: keeps a per-user registration out of the machine hive.
//
// Per-user registration redirects HKEY_CLASSES_ROOT to HKCU\Software\Classes,
// but a type library registration may still reach HKLM: some runtimes (Wine 8
// among them) write the interfaces' records a second time into the other
// (32-bit) registry view through a classes root that the redirection does not
// cover, and remove them from there on unregistration, even when they belong
// to a machine-wide registration of the same library.
//
// The guard reads the DLL's type library (the library, its coclasses and its
// interfaces), takes a copy of each of their keys under HKLM\Software\Classes
// in both registry views before the call, and afterwards puts every one of
// them back exactly as it was: keys that appeared are deleted, keys that
// vanished or changed are written again. So the machine hive ends as it
// started, whatever the runtime did.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace valmetra_register {

// One registry key: its values and subkeys, as read.
struct KeyCopy {
  struct Value {
    std::wstring name;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
  };
  std::wstring name;
  std::vector<Value> values;
  std::vector<KeyCopy> subkeys;
};

bool same_key(const KeyCopy& a, const KeyCopy& b);

class MachineGuard {
 public:
  // Reads the type library of `dll` and copies the machine keys it names.
  // Without a readable type library there is nothing to guard.
  explicit MachineGuard(const std::wstring& dll);

  // Puts the machine keys back; returns how many were repaired.
  int restore();

  size_t guarded() const { return entries_.size(); }

 private:
  struct Entry {
    std::wstring path;  // under HKEY_LOCAL_MACHINE
    REGSAM view = 0;    // KEY_WOW64_64KEY or KEY_WOW64_32KEY
    bool existed = false;
    KeyCopy before;
  };
  std::vector<Entry> entries_;
};

// Deletes those of CLSID, Interface and TypeLib under HKCU\Software\Classes
// that hold nothing (left behind by unregistration), then
// HKCU\Software\Classes itself if it holds nothing; returns how many.
int remove_empty_user_containers();

}  // namespace valmetra_register

// Leak checks of the Windows tests.
//
// Objects: after every test (a listener installed for the whole program)
// both DLLs must answer DllCanUnloadNow with S_OK, that is no object,
// factory, global instance, apartment watcher or lock of theirs is alive.
//
// Task memory (BSTRs and everything else from the OLE allocator): a malloc
// spy registered on first use records every allocation that is not yet
// freed, and the BSTR cache of the Automation runtime is switched off so
// that a freed string really is freed. MemoryLeaks measures one stretch of
// a test.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace vt {

// The task-memory blocks allocated since construction and not freed
// (the thread's error information is dropped first: it holds strings).
class MemoryLeaks {
 public:
  MemoryLeaks();
  MemoryLeaks(const MemoryLeaks&) = delete;
  MemoryLeaks& operator=(const MemoryLeaks&) = delete;
  std::size_t count() const;
  // Sizes of up to a few of them, for the failure message.
  std::string describe() const;

 private:
  unsigned long long start_;
};

// True when the DLL under test and the value history component can be
// unloaded now.
bool nothing_alive();

}  // namespace vt

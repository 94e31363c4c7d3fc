// TObject, the root class: its allocation goes through MemAlloc/MemFree so
// every library object is counted.
#ifndef PLINTH_FOUNDATION_TOBJECT_H_
#define PLINTH_FOUNDATION_TOBJECT_H_

#include <cstddef>
#include <new>

#include "foundation/export.h"
#include "foundation/memory.h"

class PLINTH_API TObject {
 public:
  static void* operator new(size_t size) { return MemAlloc(size); }
  static void* operator new[](size_t size) { return MemAlloc(size); }
  static void operator delete(void* ptr) { MemFree(ptr); }
  static void operator delete[](void* ptr) { MemFree(ptr); }
  static void* operator new(size_t, void* where) noexcept { return where; }
  static void* operator new[](size_t, void* where) noexcept { return where; }
  static void operator delete(void*, void*) noexcept {}
  static void operator delete[](void*, void*) noexcept {}
};

#endif  // PLINTH_FOUNDATION_TOBJECT_H_

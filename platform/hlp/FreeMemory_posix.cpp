#include "hlp/FreeMemory.h"

#include <cstdlib>  // defines __GLIBC__ where the C library is glibc

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace hlp::detail {

void ReturnFreeMemory() {
#if defined(__GLIBC__)
  // Every arena, the worker threads' included, down to what is in use.
  malloc_trim(0);
#endif
}

bool LoopKeepsClosedSocketRecords() {
  return true;
}

}  // namespace hlp::detail

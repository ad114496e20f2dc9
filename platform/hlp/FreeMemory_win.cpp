#include "hlp/FreeMemory.h"

#include <windows.h>

namespace hlp::detail {

void ReturnFreeMemory() {
  // Coalesces the free blocks of the process heap and decommits what it can.
  HeapCompact(GetProcessHeap(), 0);
}

bool LoopKeepsClosedSocketRecords() {
  return false;
}

}  // namespace hlp::detail

#include <windows.h>

#include <cstdint>

#include "agent/ModuleImage.h"

namespace KroAgent {

std::size_t ReleaseStartupPages() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          reinterpret_cast<LPCWSTR>(&ReleaseStartupPages), &module)) {
    return 0;
  }
  const auto base = reinterpret_cast<std::uintptr_t>(module);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_SECTION_HEADER* section = IMAGE_FIRST_SECTION(nt);
  std::size_t released = 0;
  for (WORD i = 0; i < nt->FileHeader.NumberOfSections; ++i, ++section) {
    if ((section->Characteristics & IMAGE_SCN_MEM_WRITE) != 0 || section->Misc.VirtualSize == 0) {
      continue;
    }
    // Unlocking pages that are not locked takes them out of the working set (the call then
    // reports ERROR_NOT_LOCKED); they stay on the standby list, so a later touch is a soft fault.
    VirtualUnlock(reinterpret_cast<void*>(base + section->VirtualAddress),
                  section->Misc.VirtualSize);
    released += section->Misc.VirtualSize;
  }
  return released;
}

}  // namespace KroAgent

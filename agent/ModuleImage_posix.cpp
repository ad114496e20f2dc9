#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "agent/ModuleImage.h"

namespace KroAgent {
namespace {

struct Search {
  std::uintptr_t anchor = 0;  // an address inside this module
  std::size_t released = 0;
};

bool Contains(const dl_phdr_info& info, std::uintptr_t address) {
  for (ElfW(Half) i = 0; i < info.dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info.dlpi_phdr[i];
    const std::uintptr_t start = info.dlpi_addr + ph.p_vaddr;
    if (ph.p_type == PT_LOAD && address >= start && address < start + ph.p_memsz) {
      return true;
    }
  }
  return false;
}

// An image whose code the loader patched holds private page copies that must not be dropped.
bool HasTextRelocations(const dl_phdr_info& info) {
  for (ElfW(Half) i = 0; i < info.dlpi_phnum; ++i) {
    if (info.dlpi_phdr[i].p_type != PT_DYNAMIC) {
      continue;
    }
    const auto* dyn =
        reinterpret_cast<const ElfW(Dyn)*>(info.dlpi_addr + info.dlpi_phdr[i].p_vaddr);
    for (; dyn->d_tag != DT_NULL; ++dyn) {
      if (dyn->d_tag == DT_TEXTREL || (dyn->d_tag == DT_FLAGS && (dyn->d_un.d_val & DF_TEXTREL))) {
        return true;
      }
    }
  }
  return false;
}

int ReleaseImage(dl_phdr_info* info, size_t /*size*/, void* data) {
  auto* search = static_cast<Search*>(data);
  if (!Contains(*info, search->anchor)) {
    return 0;
  }
  if (HasTextRelocations(*info)) {
    return 1;
  }
  const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    // Writable segments hold relocated data (the read-only-after-relocation part included).
    if (ph.p_type != PT_LOAD || (ph.p_flags & PF_W) != 0) {
      continue;
    }
    // Whole pages only: a page shared with a neighbouring segment is left alone.
    const std::uintptr_t start = (info->dlpi_addr + ph.p_vaddr + page - 1) & ~(page - 1);
    const std::uintptr_t end = (info->dlpi_addr + ph.p_vaddr + ph.p_memsz) & ~(page - 1);
    if (end <= start) {
      continue;
    }
    void* range = reinterpret_cast<void*>(start);
    if (madvise(range, end - start, MADV_DONTNEED) == 0) {
      search->released += end - start;
    }
  }
  return 1;
}

}  // namespace

std::size_t ReleaseStartupPages() {
  Search search;
  search.anchor = reinterpret_cast<std::uintptr_t>(&ReleaseStartupPages);
  dl_iterate_phdr(ReleaseImage, &search);
  return search.released;
}

}  // namespace KroAgent

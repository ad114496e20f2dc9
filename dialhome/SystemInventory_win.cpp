// The System group from Win32: processor identification, native system information, the
// logical processor list, RtlGetVersion and the global memory status.

#include <windows.h>

#include <cpuid.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "dialhome/SystemInventory.h"

namespace kro::detail {

namespace {

// RTL_OSVERSIONINFOEXW as ntdll expects it; its size field must say 284 or the call fails.
constexpr ULONG kVersionInfoSize = 284;
static_assert(sizeof(OSVERSIONINFOEXW) == kVersionInfoSize);

using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOEXW*);

long LastError() {
  return status::FromWin32(GetLastError());
}

CpuidRegisters Cpuid(uint32_t leaf) {
  CpuidRegisters r;
  __cpuid(leaf, r.eax, r.ebx, r.ecx, r.edx);
  return r;
}

long CountLogicalProcessors(ProcessorCounts& counts) {
  DWORD length = 0;
  if (GetLogicalProcessorInformation(nullptr, &length) ||
      GetLastError() != ERROR_INSUFFICIENT_BUFFER || length == 0) {
    return status::Failure;
  }
  const size_t entryCount = length / sizeof(SYSTEM_LOGICAL_PROCESSOR_INFORMATION);
  std::unique_ptr<SYSTEM_LOGICAL_PROCESSOR_INFORMATION[]> buffer(
      new (std::nothrow) SYSTEM_LOGICAL_PROCESSOR_INFORMATION[entryCount + 1]);
  if (!buffer) {
    return status::OutOfMemory;
  }
  length = static_cast<DWORD>((entryCount + 1) * sizeof(SYSTEM_LOGICAL_PROCESSOR_INFORMATION));
  if (!GetLogicalProcessorInformation(buffer.get(), &length)) {
    return status::Failure;
  }
  std::vector<ProcessorEntry> entries;
  const size_t returned = length / sizeof(SYSTEM_LOGICAL_PROCESSOR_INFORMATION);
  entries.reserve(returned);
  for (size_t i = 0; i < returned; ++i) {
    entries.push_back({static_cast<ProcessorRelation>(buffer[i].Relationship),
                       static_cast<uint64_t>(buffer[i].ProcessorMask)});
  }
  counts = CountProcessors(entries);
  return status::Ok;
}

long ReadWindowsVersion(uint32_t& version, uint32_t& type) {
  const HMODULE ntdll = GetModuleHandleW(L"ntdll");
  const FARPROC proc = ntdll != nullptr ? GetProcAddress(ntdll, "RtlGetVersion") : nullptr;
  if (proc == nullptr) {
    return LastError();
  }
  // Through void(*)() so the compiler accepts the change of signature.
  const auto rtlGetVersion = reinterpret_cast<RtlGetVersionFn>(reinterpret_cast<void (*)()>(proc));
  OSVERSIONINFOEXW info{};
  info.dwOSVersionInfoSize = kVersionInfoSize;
  // Unlike GetVersionEx, this is not bent by the executable's compatibility manifest.
  if (const LONG result = rtlGetVersion(&info); result != 0) {
    return result;
  }
  version = PackWindowsVersion(info.dwMajorVersion, info.dwMinorVersion, info.dwBuildNumber);
  type = info.wProductType;
  return status::Ok;
}

}  // namespace

long GatherPlatformSystemInfo(SystemInventory& inventory) {
  try {
    inventory.systemType = ClassifyHypervisor(Cpuid);

    SYSTEM_INFO system{};
    GetNativeSystemInfo(&system);
    inventory.systemArchitecture = system.wProcessorArchitecture;

    ProcessorCounts counts;
    if (const long result = CountLogicalProcessors(counts); status::Failed(result)) {
      return result;
    }
    inventory.processorPackages = counts.packages;
    inventory.processorCores = counts.cores;
    inventory.processorThreads = counts.threads;

    if (const long result = ReadWindowsVersion(inventory.windowsVersion, inventory.windowsType);
        result != status::Ok) {
      return result;
    }

    ReadRegistryString(inventory.windowsProductName,
                       L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion", L"ProductName");

    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof(memory);
    if (!GlobalMemoryStatusEx(&memory)) {
      return LastError();
    }
    inventory.totalMemory = memory.ullTotalPhys;
    inventory.availableMemory = memory.ullAvailPhys;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

}  // namespace kro::detail

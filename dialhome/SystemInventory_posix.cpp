// The System group on Linux, with the meaning the Windows fields have where Linux has one:
// sysfs gives the processor list, /etc/os-release the edition. The version and type fields
// say Linux in values that no Windows machine reports (SystemInventory.h).

#include <sys/utsname.h>
#include <unistd.h>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "dialhome/SystemInventory.h"

namespace kro::detail {

namespace {

// wProcessorArchitecture numbers, so the server reads both platforms alike.
constexpr uint16_t kArchitectureX86 = 0;
constexpr uint16_t kArchitectureX64 = 9;
constexpr uint16_t kArchitectureArm64 = 12;
constexpr uint16_t kArchitectureUnknown = 0xFFFF;

const char kCpuRoot[] = "/sys/devices/system/cpu/";
// Far above any machine's count; keeps a corrupt range from running for ages.
constexpr unsigned long kMaxCpus = 1ul << 16;

bool ReadLine(const std::string& path, std::string& line) {
  std::ifstream in(path);
  return static_cast<bool>(std::getline(in, line));
}

/** @brief Reads a leading unsigned decimal number; false when there is none. */
bool ParseNumber(const std::string& text, size_t& pos, unsigned long& value) {
  const size_t start = pos;
  value = 0;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    value = value * 10 + static_cast<unsigned long>(text[pos] - '0');
    ++pos;
  }
  return pos > start;
}

/** @brief A kernel CPU list such as "0-3,8,10-11"; empty when malformed. */
std::set<unsigned long> ParseCpuList(const std::string& text) {
  std::set<unsigned long> cpus;
  size_t pos = 0;
  while (pos < text.size()) {
    unsigned long first = 0;
    unsigned long last = 0;
    if (!ParseNumber(text, pos, first)) {
      return {};
    }
    last = first;
    if (pos < text.size() && text[pos] == '-') {
      ++pos;
      if (!ParseNumber(text, pos, last) || last < first || last - first > kMaxCpus) {
        return {};
      }
    }
    for (unsigned long cpu = first; cpu <= last; ++cpu) {
      cpus.insert(cpu);
    }
    if (pos < text.size() && text[pos] != ',') {
      break;  // the trailing newline or blanks
    }
    ++pos;
  }
  return cpus;
}

std::set<unsigned long> OnlineCpus() {
  std::string line;
  if (ReadLine(std::string(kCpuRoot) + "online", line)) {
    if (std::set<unsigned long> cpus = ParseCpuList(line); !cpus.empty()) {
      return cpus;
    }
  }
  // Without the online list, every cpuN folder counts.
  std::set<unsigned long> cpus;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(kCpuRoot, ec)) {
    const std::string name = entry.path().filename().string();
    size_t pos = 3;
    unsigned long cpu = 0;
    if (name.starts_with("cpu") && ParseNumber(name, pos, cpu) && pos == name.size()) {
      cpus.insert(cpu);
    }
  }
  return cpus;
}

/**
 * @brief Packages, cores and threads from the sysfs topology, as the Windows entry list.
 *
 * A core is a distinct (package, core id) pair; kernels or containers that hide core_id are
 * still told apart by the core's sibling list, and a CPU with neither is its own core.
 */
ProcessorCounts CountSysfsProcessors() {
  const std::set<unsigned long> online = OnlineCpus();
  std::set<long> packages;
  std::map<std::pair<long, std::string>, unsigned> cores;
  for (unsigned long cpu : online) {
    const std::string topology = std::string(kCpuRoot) + "cpu" + std::to_string(cpu) + "/topology/";
    std::string line;
    long package = 0;
    if (ReadLine(topology + "physical_package_id", line)) {
      package = std::max(0L, std::strtol(line.c_str(), nullptr, 10));
    }
    std::string core;
    if (ReadLine(topology + "core_id", line)) {
      core = "id " + line;
    } else if (ReadLine(topology + "core_cpus_list", line) ||
               ReadLine(topology + "thread_siblings_list", line)) {
      core = "siblings " + line;
    } else {
      core = "cpu " + std::to_string(cpu);
    }
    packages.insert(package);
    ++cores[{package, core}];
  }

  std::vector<ProcessorEntry> entries;
  if (cores.empty()) {
    // No sysfs at all (a restricted container): one package of single-threaded cores.
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    entries.push_back({ProcessorRelation::Package, 1});
    for (long i = 0; i < std::max(1L, count); ++i) {
      entries.push_back({ProcessorRelation::Core, 1});
    }
    return CountProcessors(entries);
  }
  for (size_t i = 0; i < packages.size(); ++i) {
    entries.push_back({ProcessorRelation::Package, 0});
  }
  for (const auto& [key, threads] : cores) {
    // A core's mask has one bit per hardware thread; no core has 64 of them.
    const unsigned bits = std::min(threads, 64u);
    entries.push_back({ProcessorRelation::Core, bits == 64 ? ~0ull : (1ull << bits) - 1});
  }
  return CountProcessors(entries);
}

#if defined(__x86_64__) || defined(__i386__)
CpuidRegisters Cpuid(uint32_t leaf) {
  CpuidRegisters r;
  __cpuid(leaf, r.eax, r.ebx, r.ecx, r.edx);
  return r;
}

KroAgent::SystemType DetectSystemType() {
  return ClassifyHypervisor(Cpuid);
}
#else
/**
 * @brief Without a processor identification instruction, the kernel's own hypervisor report:
 * "xen" is Xen, any other named hypervisor is of unknown make, none at all is Physical.
 */
KroAgent::SystemType DetectSystemType() {
  std::string type;
  if (!ReadLine("/sys/hypervisor/type", type) || type.empty()) {
    return KroAgent::Physical;
  }
  return type == "xen" ? KroAgent::Xen : KroAgent::Virtual;
}
#endif

uint16_t ArchitectureOf(const std::string& machine) {
  if (machine == "x86_64" || machine == "amd64") {
    return kArchitectureX64;
  }
  if (machine == "aarch64" || machine == "arm64") {
    return kArchitectureArm64;
  }
  if (machine.size() == 4 && machine[0] == 'i' && machine.ends_with("86")) {
    return kArchitectureX86;
  }
  return kArchitectureUnknown;
}

/** @brief PRETTY_NAME of os-release without its quotes; empty when there is none. */
std::wstring OsPrettyName() {
  for (const char* file : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(file);
    if (!in) {
      continue;
    }
    std::string line;
    while (std::getline(in, line)) {
      if (!line.starts_with("PRETTY_NAME=")) {
        continue;
      }
      std::string value = line.substr(12);
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
          value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
      }
      std::string unescaped;
      for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) {
          ++i;
        }
        unescaped += value[i];
      }
      std::wstring wide;
      Utf8ToWide(unescaped, wide);
      return wide;
    }
    return {};
  }
  return {};
}

long ReadMemory(uint64_t& total, uint64_t& available) {
  std::ifstream in("/proc/meminfo");
  if (!in) {
    return status::FromWin32(static_cast<uint32_t>(errno != 0 ? errno : ENOENT));
  }
  std::map<std::string, uint64_t> kilobytes;
  std::string line;
  while (std::getline(in, line)) {
    const size_t colon = line.find(':');
    if (colon != std::string::npos) {
      kilobytes[line.substr(0, colon)] = std::strtoull(line.c_str() + colon + 1, nullptr, 10);
    }
  }
  const auto find = [&kilobytes](const char* name, uint64_t& out) {
    const auto it = kilobytes.find(name);
    if (it == kilobytes.end()) {
      return false;
    }
    out = it->second * 1024;
    return true;
  };
  if (!find("MemTotal", total)) {
    return status::MalformedData;
  }
  // Kernels before 3.14 have no estimate of available memory; free memory is the nearest.
  if (!find("MemAvailable", available) && !find("MemFree", available)) {
    return status::MalformedData;
  }
  return status::Ok;
}

}  // namespace

long GatherPlatformSystemInfo(SystemInventory& inventory) {
  try {
    inventory.systemType = DetectSystemType();

    utsname names{};
    if (uname(&names) != 0) {
      return status::FromWin32(static_cast<uint32_t>(errno));
    }
    inventory.systemArchitecture = ArchitectureOf(names.machine);

    const ProcessorCounts counts = CountSysfsProcessors();
    inventory.processorPackages = counts.packages;
    inventory.processorCores = counts.cores;
    inventory.processorThreads = counts.threads;

    inventory.windowsVersion = PackLinuxVersion(names.release);
    inventory.windowsType = kLinuxProductType;
    inventory.windowsProductName = OsPrettyName();

    return ReadMemory(inventory.totalMemory, inventory.availableMemory);
  } catch (...) {
    return status::OutOfMemory;
  }
}

}  // namespace kro::detail

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/KroAgentTypes.h"
#include "dialhome/DialHomeInfo.h"

namespace hlp {
class JsonWriter;
class JsonReader;
}  // namespace hlp

namespace kro {

/** @brief Registry key that remembers the name under which the server knows this machine. */
inline constexpr const wchar_t* kDialHomeKey = L"SOFTWARE\\Norvane Technologies\\Arbalo\\DialHome";

/** @brief The four registers one processor identification leaf answers. */
struct CpuidRegisters {
  uint32_t eax = 0;
  uint32_t ebx = 0;
  uint32_t ecx = 0;
  uint32_t edx = 0;
};

/** @brief Runs the processor identification instruction for one leaf. */
using CpuidFunction = std::function<CpuidRegisters(uint32_t leaf)>;

/**
 * @brief Kind of machine from the processor identification: `Physical` without a hypervisor
 * (or on a Hyper-V root partition), the hypervisor's make when its vendor text is known, else
 * `Virtual`. Only the leaves the decision needs are asked for.
 */
KroAgent::SystemType ClassifyHypervisor(const CpuidFunction& cpuid);

/** @brief Relationship of a logical processor information entry, numbered as Windows does. */
enum class ProcessorRelation : uint32_t { Core = 0, NumaNode = 1, Cache = 2, Package = 3 };

/** @brief One entry of the processor topology: its relationship and its processor mask. */
struct ProcessorEntry {
  ProcessorRelation relation = ProcessorRelation::Core;
  uint64_t mask = 0;
};

struct ProcessorCounts {
  uint32_t packages = 0;
  uint32_t cores = 0;
  uint32_t threads = 0;
};

/** @brief One package per package entry; one core, and a thread per mask bit, per core entry. */
ProcessorCounts CountProcessors(const std::vector<ProcessorEntry>& entries);

/**
 * @brief Packs "A.B.C.D" (each part its leading decimal number, missing parts 0) as
 * A << 24 | (B & 0xFF) << 16 | (C & 0xFFF) << 4 | (D & 0xF). An empty text gives 0x80000114.
 */
long PackProductVersion(const std::wstring& text, uint32_t& packed);

/** @brief ((major << 8 | minor) << 16) | build; the build is deliberately not masked. */
uint32_t PackWindowsVersion(uint32_t major, uint32_t minor, uint32_t build);

/**
 * @brief "WindowsType" of a Linux machine: none of Windows' product types (1 workstation,
 * 2 domain controller, 3 server), so the server never takes it for Windows.
 */
inline constexpr uint32_t kLinuxProductType = 0x100;

/** @brief The top bit of "WindowsVersion" marks a Linux kernel: no Windows major version has it. */
inline constexpr uint32_t kLinuxVersionFlag = 0x80000000;

/**
 * @brief A kernel release such as "6.1.0-18-amd64" as "WindowsVersion": kLinuxVersionFlag |
 * (major & 0x7F) << 24 | (minor & 0xFF) << 16 | (patch & 0xFFFF). Missing parts count as 0.
 */
uint32_t PackLinuxVersion(std::string_view release);

/**
 * @brief What the agent reports about its machine, the agent and the product.
 *
 * `flags` says which groups hold gathered values. Not thread-safe: each owner keeps its own
 * inventory under its own lock.
 */
struct SystemInventory {
  static constexpr uint32_t kSystem = 0x02;
  static constexpr uint32_t kAgent = 0x04;
  static constexpr uint32_t kProduct = 0x08;

  uint32_t flags = 0;
  std::string systemName;
  std::string newSystemName;
  KroAgent::SystemType systemType = KroAgent::Undetected;
  uint16_t systemArchitecture = 0xFFFF;
  uint32_t processorPackages = 0;
  uint32_t processorCores = 0;
  uint32_t processorThreads = 0;
  uint32_t windowsVersion = 0;
  uint32_t windowsType = 0;
  std::wstring windowsProductName;
  uint64_t totalMemory = 0;
  uint64_t availableMemory = 0;
  uint32_t agentVersion = 0;
  uint16_t agentPort = 0;
  bool agentUseSSL = false;
  uint32_t productVersion = 0;
  uint16_t productPort = 0;
  bool productUseSSL = false;
  DialHomeInfo settings;

  /** @brief Clears every group and the settings copy; the architecture becomes 0xFFFF. */
  long ResetInventory();
  /** @brief Resets, then takes `copy` as the settings copy. */
  long ResetInventory(const DialHomeInfo& copy);

  /** @brief Fills the System group; the caller sets kSystem on success. */
  long GatherSystemInfo();
  /** @brief Version from "ProductVersion", port and TLS flag from the settings copy. */
  long GatherAgentInfo();
  long GatherProductInfo();
  /** @brief Runs the gatherers named in `mask` in group order, stopping at the first failure. */
  long Gather(uint32_t mask);

  /**
   * @brief Appends "System", "Agent" and "Product" (as `mask` says) to an open object.
   * 0x80000110 when the writer has gone bad.
   */
  long WriteInventoryJson(hlp::JsonWriter& writer, uint32_t mask) const;
  /**
   * @brief Reads the object WriteInventoryJson wrote; sets the bit of each group found.
   * Unknown members are skipped; a wrong type gives 0x80000000, no known member 0x80000185.
   */
  long ReadInventoryJson(hlp::JsonReader& reader);

  /**
   * @brief After a successful dial-home: with kSystem, stores the new name (or else the
   * current one) as "SystemName" so the next report uses the name the server now knows.
   */
  long PersistInventory(uint32_t mask) const;
};

namespace detail {

/**
 * @brief The System group after the names: kind of machine, architecture, processors,
 * operating system version and name, memory. One backend per platform.
 */
long GatherPlatformSystemInfo(SystemInventory& inventory);

}  // namespace detail

}  // namespace kro

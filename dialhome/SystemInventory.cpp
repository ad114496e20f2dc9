#include "dialhome/SystemInventory.h"

#include <bit>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>

#include "common/WinHelper.h"
#include "core/InstallLayout.h"
#include "core/KroStatus.h"
#include "hlp/Json.h"

namespace kro {

namespace {

// Registry strings are bounded so a corrupt value cannot make the agent read megabytes.
constexpr size_t kMaxRegistryBytes = 4096;

constexpr uint32_t kHypervisorPresentBit = 1u << 31;
constexpr uint32_t kHypervisorVendorLeaf = 0x40000000;
constexpr uint32_t kHyperVFeaturesLeaf = 0x40000003;
// "CreatePartitions": only the root partition may create partitions, so this Hyper-V
// "guest" is in fact the host's own operating system.
constexpr uint32_t kHyperVCreatePartitionsBit = 1u << 0;

struct KnownHypervisor {
  const char* vendor;
  KroAgent::SystemType type;
};
constexpr KnownHypervisor kHypervisors[] = {
    {"Microsoft Hv", KroAgent::HyperV},
    {"VMwareVMware", KroAgent::VMware},
    {"XenVMMXenVMM", KroAgent::Xen},
    {"KVMKVMKVM", KroAgent::KVM},
};

void AppendRegisterBytes(uint32_t value, char* out) {
  for (int i = 0; i < 4; ++i) {
    out[i] = static_cast<char>((value >> (8 * i)) & 0xFF);
  }
}

long ToNarrow(const std::wstring& text, std::string& out) {
  if (text.empty()) {
    // The converter refuses empty input; for us an empty name is simply empty.
    out.clear();
    return status::Ok;
  }
  return WideToUtf8(text, out);
}

long ReadPackedProductVersion(uint32_t& packed) {
  std::wstring text;
  const long result = RegistryReadSz(kSetupKey, kProductVersionValue, kMaxRegistryBytes, text);
  if (status::Failed(result)) {
    return result;
  }
  return PackProductVersion(text, packed);
}

// ---- JSON reading ------------------------------------------------------------------------------

enum class FieldResult { Read, Unknown, WrongType };

FieldResult ReadUint(const hlp::JsonReader& reader, uint64_t max, uint64_t& out) {
  uint64_t value = 0;
  if (reader.Token() != hlp::JsonToken::Number || !reader.TryGetUint64(value) || value > max) {
    return FieldResult::WrongType;
  }
  out = value;
  return FieldResult::Read;
}

template <typename T>
FieldResult ReadNumber(const hlp::JsonReader& reader, T& out) {
  uint64_t value = 0;
  const FieldResult result = ReadUint(reader, std::numeric_limits<T>::max(), value);
  if (result == FieldResult::Read) {
    out = static_cast<T>(value);
  }
  return result;
}

FieldResult ReadText(const hlp::JsonReader& reader, std::string& out) {
  if (reader.Token() != hlp::JsonToken::String || !reader.GetString(out)) {
    return FieldResult::WrongType;
  }
  return FieldResult::Read;
}

FieldResult ReadWideText(const hlp::JsonReader& reader, std::wstring& out) {
  std::string text;
  if (ReadText(reader, text) != FieldResult::Read || status::Failed(Utf8ToWide(text, out))) {
    return FieldResult::WrongType;
  }
  return FieldResult::Read;
}

FieldResult ReadDecimalText(const hlp::JsonReader& reader, uint64_t& out) {
  std::string text;
  if (ReadText(reader, text) != FieldResult::Read) {
    return FieldResult::WrongType;
  }
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end) {
    return FieldResult::WrongType;
  }
  out = value;
  return FieldResult::Read;
}

FieldResult ReadBool(const hlp::JsonReader& reader, bool& out) {
  return reader.GetBool(out) ? FieldResult::Read : FieldResult::WrongType;
}

FieldResult ReadSystemField(const hlp::JsonReader& reader, const std::string& name,
                            SystemInventory& inv) {
  if (name == "SystemName")
    return ReadText(reader, inv.systemName);
  if (name == "NewSystemName")
    return ReadText(reader, inv.newSystemName);
  if (name == "SystemType") {
    uint32_t type = 0;
    const FieldResult result = ReadNumber(reader, type);
    inv.systemType = static_cast<KroAgent::SystemType>(type);
    return result;
  }
  if (name == "SystemArchitecture")
    return ReadNumber(reader, inv.systemArchitecture);
  if (name == "ProcessorPackages")
    return ReadNumber(reader, inv.processorPackages);
  if (name == "ProcessorCores")
    return ReadNumber(reader, inv.processorCores);
  if (name == "ProcessorThreads")
    return ReadNumber(reader, inv.processorThreads);
  if (name == "WindowsVersion")
    return ReadNumber(reader, inv.windowsVersion);
  if (name == "WindowsType")
    return ReadNumber(reader, inv.windowsType);
  if (name == "WindowsProductName")
    return ReadWideText(reader, inv.windowsProductName);
  if (name == "TotalMemory")
    return ReadDecimalText(reader, inv.totalMemory);
  if (name == "AvailableMemory")
    return ReadDecimalText(reader, inv.availableMemory);
  return FieldResult::Unknown;
}

FieldResult ReadServiceField(const hlp::JsonReader& reader, const std::string& name,
                             uint32_t& version, uint16_t& port, bool& useSsl) {
  if (name == "Version")
    return ReadNumber(reader, version);
  if (name == "Port")
    return ReadNumber(reader, port);
  if (name == "UseSSL")
    return ReadBool(reader, useSsl);
  return FieldResult::Unknown;
}

/**
 * @brief Walks the members of the object that `reader` has just entered, handing each value
 * to `field`; unknown members are skipped whole. Counts the members `field` knew.
 */
template <typename Field>
long ReadMembers(hlp::JsonReader& reader, Field&& field, unsigned& known) {
  for (;;) {
    const hlp::JsonToken token = reader.Next();
    if (token == hlp::JsonToken::EndObject) {
      return status::Ok;
    }
    if (token != hlp::JsonToken::Name) {
      return token == hlp::JsonToken::Error ? status::MalformedData : status::Failure;
    }
    const std::string name = reader.GetName();
    if (reader.Next() == hlp::JsonToken::Error) {
      return status::MalformedData;
    }
    switch (field(name)) {
      case FieldResult::Read:
        ++known;
        break;
      case FieldResult::WrongType:
        return status::Failure;
      case FieldResult::Unknown:
        if (!reader.SkipValue()) {
          return status::MalformedData;
        }
        break;
    }
  }
}

/** @brief The value just read must open an object, as every group does. */
long EnterObject(const hlp::JsonReader& reader) {
  switch (reader.Token()) {
    case hlp::JsonToken::StartObject:
      return status::Ok;
    case hlp::JsonToken::Error:
      return status::MalformedData;
    default:
      return status::Failure;
  }
}

void WriteServiceGroup(hlp::JsonWriter& writer, const char* group, uint32_t version, uint16_t port,
                       bool useSsl) {
  writer.Name(group);
  writer.Object();
  writer.Name("Version");
  writer.Uint(version);
  writer.Name("Port");
  writer.Uint(port);
  writer.Name("UseSSL");
  writer.Bool(useSsl);
  writer.EndObject();
}

}  // namespace

// ---- Pure pieces -------------------------------------------------------------------------------

KroAgent::SystemType ClassifyHypervisor(const CpuidFunction& cpuid) {
  if (cpuid(0).eax < 1 || (cpuid(1).ecx & kHypervisorPresentBit) == 0) {
    return KroAgent::Physical;
  }
  const CpuidRegisters vendorLeaf = cpuid(kHypervisorVendorLeaf);
  char vendor[13] = {};
  AppendRegisterBytes(vendorLeaf.ebx, vendor);
  AppendRegisterBytes(vendorLeaf.ecx, vendor + 4);
  AppendRegisterBytes(vendorLeaf.edx, vendor + 8);

  KroAgent::SystemType type = KroAgent::Virtual;
  for (const KnownHypervisor& known : kHypervisors) {
    if (std::strncmp(vendor, known.vendor, 12) == 0) {
      type = known.type;
      break;
    }
  }
  if (type == KroAgent::HyperV &&
      (cpuid(kHyperVFeaturesLeaf).ebx & kHyperVCreatePartitionsBit) != 0) {
    return KroAgent::Physical;
  }
  return type;
}

ProcessorCounts CountProcessors(const std::vector<ProcessorEntry>& entries) {
  ProcessorCounts counts;
  for (const ProcessorEntry& entry : entries) {
    if (entry.relation == ProcessorRelation::Package) {
      ++counts.packages;
    } else if (entry.relation == ProcessorRelation::Core) {
      ++counts.cores;
      counts.threads += static_cast<uint32_t>(std::popcount(entry.mask));
    }
  }
  return counts;
}

long PackProductVersion(const std::wstring& text, uint32_t& packed) {
  if (text.empty()) {
    return status::NotAvailable;
  }
  uint32_t parts[4] = {0, 0, 0, 0};
  size_t pos = 0;
  for (uint32_t& part : parts) {
    // Each part is its leading decimal number and whatever follows it up to the next dot is
    // ignored, so a suffix such as "7.0.222.0 beta" does not void the version.
    while (pos < text.size() && text[pos] >= L'0' && text[pos] <= L'9') {
      part = part * 10 + static_cast<uint32_t>(text[pos] - L'0');
      ++pos;
    }
    pos = text.find(L'.', pos);
    if (pos == std::wstring::npos) {
      break;
    }
    ++pos;
  }
  packed =
      (parts[0] << 24) | ((parts[1] & 0xFF) << 16) | ((parts[2] & 0xFFF) << 4) | (parts[3] & 0xF);
  return status::Ok;
}

uint32_t PackWindowsVersion(uint32_t major, uint32_t minor, uint32_t build) {
  return (((major << 8) | minor) << 16) | build;
}

uint32_t PackLinuxVersion(std::string_view release) {
  uint32_t parts[3] = {0, 0, 0};
  size_t pos = 0;
  for (uint32_t& part : parts) {
    const size_t start = pos;
    // Only the low bits are kept, so wrapping on absurdly long numbers changes nothing.
    for (; pos < release.size() && release[pos] >= '0' && release[pos] <= '9'; ++pos) {
      part = part * 10 + static_cast<uint32_t>(release[pos] - '0');
    }
    if (pos == start || pos >= release.size() || release[pos] != '.') {
      break;
    }
    ++pos;
  }
  return kLinuxVersionFlag | ((parts[0] & 0x7F) << 24) | ((parts[1] & 0xFF) << 16) |
         (parts[2] & 0xFFFF);
}

// ---- SystemInventory ---------------------------------------------------------------------------

long SystemInventory::ResetInventory() {
  *this = SystemInventory();
  return status::Ok;
}

long SystemInventory::ResetInventory(const DialHomeInfo& copy) {
  try {
    ResetInventory();
    settings = copy;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long SystemInventory::GatherSystemInfo() {
  try {
    std::string computerName = settings.systemName;
    const auto takeComputerName = [&computerName]() {
      return computerName.empty() ? GetComputerNameDns(computerName) : status::Ok;
    };

    std::wstring recorded;
    if (status::Failed(RegistryReadSz(kDialHomeKey, L"SystemName", kMaxRegistryBytes, recorded))) {
      newSystemName.clear();
      if (const long result = takeComputerName(); status::Failed(result)) {
        return result;
      }
      systemName = computerName;
    } else {
      if (const long result = ToNarrow(recorded, systemName); status::Failed(result)) {
        return result;
      }
      if (const long result = takeComputerName(); status::Failed(result)) {
        return result;
      }
      // The server keeps knowing the machine by its recorded name; a renamed machine announces
      // its new name alongside until the server has accepted it.
      newSystemName = computerName != systemName ? computerName : std::string();
    }
    return detail::GatherPlatformSystemInfo(*this);
  } catch (...) {
    return status::OutOfMemory;
  }
}

long SystemInventory::GatherAgentInfo() {
  try {
    const long result = ReadPackedProductVersion(agentVersion);
    if (status::Failed(result)) {
      return result;
    }
    agentPort = settings.agentPort;
    agentUseSSL = settings.agentSSL;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long SystemInventory::GatherProductInfo() {
  try {
    const long result = ReadPackedProductVersion(productVersion);
    if (status::Failed(result)) {
      return result;
    }
    productPort = settings.productPort;
    productUseSSL = settings.productSSL;
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long SystemInventory::Gather(uint32_t mask) {
  struct Group {
    uint32_t bit;
    long (SystemInventory::*gather)();
  };
  constexpr Group kGroups[] = {
      {kSystem, &SystemInventory::GatherSystemInfo},
      {kAgent, &SystemInventory::GatherAgentInfo},
      {kProduct, &SystemInventory::GatherProductInfo},
  };
  for (const Group& group : kGroups) {
    if ((mask & group.bit) == 0) {
      continue;
    }
    flags &= ~group.bit;
    const long result = (this->*group.gather)();
    if (status::Failed(result)) {
      return result;
    }
    flags |= group.bit;
  }
  return status::Ok;
}

long SystemInventory::WriteInventoryJson(hlp::JsonWriter& writer, uint32_t mask) const {
  try {
    if ((mask & kSystem) != 0) {
      std::string productName;
      if (status::Failed(ToNarrow(windowsProductName, productName))) {
        // A name that does not convert is dropped (the converter logged it); the rest of the
        // report is still worth sending.
        productName.clear();
      }
      writer.Name("System");
      writer.Object();
      writer.Name("SystemName");
      writer.String(systemName);
      writer.Name("NewSystemName");
      writer.String(newSystemName);
      writer.Name("SystemType");
      writer.Uint(static_cast<uint32_t>(systemType));
      writer.Name("SystemArchitecture");
      writer.Uint(systemArchitecture);
      writer.Name("ProcessorPackages");
      writer.Uint(processorPackages);
      writer.Name("ProcessorCores");
      writer.Uint(processorCores);
      writer.Name("ProcessorThreads");
      writer.Uint(processorThreads);
      writer.Name("WindowsVersion");
      writer.Uint(windowsVersion);
      writer.Name("WindowsType");
      writer.Uint(windowsType);
      writer.Name("WindowsProductName");
      writer.String(productName);
      // As text: readers that hold every number in a double would round large sizes.
      writer.Name("TotalMemory");
      writer.String(std::to_string(totalMemory));
      writer.Name("AvailableMemory");
      writer.String(std::to_string(availableMemory));
      writer.EndObject();
    }
    if ((mask & kAgent) != 0) {
      WriteServiceGroup(writer, "Agent", agentVersion, agentPort, agentUseSSL);
    }
    if ((mask & kProduct) != 0) {
      WriteServiceGroup(writer, "Product", productVersion, productPort, productUseSSL);
    }
    return writer.IsGood() ? status::Ok : status::MalformedData;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long SystemInventory::ReadInventoryJson(hlp::JsonReader& reader) {
  try {
    if (reader.Token() == hlp::JsonToken::None) {
      reader.Next();
    }
    if (const long result = EnterObject(reader); status::Failed(result)) {
      return result;
    }
    unsigned known = 0;
    long groupStatus = status::Ok;
    const long result = ReadMembers(
        reader,
        [&](const std::string& name) {
          uint32_t bit = 0;
          unsigned inner = 0;
          if (name == "System") {
            bit = kSystem;
            if ((groupStatus = EnterObject(reader)) == status::Ok) {
              groupStatus = ReadMembers(
                  reader,
                  [&](const std::string& field) { return ReadSystemField(reader, field, *this); },
                  inner);
            }
          } else if (name == "Agent" || name == "Product") {
            const bool agent = name == "Agent";
            bit = agent ? kAgent : kProduct;
            if ((groupStatus = EnterObject(reader)) == status::Ok) {
              groupStatus = ReadMembers(
                  reader,
                  [&](const std::string& field) {
                    return agent ? ReadServiceField(reader, field, agentVersion, agentPort,
                                                    agentUseSSL)
                                 : ReadServiceField(reader, field, productVersion, productPort,
                                                    productUseSSL);
                  },
                  inner);
            }
          } else {
            return FieldResult::Unknown;
          }
          if (status::Failed(groupStatus)) {
            return FieldResult::WrongType;
          }
          flags |= bit;
          return FieldResult::Read;
        },
        known);
    if (status::Failed(groupStatus)) {
      return groupStatus;
    }
    if (status::Failed(result)) {
      return result;
    }
    return known == 0 ? status::NoKnownMember : status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

long SystemInventory::PersistInventory(uint32_t mask) const {
  if ((mask & kSystem) == 0) {
    return status::Ok;
  }
  try {
    const std::string& name = newSystemName.empty() ? systemName : newSystemName;
    if (name.empty()) {
      // Never gathered: writing would erase the name under which the server knows us.
      return status::NotAvailable;
    }
    std::wstring wide;
    if (const long result = Utf8ToWide(name, wide); status::Failed(result)) {
      return result;
    }
    if (status::Failed(RegistryWriteSz(kDialHomeKey, L"SystemName", wide, true))) {
      return status::RegistryWriteFailed;
    }
    return status::Ok;
  } catch (...) {
    return status::OutOfMemory;
  }
}

}  // namespace kro

#include "dialhome/SystemInventory.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "common/WinHelper.h"
#include "core/KroStatus.h"
#include "hlp/Json.h"
#include "tests/support/TestSupport.h"

namespace kro {
namespace {

uint32_t Le(const char* four) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    value |= static_cast<uint32_t>(static_cast<unsigned char>(four[i])) << (8 * i);
  }
  return value;
}

/** @brief Leaf 0x40000000 of a hypervisor with this 12-byte vendor text. */
CpuidRegisters VendorLeaf(const char (&vendor)[13]) {
  return {0x40000005, Le(vendor), Le(vendor + 4), Le(vendor + 8)};
}

std::string WriteJson(const SystemInventory& inventory, uint32_t mask) {
  std::ostringstream out;
  hlp::JsonWriter writer(out);
  writer.Object();
  EXPECT_EQ(inventory.WriteInventoryJson(writer, mask), status::Ok);
  writer.EndObject();
  return out.str();
}

class SystemInventoryTests : public testing::Test {
 protected:
  test::ScopedRegistry registry_;
  SystemInventory inventory_;
};

TEST_F(SystemInventoryTests, ProductVersionPacksFourMaskedParts) {
  const std::pair<const wchar_t*, uint32_t> cases[] = {
      {L"6.2.300.7", 0x060212C7},
      {L"1.2.5000.20", 0x01023884},  // build keeps its low 12 bits, revision its low 4
      {L"1.300", 0x012C0000},        // minor keeps its low 8 bits; missing parts are 0
      {L"300.1.1.1", 0x2C010011},    // what does not fit 32 bits is lost
      {L"7.1 beta.3", 0x07010030},
      {L"x.2", 0x00020000},
  };
  for (const auto& [text, wantPacked] : cases) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(text)));
    uint32_t packed = 0xDEADBEEF;
    ASSERT_EQ(PackProductVersion(text, packed), status::Ok);
    EXPECT_EQ(packed, wantPacked);
  }
  uint32_t packed = 0;
  EXPECT_EQ(PackProductVersion(L"", packed), status::NotAvailable);
}

TEST_F(SystemInventoryTests, WindowsVersionKeepsTheWholeBuild) {
  EXPECT_EQ(PackWindowsVersion(10, 0, 19045), 0x0A004A65u);
  EXPECT_EQ(PackWindowsVersion(6, 1, 7601), 0x06011DB1u);
  EXPECT_EQ(PackWindowsVersion(6, 3, 0x12345), 0x06032345u);  // ORed in, not masked
}

TEST_F(SystemInventoryTests, LinuxVersionCannotBeTakenForWindows) {
  struct Case {
    const char* release;
    uint32_t packed;
  };
  const Case cases[] = {
      {"6.1.0-18-amd64", 0x86010000},
      {"6.18.44-fc-v769", 0x8612002C},
      {"5.15.153.1-microsoft-standard-WSL2", 0x850F0099},
      {"4.9.337", 0x84090151},
      {"6.8", 0x86080000},
      {"300.300.70000", 0xAC2C1170},  // each part keeps its low bits
      {"", 0x80000000},
      {"x.1", 0x80000000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.release);
    EXPECT_EQ(PackLinuxVersion(c.release), c.packed);
  }
}

TEST_F(SystemInventoryTests, HypervisorClassification) {
  // A machine whose leaf 1 sets the hypervisor bit; `vendor` answers leaf 0x40000000 and
  // `root` marks the Hyper-V root partition in leaf 0x40000003.
  const auto guest = [](const char(&vendor)[13], bool root = false) {
    std::map<uint32_t, CpuidRegisters> leaves = {
        {0, {1, 0, 0, 0}}, {1, {0, 0, 1u << 31, 0}}, {0x40000000, VendorLeaf(vendor)}};
    if (root) {
      leaves[0x40000003] = {0, 1, 0, 0};
    }
    return leaves;
  };
  struct Case {
    const char* what;
    std::map<uint32_t, CpuidRegisters> leaves;
    KroAgent::SystemType expected;
  };
  const Case cases[] = {
      {"no hypervisor bit", {{0, {1, 0, 0, 0}}, {1, {}}}, KroAgent::Physical},
      {"no leaf 1", {{0, {}}, {1, {0, 0, 1u << 31, 0}}}, KroAgent::Physical},
      {"Hyper-V guest", guest("Microsoft Hv"), KroAgent::HyperV},
      {"Hyper-V root", guest("Microsoft Hv", true), KroAgent::Physical},
      {"VMware ignores the Hyper-V leaf", guest("VMwareVMware", true), KroAgent::VMware},
      {"Xen", guest("XenVMMXenVMM"), KroAgent::Xen},
      {"KVM", guest("KVMKVMKVM\0\0\0"), KroAgent::KVM},
      {"unknown vendor", guest("TCGTCGTCGTCG"), KroAgent::Virtual},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const auto cpuid = [&c](uint32_t leaf) {
      const auto it = c.leaves.find(leaf);
      return it != c.leaves.end() ? it->second : CpuidRegisters{};
    };
    EXPECT_EQ(ClassifyHypervisor(cpuid), c.expected);
  }
}

TEST_F(SystemInventoryTests, TopologyCountsPackagesCoresAndMaskBits) {
  const std::vector<ProcessorEntry> entries = {
      {ProcessorRelation::Package, 0xFFFF},  {ProcessorRelation::Core, 0xFF},
      {ProcessorRelation::Cache, 0xFFFF},    {ProcessorRelation::NumaNode, 0xFFFF},
      {ProcessorRelation::Core, 0x300},      {ProcessorRelation::Package, 0xFFFF0000},
      {ProcessorRelation::Core, 1ull << 63},
  };
  const ProcessorCounts counts = CountProcessors(entries);
  EXPECT_EQ(counts.packages, 2u);
  EXPECT_EQ(counts.cores, 3u);
  EXPECT_EQ(counts.threads, 11u);

  const ProcessorCounts none = CountProcessors({});
  EXPECT_EQ(none.packages + none.cores + none.threads, 0u);
}

TEST_F(SystemInventoryTests, ResetForgetsWhatWasGathered) {
  inventory_.flags = SystemInventory::kSystem;
  inventory_.ResetInventory();
  EXPECT_EQ(inventory_.systemArchitecture, 0xFFFF);
  EXPECT_EQ(inventory_.systemType, KroAgent::Undetected);
  EXPECT_EQ(inventory_.flags, 0u);
}

TEST_F(SystemInventoryTests, JsonHasFixedMemberOrderAndReadsBack) {
  // Every value distinct, so that a member read into or written from the wrong field shows.
  const std::string json =
      "{\"System\":{\"SystemName\":\"host-a\",\"NewSystemName\":\"\",\"SystemType\":4,"
      "\"SystemArchitecture\":9,\"ProcessorPackages\":1,\"ProcessorCores\":4,"
      "\"ProcessorThreads\":8,\"WindowsVersion\":167791205,\"WindowsType\":3,"
      "\"WindowsProductName\":\"Windows Server \xC3\xA9\","
      "\"TotalMemory\":\"1311768467294899695\",\"AvailableMemory\":\"1024\"},"
      "\"Agent\":{\"Version\":117444064,\"Port\":13568,\"UseSSL\":true},"
      "\"Product\":{\"Version\":0,\"Port\":443,\"UseSSL\":false}}";
  hlp::JsonReader reader(json);
  ASSERT_EQ(inventory_.ReadInventoryJson(reader), status::Ok);
  EXPECT_EQ(inventory_.flags, 0x0Eu);
  EXPECT_EQ(inventory_.windowsProductName, L"Windows Server \u00e9");
  EXPECT_EQ(inventory_.totalMemory, 0x1234567890ABCDEFull);
  EXPECT_EQ(WriteJson(inventory_, 0x0E), json);
  EXPECT_EQ(WriteJson(inventory_, SystemInventory::kAgent),
            "{\"Agent\":{\"Version\":117444064,\"Port\":13568,\"UseSSL\":true}}");
}

TEST_F(SystemInventoryTests, RecordedNameWinsAndAChangedNameIsAnnounced) {
  std::string computer;
  ASSERT_EQ(GetComputerNameDns(computer), status::Ok);
  // recorded: null: no "SystemName" value
  const std::tuple<const wchar_t*, const char*, std::string, std::string> cases[] = {
      {nullptr, "host-b", "host-b", ""},   {L"host-a", "host-b", "host-a", "host-b"},
      {L"host-b", "host-b", "host-b", ""}, {L"Host-B", "host-b", "Host-B", "host-b"},
      {nullptr, "", computer, ""},         {L"old-name", "", "old-name", computer},
  };
  for (const auto& [recorded, settingsName, systemName, newSystemName] : cases) {
    SCOPED_TRACE(systemName + " / " + settingsName);
    test::ScopedRegistry fresh;
    if (recorded != nullptr) {
      ASSERT_EQ(RegistryWriteSz(kDialHomeKey, L"SystemName", recorded, true), status::Ok);
    }
    DialHomeInfo settings;
    settings.systemName = settingsName;
    inventory_.ResetInventory(settings);
    inventory_.newSystemName = "stale";
    ASSERT_EQ(inventory_.Gather(SystemInventory::kSystem), status::Ok);
    EXPECT_EQ(inventory_.systemName, systemName);
    EXPECT_EQ(inventory_.newSystemName, newSystemName);
  }
}

TEST_F(SystemInventoryTests, GatheredSystemValuesAreSane) {
  ASSERT_EQ(inventory_.Gather(SystemInventory::kSystem), status::Ok);
  EXPECT_EQ(inventory_.flags, SystemInventory::kSystem);
  EXPECT_FALSE(inventory_.systemName.empty());
  if (test::HypervisorPresent()) {
    EXPECT_GE(inventory_.systemType, KroAgent::Virtual);
    EXPECT_LE(inventory_.systemType, KroAgent::KVM);
  } else {
    EXPECT_EQ(inventory_.systemType, KroAgent::Physical);
  }
  EXPECT_GE(inventory_.processorPackages, 1u);
  EXPECT_GE(inventory_.processorCores, inventory_.processorPackages);
  EXPECT_GE(inventory_.processorThreads, inventory_.processorCores);
  EXPECT_GT(inventory_.availableMemory, 0u);
  EXPECT_GE(inventory_.totalMemory, inventory_.availableMemory);
#ifdef _WIN32
  EXPECT_EQ(inventory_.windowsVersion & kLinuxVersionFlag, 0u);
  EXPECT_GE(inventory_.windowsVersion >> 24, 5u);  // no Windows before XP runs the agent
  EXPECT_TRUE(inventory_.windowsType >= 1 && inventory_.windowsType <= 3);
#else
  // The kernel's version as the system gives it, outside the agent.
  unsigned major = 0, minor = 0, patch = 0;
  const std::string release = test::ReadFile("/proc/sys/kernel/osrelease");
  ASSERT_GE(std::sscanf(release.c_str(), "%u.%u.%u", &major, &minor, &patch), 2);
  EXPECT_EQ(inventory_.windowsVersion, 0x80000000u | (major << 24) | (minor << 16) | patch);
  EXPECT_EQ(inventory_.windowsType, 0x100u);
#endif
#if defined(__x86_64__)
  EXPECT_EQ(inventory_.systemArchitecture, 9);
#endif

  inventory_.ResetInventory();
  EXPECT_EQ(inventory_.systemArchitecture, 0xFFFF);
  EXPECT_EQ(inventory_.systemType, KroAgent::Undetected);
  EXPECT_EQ(inventory_.flags, 0u);
  EXPECT_TRUE(inventory_.systemName.empty());
}

}  // namespace
}  // namespace kro

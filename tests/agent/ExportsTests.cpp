#include <gtest/gtest.h>

#include <string>

#include "agent/IKroAgent.h"
#include "host/HostPlatform.h"

namespace {

TEST(ExportsTests, BothNamesReachTheSameCodeAndReleaseClearsThePointer) {
  // The module as a host finds it: built into bin/, beside the tests' folder.
  const auto file =
      kro::host::ExecutableFolder().parent_path() / "bin" / kro::host::kModuleFileName;
  std::string error;
  void* module = kro::host::LoadModule(file, error);
  ASSERT_NE(module, nullptr) << file.string() << ": " << error;
  const char* pairs[][2] = {{"InitKroAgent", "InitKroBase"},
                            {"GetKroAgent", "GetKroBase"},
                            {"ReleaseKroAgent", "ReleaseKroBase"},
                            {"DeInitKroAgent", "DeInitKroBase"}};
  for (const auto& pair : pairs) {
    SCOPED_TRACE(pair[0]);
    void* first = kro::host::FindExport(module, pair[0]);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, kro::host::FindExport(module, pair[1]));
  }

  auto get = reinterpret_cast<GetKroAgentFn>(kro::host::FindExport(module, "GetKroBase"));
  auto release =
      reinterpret_cast<ReleaseKroAgentFn>(kro::host::FindExport(module, "ReleaseKroAgent"));
  auto version =
      reinterpret_cast<GetKroAgentVersionFn>(kro::host::FindExport(module, "GetKroAgentVersion"));
  ASSERT_TRUE(version != nullptr);
  EXPECT_STREQ(version(), "7.0.222.0");
  release(nullptr);  // ignored
  IKroAgent* agent = nullptr;
  release(&agent);
  EXPECT_EQ(agent, nullptr);
  agent = get();
  ASSERT_NE(agent, nullptr);
  EXPECT_EQ(agent->GetAgentPort(), 13568);
  release(&agent);
  EXPECT_EQ(agent, nullptr);
}

}  // namespace

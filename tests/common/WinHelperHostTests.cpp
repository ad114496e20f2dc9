#include "common/WinHelper.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "common/KroStatus.h"

namespace kro {
namespace {

#ifdef _WIN32
constexpr const char* kTestExecutable = "common_tests.exe";
#else
constexpr const char* kTestExecutable = "common_tests";
#endif

class HostTests : public testing::Test {};

TEST_F(HostTests, HostDirectoryIsTheTestExecutablesFolder) {
  std::wstring executable;
  ASSERT_EQ(GetHostExecutablePath(executable), status::Ok);
  std::wstring folder = L"stale";
  ASSERT_EQ(GetHostDirectory(folder), status::Ok);

  ASSERT_FALSE(folder.empty());
  EXPECT_NE(folder.back(), kPathSeparator);
  EXPECT_EQ(executable.substr(0, folder.size() + 1), folder + kPathSeparator);
  EXPECT_TRUE(std::filesystem::is_directory(std::filesystem::path(folder)));
  EXPECT_TRUE(std::filesystem::exists(std::filesystem::path(folder) / kTestExecutable));
  EXPECT_EQ(std::filesystem::path(executable).filename().string(), kTestExecutable);

  std::wstring data;
  ASSERT_EQ(GetHostDataDirectory(data), status::Ok);
  EXPECT_EQ(data, folder + kPathSeparator + L"Data");
}

TEST_F(HostTests, ComputerNameIsOneCleanName) {
  std::string name;
  ASSERT_EQ(GetComputerNameDns(name), status::Ok);
  ASSERT_FALSE(name.empty());
  // No terminator or buffer tail counted into the name.
  EXPECT_EQ(std::strlen(name.c_str()), name.size());
  EXPECT_EQ(name.find_first_of(" \t\r\n"), std::string::npos) << name;
}

TEST_F(HostTests, DnsFlushAnswersWithoutCrashing) {
  const long result = FlushDnsCache();
#ifdef _WIN32
  // dnsapi.dll and its entry point exist; whether the flush reports success is the system's.
  EXPECT_TRUE(result == status::Ok || result == status::Failure) << status::Bits(result);
#else
  EXPECT_EQ(result, status::NotAvailable);
#endif
}

}  // namespace
}  // namespace kro

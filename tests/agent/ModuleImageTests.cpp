#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "agent/ModuleImage.h"

namespace {

// Relocated data (a table of pointers) and data written at run time: both must survive.
const char* const kWords[] = {"alpha", "beta", "gamma"};
int gCounter = 0;

struct Shape {
  virtual ~Shape() = default;
  virtual int Corners() const = 0;
};
struct Square : Shape {
  int Corners() const override { return 4; }
};

#ifndef _WIN32
struct Mapping {
  std::uintptr_t start = 0, end = 0;
  std::string perms, path;
  std::size_t rssKiB = 0;
};

std::vector<Mapping> ReadMappings() {
  std::vector<Mapping> mappings;
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  while (std::getline(smaps, line)) {
    std::istringstream fields(line);
    Mapping m;
    char dash = 0;
    std::string offset, device, inode;
    if (std::isxdigit(static_cast<unsigned char>(line[0])) &&
        fields >> std::hex >> m.start >> dash >> m.end >> m.perms >> offset >> device >> inode) {
      fields >> m.path;
      mappings.push_back(m);
    } else if (!mappings.empty() && line.rfind("Rss:", 0) == 0) {
      mappings.back().rssKiB = std::stoul(line.substr(4));
    }
  }
  return mappings;
}

// Resident KiB of the read-only mappings of the file holding `address`.
std::size_t ResidentImageKiB(const void* address) {
  const auto target = reinterpret_cast<std::uintptr_t>(address);
  const std::vector<Mapping> mappings = ReadMappings();
  std::string file;
  for (const Mapping& m : mappings) {
    if (target >= m.start && target < m.end) {
      file = m.path;
    }
  }
  std::size_t total = 0;
  for (const Mapping& m : mappings) {
    if (!file.empty() && m.path == file && m.perms[1] != 'w') {
      total += m.rssKiB;
    }
  }
  return total;
}
#endif

TEST(ModuleImageTests, ReleasesCodePagesAndLeavesDataAlone) {
  gCounter = 41;
  std::unique_ptr<Shape> shape = std::make_unique<Square>();
  std::function<int(int)> twice = [](int v) { return 2 * v; };
#ifndef _WIN32
  const std::size_t before = ResidentImageKiB(reinterpret_cast<const void*>(&ResidentImageKiB));
#endif

  EXPECT_GT(KroAgent::ReleaseStartupPages(), 0u);

#ifndef _WIN32
  const std::size_t after = ResidentImageKiB(reinterpret_cast<const void*>(&ResidentImageKiB));
  EXPECT_LT(after, before);
#endif
  ++gCounter;
  EXPECT_EQ(gCounter, 42);
  EXPECT_STREQ(kWords[1], "beta");
  EXPECT_EQ(shape->Corners(), 4);
  EXPECT_EQ(twice(21), 42);
  // A second release finds the pages that came back and is as harmless.
  EXPECT_GT(KroAgent::ReleaseStartupPages(), 0u);
  EXPECT_EQ(std::strlen(kWords[2]), 5u);
}

}  // namespace

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

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
// Resident KiB of the mapping holding `address` (the image's code), as smaps counts it.
std::size_t ResidentKiB(const void* address) {
  const auto target = reinterpret_cast<std::uintptr_t>(address);
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  bool inside = false;
  while (std::getline(smaps, line)) {
    std::uintptr_t start = 0, end = 0;
    char dash = 0;
    if (std::istringstream(line) >> std::hex >> start >> dash >> end && dash == '-') {
      inside = target >= start && target < end;
    } else if (inside && line.rfind("Rss:", 0) == 0) {
      return std::stoul(line.substr(4));
    }
  }
  return 0;
}
#endif

TEST(ModuleImageTests, ReleasesCodePagesAndLeavesDataAlone) {
  gCounter = 41;
  std::unique_ptr<Shape> shape = std::make_unique<Square>();
  std::function<int(int)> twice = [](int v) { return 2 * v; };
#ifndef _WIN32
  const std::size_t before = ResidentKiB(reinterpret_cast<const void*>(&ResidentKiB));
#endif

  EXPECT_GT(KroAgent::ReleaseStartupPages(), 0u);

#ifndef _WIN32
  const std::size_t after = ResidentKiB(reinterpret_cast<const void*>(&ResidentKiB));
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

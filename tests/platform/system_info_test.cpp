#include "core/platform/system_info.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <vector>

namespace tarv::platform {
namespace {

TEST(SystemInfo, ProcessorCountIsTheAffinityMask) {
  cpu_set_t mask;
  CPU_ZERO(&mask);
  ASSERT_EQ(::sched_getaffinity(0, sizeof mask, &mask), 0);
  EXPECT_EQ(activeProcessorCount(), std::max(1, CPU_COUNT(&mask)));
}

TEST(SystemInfo, ResidentMemoryGrowsWithTouchedPages) {
  auto before = residentMemoryBytes();
  ASSERT_TRUE(before.has_value());
  std::vector<char> block(64 << 20);
  // Volatile stores, so the pages are really touched whatever the optimiser sees.
  for (std::size_t i = 0; i < block.size(); i += 4096) *static_cast<volatile char*>(&block[i]) = 1;
  auto after = residentMemoryBytes();
  ASSERT_TRUE(after.has_value());
  EXPECT_GE(*after, *before + (32u << 20));
}

}  // namespace
}  // namespace tarv::platform

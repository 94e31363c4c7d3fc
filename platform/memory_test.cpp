#include "platform/memory.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

namespace {

// The /proc/self/maps line whose range starts at `base`, or "".
std::string MappingAt(void* base) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  auto want = reinterpret_cast<uintptr_t>(base);
  while (std::getline(maps, line)) {
    std::istringstream fields(line);
    uintptr_t start = 0;
    fields >> std::hex >> start;
    if (start == want) return line;
  }
  return "";
}

TEST(PlatformMemoryTest, PhysicalFiguresAgreeWithSysinfo) {
  platform::PhysicalMemorySpec status;
  ASSERT_TRUE(platform::QueryPhysicalMemory(&status));
  struct sysinfo info;
  ASSERT_EQ(sysinfo(&info), 0);
  EXPECT_EQ(status.totalBytes, static_cast<uint64_t>(info.totalram) * info.mem_unit);
  EXPECT_EQ(status.swapTotalBytes, static_cast<uint64_t>(info.totalswap) * info.mem_unit);
  EXPECT_GT(status.availableBytes, 0u);
  EXPECT_LE(status.availableBytes, status.totalBytes);
}

TEST(PlatformMemoryTest, ReservationsTakeAddressSpaceOnlyAndGoBack) {
  const size_t bytes = size_t{1} << 30;
  void* base = platform::ReserveAddressSpace(bytes);
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(base) % 4096, 0u);
  std::string mapping = MappingAt(base);
  ASSERT_FALSE(mapping.empty());
  EXPECT_NE(mapping.find(" ---p "), std::string::npos) << mapping;
  platform::ReleaseAddressSpace(base, bytes);
  EXPECT_EQ(MappingAt(base), "");
  EXPECT_EQ(platform::ReserveAddressSpace(0), nullptr);
}

}  // namespace

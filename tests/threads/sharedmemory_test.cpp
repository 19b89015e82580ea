// Named shared memory: the header, attaching by name, and a second process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "zqsecurity/crc32.h"
#include "zqthreads/sharedmemory.h"

namespace {
std::string unique_name(const char* base) { return std::string(base) + std::to_string(getpid()); }
char* area(SharedMemory& block) { return static_cast<char*>(static_cast<void*>(block)); }
}  // namespace

TEST(SharedMemory, HeaderAttachAndExists) {
  const std::string name = unique_name("zq-test-block-");
  EXPECT_FALSE(SharedMemory::Exists(name));
  SharedMemory client_before(name);
  EXPECT_EQ(area(client_before), nullptr);  // never created
  EXPECT_EQ(client_before.GetSize(), 0u);
  EXPECT_EQ(client_before.GetId(), "");
  {
    SharedMemory block(1044, name);
    ASSERT_NE(area(block), nullptr);
    EXPECT_TRUE(SharedMemory::Exists(name));
    EXPECT_EQ(block.GetSize(), 1000u);
    EXPECT_EQ(block.GetId(), name);
    EXPECT_EQ(block.GetKey(), mk_crc32(name.data(), static_cast<unsigned>(name.size())));
    std::memset(area(block), 'u', 1004);  // four bytes more than the recorded size
    SharedMemory other(name);
    ASSERT_NE(area(other), nullptr);
    EXPECT_EQ(area(other)[1003], 'u');
    EXPECT_EQ(other.GetSize(), 1000u);
  }
  EXPECT_FALSE(SharedMemory::Exists(name));  // the creator removed the name

  // A 40-character name is kept as 32 characters without terminator.
  const std::string long_name = unique_name("abcdefghijklmnopqrstuvwxyz0123456789ABCD-");
  SharedMemory block(100, long_name);
  std::strcpy(area(block), "tail");
  EXPECT_EQ(block.GetId(), long_name.substr(0, 32) + "tail");
}

TEST(SharedMemory, SecondProcessAttachesByName) {
  const std::string name = unique_name("zq-two-processes-");
  SharedMemory block(256, name);
  ASSERT_NE(area(block), nullptr);
  std::strcpy(area(block), "written by the creator");
  FILE* p = popen((std::string(ZQ_SHM_CLIENT) + " '" + name + "'").c_str(), "r");  // fork and exec
  ASSERT_NE(p, nullptr);
  char line[512] = {}, key[16];
  ASSERT_NE(std::fgets(line, sizeof line, p), nullptr);
  EXPECT_EQ(pclose(p), 0);
  std::snprintf(key, sizeof key, "%08x", block.GetKey());
  EXPECT_EQ(std::string(line), "id=" + name + " size=212 key=" + key + " data=written by the creator\n");
}

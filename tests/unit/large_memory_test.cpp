#include "unit/large_memory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace mivo_test {
namespace {

// A tree of control groups in a folder of its own.
class Groups {
 public:
  Groups() : root_(std::filesystem::temp_directory_path() / ("mivo_groups." + std::to_string(::getpid()))) {
    std::filesystem::create_directories(root_);
  }
  ~Groups() { std::filesystem::remove_all(root_); }
  Groups(const Groups&) = delete;
  Groups& operator=(const Groups&) = delete;

  void Write(const std::string& path, const std::string& text) {
    std::filesystem::create_directories((root_ / path).parent_path());
    std::ofstream(root_ / path) << text;
  }

  // For a process whose membership is `lines`.
  long Available(const std::string& lines) {
    Write("membership", lines);
    return AvailableBytesOfGroups(root_ / "membership", root_);
  }

 private:
  const std::filesystem::path root_;
};

TEST(LargeMemory, IsBoundedByTheTightestGroup) {
  Groups groups;
  groups.Write("outer/memory.max", "5000\n");
  groups.Write("outer/memory.current", "4000\n");
  groups.Write("outer/inner/memory.max", "3000\n");
  groups.Write("outer/inner/memory.current", "100\n");
  EXPECT_EQ(groups.Available("0::/outer/inner\n"), 1000);
  groups.Write("outer/memory.current", "6000\n");
  EXPECT_EQ(groups.Available("0::/outer/inner\n"), 0);
  groups.Write("outer/memory.max", "max\n");
  EXPECT_EQ(groups.Available("0::/outer/inner\n"), 2900);
}

TEST(LargeMemory, IsBoundedByTheGroupThatAContainerSeesAsTheTop) {
  Groups groups;
  groups.Write("memory.max", "5000\n");
  groups.Write("memory.current", "4000\n");
  EXPECT_EQ(groups.Available("0::/\n"), 1000);
  EXPECT_EQ(groups.Available("0::/not/visible\n"), 1000);
}

TEST(LargeMemory, IsBoundedByGroupsOfTheFirstVersion) {
  Groups groups;
  groups.Write("memory/of/memory.limit_in_bytes", "5000\n");
  groups.Write("memory/of/memory.usage_in_bytes", "3000\n");
  EXPECT_EQ(groups.Available("5:cpu,cpuacct:/\n4:memory:/of\n0::/\n"), 2000);
}

TEST(LargeMemory, IsNotBoundedByGroupsThatSayNothing) {
  Groups groups;
  EXPECT_EQ(groups.Available("0::/\n4:memory:/of\n"), kUnlimited);
  EXPECT_EQ(groups.Available("no line of that kind\n"), kUnlimited);
}

}  // namespace
}  // namespace mivo_test

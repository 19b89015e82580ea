// Component traces: sampling by granularity and column dumps.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/scratch_dir.h"
#include "zqcomponents/trace.h"

using namespace components;

namespace {

// Samples "<base + cycle>;x" in every cycle it is asked to.
struct Values : Traceable {
  explicit Values(int base) : base_(base) {}
  std::vector<TraceBinarySample> recorded;
  void SetTraceBuffer(void*, unsigned int) override {}
  void Sample(unsigned int cycle, const TIME& t) override {
    recorded.push_back({cycle, t, std::to_string(base_ + static_cast<int>(cycle)) + ";x"});
  }
  void Clear() override { recorded.clear(); }
  unsigned int Size() override { return static_cast<unsigned>(recorded.size()); }
  unsigned int MaxSize() override { return 100; }
  std::string GetPrintable() override { return ""; }
  void GetBinary(std::vector<TraceBinarySample>& out) override {
    out.insert(out.end(), recorded.begin(), recorded.end());
  }
  int base_;
};

// Points trace `i` at `file`, to be dumped once.
void dump_to(TraceManager& tm, unsigned i, const char* file) {
  tm.GetTraceData(i).SetFile(file);
  tm.GetTraceData(i).SetFileCount(1);
}

}  // namespace

TEST(ComponentTrace, SamplingAndSharedColumnDumps) {
  ScratchDir dir;
  const fixed_string path(dir.path);
  TraceData slots[4];
  TraceManager tm(4, slots, path);
  Values a(100), b(200), c(300);
  EXPECT_EQ(tm.AddTrace(a, "a"), 0u);
  EXPECT_EQ(tm.AddTrace(b, "b"), 1u);
  EXPECT_EQ(tm.AddTrace(c, "c"), 2u);
  EXPECT_EQ(tm.FindTrace("b"), 1u);
  EXPECT_EQ(tm.FindTrace("zz"), TraceManager::kNone);
  for (unsigned i = 0; i < 3; ++i) {
    tm.GetTraceData(i).SetActive(true);
    dump_to(tm, i, "shared.csv");
  }
  tm.GetTraceData(0).SetGranularity(2);
  for (unsigned cycle = 1; cycle <= 4; ++cycle) tm.Sample(cycle, 1000 + cycle);
  EXPECT_EQ(a.recorded.size(), 2u);  // every second cycle
  EXPECT_EQ(b.recorded.size(), 4u);  // granularity 0: every cycle
  c.recorded.resize(1);

  tm.GetTraceData(1).SetActive(false);
  tm.Dump();
  const std::string text = slurp(dir / "shared.csv");
  const std::string third("301;x", 5);
  EXPECT_EQ(text,
            "2;1002;102;x\r\n4;1004;104;x\r\n"
            "1;1001;;201;x\r\n2;1002;;202;x\r\n3;1003;;203;x\r\n4;1004;;204;x\r\n" +
                std::string("1;1001;;\0", 9) + third + "\r\n");
  EXPECT_EQ(tm.GetTraceData(1).GetFileCount(), 0u);  // inactive: dumped once
  EXPECT_EQ(tm.GetTraceData(0).GetFileCount(), 1u);
  EXPECT_EQ(tm.GetTraceData(0).fp, nullptr);

  tm.GetTraceData(0).SetFileCount(0);
  tm.GetTraceData(2).SetFileCount(0);
  tm.Dump();  // nothing has a file count now
  EXPECT_EQ(slurp(dir / "shared.csv"), text);
}

TEST(ComponentTrace, DumpPathsAndFailures) {
  ScratchDir dir;
  char old_cwd[4096];
  ASSERT_NE(getcwd(old_cwd, sizeof old_cwd), nullptr);
  ASSERT_EQ(chdir(dir.path.c_str()), 0);
  const fixed_string empty;
  TraceData slots[2];
  TraceManager tm(2, slots, empty);
  Values a(0), b(0);
  tm.AddTrace(a, "a");
  tm.AddTrace(b, "b");
  a.Sample(1, 2);
  b.Sample(1, 2);
  dump_to(tm, 0, "here.csv");
  dump_to(tm, 1, "no/such/dir.csv");
  ::testing::internal::CaptureStderr();
  tm.Dump();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "ERROR: cannot create trace-dump-file ./no/such/dir.csv\n");
  EXPECT_EQ(slurp("./here.csv"), "1;2;1;x\r\n");
  ASSERT_EQ(chdir(old_cwd), 0);
#ifdef NDEBUG
  Values c(0);
  EXPECT_EQ(tm.AddTrace(c, "full"), TraceManager::kNone);
#endif
}

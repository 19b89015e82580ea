// Trace manager: recording schedule, restarts, dumps, stops and its thread.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "support/exception_text.h"
#include "support/scratch_dir.h"
#include "zqcommon/tracer.h"

namespace {

struct Recorder : Trace {
  explicit Recorder(unsigned int g = 10) : Trace("rec", g) {}
  std::vector<unsigned int> samples;
  unsigned int resized = 0, starts = 0, stops = 0, sampled = 0;
  void T_Resize(unsigned int n) override { resized = n; }
  void T_SetCyclic(bool) override {}
  bool T_IsCyclic() override { return false; }
  void T_Clear() override { samples.clear(); }
  void T_Start() override { ++starts; }
  bool T_IsRunning() override { return true; }
  void T_Stop() override { ++stops; }
  unsigned int T_Size() override { return static_cast<unsigned>(samples.size()); }
  unsigned int T_MaxSize() override { return 1000; }
  void T_Sample() override { samples.push_back(++sampled); }
  std::string T_GetBuffer() override { return std::string("\x01\x02", 2); }
  std::string T_GetPrintable() override { return "samples " + std::to_string(samples.size()); }
};

std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

TEST(TraceManager, RecordingScheduleAndDump) {
  ScratchDir scratch;
  const std::string dir = scratch.path + "/";
  Recorder r;
  TTraceManager tm;
  tm += r;
  tm.Count(0) = 0;
  tm.SetBase(0, dir + "tr");
  tm.Execute(0, 100, 5);  // a step below 10 becomes 10
  EXPECT_EQ(r.resized, 10u);
  EXPECT_EQ(tm.IsRunning(0), 2);
  for (int cycle = 1; cycle <= 99; ++cycle) tm.Cycle();
  EXPECT_EQ(r.samples.size(), 10u);  // cycles 1, 11, ..., 91
  EXPECT_EQ(tm.IsRunning(0), 2);
  tm.Cycle();  // the 100th cycle ends the recording and dumps it
  EXPECT_EQ(tm.IsRunning(0), 1);
  EXPECT_EQ(r.stops, 1u);
  const auto files = files_in(dir);
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[0].substr(0, 3), "tr-");
  EXPECT_EQ(files[0].size(), std::string("tr-dd.mm.yyyy hh:mm:ss.mmm.bin").size());
  EXPECT_EQ(files[1].substr(files[1].size() - 4), ".txt");

  // Resuming a finished slot; restarts; out-of-range answers.
  tm.Count(0) = 2;
  tm.TStart(0);
  tm.Cycle();
  tm.Cycle();
  EXPECT_EQ(tm.Count(0), 0u);
  EXPECT_EQ(r.starts, 3u);
  tm.Count(7) = 5;  // the dummy
  EXPECT_TRUE(tm.IsRunning(7) == 0 && tm.GetStep(7) == 10u && tm.GetDuration(7) == 0u);
  EXPECT_EQ(tm.GetBase(7), "");
  EXPECT_EQ(exception_text([&] { tm[tm.Size()]; }), "invalid TraceManager subscript");
}

TEST(TraceManager, StepsStopsAndCombination) {
  Recorder r(0), s;
  TTraceManager tm;
  tm += r;
  tm.SetStep(0, 3);
  EXPECT_EQ(r.gran, 10u);  // raised and written back
  EXPECT_EQ(tm.GetStep(0), 10u);

  tm.SetDuration(0, TM_TStruct::kEndless);
  tm.SetBase(0, "/nonexistent/dir/never");
  tm.Execute(0, 0, 0);
  for (int i = 0; i < 50; ++i) tm.Cycle();
  EXPECT_EQ(r.stops, 0u);  // endless: never dumped
  tm.TSuspend(0);
  EXPECT_EQ(tm.IsRunning(0), 1);
  tm.TStop(0);  // endless and not active: nothing, and the lock is released
  EXPECT_EQ(tm.GetDuration(0), TM_TStruct::kEndless);
  tm.TStart(0);
  tm.TStop(0);
  EXPECT_EQ(tm.GetDuration(0), 0u);
  EXPECT_EQ(tm.Count(0), 0u);

  // A finite stop ends at the next cycle, with its dump (here: not creatable).
  tm.Execute(0, 1000, 10);
  tm.TStop(0);
  tm.Cycle();
  EXPECT_EQ(tm.IsRunning(0), 1);
  EXPECT_EQ(r.stops, 1u);

  // A slot without a trace: Execute returns, releasing the lock.
  tm.push_back(TM_TStruct());
  tm.Execute(1, 10, 10);
  std::atomic<bool> free_elsewhere{false};
  std::thread([&] { free_elsewhere = !tm.locked(); }).join();
  EXPECT_TRUE(free_elsewhere);

  // Adding and removing whole managers and single traces.
  TraceManager other;
  other += s;
  other += r;
  TraceManager copy(other);
  copy += other;
  EXPECT_EQ(copy.Size(), 4u);
  copy -= other;
  copy -= r;
  ASSERT_EQ(copy.Size(), 1u);
  EXPECT_EQ(&copy[0], &s);
  EXPECT_EQ(tm.GetDuration(0), 1000u) << "combining shares traces, not settings";
}

TEST(TraceManager, SamplingThread) {
  Recorder r;
  TTraceManager tm;
  tm += r;
  tm.Count(0) = 0;
  tm.Start(nullptr);
  tm.Execute(0, 30, 10);
  for (int i = 0; i < 500 && tm.IsRunning(0) == 2; ++i) usleep(10000);
  EXPECT_EQ(tm.IsRunning(0), 1);
  tm.lock();
  EXPECT_EQ(r.samples.size(), 3u);
  tm.unlock();
}

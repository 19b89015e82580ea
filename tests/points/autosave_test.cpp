// Autosave: restore order file, backup, configuration; kill -9 while saving.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "kill_child.h"
#include "support/scratch_dir.h"
#include "zqpoints/Autosave.h"

using zqpoints::Autosave;

TEST(Autosave, FallsBackFromTornFileToBackupToConfiguration) {
  ScratchDir dir;
  const std::string path = dir / "state";
  std::string note;
  {
    Autosave a(path, 0);
    EXPECT_EQ(a.Load(note), Autosave::Source::None);
    EXPECT_NE(note.find("missing"), std::string::npos) << note;
    a.Set("Station.Setpoint", "41");
    ASSERT_TRUE(a.Poll());
    a.Set("Station.Setpoint", "42");
    a.Set("Point.level.Hi", "90\n");  // kept to one line
    ASSERT_TRUE(a.Flush());
    EXPECT_FALSE(a.dirty());
  }
  Autosave b(path, 0);
  ASSERT_EQ(b.Load(note), Autosave::Source::File) << note;
  EXPECT_EQ(b.values().at("Station.Setpoint"), "42");
  EXPECT_EQ(b.values().at("Point.level.Hi"), "90 ");

  // Torn: the end marker cut off. The backup holds the save before.
  const std::string full = slurp(path);
  std::ofstream(path, std::ios::trunc) << full.substr(0, full.size() - 8);
  ASSERT_EQ(b.Load(note), Autosave::Source::Backup) << note;
  EXPECT_EQ(b.values().at("Station.Setpoint"), "41");
  EXPECT_NE(note.find("torn"), std::string::npos) << note;

  // An altered value fails the checksum; no backup left: the configuration.
  std::string altered = full;
  altered[altered.find("42")] = '9';
  std::ofstream(path, std::ios::trunc) << altered;
  unlink((path + ".bak").c_str());
  EXPECT_EQ(b.Load(note), Autosave::Source::None);
  EXPECT_NE(note.find("checksum"), std::string::npos) << note;
  EXPECT_TRUE(b.values().empty());
}

// A child saves as fast as it can and is killed at a random moment; the
// state read back is always one whole save (the counter and its double agree).
TEST(Autosave, KillDuringSavesLeavesAWholeState) {
  ScratchDir dir;
  const std::string path = dir / "state";
  for (int round = 0; round < 10; ++round) {
    ASSERT_TRUE(kill_during(
        [&](const std::function<void()>& ready) {
          Autosave a(path, 0);
          std::string note;
          a.Load(note);
          for (long n = 0; n < 1000000; ++n) {
            a.Set("count", std::to_string(n));
            a.Set("twice", std::to_string(2 * n));
            a.Flush();
            ready();  // a first save is there
          }
        },
        5000 + round * 7000));
    Autosave a(path, 0);
    std::string note;
    const Autosave::Source s = a.Load(note);
    ASSERT_NE(s, Autosave::Source::None) << "round " << round << ": " << note;
    EXPECT_EQ(std::stol(a.values().at("twice")), 2 * std::stol(a.values().at("count")));
  }
}

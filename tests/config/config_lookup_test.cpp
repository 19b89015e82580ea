// Config_File look-ups through its index against a plain scan of the text:
// duplicate sections and entries, names that differ only in case, entries
// added after the first look-up and a name edited in place.
#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/config_text.h"

namespace {

std::string fold(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

// The value get_entry must give, by the rules of the file format: the first
// section of that name (exactly, else upper case, else the first in byte
// order without regard to case), then its first entry of that name.
struct Reference {
  using Entries = std::vector<std::pair<std::string, std::string>>;
  std::vector<std::pair<std::string, Entries>> sections;

  const Entries* section(const std::string& name, bool nocase) const {
    const Entries* best = nullptr;
    std::pair<int, std::string> best_rank{3, ""};  // (rank, name among the caseless matches)
    for (const auto& [n, entries] : sections) {
      const int rank = n == name ? 0 : !nocase ? 3 : n == fold(name) ? 1 : fold(n) == fold(name) ? 2 : 3;
      const std::pair<int, std::string> r{rank, rank == 2 ? n : ""};
      if (r < best_rank) best_rank = r, best = &entries;
    }
    return best;
  }
  std::string get(const std::string& sec, const std::string& key, bool nocase) const {
    if (const Entries* entries = section(sec, nocase)) {
      for (const auto& [k, v] : *entries) {
        if (nocase ? fold(k) == fold(key) : k == key) return v;
      }
    }
    return "<def>";
  }
};

}  // namespace

TEST(ConfigLookup, IndexGivesWhatTheScanGives) {
  const struct { int sections, entries; bool nocase; } shapes[] = {{3, 400, true}, {300, 4, true}, {40, 30, false}};
  std::mt19937 rng(99);
  const char* const variants[] = {"Key", "KEY", "key", "kEy"};
  for (const auto& shape : shapes) {
    Reference ref;
    std::ostringstream text;
    for (int s = 0; s < shape.sections; ++s) {
      // Some names repeat, some differ only in case.
      const std::string name = (rng() % 4 == 0 ? "sec" : "Sec") + std::to_string(rng() % (shape.sections / 2 + 1));
      text << "# comment\n[" << name << "]\n";
      ref.sections.push_back({name, {}});
      for (int e = 0; e < shape.entries; ++e) {
        const std::string key = variants[rng() % 4] + std::to_string(rng() % (shape.entries + 1));
        const std::string value = "v" + std::to_string(s) + "_" + std::to_string(e);
        text << key << " = " << value << (e % 3 == 0 ? " # note\n" : "\n");
        ref.sections.back().second.push_back({key, value});
      }
    }
    Config_File cfg = config_from_text(text.str(), shape.nocase);
    for (int i = 0; i < 3000; ++i) {
      const std::string sec = (rng() % 3 == 0 ? "SEC" : rng() % 2 ? "sec" : "Sec") +
                              std::to_string(rng() % (shape.sections / 2 + 2));
      const std::string key = variants[rng() % 4] + std::to_string(rng() % (shape.entries + 2));
      ASSERT_EQ(cfg.get_entry(sec, key, "<def>"), ref.get(sec, key, shape.nocase)) << sec << "." << key;
    }
  }
}

TEST(ConfigLookup, LaterEditsAreSeen) {
  Config_File cfg = config_from_text("[A]\nx = 1\ny = 2\n[B]\nx = 3");  // no final line end: line 6 is free
  EXPECT_EQ(cfg.get_entry("a", "X", "d"), "1");
  cfg.get_section("B").add_entry("z", std::string("4"));  // after the index was built
  EXPECT_EQ(cfg.get_entry("B", "z", "d"), "4");
  cfg.add_section("C");
  cfg.get_section("C").add_entry("w", std::string("5"));
  EXPECT_EQ(cfg.get_entry("c", "w", "d"), "5");
  // A name changed in place is found under its new name only.
  cfg.get_line(2).data[0] = 'q';
  EXPECT_EQ(cfg.get_entry("A", "q", "d"), "1");
  EXPECT_EQ(cfg.get_entry("A", "x", "d"), "d");
  cfg.clear();
  EXPECT_EQ(cfg.get_entry("A", "y", "d"), "d");
}

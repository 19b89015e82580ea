// Configuration: parsing generated files of 10 k, 100 k and 1 M lines into
// Config_File and destroying it, against inih with a handler that stores
// nothing (the parse alone: Config_File does more, it keeps every line) and
// inih filling a std::map (labelled as such), every call direct
// (direct_call.h). The goal is set for the realistic file: 10,000 lines in
// sections of 48 entries with comments; larger files are bounded by the
// ordered map of lines Config_File keeps, and are reported without one; then get_entry against a look-up in a
// std::map<std::string, std::string> of "SECTION.ENTRY" keys folded to upper
// case (the same case rule), in two shapes: few large sections and many
// small ones. Medians of 5 runs (21 for the 10,000-line files), alternating,
// parse ratios taken run by run; memory from the allocator's count of bytes
// in use.
#include <malloc.h>
#include "bench_util.h"
#include "direct_call.h"
#include <zqcommon/lib_config.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#if __has_include(<ini.h>)
#include <ini.h>
#define ZQ_HAVE_INIH 1
#endif

namespace {

using bench::median;

constexpr int kRuns = 5;

struct Shape {
  const char* name;
  int keys_per_section;
};

// A file of about `lines` lines: a comment and a header per section, entries
// with some comments, a blank line after each section.
long make_file(const std::string& path, long lines, int keys, int& sections) {
  std::ofstream out(path);
  long written = 0;
  sections = 0;
  while (written < lines) {
    out << "# section " << sections << " of the generated file\n[section" << sections << "]\n";
    written += 2;
    for (int e = 0; e < keys && written < lines; ++e, ++written) {
      out << "entry" << e << " = value_" << sections << "_" << e;
      if (e % 5 == 0) out << "   # a comment";
      out << "\n";
    }
    out << "\n";
    ++written;
    ++sections;
  }
  return written;
}



std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

size_t in_use() {
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
}

#ifdef ZQ_HAVE_INIH
int inih_nothing(void*, const char*, const char*, const char*) { return 1; }
int inih_store(void* user, const char* section, const char* name, const char* value) {
  auto* map = static_cast<std::map<std::string, std::string>*>(user);
  (*map)[upper(std::string(section) + "." + name)] = value;
  return 1;
}
#endif

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const std::string path = "/tmp/zq_config_bench.ini";
  const Shape shapes[] = {{"many small sections (48 keys)", 48}, {"few large sections (10,000 keys)", 10000}};
  std::printf("Configuration, medians of %d runs\n", kRuns);
  for (const Shape& shape : shapes) {
    std::printf(" %s\n", shape.name);
    for (long target : {10000L, 100000L, 1000000L}) {
      int sections = 0;
      const long lines = make_file(path, target, shape.keys_per_section, sections);
      std::ifstream probe(path, std::ios::ate | std::ios::binary);
      const double bytes = static_cast<double>(probe.tellg());

      std::vector<double> ours, nothing, into_map;
      const int runs = target == 10000L ? 4 * kRuns + 1 : kRuns;  // a short parse: more runs
      for (int r = 0; r < runs; ++r) {
        ours.push_back(bench::time_calls([&](size_t) { Config_File cfg(path); }, 1));
#ifdef ZQ_HAVE_INIH
        nothing.push_back(bench::time_calls([&](size_t) { return ini_parse(path.c_str(), inih_nothing, nullptr); }, 1));
        into_map.push_back(bench::time_calls(
            [&](size_t) {
              std::map<std::string, std::string> map;
              return ini_parse(path.c_str(), inih_store, &map);
            },
            1));
#endif
      }
      const double o = lines / median(ours) / 1e6;
      std::printf("  %8ld lines  parse: Config_File %5.2f M lines/s", lines, o);
      if (!nothing.empty()) {
        const double n = lines / median(nothing) / 1e6, m = lines / median(into_map) / 1e6;
        // Ratios pass by pass: the load of a shared machine drifts between runs.
        std::vector<double> over_nothing, over_map;
        for (size_t r = 0; r < ours.size(); ++r) {
          over_nothing.push_back(nothing[r] / ours[r]);
          over_map.push_back(into_map[r] / ours[r]);
        }
        const double on = median(over_nothing), om = median(over_map);
        std::printf("  inih no-op %5.2f (%.2fx)  inih into std::map %5.2f (%.2fx)", n, on, m, om);
        std::printf("\n");
        const std::string work = bench::text("config parse + destroy %ld lines, %s", lines, shape.name);
        const bool realistic = target == 10000L && shape.keys_per_section < 100;
        bench::summary({work, "inih, no-op handler (parses only; we keep every line)", bench::text("%.2f M lines/s", n),
                        bench::text("%.2f M lines/s", o), on, realistic ? 1.0 : NAN, "inih",
                        realistic ? "-" : "bounded by the ordered map of lines"});
        bench::summary({work, "inih into std::map (stores entries only)", bench::text("%.2f M lines/s", m),
                        bench::text("%.2f M lines/s", o), om, NAN, "", "-"});
      } else {
        std::printf("  inih: not installed (libinih-dev)\n");
        bench::summary({bench::text("config parse + destroy %ld lines, %s", lines, shape.name), "inih: not installed",
                        "n/a", bench::text("%.2f M lines/s", o), NAN, 1.0, "inih", "-"});
      }

      // Memory and look-ups on one parsed copy.
      const size_t before = in_use();
      auto* held = new Config_File(path);
      const double memory = static_cast<double>(in_use() - before);
      // The look-up index is built by the first look-up: timed on its own.
      const double build_ms =
          bench::time_calls([&](size_t) { return held->get_entry("section0", "entry0", "").size(); }, 1) * 1e3;
      std::map<std::string, std::string> map;
      for (int s = 0; s < sections; ++s) {
        for (const std::string& e : held->get_section_entries("section" + std::to_string(s))) {
          map.emplace(upper("section" + std::to_string(s) + "." + e), held->get_entry("section" + std::to_string(s), e, ""));
        }
      }
      std::mt19937 rng(7);
      std::vector<std::pair<std::string, std::string>> keys;
      for (int i = 0; i < 100000; ++i) {
        const int s = static_cast<int>(rng() % sections);
        const int keys_here = static_cast<int>(std::min<long>(shape.keys_per_section, lines));
        keys.emplace_back("section" + std::to_string(s), "entry" + std::to_string(rng() % keys_here));
      }
      std::vector<double> ours_ns, map_ns;
      size_t found = 0;
      for (int r = 0; r < kRuns; ++r) {
        ours_ns.push_back(bench::time_calls(
                              [&](size_t i) {
                                const std::string value = held->get_entry(keys[i].first, keys[i].second, "");
                                found += value.size();
                                return value.size();
                              },
                              keys.size()) /
                          keys.size() * 1e9);
        map_ns.push_back(bench::time_calls(
                             [&](size_t i) {
                               const auto it = map.find(upper(keys[i].first + "." + keys[i].second));
                               const std::string value = it == map.end() ? std::string() : it->second;
                               found += value.size();
                               return value.size();
                             },
                             keys.size()) /
                         keys.size() * 1e9);
      }
      const double on = median(ours_ns), mn = median(map_ns);
      std::printf("  %8s         get_entry %6.0f ns, std::map %6.0f ns (%.2fx); %d sections; memory %.2fx the file;"
                  " first look-up (builds the index) %.1f ms\n",
                  "", on, mn, mn / on, sections, memory / bytes, build_ms);
      bench::summary({bench::text("get_entry, %ld lines, %s", lines, shape.name),
                      "std::map<string,string> find, upper-case keys", bench::text("%.0f ns", mn),
                      bench::text("%.0f ns", on), mn / on, 1.0, "std::map", "-"});
      if (target == 1000000L) {
        // The goal is memory of at most three times the file: the ratio is the file over our memory.
        bench::summary({bench::text("config memory, 1 M lines, %s", shape.name), "the file's own size",
                        bench::text("%.1f MB", bytes / 1e6), bench::text("%.1f MB", memory / 1e6), bytes / memory,
                        1.0 / 3, "the file", "-"});
      }
      delete held;
      if (found == 0) return 1;
    }
  }
  std::remove(path.c_str());
  return 0;
}

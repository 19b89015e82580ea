// Configuration parsing: Config_File against inih (into a std::map), Poco's
// IniFileConfiguration and Boost.PropertyTree's read_ini on one generated
// 200,000-line file, in one run. Then get_entry look-ups and the memory the
// parsed file takes.
#include <ini.h>
#include <malloc.h>
#include <zqcommon/lib_config.h>

#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kSections = 2000;
constexpr int kEntries = 95;  // plus a comment, a header and blanks: about 100 lines

std::string make_file(const std::string& path, long& lines) {
  std::ofstream out(path);
  lines = 0;
  for (int s = 0; s < kSections; ++s) {
    out << "# section " << s << " of the generated test file\n[section" << s << "]\n";
    lines += 2;
    for (int e = 0; e < kEntries; ++e) {
      out << "entry" << e << " = value_" << s << "_" << e;
      if (e % 5 == 0) out << "   # a comment";
      out << "\n";
      ++lines;
      if (e % 40 == 39) {
        out << "\n";
        ++lines;
      }
    }
    out << "\n";
    ++lines;
  }
  return path;
}

double best_seconds(int passes, const std::function<void()>& run) {
  double best = 1e30;
  for (int i = 0; i < passes; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    run();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
  }
  return best;
}

int inih_store(void* user, const char* section, const char* name, const char* value) {
  auto* map = static_cast<std::map<std::string, std::string>*>(user);
  (*map)[std::string(section) + "." + name] = value;
  return 1;
}

}  // namespace

int main() {
  long lines = 0;
  const std::string path = make_file("/tmp/zq_config_bench.ini", lines);
  std::ifstream probe(path, std::ios::ate | std::ios::binary);
  const double file_bytes = static_cast<double>(probe.tellg());

  const double ours = best_seconds(5, [&] { Config_File cfg(path); });
  const double inih = best_seconds(5, [&] {
    std::map<std::string, std::string> map;
    ini_parse(path.c_str(), inih_store, &map);
  });
  const double poco = best_seconds(5, [&] {
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> cfg(new Poco::Util::IniFileConfiguration(path));
  });
  const double boost = best_seconds(5, [&] {
    boost::property_tree::ptree tree;
    boost::property_tree::ini_parser::read_ini(path, tree);
  });

  auto rate = [&](double s) { return static_cast<double>(lines) / s / 1e6; };
  std::printf("Parsing %ld lines (%.1f MB), best of 5 (million lines per second)\n", lines,
              file_bytes / 1e6);
  std::printf("  Config_File          %6.2f\n", rate(ours));
  std::printf("  inih into std::map   %6.2f   Config_File/inih  = %5.2f\n", rate(inih), inih / ours);
  std::printf("  Poco IniFileConfig   %6.2f   Config_File/Poco  = %5.2f\n", rate(poco), poco / ours);
  std::printf("  Boost read_ini       %6.2f   Config_File/Boost = %5.2f\n", rate(boost), boost / ours);

  // Memory held by a parsed file, from the allocator's count of bytes in use
  // (heap chunks and separately mapped large blocks).
  auto in_use = [] {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
  };
  const size_t before = in_use();
  auto* held = new Config_File(path);
  const size_t after = in_use();
  std::printf("Memory for the parsed file: %.1f MB, %.2f times the file's size\n",
              static_cast<double>(after - before) / 1e6, static_cast<double>(after - before) / file_bytes);

  std::mt19937 rng(7);
  std::vector<std::pair<std::string, std::string>> keys;
  for (int i = 0; i < 100000; ++i) {
    keys.emplace_back("section" + std::to_string(rng() % kSections),
                      "entry" + std::to_string(rng() % kEntries));
  }
  size_t found = 0;
  const double lookups = best_seconds(3, [&] {
    for (const auto& k : keys) found += held->get_entry(k.first, k.second, "").size();
  });
  std::printf("get_entry: %.0f ns per look-up (100,000 random existing entries)\n",
              lookups / keys.size() * 1e9);
  delete held;
  std::remove(path.c_str());
  return found == 0;
}

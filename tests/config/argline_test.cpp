// The command line as the section "@@Argline".
#include <gtest/gtest.h>

#include <fstream>
#include <initializer_list>

#include "support/scratch_dir.h"
#include "zqcommon/lib_config.h"

namespace {

Config_File from_args(std::initializer_list<const char*> args) {
  std::vector<char*> argv;
  for (const char* a : args) argv.push_back(const_cast<char*>(a));
  return Config_File(static_cast<int>(argv.size()), argv.data());
}

// The command line's entry `name`, or "<none>".
template <typename Cfg>
std::string arg(Cfg&& cfg, const std::string& name) {
  return cfg.get_entry("@@Argline", name, "<none>");
}

}  // namespace

TEST(Argline, EveryFormBecomesAnEntry) {
  Config_File only = from_args({"  /usr/bin/app "});
  EXPECT_EQ(only.get_section_entries("@@Argline"), std::vector<std::string>{"PROGRAM_PATH"});
  EXPECT_EQ(arg(only, "PROGRAM_PATH"), "/usr/bin/app");
  EXPECT_EQ(only.get_line(-1000).data, "[@@Argline]");
  EXPECT_EQ(only.get_line(-999).data, "PROGRAM_PATH = /usr/bin/app");

  for (auto args : {std::initializer_list<const char*>{"app", "--CFG=my.cfg"},
                    {"app", "--configfile", "=", "my.cfg"},
                    {"app", "-F", "=my.cfg"},
                    {"app", "--cfg=", "my.cfg"}}) {
    EXPECT_EQ(arg(from_args(args), "config_file"), "my.cfg") << args.begin()[1];
  }

  // A negative number is taken for an option; the flag "=5" is a line
  // without a name.
  Config_File mixed = from_args({"app", "verbose", "-x", "5", "a=b=c", "=5", "-V", "-d", "-5"});
  const std::pair<const char*, const char*> entries[] = {
      {"verbose", "1"}, {"-x", "5"}, {"debuglevel", "1"}, {"-5", "1"}, {"a", "b=c"}, {"=5", "<none>"},
      {"show_version", "1"}};
  for (const auto& [name, value] : entries) EXPECT_EQ(arg(mixed, name), value) << name;
  EXPECT_EQ(arg(from_args({"app", "x", "="}), "x"), "<none>");  // a last "=" has no value
  EXPECT_EQ(Config_File(0, nullptr).Size(), 0u);
}

TEST(Argline, SwitchesUsageAndDebugLevel) {
  std::string debug = "--Debug", other = "-q";
  EXPECT_EQ(Config_File::argline_subst(debug), "debuglevel");
  EXPECT_EQ(Config_File::argline_subst(other), "-q");

  Config_File cfg = from_args({"app", "-h", "-d", "2"});
  EXPECT_EQ(cfg.get_debug(7), 2);
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(cfg.parse_argline_default("extra text"));
  const std::string usage = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(usage.substr(0, 15), "\nUsage is:\n\napp");
  EXPECT_NE(usage.find("-f, --cfg = filename: use filename as config file\nextra text\n"), std::string::npos);

  Config_File no_help = from_args({"app", "-h", "foo"});
  EXPECT_FALSE(no_help.parse_argline_default(""));
  EXPECT_EQ(no_help.get_debug(7), 7);
  EXPECT_EQ(from_args({"app", "--debug=high"}).get_debug(7), 0);

  EXPECT_THROW(Config_File().parse_argline_default(""), std::invalid_argument);
}

TEST(Argline, FileNamedOnTheCommandLineSitsBesideIt) {
  ScratchDir dir;
  const std::string path = dir / "args.cfg";
  std::ofstream(path) << "[net]\nport = 10\n";
  Config_File cfg = from_args({"app", "-f", path.c_str(), "port=20"});
  EXPECT_TRUE(cfg.open_argfile("/nonexistent/default.cfg"));
  EXPECT_EQ(cfg.get_entry("net", "port", ""), "10");
  // The command line wins when asked first.
  EXPECT_EQ(cfg.get_entry("@@Argline", "port", cfg.get_entry("net", "port", "")), "20");
  EXPECT_EQ(cfg.get_line(1).data, "[net]");
  std::ostringstream out;
  cfg.write(out);
  EXPECT_EQ(out.str(), "[net]\r\nport = 10\r\n\r\n");  // the command line is left out
}

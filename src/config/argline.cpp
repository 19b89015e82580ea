// The command line as the configuration section "@@Argline".
#include <cstdio>
#include <cstdlib>

#include "zqcommon/bug.h"
#include "zqcommon/functions.h"
#include "zqcommon/lib_config.h"

namespace {

const char kArgline[] = "@@Argline";
constexpr int kArglineHeader = -1000;

struct Argument {
  std::string name;
  std::string value;
  int consumed;
};

// Reads one "name value" pair from the arguments starting at `i`, in one of
// the forms: name = value, name=value, name =value, name= value, a bare word
// (value "1"), -option value, or -option alone (value "1").
Argument next_argument(int argc, char** argv, int i) {
  const std::string a = Trim(argv[i]);
  const bool has_b = i + 1 < argc;
  const std::string b = has_b ? Trim(argv[i + 1]) : std::string();
  if (has_b && b == "=") {
    const bool has_value = i + 2 < argc;
    return {a, has_value ? Trim(argv[i + 2]) : std::string(), has_value ? 3 : 2};
  }
  // name=value: an '=' after the first character. One that is only the last
  // character is left to the "name= value" form below, which could otherwise
  // never apply.
  const auto eq = a.find('=', 1);
  if (eq != std::string::npos && eq + 1 < a.size()) {
    std::string rest = a;
    std::string name = Trim(GetExtToken(&rest, "="));
    return {name, rest, 1};
  }
  if (has_b && b.size() >= 2 && b[0] == '=') return {a, Trim(b.substr(1)), 2};
  if (a.size() >= 2 && a.back() == '=') {
    return {Trim(a.substr(0, a.size() - 1)), b, has_b ? 2 : 1};
  }
  if (a.empty() || a[0] != '-') return {a, "1", 1};
  if (!has_b || (!b.empty() && b[0] == '-')) return {a, "1", 1};
  return {a, b, 2};
}

}  // namespace

Config_File::Config_File(int argc, char** argv, bool nocase) : ignorecase(nocase) {
  if (argc <= 0 || argv == nullptr) return;
  ZQ_DEBUG(9, "libconfig: parsing command line...\n");
  const int header = kArglineHeader;
  SECTION args = add_section(kArgline, &header);
  args.add_entry("PROGRAM_PATH", Trim(argv[0] != nullptr ? argv[0] : ""), "");
  for (int i = 1; i < argc;) {
    if (argv[i] == nullptr) break;
    Argument arg = next_argument(argc, argv, i);
    args.add_entry(argline_subst(arg.name), arg.value, "");
    i += arg.consumed;
  }
}

std::string& Config_File::argline_subst(std::string& name) {
  static const struct {
    const char* entry;
    const char* switches[3];
  } kSwitches[] = {
      {"debuglevel", {"-D", "--DEBUG", nullptr}},
      {"show_help", {"-H", "--HELP", nullptr}},
      {"config_file", {"-F", "--CFG", "--CONFIGFILE"}},
      {"show_version", {"-V", "--VERSION", nullptr}},
  };
  for (const auto& s : kSwitches) {
    for (const char* sw : s.switches) {
      if (sw != nullptr && (name ^= sw)) return name = s.entry;
    }
  }
  return name;
}

bool Config_File::parse_argline_default(const std::string& extra) {
  SECTION args = get_section(kArgline);  // throws without a command line
  const bool fold = ignorecase;
  const LINE* help = nullptr;
  std::string program;
  for (const LINE* l : args) {
    const std::string name = l->Name();
    if (help == nullptr && (fold ? (name ^= "show_help") : name == "show_help")) help = l;
    if (program.empty() && name == "PROGRAM_PATH") program = l->Value();
  }
  if (help == nullptr || help->Value() != "1") return false;
  std::fprintf(stderr,
               "\nUsage is:\n\n%s [-h, --help][, -d, --debug [=] level][, -f, --cfg [=] filename] "
               "[-option [=] value] [option=value ...]\n\n"
               "-h, --help: show usage only and exit\n"
               "-d, --debug = level: set debug level\n"
               "-f, --cfg = filename: use filename as config file\n"
               "%s\n",
               program.c_str(), extra.c_str());
  return true;
}

bool Config_File::open_argfile(const std::string& def) {
  std::string name = get_entry(kArgline, "config_file", def);
  if (name.empty()) name = def;
  return parse(name);
}

int Config_File::get_debug(int def) {
  return std::atoi(get_entry(kArgline, "debuglevel", itostr(def)).c_str());
}

// stationctl: the station's command-line client.
//
//   stationctl [OPTIONS] [COMMAND [ARGS...]]
//
// With a command: connects, switches to TLS, checks the station's
// certificate, logs in, runs the command, prints its answer and exits with
// 0 (done), 1 (the command failed), 2 (refused) or 3 (cannot connect or
// verify). Without one: an interactive session. See stationctl.1.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zqcommon/lib_config.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "link.h"
#include "tools.h"

#ifndef STATIONCTL_VERSION
#define STATIONCTL_VERSION "unknown"
#endif

namespace {

using namespace stationctl;

const char kUsage[] =
    "usage: stationctl [OPTIONS] [COMMAND [ARGS...]]\n"
    "Runs COMMAND at the station (or, without one, an interactive session).\n"
    "  --host HOST            the station's address (127.0.0.1)\n"
    "  --port PORT            its port (7600)\n"
    "  --ca FILE              verify the station against its CA (tls/ca.pem)\n"
    "  --fingerprint SHA256   or against the SHA-256 of its certificate\n"
    "                         (else: trust on first use, ~/.config/stationctl/known_stations)\n"
    "  --insecure-no-verify   do not verify the station at all\n"
    "  --user NAME            log in as NAME; the password from --password-file,\n"
    "                         STATIONCTL_PASSWORD or a prompt\n"
    "  --password-file FILE   the password (FILE must not be readable by group or others)\n"
    "  --cert FILE --key FILE a client certificate (station --issue-client-cert NAME)\n"
    "  --json                 answers as JSON\n"
    "  --timeout SECONDS      the longest wait for the station (10)\n"
    "  -c FILE                run the commands in FILE (- or a pipe: standard input),\n"
    "                         stopping at the first failure\n"
    "  -s NAME                the station NAME of ~/.config/stationctl/config\n"
    "  --version, -h/--help\n"
    "Commands of stationctl itself: get NAME [DEST], watch [POINT...] [--every S].\n"
    "Exit codes: 0 done, 1 the command failed, 2 refused, 3 cannot connect or verify.\n";

struct Options {
  std::string host = "127.0.0.1";
  int port = 7600;
  Trust trust;
  std::string user, password_file, script, station;
  bool json = false;
  double timeout = 10;
  std::vector<std::string> command;
};

std::string home_path(const std::string& rest) {
  const char* home = std::getenv("HOME");
  return std::string(home != nullptr ? home : ".") + "/.config/stationctl/" + rest;
}

int usage_error(const std::string& why) {
  std::fprintf(stderr, "stationctl: %s\n%s", why.c_str(), kUsage);
  return kRefused;
}

bool parse_number(const std::string& text, double& out) {
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == 0 && out > 0;
}

// One option's value into `o`: "" when it fits, else why not.
std::string set_option(Options& o, const std::string& name, const std::string& value) {
  double number = 0;
  if (name == "host") o.host = value;
  else if (name == "port") {
    if (!parse_number(value, number) || number > 65535 || number != static_cast<int>(number)) return "port '" + value + "'";
    o.port = static_cast<int>(number);
  } else if (name == "ca") o.trust.ca = value;
  else if (name == "fingerprint") o.trust.fingerprint = value;
  else if (name == "user") o.user = value;
  else if (name == "password-file") o.password_file = value;
  else if (name == "cert") o.trust.cert = value;
  else if (name == "key") o.trust.key = value;
  else if (name == "timeout") {
    if (!parse_number(value, number)) return "timeout '" + value + "' (seconds, more than 0)";
    o.timeout = number;
  } else return "no setting " + name;
  return "";
}

// The section `name` of the settings file: its keys are the long options.
bool load_station(Options& o, const std::string& name) {
  const std::string path = home_path("config");
  if (access(path.c_str(), R_OK) != 0) {
    std::fprintf(stderr, "stationctl: -s %s: cannot read %s\n", name.c_str(), path.c_str());
    return false;
  }
  Config_File file(path);
  if (!file.has_section(name)) {
    std::fprintf(stderr, "stationctl: -s %s: no section [%s] in %s\n", name.c_str(), name.c_str(), path.c_str());
    return false;
  }
  for (const std::string& key : file.get_section_entries(name)) {
    int line = 0;
    const std::string value = file.get_entry(name, key, "", nullptr, &line);
    const std::string why = set_option(o, key, value);
    if (!why.empty()) {
      std::fprintf(stderr, "stationctl: %s line %d: %s\n", path.c_str(), line, why.c_str());
      return false;
    }
  }
  return true;
}

const option kLong[] = {{"host", required_argument, nullptr, 0},
                        {"port", required_argument, nullptr, 0},
                        {"ca", required_argument, nullptr, 0},
                        {"fingerprint", required_argument, nullptr, 0},
                        {"insecure-no-verify", no_argument, nullptr, 'I'},
                        {"user", required_argument, nullptr, 0},
                        {"password-file", required_argument, nullptr, 0},
                        {"cert", required_argument, nullptr, 0},
                        {"key", required_argument, nullptr, 0},
                        {"json", no_argument, nullptr, 'j'},
                        {"timeout", required_argument, nullptr, 0},
                        {"version", no_argument, nullptr, 'V'},
                        {"help", no_argument, nullptr, 'h'},
                        {nullptr, 0, nullptr, 0}};

// -1 to go on, else the exit code (after -h, --version or a bad option).
int parse_options(int argc, char** argv, Options& o) {
  // -s first: the named station's settings, which the other options override.
  opterr = 0;
  int index = 0;
  for (int c; (c = getopt_long(argc, argv, "+hc:s:", kLong, &index)) != -1;) {
    if (c == 's') o.station = optarg;
  }
  if (!o.station.empty() && !load_station(o, o.station)) return kRefused;
  optind = 0;  // the second pass, from the start
  for (int c; (c = getopt_long(argc, argv, "+hc:s:", kLong, &index)) != -1;) {
    switch (c) {
      case 0: {
        const std::string why = set_option(o, kLong[index].name, optarg);
        if (!why.empty()) return usage_error(why);
        break;
      }
      case 'I': o.trust.insecure = true; break;
      case 'j': o.json = true; break;
      case 'c': o.script = optarg; break;
      case 's': break;
      case 'V': std::printf("stationctl %s\n", STATIONCTL_VERSION); return kDone;
      case 'h': std::fputs(kUsage, stdout); return kDone;
      default:
        return usage_error(std::string("unknown option or missing value: ") + argv[optind - 1]);
    }
  }
  for (int i = optind; i < argc; ++i) o.command.push_back(argv[i]);
  if (!o.trust.ca.empty() + !o.trust.fingerprint.empty() + o.trust.insecure > 1) {
    return usage_error("--ca, --fingerprint and --insecure-no-verify exclude each other");
  }
  if (!o.trust.fingerprint.empty() && normalize_fingerprint(o.trust.fingerprint).empty()) {
    return usage_error("--fingerprint: 64 hexadecimal digits (colons allowed) expected");
  }
  if (o.trust.cert.empty() != o.trust.key.empty()) return usage_error("--cert and --key go together");
  o.trust.known_file = home_path("known_stations");
  return -1;
}

// The password of --user, read before connecting (a prompt does not count
// against --timeout): false with the reason printed.
bool password_for(const Options& o, std::string& password) {
  if (!o.password_file.empty()) {
    struct stat st {};
    if (stat(o.password_file.c_str(), &st) != 0) {
      std::fprintf(stderr, "stationctl: --password-file %s: %s\n", o.password_file.c_str(), std::strerror(errno));
      return false;
    }
    if ((st.st_mode & 077) != 0) {
      std::fprintf(stderr, "stationctl: --password-file %s is readable by group or others (mode %03o): refused; "
                   "chmod 600 %s\n", o.password_file.c_str(), st.st_mode & 0777, o.password_file.c_str());
      return false;
    }
    std::ifstream in(o.password_file);
    std::getline(in, password);
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return true;
  }
  if (const char* env = std::getenv("STATIONCTL_PASSWORD")) {
    password = env;
    return true;
  }
  if (ask_password("password for " + o.user + ": ", password)) return true;
  std::fprintf(stderr, "stationctl: no terminal to ask the password of %s on: use --password-file or "
               "STATIONCTL_PASSWORD\n", o.user.c_str());
  return false;
}

// The commands of FILE, one a line ('#' starts a comment line), up to the
// first that does not end with 0.
int run_script(Link& link, const Options& o) {
  std::ifstream in(o.script);
  if (!in) {
    std::fprintf(stderr, "stationctl: -c %s: %s\n", o.script.c_str(), std::strerror(errno));
    return kFailed;
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') continue;
    line = line.substr(first, line.find_last_not_of(" \t\r") + 1 - first);
    link.Arm(o.timeout);
    const Answer a = link.Ask(line);
    print_answer(line, a, o.json);
    const int rc = exit_code(a);
    if (rc != kDone) {
      std::fprintf(stderr, "stationctl: %s line %d: %s%s\n", o.script.c_str(), number, line.c_str(),
                   a.code < 0 ? (": " + link.Error()).c_str() : ": failed, stopping");
      return rc;
    }
  }
  return kDone;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  const int early = parse_options(argc, argv, o);
  if (early >= 0) return early;
  std::string password;
  if (!o.user.empty() && !password_for(o, password)) return kRefused;

  Link link;
  link.Arm(o.timeout);
  int rc = link.Open(o.host, o.port, o.trust);
  if (rc == kDone) rc = link.Login(o.user, password);
  std::fill(password.begin(), password.end(), '\0');
  if (rc != kDone) {
    if (o.json) {
      std::printf("{\"code\": %d, \"error\": %s}\n", rc, json_text(link.Error()).c_str());
    }
    std::fprintf(stderr, "stationctl: %s\n", link.Error().c_str());
    return rc;
  }
  // Commands from a pipe are a script: no prompts, stop at the first failure.
  if (o.script == "-" || (o.script.empty() && o.command.empty() && !isatty(STDIN_FILENO))) o.script = "/dev/stdin";
  if (!o.script.empty()) return run_script(link, o);
  if (o.command.empty()) return interactive(link, home_path("history"), o.timeout);
  const std::vector<std::string> args(o.command.begin() + 1, o.command.end());
  if (o.command[0] == "get") return get_file(link, args, o.timeout, o.json);
  if (o.command[0] == "watch") return watch(link, args, o.timeout);
  std::string line;
  for (const std::string& word : o.command) line += (line.empty() ? "" : " ") + word;
  const Answer a = link.Ask(line);
  print_answer(line, a, o.json);
  if (a.code < 0) std::fprintf(stderr, "stationctl: %s: %s\n", line.c_str(), link.Error().c_str());
  return exit_code(a);
}

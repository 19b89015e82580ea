// One command line from a remote channel on a fresh interpreter.
#include "remote_command.h"

#include <zqcommon/cli.h>
#include <zqsecurity/userfile.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <vector>

#include "access.h"
#include "station.h"

namespace station {

namespace {

// Words of a command line, without empty ones.
std::vector<std::string> words_of(const std::string& line) {
  std::vector<std::string> words;
  for (size_t p = 0; p < line.size();) {
    const size_t q = line.find(' ', p);
    const size_t end = q == std::string::npos ? line.size() : q;
    if (end > p) words.push_back(line.substr(p, end - p));
    p = end + 1;
  }
  return words;
}

// Commands no remote channel runs: they steer the terminal session itself.
const std::set<std::string>& never_remote() {
  static const std::set<std::string> never = {"starttls", "login", "exit", "quit", "editing"};
  return never;
}

}  // namespace

bool remote_may_run(Station& st, int level, const std::string& line) {
  const std::vector<std::string> words = words_of(line);
  FILE* null = std::fopen("/dev/null", "r+");
  if (null == nullptr) return false;
  Session session;
  session.station = &st;
  session.out = null;
  session.network = true;
  bool may = false;
  {
    CLI cli(null, null, null);
    register_commands(cli, session);
    apply_command_levels(cli);
    may = !words.empty() && never_remote().count(words[0]) == 0 && cli.RequiredLevel(words) <= level;
  }
  std::fclose(null);
  return may;
}

RemoteAnswer run_remote_command(Station& st, const RemoteCaller& who, const std::string& line) {
  const std::vector<std::string> words = words_of(line);
  RemoteAnswer answer;
  char* text = nullptr;
  size_t size = 0;
  FILE* in = std::fopen("/dev/null", "r");
  FILE* out = open_memstream(&text, &size);
  if (in != nullptr && out != nullptr) {
    Session session;
    session.station = &st;
    session.out = out;
    session.network = true;
    session.peer = who.peer;
    session.level = who.level;
    session.access.user = who.user;
    CLI cli(in, out, out);
    register_commands(cli, session);
    apply_command_levels(cli);
    cli.SetSessionLevel(who.level);
    if (words.empty() || never_remote().count(words[0]) != 0 || cli.RequiredLevel(words) > who.level) {
      answer.result = 403;
    } else if (cli.find_command(words[0]) == nullptr) {
      std::fprintf(out, "%s: command not found\r\n", words[0].c_str());
      answer.result = 127;
    } else {
      std::string copy = line;
      cli.parse(copy);
      answer.result = cli.retcode;
    }
  }
  if (in != nullptr) std::fclose(in);
  if (out != nullptr) std::fclose(out);
  if (text != nullptr) answer.output.assign(text, size);
  std::free(text);
  if (answer.result == 403 && !who.log_refusals) return answer;
  Session audited;
  audited.peer = who.peer;
  audited.level = who.level;
  audited.access.user = who.user;
  audit_line(st.log, audited, line, answer.result);
  return answer;
}

}  // namespace station

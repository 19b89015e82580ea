// The station's console: the interpreter's line editor, the history file of
// the terminal, completion of every command's arguments and the `editing`
// command that switches a network session to it.
#include <dirent.h>
#include <sys/stat.h>
#include <zqcommon/cli.h>
#include <zqcommon/cli_editor.h>
#include <zqsecurity/hash.h>
#include <zqsecurity/userfile.h>

#include <cstdio>

#include "station.h"

namespace station {

namespace {

typedef std::vector<std::string> Words;

// Where `hash` and `crc` look for files: Station.DataDir for a network
// session, the working directory at the terminal.
std::string data_dir(const Session& s) {
  const std::string& dir = s.station->settings.DataDir;
  return s.network && !dir.empty() ? dir : ".";
}

// Names in the folder of `partial` (relative to `base`), folders with a '/'.
Words files(const std::string& base, const std::string& partial) {
  const size_t slash = partial.rfind('/');
  const std::string sub = slash == std::string::npos ? "" : partial.substr(0, slash + 1);
  const std::string dir = sub.empty() ? base : sub[0] == '/' ? sub : base + "/" + sub;
  Words names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    struct stat st {};
    const bool folder = stat((dir + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    names.push_back(sub + name + (folder ? "/" : ""));
    if (names.size() >= 10000) break;  // a huge folder: enough to choose from
  }
  closedir(d);
  return names;
}

Words hash_methods() {
  static const char* const kKnown[] = {"md5",      "sha1",       "sha224",     "sha256", "sha384",
                                       "sha512",   "sha3-256",   "sha3-512",   "ripemd160",
                                       "blake2b512", "blake2s256", "crc32",      "crc16"};
  Words names;
  for (const char* name : kKnown) {
    if (!ZQSecurity::Hash(name).GetMethod().empty()) names.push_back(name);
  }
  return names;
}

int cmd_editing(void* arg, int argc, const char** argv) {
  Session& s = *static_cast<Session*>(arg);
  if (argc != 2 || std::string(argv[1]) != "on" || s.machine) {
    std::fputs("usage: editing on (in human mode)\r\n", s.out);
    return 1;
  }
  s.want_editing = true;  // the session's loop switches after this answer
  return 0;
}

}  // namespace

const std::vector<std::pair<const char*, unsigned int>>& bit_names() {
  static const std::vector<std::pair<const char*, unsigned int>> kNames = {
      {"heater", SensorTask::kHeater}, {"alarm", SensorTask::kAlarm}, {"inject", SensorTask::kInject}};
  return kNames;
}

void setup_console(CLI& cli, Session& s, const std::string& history_file) {
  if (s.network && !s.want_editing) {
    cli.Register(cmd_editing, &s, "editing", nullptr,
                 "editing on: line editing, history search and completion for this session");
    return;
  }
  CLI_Editor& ed = *cli.EnableEditing();
  ed.SetEndOnEof(s.network);
  // help COMMAND tells each level what it may do, from the same rules the
  // interpreter enforces.
  std::map<int, std::string> levels;
  for (auto l : {ZQSecurity::kViewer, ZQSecurity::kOperator, ZQSecurity::kAdmin}) {
    levels[l] = ZQSecurity::UserFile::LevelName(l);
  }
  ed.SetLevelNames(levels);
  if (!history_file.empty()) {
    std::string error;
    if (!ed.SetHistoryFile(history_file, 500, 30, &error)) {
      s.station->log.Add(elog_WARN, 0, "history not kept: %s", error.c_str());
    }
  }
  Station* st = s.station;
  Session* session = &s;
  ed.SetCompleter("hash", [session](const Words& before, const std::string& partial) {
    return before.size() == 1 ? hash_methods() : before.size() == 2 ? files(data_dir(*session), partial) : Words();
  });
  ed.SetCompleter("crc", [session](const Words& before, const std::string& partial) {
    return before.size() == 1 ? files(data_dir(*session), partial) : Words();
  });
  ed.SetCompleter("trace", [](const Words& before, const std::string&) {
    return before.size() == 1 ? Words{"start", "stop", "dump"} : Words();
  });
  ed.SetCompleter("io", [](const Words& before, const std::string&) {
    Words names;
    if (before.size() == 1) names = {"get", "set", "clear", "toggle"};
    if (before.size() == 2) {
      for (auto& b : bit_names()) names.push_back(b.first);
      for (int i = 0; i < 8; ++i) names.push_back(std::to_string(i));
    }
    return names;
  });
  ed.SetCompleter("config", [st](const Words& before, const std::string&) {
    Words names;
    if (before.size() == 1) names = {"show", "set", "save"};
    if (before.size() == 2 && before[1] == "set") {
      for (auto& section : sections(*st)) {
        for (auto& entry : *section.second) names.push_back(section.first + "." + entry.first);
      }
    }
    return names;
  });
}

}  // namespace station

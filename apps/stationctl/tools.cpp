// stationctl over an open session: answers, files, watching, interactive use.
#include "tools.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>
#include <zqcommon/cli.h>
#include <zqcommon/cli_editor.h>
#include <zqsecurity/hash.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <sstream>

namespace stationctl {

namespace {

volatile sig_atomic_t g_interrupted = 0;
void on_interrupt(int) { g_interrupted = 1; }

double seconds_now() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::vector<std::string> words_of(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

}  // namespace

int exit_code(const Answer& a) {
  if (a.code < 0) return kNoStation;
  if (a.code == kDone || a.code == kRefused) return a.code;
  return kFailed;
}

std::string json_text(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

void print_answer(const std::string& command, const Answer& a, bool json) {
  if (!json) {
    for (const std::string& line : a.lines) std::printf("%s\n", line.c_str());
    std::fflush(stdout);
    return;
  }
  std::string out = "{\"command\": " + json_text(command) + ", \"code\": " + std::to_string(exit_code(a)) +
                    ", \"lines\": [";
  for (size_t i = 0; i < a.lines.size(); ++i) out += (i == 0 ? "" : ", ") + json_text(a.lines[i]);
  std::printf("%s]}\n", out.c_str());
  std::fflush(stdout);
}

bool ask_password(const std::string& prompt, std::string& password) {
  const int tty = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (tty < 0) return false;
  termios old{};
  const bool is_tty = tcgetattr(tty, &old) == 0;
  if (is_tty) {
    termios quiet = old;
    quiet.c_lflag &= static_cast<tcflag_t>(~ECHO);
    quiet.c_lflag |= ICANON;
    tcsetattr(tty, TCSAFLUSH, &quiet);
  }
  const ssize_t ignored = write(tty, prompt.data(), prompt.size());
  (void)ignored;
  password.clear();
  char c = 0;
  while (read(tty, &c, 1) == 1 && c != '\n' && c != '\r') password += c;
  if (is_tty) tcsetattr(tty, TCSAFLUSH, &old);
  const ssize_t ignored2 = write(tty, "\n", 1);
  (void)ignored2;
  close(tty);
  return is_tty;
}

// ------------------------------------------------------------------- get

int get_file(Link& link, const std::vector<std::string>& args, double timeout, bool json) {
  if (args.empty() || args.size() > 2) {
    std::fprintf(stderr, "stationctl: usage: get NAME [DEST]\n");
    return kFailed;
  }
  const std::string& name = args[0];
  std::string dest = args.size() > 1 ? args[1] : ".";
  struct stat st {};
  if (stat(dest.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    dest += (dest.back() == '/' ? "" : "/") + name.substr(name.rfind('/') + 1);
  }
  Fetched f;
  while (!f.started || f.data.size() < f.size) {
    link.Arm(timeout);
    const Answer a = link.Ask("get " + name + " " + std::to_string(f.data.size()));
    if (a.code != kDone) {
      print_answer("get " + name, a, json);
      if (a.code < 0) std::fprintf(stderr, "stationctl: get %s: %s\n", name.c_str(), link.Error().c_str());
      return exit_code(a);
    }
    std::string why;
    if (!take_piece(a, f, why)) {
      std::fprintf(stderr, "stationctl: get %s: %s\n", name.c_str(), why.c_str());
      return kFailed;
    }
  }
  const std::string& data = f.data;
  const std::string got = ZQSecurity::Hash("sha256").mkHashText(data.data(), static_cast<unsigned int>(data.size()));
  if (got != f.sha256) {
    std::fprintf(stderr, "stationctl: get %s: %zu bytes with SHA-256 %s, the station announced %s\n", name.c_str(),
                 data.size(), got.c_str(), f.sha256.c_str());
    return kFailed;
  }
  const std::string part = dest + ".part";
  FILE* out = std::fopen(part.c_str(), "wb");
  const bool written = out != nullptr && std::fwrite(data.data(), 1, data.size(), out) == data.size();
  if (out == nullptr || std::fclose(out) != 0 || !written || std::rename(part.c_str(), dest.c_str()) != 0) {
    std::fprintf(stderr, "stationctl: cannot write %s: %s\n", dest.c_str(), std::strerror(errno));
    std::remove(part.c_str());
    return kFailed;
  }
  if (json) {
    std::printf("{\"command\": %s, \"code\": 0, \"file\": %s, \"size\": %zu, \"sha256\": \"%s\", \"dest\": %s}\n",
                json_text("get " + name).c_str(), json_text(name).c_str(), data.size(), f.sha256.c_str(),
                json_text(dest).c_str());
  } else {
    std::printf("%s: %zu bytes, SHA-256 %s, written to %s\n", name.c_str(), data.size(), f.sha256.c_str(), dest.c_str());
  }
  return kDone;
}

// ----------------------------------------------------------------- watch

namespace {

// Where watched values come from. The station's `status` serves now; a
// source for the station's points takes its place by answering the same.
class Source {
 public:
  virtual ~Source() = default;
  // The names this source can report.
  virtual std::vector<std::string> Names() const = 0;
  // The current values: false (with the answer's code in `code`) when the
  // station did not give them.
  virtual bool Poll(Link& link, std::vector<Reading>& out, int& code) = 0;
};

// The values `status` shows: the sensor reading with the worse of its two
// range watches, and the mean cycle length with the overrun watch.
class StatusSource : public Source {
 public:
  std::vector<std::string> Names() const override { return {"reading", "cycle_avg"}; }
  bool Poll(Link& link, std::vector<Reading>& out, int& code) override {
    const Answer a = link.Ask("status");
    code = exit_code(a);
    if (a.code != kDone) return false;
    out = status_readings(a.lines);
    return !out.empty();
  }
};

const int kTrendColumns = 60;
const double kTrendSeconds = 60;

// A one-line trend of (time, value) samples over the last minute: one
// column per second, eight heights between the window's least and greatest
// value; columns without a sample stay blank.
std::string trend(const std::deque<std::pair<double, double>>& samples, double now) {
  static const char* const kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                        "\u2585", "\u2586", "\u2587", "\u2588"};
  double column[kTrendColumns];
  bool filled[kTrendColumns] = {};
  double lo = HUGE_VAL, hi = -HUGE_VAL;
  for (const auto& s : samples) {
    const int c = static_cast<int>((s.first - (now - kTrendSeconds)) / kTrendSeconds * kTrendColumns);
    if (c < 0 || c >= kTrendColumns) continue;
    column[c] = s.second;
    filled[c] = true;
    lo = std::min(lo, s.second);
    hi = std::max(hi, s.second);
  }
  std::string out;
  for (int c = 0; c < kTrendColumns; ++c) {
    if (!filled[c]) {
      out += ' ';
      continue;
    }
    const int level = hi > lo ? static_cast<int>((column[c] - lo) / (hi - lo) * 7.999) : 3;
    out += kBlocks[level];
  }
  return out;
}

}  // namespace

int watch(Link& link, const std::vector<std::string>& args, double timeout) {
  double every = 1;
  long count = -1;  // draws; -1: until Ctrl-C
  std::vector<std::string> wanted;
  for (size_t i = 0; i < args.size(); ++i) {
    char* end = nullptr;
    if ((args[i] == "--every" || args[i] == "--count") && i + 1 < args.size()) {
      const double v = std::strtod(args[i + 1].c_str(), &end);
      if (*end != 0 || v <= 0 || (args[i] == "--every" && v < 0.1)) {
        std::fprintf(stderr, "stationctl: watch: %s %s: a number of %s expected\n", args[i].c_str(),
                     args[i + 1].c_str(), args[i] == "--every" ? "seconds, at least 0.1" : "draws");
        return kFailed;
      }
      if (args[i] == "--every") every = v;
      else count = static_cast<long>(v);
      ++i;
    } else {
      wanted.push_back(args[i]);
    }
  }
  std::unique_ptr<Source> source(new StatusSource);
  std::string known;
  for (const std::string& n : source->Names()) known += (known.empty() ? "" : ", ") + n;
  for (const std::string& w : wanted) {
    bool found = false;
    for (const std::string& n : source->Names()) found = found || n == w;
    if (!found) {
      std::fprintf(stderr, "stationctl: watch: no point %s (known: %s)\n", w.c_str(), known.c_str());
      return kFailed;
    }
  }
  struct sigaction sa {};
  sa.sa_handler = on_interrupt;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  std::map<std::string, std::deque<std::pair<double, double>>> history;
  size_t drawn = 0;  // lines of the last draw
  std::vector<Reading> readings;
  for (long n = 0; !g_interrupted && (count < 0 || n < count); ++n) {
    const double started = seconds_now();
    link.Arm(timeout);
    int code = 0;
    if (!source->Poll(link, readings, code)) {
      std::fprintf(stderr, "\nstationctl: watch: %s\n",
                   code == kNoStation ? link.Error().c_str() : "the station did not give the values");
      return code == kDone ? kFailed : code;
    }
    std::string screen;
    if (drawn > 0) screen += "\x1b[" + std::to_string(drawn) + "A";
    char line[256];
    std::snprintf(line, sizeof line, "\r\x1b[Kstationctl watch: every %g s, the last minute (Ctrl-C ends)\n", every);
    screen += line;
    size_t lines = 1;
    for (const Reading& r : readings) {
      if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), r.name) == wanted.end()) continue;
      auto& h = history[r.name];
      h.emplace_back(started, r.value);
      while (!h.empty() && h.front().first < started - kTrendSeconds) h.pop_front();
      std::snprintf(line, sizeof line, "\r\x1b[K%-10s %12.4f %-3s %-8s ", r.name.c_str(), r.value, r.unit.c_str(),
                    r.state.c_str());
      screen += line + trend(h, started) + "\n";
      ++lines;
    }
    std::fputs(screen.c_str(), stdout);
    std::fflush(stdout);
    drawn = lines;
    while (!g_interrupted && (count < 0 || n + 1 < count) && seconds_now() - started < every) usleep(20000);
  }
  return kDone;
}

// ----------------------------------------------------------- interactive

namespace {

struct Forward {
  Link* link;
  double timeout;
  CLI* cli;
  bool lost = false;
};

// Registers the commands the station's help lists (those the session's
// level reaches) as forwarded to it; false when the station did not answer.
bool learn_commands(Forward& f);

// A line for the station: sent as typed (words joined by one blank), the
// answer printed; a login's password is asked here without echo.
int forward(void* arg, int argc, const char** argv) {
  Forward& f = *static_cast<Forward*>(arg);
  std::string line;
  for (int i = 0; i < argc; ++i) line += (i == 0 ? "" : " ") + std::string(argv[i]);
  f.link->Arm(f.timeout);
  Answer a = f.link->Ask(line);
  while (a.code == 3) {  // a login question
    std::string reply;
    const std::string question = a.lines.empty() ? "password: " : a.lines.back() + " ";
    if (question.find("password") != std::string::npos) {
      ask_password(question, reply);
    } else {
      std::printf("%s", question.c_str());
      std::fflush(stdout);
      char buf[256];
      reply = std::fgets(buf, sizeof buf, stdin) != nullptr ? buf : "";
      while (!reply.empty() && (reply.back() == '\n' || reply.back() == '\r')) reply.pop_back();
    }
    f.link->Arm(f.timeout);
    a = f.link->Ask(reply);
  }
  for (const std::string& l : a.lines) std::printf("%s\r\n", l.c_str());
  if (a.code == kDone && line.compare(0, 5, "login") == 0) learn_commands(f);  // more commands now
  if (a.code < 0) {
    std::printf("stationctl: %s\r\n", f.link->Error().c_str());
    f.lost = true;
  }
  std::fflush(stdout);
  return exit_code(a);
}

bool learn_commands(Forward& f) {
  f.link->Arm(f.timeout);
  const Answer help = f.link->Ask("help");
  // The station's help lists its commands in columns under headings ending with ':'.
  for (const std::string& line : help.lines) {
    if (line.find(':') != std::string::npos) continue;
    for (const std::string& name : words_of(line)) {
      // The session's own switches stay stationctl's: it is in TLS and machine mode.
      if (name == "starttls" || name == "mode" || name == "editing" || f.cli->find_command(name) != nullptr) continue;
      f.cli->Register(forward, &f, name, nullptr, name + ": at the station");
    }
  }
  return help.code >= 0;
}

}  // namespace

int interactive(Link& link, const std::string& history_file, double timeout) {
  CLI cli(stdin, stdout, stdout);
  cli.SetAppName("stationctl");
  Forward f{&link, timeout, &cli};
  if (!learn_commands(f)) {
    std::fprintf(stderr, "stationctl: %s\n", link.Error().c_str());
    return kNoStation;
  }
  CLI_Editor* editor = cli.EnableEditing();
  editor->SetEndOnEof(true);
  std::string why;
  make_folders_for(history_file);
  if (!editor->SetHistoryFile(history_file, 500, 30, &why)) {
    std::fprintf(stderr, "stationctl: history not kept: %s\n", why.c_str());
  }
  std::printf("stationctl: connected%s; Tab completes, exit or Ctrl-D ends\r\n",
              link.User().empty() ? " (not logged in: login NAME)" : (" as " + link.User()).c_str());
  while (!f.lost) {
    if (cli.update_all() == 4) break;
    pollfd p{STDIN_FILENO, POLLIN, 0};
    poll(&p, 1, 500);
    if (p.revents & (POLLHUP | POLLERR | POLLNVAL)) break;
  }
  std::printf("\r\n");
  return f.lost ? kNoStation : kDone;
}

}  // namespace stationctl

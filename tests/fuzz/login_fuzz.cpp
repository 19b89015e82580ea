// Fuzz target: a network session's lines before and around login, as the
// station's gate sees them: "login", "login NAME", the user and password
// steps, refusals before login, then the interpreter for what the gate lets
// through. The users file names one viewer, "op" (password "secret"), with a
// cheap hash; password lines for other users are skipped because their check
// costs a full scrypt on purpose. No crash, no sanitizer report, and no level
// above the viewer's is ever reached.
#include <zqcommon/connection.h>
#include <zqcommon/functions.h>

#include "../../apps/station/access.h"
#include "station_parts.h"

namespace {

const char kUsers[] =
    "[users]\nop = viewer:scrypt$16$1$1$000102030405060708090a0b0c0d0e0f$"
    "f4f9ef50fde105b8e988b5c2b9cbbb74037fb3b0ef2ef516140c22ce8f4f3e4f\n";

struct World : StationParts {
  std::string users = fuzz_file(kUsers);
  std::unique_ptr<station::Gate> gate;
  Connection conn;  // not connected, not encrypted

  World() {
    settings.UsersFile = users;
    settings.DataDir = settings.DumpPath = "/nonexistent";
    server.access_cfg.tls.CertificateFile = "none";
    server.access_cfg.login.MaxFailures = 1 << 30;  // no lockout: keep the checks reachable
    Start();
    gate = std::make_unique<station::Gate>(settings, server, log);
    if (!gate->Prepare()) std::abort();
  }
  ~World() {
    gate.reset();
    st.reset();
    unlink(users.c_str());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World w;
  station::Session session;
  CLI cli(w.out, w.out, w.out);
  w.Open(session, cli);
  w.gate->Admit(cli, session, w.out);
  fuzz_lines(fuzz_text(data, size), 32, [&](const std::string& line) {
    if (session.access.step == station::AccessState::kPassword && session.access.user != "op") return;
    session.access.hold_until_ms = 0;
    if (w.gate->Screen(cli, session, w.conn, line, w.out)) {
      // A password is checked on the gate's own thread: wait for it as the
      // station's loop would, so that its outcome belongs to this input.
      for (int i = 0; i < 100000 && session.access.login != nullptr && !session.access.login->done; ++i) usleep(100);
      w.gate->Tick(cli, session, w.conn, station::Gate::NowMs());
      return;
    }
    const std::string text = Trim(line);
    const std::string word = text.substr(0, text.find(' '));
    // The task does not run here: io commands would wait for its cycles.
    if (word.empty() || word == "io" || cli.find_command(word) == nullptr || text.find('$') != std::string::npos) return;
    std::string copy = text;
    cli.parse(copy);
    w.gate->Audit(session, text, cli.retcode);
    if (session.level > ZQSecurity::kViewer) std::abort();
  });
  return 0;
}

// Machine mode for network sessions, and `get`, which sends a data-folder
// file over the session in pieces a program puts together again.
#include "machine.h"

#include <openssl/evp.h>
#include <zqcommon/cli.h>
#include <zqcommon/functions.h>
#include <zqsecurity/hash.h>
#include <zqsecurity/userfile.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "station.h"

namespace station {

// The file a session fetches, kept between its pieces so that it is read and
// hashed once; dropped with its last piece, when another file is asked for,
// or with the session.
struct FileSend {
  std::string name, data, sha256;
};

namespace {

// The bytes one `get` answer carries: its text (base64) stays well inside
// a connection's 128000-byte write buffer.
const size_t kChunk = 48 * 1024;

int cmd_mode(void* arg, int argc, const char** argv) {
  Session& s = *static_cast<Session*>(arg);
  const std::string want = argc == 2 ? argv[1] : "";
  if (want != "machine" && want != "human") {
    std::fprintf(s.out, "usage: mode machine|human (now %s)\r\n", s.machine ? "machine" : "human");
    return 1;
  }
  if (s.want_editing) {
    std::fputs("mode: not in editing mode\r\n", s.out);
    return 1;
  }
  s.machine = want == "machine";
  return 0;
}

int cmd_get(void* arg, int argc, const char** argv) {
  Session& s = *static_cast<Session*>(arg);
  char* end = nullptr;
  const unsigned long long offset = argc == 3 ? std::strtoull(argv[2], &end, 10) : 0;
  if (argc < 2 || argc > 3 || (argc == 3 && (*argv[2] == 0 || *end != 0))) {
    std::fputs("usage: get NAME [OFFSET]\r\n", s.out);
    return 1;
  }
  if (offset == 0 || s.sending == nullptr || s.sending->name != argv[1]) {
    auto f = std::make_shared<FileSend>();
    std::string why;
    s.sending.reset();
    if (!read_file(s, argv[1], f->data, why)) {
      std::fprintf(s.out, "get: cannot read %s: %s\r\n", argv[1], why.c_str());
      return 1;
    }
    f->name = argv[1];
    f->sha256 = ZQSecurity::Hash("sha256").mkHashText(f->data.data(), static_cast<unsigned int>(f->data.size()));
    s.sending = std::move(f);
  }
  const std::string& data = s.sending->data;
  if (offset > data.size()) {
    std::fprintf(s.out, "get: offset %llu beyond the %zu bytes of %s\r\n", offset, data.size(), argv[1]);
    return 1;
  }
  const size_t length = std::min<size_t>(kChunk, data.size() - static_cast<size_t>(offset));
  std::fprintf(s.out, "file %s size %zu sha256 %s offset %llu length %zu\r\n", argv[1], data.size(),
               s.sending->sha256.c_str(), offset, length);
  // Base64 in lines of 64 characters (48 bytes each).
  unsigned char line[65];
  for (size_t at = 0; at < length; at += 48) {
    const size_t n = std::min<size_t>(48, length - at);
    EVP_EncodeBlock(line, reinterpret_cast<const unsigned char*>(data.data() + offset + at), static_cast<int>(n));
    std::fprintf(s.out, "%s\r\n", line);
  }
  if (offset + length == data.size()) s.sending.reset();  // the last piece: memory back
  return 0;
}

}  // namespace

void register_machine_commands(CLI& cli, Session& s) {
  cli.Register(cmd_mode, &s, "mode", nullptr,
               "mode machine|human: machine: no prompts, every answer ends with a line \". CODE\"");
  cli.Register(cmd_get, &s, "get", nullptr, "get NAME [OFFSET]: a data-folder file in base64 pieces");
  cli.SetCommandLevel("get", ZQSecurity::kOperator);  // as hash and crc, which read the same files
}

void frame_answer(Session& s, std::string& reply) {
  std::string framed;
  framed.reserve(reply.size() + reply.size() / 64 + 8);
  for (size_t pos = 0; pos < reply.size();) {
    if (reply[pos] == '.') framed += '.';
    const size_t nl = reply.find('\n', pos);
    if (nl == std::string::npos) {  // a question without its line end
      framed.append(reply, pos, std::string::npos);
      framed += "\r\n";
      break;
    }
    framed.append(reply, pos, nl + 1 - pos);
    pos = nl + 1;
  }
  int code = s.code;
  if (code == kAnswerLogin) code = s.access.user.empty() ? kAnswerRefused : kAnswerDone;
  framed += ". " + std::to_string(code) + "\r\n";
  reply.swap(framed);
  s.code = kAnswerDone;
}

int command_code(const CLI& cli, const std::string& line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  for (std::string w; in >> w;) words.push_back(w);
  if (!cli.Permitted(words)) return kAnswerRefused;
  return cli.retcode == 0 ? kAnswerDone : kAnswerFailed;
}

}  // namespace station

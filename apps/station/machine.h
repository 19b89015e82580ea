// Machine mode: a network session whose answers programs read without
// guessing. After `mode machine` no prompt is sent; every answer (also the
// questions of a login and what follows a TLS handshake) is its lines, each
// beginning with '.' sent with one more '.', and then one line ". CODE".
#ifndef STATION_MACHINE_H
#define STATION_MACHINE_H

#include <string>
#include <vector>

class CLI;

namespace station {

struct Session;

// The result codes of a framed answer.
enum AnswerCode {
  kAnswerDone = 0,      // the command ran
  kAnswerFailed = 1,    // it failed, or there is no such command
  kAnswerRefused = 2,   // not logged in, not permitted, refused before TLS
  kAnswerAsking = 3,    // a login question: the next line answers it
  kAnswerLogin = -1     // a password was taken: done when it logged in, else refused
};

// Registers `mode machine|human` and `get NAME [OFFSET]` for a network session.
void register_machine_commands(CLI& cli, Session& s);
// Ends `reply` with the frame of the session's answer code and resets the code.
void frame_answer(Session& s, std::string& reply);
// The code of a line the interpreter has just run.
int command_code(const CLI& cli, const std::string& line);

}  // namespace station

#endif

// One command line from a remote channel (MQTT requests, the web page) on a
// fresh interpreter at a given level: the one place that decides what such a
// channel may run and that writes its audit line.
#ifndef STATION_REMOTE_COMMAND_H
#define STATION_REMOTE_COMMAND_H

#include <string>

namespace station {

class Station;

// Who asks: the user, the peer (an address, or "mqtt:NAME") and the level
// the user has on that channel.
struct RemoteCaller {
  std::string user, peer;
  int level = 0;
  // False: a refused line is not logged here (the channel logs refusals
  // itself, at a bounded rate).
  bool log_refusals = true;
};

// The result code (0 done, 403 not permitted at the caller's level or never
// from a remote channel, 127 unknown command, 500 no streams, else the
// command's own non-zero code) and the command's output.
struct RemoteAnswer {
  int result = 500;
  std::string output;
};

// Runs `line` for `who` on the main thread. Login, TLS, exit and line
// editing never run remotely. Every line that is run or refused gets the
// station's one audit line (audit_line): peer, line, user, level, result.
RemoteAnswer run_remote_command(Station& st, const RemoteCaller& who, const std::string& line);
// Whether a remote caller at `level` may run `line` (the same check, no run,
// no audit): for pages that offer only what their user may do.
bool remote_may_run(Station& st, int level, const std::string& line);

}  // namespace station

#endif

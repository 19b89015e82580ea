// What stationctl does over an open session beyond running one command:
// printing answers (as text or JSON), fetching files, watching values, and
// the interactive session.
#ifndef STATIONCTL_TOOLS_H
#define STATIONCTL_TOOLS_H

#include <string>
#include <vector>

#include "link.h"

namespace stationctl {

// The exit code an answer calls for (its code, or 3 without an answer).
int exit_code(const Answer& a);
// Text with JSON's escapes, quoted.
std::string json_text(const std::string& text);
// Prints an answer: its lines, or one JSON object (command, code, lines).
void print_answer(const std::string& command, const Answer& a, bool json);
// The password asked on the terminal without echo; false without a terminal.
bool ask_password(const std::string& prompt, std::string& password);

// `get NAME [DEST]`: the file in pieces, its size and SHA-256 checked,
// written to DEST (a file or folder; default: NAME's last part, here).
int get_file(Link& link, const std::vector<std::string>& args, double timeout, bool json);
// `watch [POINT...] [--every S] [--count N]`: values redrawn in place with a
// one-line trend of the last minute, until Ctrl-C (or N draws).
int watch(Link& link, const std::vector<std::string>& args, double timeout);
// The interactive session: the library's line editor, with the station's
// commands (from its help) for Tab completion and a history file.
int interactive(Link& link, const std::string& history_file, double timeout);

}  // namespace stationctl

#endif

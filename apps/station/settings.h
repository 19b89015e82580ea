// The station's settings at start, on reload and at run time: checked
// loading of the main file, the local overlay file and the command line;
// changes made with "config set"; "config save" into the operator's file.
#ifndef STATION_SETTINGS_H
#define STATION_SETTINGS_H

#include <zqcommon/checked_settings.h>
#include <zqcommon/config_edit.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "station.h"

namespace station {

// Whether a setting takes effect while the station runs; every other one
// needs a restart (the task's period, the listening socket, file names...).
bool live_setting(const std::string& path);

// A checked loader over `all` with the station's rules.
zqcommon::Checked_Settings settings_checker(const SettingsList& all);

// The command line's options besides Section.Key=VALUE ("-d", "-f", ...):
// the first one the station does not know, or "".
std::string unknown_option(Config_File& cfg);
// The usage text of "station -h" on standard error.
void print_usage();

// What happened to the settings since the start, shared by the commands,
// the reload and the status. Main thread only.
struct SettingsState {
  std::vector<zqcommon::Checked_Settings::Override> overrides;  // the command line's
  std::string overlay;  // Station.LocalConfig as loaded; "" none
  std::unique_ptr<zqcommon::Config_Edit> save_to;  // where config save writes
  std::set<std::string> restart;  // set at run time, taking effect at the next start
  std::string realtime_warning;   // why the task runs without real-time rights
};
SettingsState& settings_state();

// Loads the main file `cfg`, then the overlay file (Station.LocalConfig, as
// the file or the command line gives it) when it exists, then the command
// line's overrides kept in settings_state(). Answers every problem.
std::vector<std::string> load_checked(zqcommon::Checked_Settings& checked, Config_File& cfg);

// Starts the saves: into the overlay when there is one, else into the main
// file. False with the reason when the file cannot be read.
bool prepare_save(const Config_File& cfg, std::string* why);

}  // namespace station

#endif

// The station's settings: checked loading, the overlay file, run-time
// changes and saving them into the operator's file.
#include "settings.h"

#include <unistd.h>
#include <zqcommon/functions.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "usage.h"

namespace station {

namespace {

const char kArgline[] = "@@Argline";

// The library's usage, then the station's own lines.
const char kUsage[] =
    "Section.Key=VALUE: override a setting of station.cfg (e.g. Server.ListenPort=0;\n"
    "  Network.Interface6= clears one). Every value of the file, of the local file\n"
    "  Station.LocalConfig (read after it; \"config save\" writes there) and of the\n"
    "  command line is checked whole against its type and range: on any problem the\n"
    "  station lists them all (FILE:LINE: Section.Key = 'VALUE': why) and does not start.\n"
    "Station.RealTime = preferred | required: without the rights to lock memory and\n"
    "  to use SCHED_FIFO, preferred runs the task with ordinary scheduling and warns;\n"
    "  required refuses to start.\n"
    "--add-command-key NAME PUBLIC.pem: let NAME's Ed25519 key sign requests through\n"
    "  the MQTT broker (MQTT.Commands = off | signed | broker, docs/fleet.md).";

}  // namespace

bool live_setting(const std::string& path) {
  static const char* const kLive[] = {"Station.LowLimit", "Station.HighLimit", "Station.Setpoint",
                                      "Station.Promotion", "Log.FileMask",     "Log.Mask",
                                      "Log.Pmask",         "Log.FlushCycle",   "Log.MaxFileSize"};
  for (const char* name : kLive) {
    if (path ^= name) return true;
  }
  return path.compare(0, 13, "LogRetention.") == 0;
}

zqcommon::Checked_Settings settings_checker(const SettingsList& all) {
  zqcommon::Checked_Settings checked(&setting_rules());
  for (const auto& section : all) checked.Add(section.first, *section.second);
  return checked;
}

std::string unknown_option(Config_File& cfg) {
  static const char* const kKnown[] = {"PROGRAM_PATH", "debuglevel", "show_help", "config_file", "show_version"};
  for (const std::string& name : cfg.get_section_entries(kArgline)) {
    bool known = false;
    for (const char* k : kKnown) known = known || name == k;
    if (!known) return name;
  }
  return "";
}

void print_usage() {
  char program[] = "station", help[] = "-h";
  char* argv[] = {program, help, nullptr};
  Config_File cfg(2, argv);
  cfg.parse_argline_default(std::string(usage_options()) + "\n" + kUsage + "\n\n" + usage_reference());
}

SettingsState& settings_state() {
  static SettingsState state;
  return state;
}

std::vector<std::string> load_checked(zqcommon::Checked_Settings& checked, Config_File& cfg) {
  SettingsState& state = settings_state();
  std::vector<std::string> problems = checked.Load(cfg);
  // The overlay as the command line or else the main file names it.
  std::string overlay = cfg.get_entry("Station", "LocalConfig", "");
  for (const auto& o : state.overrides) {
    if (o.path ^= "Station.LocalConfig") overlay = o.value;
  }
  if (!overlay.empty() && access(overlay.c_str(), F_OK) == 0) {
    if (access(overlay.c_str(), R_OK) != 0) {
      problems.push_back(Format("%s: cannot read: %s", overlay.c_str(), std::strerror(errno)));
    } else {
      Config_File local(overlay);
      const std::vector<std::string> more = checked.Load(local);
      problems.insert(problems.end(), more.begin(), more.end());
    }
  }
  for (const auto& o : state.overrides) {
    bool known = false;
    for (const auto& k : checked.Overrides()) known = known || k.argument == o.argument;
    if (!known) checked.AddOverride(o);
  }
  const std::vector<std::string> more = checked.ApplyOverrides();
  problems.insert(problems.end(), more.begin(), more.end());
  state.overlay = overlay;
  return problems;
}

bool prepare_save(const Config_File& cfg, std::string* why) {
  SettingsState& state = settings_state();
  const std::string path = !state.overlay.empty() ? state.overlay : cfg.getfilename();
  state.save_to.reset();
  if (path.empty()) return true;  // no file: config save says so
  auto edit = std::make_unique<zqcommon::Config_Edit>(path);
  if (!edit->Read(why)) return false;
  state.save_to = std::move(edit);
  return true;
}

}  // namespace station

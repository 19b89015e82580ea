// The station's parts in-process for its fuzz targets: its settings, a quiet
// log, a Station whose task does not run, an output that discards and the
// network sessions on it.
#ifndef ZQ_FUZZ_STATION_PARTS_H
#define ZQ_FUZZ_STATION_PARTS_H

#include <cstdio>
#include <memory>
#include <sstream>

#include "../../apps/station/station.h"
#include "fuzz_input.h"
#include "zqcommon/cli.h"

struct StationParts {
  std::istringstream text{"[Station]\nPeriodUs = 1000\n"};
  Config_File cfg{text};
  station::StationSettings settings;
  station::ServerSettings server;
  Log_Config_Data logcfg;
  Log log{logcfg};
  std::unique_ptr<station::Station> st;
  FILE* out = std::fopen("/dev/null", "w");

  // Makes the Station once the settings are filled in.
  void Start() {
    logcfg.pmask = 0;
    st = std::make_unique<station::Station>(cfg, settings, server, logcfg, log);
  }
  // Makes `session` a network client's session of the station's commands on `cli`.
  void Open(station::Session& session, CLI& cli) {
    session.station = st.get();
    session.out = out;
    session.network = true;
    session.peer = "fuzz";
    cli.SetLimits(128 * 1024, 1024 * 1024);
    station::register_commands(cli, session);
  }
  ~StationParts() {
    st.reset();
    std::fclose(out);
  }
};

#endif

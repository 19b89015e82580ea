// settings: a settings structure filled from a file and the command line.
//
//   settings [-f FILE] [-d LEVEL] [rate=VALUE] [-h]
//
// Registers three members by name, loads them from the section [Pump] of
// FILE (default: none), lets "rate=VALUE" on the command line win, converts
// checks the typed rate through a Variant, prints it with its unit from the
// catalogue, and writes the configuration back to standard output: the
// file's comments stay, values are updated, markers describe new entries.
#include <zqcommon/bug.h>
#include <zqcommon/ew.h>
#include <zqcommon/unit.h>
#include <zqcommon/variant.h>

#include <cstdio>
#include <iostream>
#include <string>

struct PumpSettings : zqcommon::Config_Data {
  PumpSettings() {
    Register("Rate", rate, zqcommon::Config_Data_INIT.LS, "mm", "stroke per cycle");
    Register("Name", name, zqcommon::Config_Data_INIT.LS, "", "display name");
    Register("Enabled", enabled);
  }
  double rate = 2.5;
  std::string name = "pump";
  bool enabled = true;
};

int main(int argc, char** argv) {
  Config_File cfg(argc, argv);
  DEBUG_LEVEL = cfg.get_debug(0);
  if (cfg.parse_argline_default("rate=VALUE: the stroke in millimetres")) return 0;
  cfg.open_argfile("");

  PumpSettings pump;
  pump.Load(cfg, "Pump");
  // The command line's value, when given, beats the file's; a Variant tells
  // whether the whole text is a number.
  const std::string rate = cfg.get_entry("@@Argline", "rate", "");
  if (!rate.empty()) {
    Variant typed(rate);
    if (!typed.casttyp(VAL_FLOAT)) {
      std::fprintf(stderr, "settings: rate '%s' is not a number\n", rate.c_str());
      return 2;
    }
    pump.rate = typed;
  }

  const auto& mm = Unit::Info.at(eu_mm);
  std::printf("%s: %g %s (%s) = %g m%s\n", pump.name.c_str(), pump.rate, mm.symbol, mm.name,
              pump.rate * mm.scale[1], pump.enabled ? "" : ", disabled");

  pump.Save(cfg, zqcommon::Config_Data_INIT.S, "Pump");
  cfg.write(std::cout);
  return 0;
}

// The station's usage text for -h: options, commands with their levels,
// files, signals and settings sections.
#ifndef STATION_USAGE_H
#define STATION_USAGE_H

namespace station {

// The options besides -h, -d, -f and Section.Key=VALUE, one or more lines each.
const char* usage_options();
// Commands with their levels, files, signals and the settings sections.
const char* usage_reference();

}  // namespace station

#endif

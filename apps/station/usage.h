// The station's usage text for -h: options, commands with their levels,
// files, signals and settings sections.
#ifndef STATION_USAGE_H
#define STATION_USAGE_H

namespace station {

// The text printed after the library's lines for -h, -d and -f.
const char* usage_text();

}  // namespace station

#endif

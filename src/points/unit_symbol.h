// Units of points: a unit of the library's catalogue by symbol or name.
#ifndef ZQ_SRC_POINTS_UNIT_SYMBOL_H
#define ZQ_SRC_POINTS_UNIT_SYMBOL_H

#include <string>

namespace zqpoints {
namespace details {

// A unit named like a catalogue row (its symbol or its name) becomes the
// row's symbol in UTF-8; any other text is kept as written.
std::string unit_symbol(const std::string& text);

}  // namespace details
}  // namespace zqpoints

#endif

// The JSON payload of a command request: one flat object, read strictly by
// nlohmann-json's event (SAX) parser, which lets the reader refuse nested
// values and repeated members as they come.
#include "zqfleet/FleetCommand.h"

#include <nlohmann/json.hpp>
#include <set>

namespace zqfleet {

namespace {

using json = nlohmann::json;

// Takes the members of one flat object into a FleetCommand; any other shape
// ends the parse with the reason in `error`.
class Reader : public json::json_sax_t {
 public:
  Reader(FleetCommand& out, std::string& error) : out_(out), error_(error) {}
  bool have_cmd = false;

  bool null() override { return member(nullptr); }
  bool boolean(bool) override { return member(nullptr); }
  bool number_integer(number_integer_t) override { return member(nullptr); }
  bool number_unsigned(number_unsigned_t) override { return member(nullptr); }
  bool number_float(number_float_t, const string_t&) override { return member(nullptr); }
  bool string(string_t& value) override { return member(&value); }
  bool binary(binary_t&) override { return member(nullptr); }
  bool key(string_t& name) override {
    name_ = name;
    return true;
  }
  bool start_object(std::size_t) override { return depth_++ == 0 || refuse("nested values are not accepted"); }
  bool end_object() override {
    --depth_;
    return true;
  }
  bool start_array(std::size_t) override {
    return refuse(depth_ == 0 ? "expected a JSON object" : "nested values are not accepted");
  }
  bool end_array() override { return true; }
  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& ex) override {
    // "[json.exception.parse_error.101] parse error at line 1, column 9: syntax error ...":
    // the reason after the place, which the byte offset replaces (`position`
    // counts the bytes read, the offending one included: offset + 1).
    const std::string what = ex.what();
    const size_t column = what.find("column ");
    const size_t colon = column == std::string::npos ? column : what.find(": ", column);
    error_ = "bad JSON at byte " + std::to_string(position > 0 ? position - 1 : 0) + ": " +
             (colon == std::string::npos ? what : what.substr(colon + 2));
    return false;
  }

 private:
  bool refuse(const std::string& why) {
    error_ = why;
    return false;
  }
  // A member's value: `text` for a string, null for any other scalar.
  bool member(const std::string* text) {
    if (depth_ == 0) return refuse("expected a JSON object");
    if (name_ == "cmd") {
      if (have_cmd || text == nullptr) return refuse("\"cmd\" must be one string");
      out_.line = *text;
      have_cmd = true;
      return true;
    }
    std::string* field = name_ == "station" ? &out_.station : name_ == "user" ? &out_.user
                       : name_ == "time" ? &out_.time : name_ == "nonce" ? &out_.nonce
                       : name_ == "sig" ? &out_.sig : nullptr;
    if (field == nullptr) return true;  // other members are ignored
    if (text == nullptr || !seen_.insert(name_).second) return refuse("\"" + name_ + "\" must be one string");
    *field = *text;
    return true;
  }

  FleetCommand& out_;
  std::string& error_;
  std::string name_;
  std::set<std::string> seen_;
  int depth_ = 0;
};

}  // namespace

bool FleetCommand::Parse(const std::string& payload, const std::string& station_id,
                         FleetCommand& out, std::string& error) {
  out = FleetCommand();
  error.clear();
  if (payload.size() > kMaxPayload) {
    error = "payload of " + std::to_string(payload.size()) + " bytes exceeds " + std::to_string(kMaxPayload);
    return false;
  }
  Reader reader(out, error);
  bool parsed = false;
  try {
    parsed = json::sax_parse(payload, &reader);
  } catch (const std::exception& e) {  // not expected with an event parser; refused all the same
    error = std::string("bad JSON: ") + e.what();
  }
  if (!parsed) {
    if (error.empty()) error = "bad JSON";
    out = FleetCommand();
    return false;
  }
  if (!reader.have_cmd) {
    error = "no \"cmd\" member";
    return false;
  }
  if (out.line.find_first_of("\r\n") != std::string::npos || out.line.find('\0') != std::string::npos) {
    error = "the command must be one line";
    return false;
  }
  if (!out.station.empty() && out.station != station_id) {
    error = "request for station '" + out.station + "', not this one";
    return false;
  }
  return true;
}

}  // namespace zqfleet

// The members of one flat JSON object, written in order.
#ifndef ZQFLEET_JSONFIELDS_H
#define ZQFLEET_JSONFIELDS_H

#include <zqcommon/export.h>

#include <string>

namespace zqfleet {

// Builds the text of JSON members ("a":1,"b":"x") to be wrapped into a
// record by MqttLink::Publish. Strings are escaped (quotes, backslashes and
// control characters; bytes that are not UTF-8 become U+FFFD); doubles are
// written in the shortest form that reads back exactly; numbers that are not
// finite become null. Keys are the
// caller's and are written as given (escaped). A value type: no locking.
class ZQ_EXPORT JsonFields {
 public:
  JsonFields& Add(const char* key, const std::string& text);
  JsonFields& Add(const char* key, const char* text) { return Add(key, std::string(text)); }
  JsonFields& Add(const char* key, long long number);
  JsonFields& Add(const char* key, double number);
  JsonFields& Add(const char* key, unsigned int number) { return Add(key, static_cast<long long>(number)); }
  JsonFields& Add(const char* key, int number) { return Add(key, static_cast<long long>(number)); }
  // A UTC time stamp, "2026-01-02T03:04:05.678Z", from seconds since 1970.
  JsonFields& AddTime(const char* key, double seconds);
  static std::string UtcTime(double seconds);
  // A value that already is JSON (an array or object built elsewhere).
  JsonFields& AddRaw(const char* key, const std::string& json);
  const std::string& Text() const { return text_; }
  // `text` as a JSON string, quotes included.
  static std::string Quote(const std::string& text);

 private:
  void key(const char* name);
  std::string text_;
};

}  // namespace zqfleet

#endif

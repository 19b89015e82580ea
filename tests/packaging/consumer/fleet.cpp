// Uses libzqfleet's installed headers; exits 0 when they answer right.
#include <zqfleet/JsonFields.h>
#include <zqfleet/MqttSettings.h>

#include <cstdio>

int main() {
  zqfleet::MqttSettings mqtt;
  std::string error;
  const bool ok = mqtt.Resolve("st1", error) && mqtt.TopicPrefix == "zq/st1" &&
                  zqfleet::JsonFields::Quote("a\"b") == "\"a\\\"b\"";
  std::puts(ok ? "fleet consumer ok" : "fleet consumer FAILED");
  return ok ? 0 : 1;
}

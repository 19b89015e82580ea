// Device addresses as a settings file gives them: any bytes.
#include "fuzz_input.h"
#include "zqdevices/DeviceUrl.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = fuzz_text(data, size);
  zqdevices::DeviceUrl url, again;
  std::string error;
  if (zqdevices::DeviceUrl::Parse(text, url, error)) {
    // An accepted address writes itself in a form that reads back the same.
    const std::string written = url.ToString();
    if (!zqdevices::DeviceUrl::Parse(written, again, error) || again.ToString() != written) __builtin_trap();
  } else if (error.rfind("device URL '", 0) != 0) {
    __builtin_trap();
  }
  return 0;
}

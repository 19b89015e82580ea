// Fuzz target: the autosave state file. The input is the state file; Load
// must take it whole or refuse it (there is no backup), and a file it took
// must save and load again to the same values.
#include <zqpoints/Autosave.h>

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz_file(fuzz_text(data, size));
  zqpoints::Autosave a(path, 0);
  std::string note;
  if (a.Load(note) == zqpoints::Autosave::Source::File) {
    const auto values = a.values();
    a.Set("fuzz.extra", "1");
    if (!a.Flush()) std::abort();
    zqpoints::Autosave b(path, 0);
    if (b.Load(note) != zqpoints::Autosave::Source::File) std::abort();
    auto expected = values;
    expected["fuzz.extra"] = "1";
    if (b.values() != expected) std::abort();
  }
  unlink(path.c_str());
  unlink((path + ".bak").c_str());
  return 0;
}

// Uses libzqpoints' installed header: a journal in a scratch folder takes an
// event and gives it back; exits 0 when it does.
#include <zqpoints/AlarmJournal.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main() {
  char folder[] = "/tmp/zqpoints-consumer-XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;
  const std::string path = std::string(folder) + "/journal.db";
  bool ok = false;
  {
    zqpoints::AlarmJournal journal;
    std::string error;
    zqpoints::AlarmEvent e;
    e.time_us = 1764100000000000;
    e.to = zqpoints::AlarmState::ActiveUnacked;
    ok = journal.Open(path, 100, error) && journal.Append(e, "level") &&
         journal.Query(0, INT64_MAX).size() == 1 && journal.Query(0, INT64_MAX)[0].point == "level";
  }
  for (const char* end : {"", "-wal", "-shm"}) std::remove((path + end).c_str());
  std::remove(folder);
  std::puts(ok ? "points consumer ok" : "points consumer FAILED");
  return ok ? 0 : 1;
}

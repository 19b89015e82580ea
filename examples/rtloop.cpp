// rtloop: a periodic real-time task handing records to the main thread.
//
//   rtloop [HZ [SECONDS]]     (defaults: 1000 Hz for 1 s)
//
// The task counts its cycles and puts a record into a mailbox every cycle;
// the main thread takes them without ever blocking the task, then prints the
// cycle statistics. Real-time scheduling is used where the process may have
// it (otherwise one warning, and normal scheduling).
#include <unistd.h>
#include <zqrtm/rtmailbox.h>
#include <zqrtm/rtthread.h>

#include <cstdio>
#include <cstdlib>
#include <string>

class Counter : public rtthread {
 public:
  Counter(long long period_ns, rtmailbox& box) : rtthread("COUNT", period_ns, false, 0, true), box_(box) {
    text_.reserve(box.msgsize);
  }
  ~Counter() override { Stop(); }
  void Stop() {
    SetCancel();
    WaitFinished(5000);
  }

 protected:
  void start(void*) override {}
  void* rtrun(void*) override {
    char buf[32];
    const int n = std::snprintf(buf, sizeof buf, "cycle %lld", CycleCount());
    text_.assign(buf, static_cast<size_t>(n));
    box_.PutMessage(text_);  // never waits; a full mailbox drops the record
    return nullptr;
  }

 private:
  rtmailbox& box_;
  std::string text_;
};

int main(int argc, char** argv) {
  const long long hz = argc > 1 ? std::atoll(argv[1]) : 1000;
  const double seconds = argc > 2 ? std::atof(argv[2]) : 1.0;
  if (hz <= 0 || seconds <= 0) return 2;
  rtmailbox box(32, 4096);
  Counter task(1000000000LL / hz, box);
  task.Start(nullptr);
  long long received = 0;
  std::string record, last;
  for (int waited = 0; waited < seconds * 1000; waited += 10) {
    usleep(10000);
    while (box.GetMessage(record)) {
      ++received;
      last = record;
    }
  }
  task.Stop();
  while (box.GetMessage(record)) ++received;
  std::printf("%lld cycles, %lld records received (last: %s)\n", task.CycleCount(), received,
              last.c_str());
  std::printf("cycle length min/avg/max %.1f/%.1f/%.1f us\n", task.MinCycleLength() / 1e3,
              task.AvgCycleLength() / 1e3, task.MaxCycleLength() / 1e3);
  return task.CycleCount() > 0 ? 0 : 1;
}

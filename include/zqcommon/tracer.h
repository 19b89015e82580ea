// Sampled traces with a manager thread that records and dumps them.
#ifndef ZQCOMMON_TRACER_H
#define ZQCOMMON_TRACER_H

#include <cstdio>
#include <string>
#include <vector>

#include "zqthreads/oothread.h"
#include "zqcommon/export.h"

// An application object that records samples into a buffer of its own when
// asked to. The manager calls these under its lock.
class ZQ_EXPORT Trace {
 public:
  explicit Trace(const std::string& name = "", unsigned int granularity = 10)
      : tracename(name), gran(granularity) {}
  virtual ~Trace() = default;
  virtual void T_Resize(unsigned int samples) = 0;
  virtual void T_SetCyclic(bool cyclic) = 0;
  virtual bool T_IsCyclic() = 0;
  virtual void T_Clear() = 0;
  virtual void T_Start() = 0;
  virtual bool T_IsRunning() = 0;
  virtual void T_Stop() = 0;
  virtual unsigned int T_Size() = 0;
  // The largest number of samples the trace can hold.
  virtual unsigned int T_MaxSize() = 0;
  // Takes one sample now.
  virtual void T_Sample() = 0;
  // The recorded data as bytes (the ".bin" dump) and as text (the ".txt" dump).
  virtual std::string T_GetBuffer() = 0;
  virtual std::string T_GetPrintable() = 0;
  virtual const std::string& T_Name() { return tracename; }

  // The sampling granularity in manager cycles, raised to at least 10.
  unsigned int& T_Granularity() {
    if (gran < 10) gran = 10;
    return gran;
  }

  std::string tracename;
  unsigned int gran;
};

// One slot of a trace manager: a trace (not owned) and its recording settings.
struct ZQ_EXPORT TM_TStruct {
  static constexpr unsigned int kEndless = 4294967295u;

  Trace* trace = nullptr;
  unsigned int duration = 0;   // cycles of one recording; kEndless never ends
  unsigned int cduration = 0;  // cycles elapsed in the current recording
  unsigned int step = 0;       // cycles between samples (at least 10 once started)
  std::string base;            // dump file names begin with this; "" = no dump
  unsigned int count = 1;      // automatic restarts still to do
  bool active = false;
};

// A list of trace slots, indexed from 0. Not locked; see TTraceManager.
class ZQ_EXPORT TraceManager : public std::vector<TM_TStruct> {
 public:
  TraceManager() = default;
  // The other manager's traces with fresh settings.
  TraceManager(const TraceManager& other) : std::vector<TM_TStruct>() { *this += other; }
  TraceManager& operator=(const TraceManager&) = delete;

  // Appends a fresh slot for the trace.
  TraceManager& operator+=(Trace& t);
  // Appends a fresh slot for each of the other manager's traces.
  TraceManager& operator+=(const TraceManager& other);
  // Removes the first slot of the trace.
  TraceManager& operator-=(Trace& t);
  // Removes, for each slot of the other manager, the slot of the same trace.
  TraceManager& operator-=(const TraceManager& other);
  unsigned int Size() const { return static_cast<unsigned int>(size()); }
  // The trace of slot i; throws std::out_of_range("invalid TraceManager
  // subscript") for an index not below Size().
  Trace& operator[](unsigned int i);
};

// A trace manager with a sampling thread: every manager cycle (about 10 ms)
// each active slot samples its trace every `step` cycles; a recording ends
// after `duration` cycles, is dumped to base + "-" + time stamp + ".bin" and
// ".txt", and restarts `count` more times. Every operation, and each whole
// cycle, holds the manager's recursive lock; the traces' own operations run
// inside it. Setters ignore indexes out of range, getters answer neutral
// values. Start the thread with Start(nullptr); the destructor stops it.
class ZQ_EXPORT TTraceManager : public thread, public TraceManager {
 public:
  TTraceManager() = default;
  ~TTraceManager() override;

  TTraceManager& operator+=(Trace& t);
  // Starts a recording of slot i; non-zero arguments replace the duration and
  // the step (a step below 10 becomes 10; 0 takes the trace's granularity).
  void Execute(unsigned int i, unsigned int duration, unsigned int step);
  // Starts an idle slot afresh, resumes a suspended or finished one.
  void TStart(unsigned int i);
  void TSuspend(unsigned int i);
  // Ends a finite recording at the next cycle (with its dump) and cancels
  // restarts; resets an endless one to duration 0.
  void TStop(unsigned int i);
  // 2 recording, 1 suspended (cycles elapsed), 0 idle or out of range.
  int IsRunning(unsigned int i);
  using thread::IsRunning;
  unsigned int& Count(unsigned int i);
  void SetDuration(unsigned int i, unsigned int d);
  unsigned int GetDuration(unsigned int i);
  void SetStep(unsigned int i, unsigned int s);
  unsigned int GetStep(unsigned int i);
  void SetBase(unsigned int i, const std::string& base);
  std::string& GetBase(unsigned int i);

  // One manager cycle: what the thread does every 10 ms.
  void Cycle();

 protected:
  void* run(void* arg) override;

  std::string dmy_str;
  unsigned int dmy_cnt = 0;
  FILE* f = nullptr;

 private:
  void dump(TM_TStruct& slot);
};

#endif

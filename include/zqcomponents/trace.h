// Allocation-free component traces, dumped side by side in columns.
#ifndef ZQCOMPONENTS_TRACE_H
#define ZQCOMPONENTS_TRACE_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "zqcomponents/types.h"
#include "zqcommon/export.h"

namespace components {

// An object whose state is recorded by a component TraceManager.
class ZQ_EXPORT Traceable {
 public:
  // One recorded sample: the cycle and time given to Sample(), and the values
  // as text (several separated by ';').
  struct TraceBinarySample {
    unsigned int cycle = 0;
    TIME systime = 0;
    fixed_string data;
    bool operator<(const TraceBinarySample& o) const {
      return cycle != o.cycle ? cycle < o.cycle : systime < o.systime;
    }
  };

  virtual ~Traceable() = default;
  // Hands the trace the memory to record into.
  virtual void SetTraceBuffer(void* buffer, unsigned int size) = 0;
  virtual void Sample(unsigned int cycle, const TIME& t) = 0;
  virtual void Clear() = 0;
  virtual unsigned int Size() = 0;
  virtual unsigned int MaxSize() = 0;
  virtual std::string GetPrintable() = 0;
  // Appends the recorded samples, oldest first.
  virtual void GetBinary(std::vector<TraceBinarySample>& samples) = 0;
};

// One slot of a component trace table: plain data of fixed size, so the table
// can live in memory shared with other processes.
struct ZQ_EXPORT TraceData {
  unsigned int granularity = 0;  // sample every this many cycles (0 and 1: every cycle)
  bool cyclic = false;
  bool differential = false;
  bool active = false;
  fixed_string source;           // the traced object's name
  uintptr_t object = 0;          // left to the traces that use it
  fixed_string filename;         // dump file, relative to the dump path
  unsigned int filesize = 0;     // left to the traces that use it
  unsigned int filecount = 0;    // non-zero: data to dump
  unsigned int size = 0;         // trace buffer size
  void* buffer = nullptr;
  unsigned int column = 0;       // column in a dump file shared with other slots
  FILE* fp = nullptr;            // open only during Dump()
  unsigned int remainsize = 0, remaincount = 0;
  unsigned int grancount = 0;    // cycles since the last sample

  unsigned int GetGranularity() const { return granularity; }
  void SetGranularity(unsigned int g) { granularity = g; }
  bool GetCyclic() const { return cyclic; }
  void SetCyclic(bool c) { cyclic = c; }
  bool GetDifferential() const { return differential; }
  void SetDifferential(bool d) { differential = d; }
  bool GetActive() const { return active; }
  void SetActive(bool a) { active = a; }
  const fixed_string& GetSource() const { return source; }
  void SetSource(const std::string& s) { source = s; }
  const fixed_string& GetFile() const { return filename; }
  void SetFile(const std::string& f) { filename = f; }
  unsigned int GetFileCount() const { return filecount; }
  void SetFileCount(unsigned int c) { filecount = c; }
  unsigned int GetFileSize() const { return filesize; }
  void SetFileSize(unsigned int s) { filesize = s; }
  void* GetBuffer() const { return buffer; }
  unsigned int GetBufferSize() const { return size; }
};

// Samples the active slots of a caller-supplied table every `granularity`
// cycles and dumps their samples to text files, one line per sample:
// "cycle;time;" then the data text and "\r\n". Slots that name the same file
// share it: the n-th sharer (n = 1, 2, ...) writes the first n bytes of a
// 64-byte separator (';' followed by zero bytes) before its data, so the
// second column carries one more ';'. The manager allocates nothing in the
// table; traces are not owned. No lock: the owning component calls Sample()
// and Dump() from its own cycle. Out-of-range indexes and a full table are
// programming errors (assertions; without them AddTrace answers kNone).
class ZQ_EXPORT TraceManager {
 public:
  static constexpr unsigned int kNone = 4294967295u;

  TraceManager(unsigned int slotcount, TraceData* slots, const fixed_string& dumppath);

  // Takes the next free slot for `t`; its index.
  unsigned int AddTrace(Traceable& t, const std::string& source);
  Traceable& GetTrace(unsigned int n);
  TraceData& GetTraceData(unsigned int n);
  // The first slot in use whose source is `source`, or kNone.
  unsigned int FindTrace(const std::string& source);
  void Sample(unsigned int cycle, const TIME& t);
  // Writes every slot with a file count; an inactive slot is dumped once. A
  // file that cannot be created is reported on standard error and skipped.
  void Dump();

 private:
  const fixed_string& dumppath;
  unsigned int slotcount;
  unsigned int currslot = 0;
  TraceData* slot;
  std::vector<Traceable*> trace;
};

}  // namespace components

#endif

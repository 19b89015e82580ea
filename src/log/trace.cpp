// Component traces: sampling by granularity and column dumps.
#include "zqcomponents/trace.h"

#include <cassert>

#include "zqcommon/bug.h"
#include "zqcommon/diagnostics.h"

namespace components {

namespace {

// The column separator: the n-th sharer of a file writes its first n bytes.
const char kSeparator[64] = ";";

}  // namespace

TraceManager::TraceManager(unsigned int count, TraceData* slots, const fixed_string& path)
    : dumppath(path), slotcount(count), slot(slots) {}

unsigned int TraceManager::AddTrace(Traceable& t, const std::string& source) {
  assert(currslot < slotcount);
  if (currslot >= slotcount) return kNone;
  TraceData& d = slot[currslot];
  d.source = source;
  d.active = false;
  d.grancount = 0;
  d.fp = nullptr;
  d.filecount = 0;
  trace.push_back(&t);
  return currslot++;
}

Traceable& TraceManager::GetTrace(unsigned int n) {
  assert(n < trace.size());
  return *trace.at(n);
}

TraceData& TraceManager::GetTraceData(unsigned int n) {
  assert(n < slotcount);
  return slot[n < slotcount ? n : slotcount - 1];
}

unsigned int TraceManager::FindTrace(const std::string& source) {
  for (unsigned int i = 0; i < currslot; ++i) {
    if (slot[i].source == source) return i;
  }
  return kNone;
}

void TraceManager::Sample(unsigned int cycle, const TIME& t) {
  for (unsigned int i = 0; i < currslot; ++i) {
    TraceData& d = slot[i];
    if (!d.active) continue;
    ++d.grancount;
    if (d.granularity <= d.grancount) {
      trace[i]->Sample(cycle, t);
      d.grancount = 0;
    }
  }
}

void TraceManager::Dump() {
  std::vector<Traceable::TraceBinarySample> samples;
  for (unsigned int i = 0; i < currslot; ++i) {
    TraceData& d = slot[i];
    if (d.filecount == 0) continue;
    if (d.fp == nullptr) {
      const std::string path =
          std::string(dumppath.size() != 0 ? dumppath.c_str() : ".") + "/" + d.filename.c_str();
      d.fp = std::fopen(path.c_str(), "a+");
      d.column = 0;
      if (d.fp == nullptr) {
        if (DEBUG_LEVEL >= 0) zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "ERROR: cannot create trace-dump-file %s\n", path.c_str());
        continue;
      }
      unsigned int column = 0;
      for (unsigned int j = i + 1; j < currslot; ++j) {
        if (slot[j].filename == d.filename) {
          slot[j].fp = d.fp;
          slot[j].column = ++column;
        }
      }
    }
    samples.clear();
    trace[i]->GetBinary(samples);
    for (const auto& s : samples) {
      std::fprintf(d.fp, "%i;%lli;", static_cast<int>(s.cycle), static_cast<long long>(s.systime));
      if (d.column != 0) {
        std::fwrite(kSeparator, 1, d.column < sizeof kSeparator ? d.column : sizeof kSeparator, d.fp);
      }
      std::fputs(s.data.c_str(), d.fp);
      std::fputs("\r\n", d.fp);
    }
    if (!d.active) d.filecount = 0;
  }
  // Close each file once; all its sharers forget it.
  for (unsigned int i = 0; i < currslot; ++i) {
    FILE* fp = slot[i].fp;
    if (fp == nullptr) continue;
    std::fclose(fp);
    for (unsigned int j = i; j < currslot; ++j) {
      if (slot[j].fp == fp) slot[j].fp = nullptr;
    }
  }
}

}  // namespace components

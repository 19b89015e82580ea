// Trace manager: slots, recording schedule, dumps and the sampling thread.
#include "zqcommon/tracer.h"

#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "zqcommon/functions.h"


// ---------------------------------------------------------- TraceManager

TraceManager& TraceManager::operator+=(Trace& t) {
  TM_TStruct slot;
  slot.trace = &t;
  push_back(slot);
  return *this;
}

TraceManager& TraceManager::operator+=(const TraceManager& other) {
  if (&other == this) {
    const std::vector<TM_TStruct> copy = other;  // never append to what is read
    for (const TM_TStruct& s : copy) *this += *s.trace;
    return *this;
  }
  for (const TM_TStruct& s : other) *this += *s.trace;
  return *this;
}

TraceManager& TraceManager::operator-=(Trace& t) {
  auto it = std::find_if(begin(), end(), [&t](const TM_TStruct& s) { return s.trace == &t; });
  if (it != end()) erase(it);
  return *this;
}

TraceManager& TraceManager::operator-=(const TraceManager& other) {
  if (empty() || other.empty()) return *this;
  std::vector<Trace*> traces;
  for (const TM_TStruct& s : other) traces.push_back(s.trace);
  for (Trace* t : traces) *this -= *t;
  return *this;
}

Trace& TraceManager::operator[](unsigned int i) {
  if (i >= size()) throw std::out_of_range("invalid TraceManager subscript");
  return *at(i).trace;
}

// --------------------------------------------------------- TTraceManager

TTraceManager::~TTraceManager() {
  // Stop the sampling thread before the slots go: it ends at its next cycle.
  SetCancel();
  if (IsSuspended()) Resume();
  WaitFinished(-1, true);
}

TTraceManager& TTraceManager::operator+=(Trace& t) {
  lockable_hold hold(*this);
  TraceManager::operator+=(t);
  return *this;
}

void TTraceManager::Execute(unsigned int i, unsigned int duration, unsigned int step) {
  lockable_hold hold(*this);
  if (i >= size()) return;
  TM_TStruct& s = at(i);
  if (s.trace == nullptr) return;
  if (duration != 0) s.duration = duration;
  s.cduration = 0;
  s.step = step != 0 ? std::max(step, 10u) : s.trace->T_Granularity();
  s.active = true;
  const unsigned int samples = s.duration / s.step;
  if (samples < s.trace->T_MaxSize()) s.trace->T_Resize(samples);
  s.trace->T_Clear();
  s.trace->T_Start();
}

void TTraceManager::TStart(unsigned int i) {
  lockable_hold hold(*this);
  if (i >= size()) return;
  if (!at(i).active && at(i).cduration == 0) {
    Execute(i, 0, 0);
  } else {
    at(i).active = true;
  }
}

void TTraceManager::TSuspend(unsigned int i) {
  lockable_hold hold(*this);
  if (i < size()) at(i).active = false;
}

void TTraceManager::TStop(unsigned int i) {
  lockable_hold hold(*this);
  if (i >= size()) return;
  TM_TStruct& s = at(i);
  const bool endless = s.duration == TM_TStruct::kEndless;
  if (endless && !s.active) return;
  if (!endless) {
    s.cduration = s.duration;
    s.active = true;
  } else {
    s.duration = 0;
    s.cduration = 0;
  }
  s.count = 0;
}

int TTraceManager::IsRunning(unsigned int i) {
  lockable_hold hold(*this);
  if (i >= size()) return 0;
  if (at(i).active) return 2;
  return at(i).cduration != 0 ? 1 : 0;
}

unsigned int& TTraceManager::Count(unsigned int i) {
  lockable_hold hold(*this);
  return i < size() ? at(i).count : dmy_cnt;
}

void TTraceManager::SetDuration(unsigned int i, unsigned int d) {
  lockable_hold hold(*this);
  if (i < size()) at(i).duration = d;
}

unsigned int TTraceManager::GetDuration(unsigned int i) {
  lockable_hold hold(*this);
  return i < size() ? at(i).duration : 0;
}

void TTraceManager::SetStep(unsigned int i, unsigned int s) {
  lockable_hold hold(*this);
  if (i >= size() || at(i).trace == nullptr) return;
  at(i).trace->T_Granularity() = s;
  at(i).step = at(i).trace->T_Granularity();
}

unsigned int TTraceManager::GetStep(unsigned int i) {
  lockable_hold hold(*this);
  if (i >= size() || at(i).trace == nullptr) return 10;
  return at(i).trace->T_Granularity();
}

void TTraceManager::SetBase(unsigned int i, const std::string& base) {
  lockable_hold hold(*this);
  if (i < size()) at(i).base = base;
}

std::string& TTraceManager::GetBase(unsigned int i) {
  lockable_hold hold(*this);
  return i < size() ? at(i).base : dmy_str;
}

void TTraceManager::dump(TM_TStruct& s) {
  s.trace->T_Stop();
  const std::string name = s.base + "-" + mktimestr(GetUTC());
  const std::string parts[2][2] = {{".bin", s.trace->T_GetBuffer()},
                                   {".txt", s.trace->T_GetPrintable()}};
  for (const auto& part : parts) {
    f = std::fopen((name + part[0]).c_str(), "ab");
    if (f == nullptr) continue;  // skipped silently
    std::fwrite(part[1].data(), 1, part[1].size(), f);
    std::fclose(f);
    f = nullptr;
  }
}

void TTraceManager::Cycle() {
  lockable_hold hold(*this);
  for (TM_TStruct& s : *this) {
    if (!s.active || s.trace == nullptr) continue;
    if (s.step == 0 || s.cduration % s.step == 0) s.trace->T_Sample();
    ++s.cduration;
    if (s.duration == TM_TStruct::kEndless || s.cduration < s.duration) continue;
    if (!s.base.empty()) dump(s);
    if (s.count != 0) {
      --s.count;
      s.trace->T_Clear();
      s.trace->T_Start();
      s.active = true;
    } else {
      s.active = false;
    }
  }
}

void* TTraceManager::run(void*) {
  while (!IsCancelled()) {
    Cycle();
    usleep(10000);
  }
  return nullptr;
}

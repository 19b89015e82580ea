// Field devices at the station (see devices.h).
#include "devices.h"

#include <zqcommon/cli.h>
#include <zqcommon/lib_config.h>
#include <zqcommon/mysocket.h>
#include <zqfleet/JsonFields.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "points.h"
#include "station.h"

namespace station {
namespace {

FieldDevices* g_active = nullptr;

// The image bytes the station's board takes before the devices.
constexpr unsigned int kBoardBytes = 8;

bool load_devices(Config_File& cfg, std::vector<zqdevices::DeviceConfig>& devices, std::string& why) {
  if (!zqdevices::DeviceConfig::LoadAll(cfg, devices, why)) return false;
  unsigned int id = 100;
  for (zqdevices::DeviceConfig& d : devices)
    if (d.io_id == 0) d.io_id = id++;  // every device gets a handler of its own
  return true;
}

unsigned int device_bytes(const zqdevices::DeviceConfig& d) {
  int top = -1;
  for (const zqdevices::DevicePoint& p : d.points) top = std::max(top, p.io_bit);
  return static_cast<unsigned int>(top / 8 + 1);
}

// A peer check from address rules ("10.0.0.0/8 ::1/128"); empty rules: nobody.
zqdevices::ModbusServer::PeerCheck rules_check(const std::string& rules) {
  auto acl = std::make_shared<AccessList>();
  std::istringstream in(rules);
  std::string rule;
  while (in >> rule) acl->Add(ACL_ALLOW, rule);
  return [acl](const std::string& who) {
    InetAddress peer(who, true);
    return acl->match(peer) == ACL_ALLOW;
  };
}

}  // namespace

FieldDevices* field_devices() { return g_active; }

FieldDevices::FieldDevices(Config_File& cfg, Log& log) : cfg_(cfg), log_(log) { g_active = this; }

FieldDevices::~FieldDevices() {
  Stop();
  if (g_active == this) g_active = nullptr;
}

bool FieldDevices::Attach(SensorTask& task, const std::string& acl, std::string& why) {
  std::vector<zqdevices::DeviceConfig> configs;
  if (!load_devices(cfg_, configs, why)) return false;
  image_bytes_ = kBoardBytes;
  for (const zqdevices::DeviceConfig& c : configs) {
    auto& slots = slot_of_[c.name];
    slots.first = faults_.size();
    faults_.push_back(Slot{c.name + ".fault", "", 0, 0, true, false, -1});
    for (const zqdevices::DevicePoint& p : c.points) {
      if (p.io_bit >= 0) continue;  // image bits are not delivered as values
      slots.second[p.name] = values_.size();
      values_.push_back(Slot{c.name + "." + p.name, p.unit, 0, 0, false, false, -1});
    }
    devices_.push_back(std::make_unique<zqdevices::ModbusDevice>(c, this));
    if (device_bytes(c) == 0) continue;
    if (!task.AddHandler(devices_.back()->Io())) {
      why = "[Device." + c.name + "]: no room in the I/O image (8 handlers of 16 bytes at most)";
      return false;
    }
    // The overrun policy writes the device's outputs' safe states too.
    for (const zqdevices::DevicePoint& p : c.points)
      if (p.output && p.io_bit >= 0) task.SetSafeBit(image_bytes_ * 8 + static_cast<unsigned int>(p.io_bit), p.safe);
    image_bytes_ += device_bytes(c);
  }
  zqdevices::ModbusServerConfig sc;
  if (!zqdevices::ModbusServerConfig::Load(cfg_, configs, image_bytes_, sc, why)) return false;
  if (!sc.listen.empty()) {
    server_ = std::make_unique<zqdevices::ModbusServer>(sc);
    // Clients pass the station's access list; writes need [ModbusServer] WriteFrom.
    if (!acl.empty()) {
      auto list = std::make_shared<AccessList>();
      std::vector<std::string> problems;
      if (!list->load_checked(acl, &problems)) {
        why = "Server.ACL: " + (problems.empty() ? acl + " cannot be read" : problems.front());
        return false;
      }
      server_->SetAcceptCheck([list](const std::string& who) {
        InetAddress peer(who, true);
        return list->match(peer) == ACL_ALLOW;
      });
    }
    server_->SetWriteCheck(rules_check(sc.write_from));
    zqdevices::ModbusServer* server = server_.get();
    task.cycle_hook = [server](unsigned char* inputs, unsigned char* outputs) {
      server->TakeWrites([outputs](unsigned int bit, bool on) {
        if (on)
          outputs[bit / 8] |= static_cast<unsigned char>(1u << (bit % 8));
        else
          outputs[bit / 8] &= static_cast<unsigned char>(~(1u << (bit % 8)));
      });
      server->PublishImage(inputs, outputs);
    };
  }
  return true;
}

bool FieldDevices::Start(std::string& why) {
  for (auto& d : devices_) {
    if (!d->Start()) {
      why = d->LastError();
      return false;
    }
    log_.Add(elog_INFO, 0, "device %s: polling %s every %d ms", d->Config().name.c_str(),
             d->Config().url.ToString().c_str(), d->Config().period_ms);
  }
  if (server_) {
    if (!server_->Start()) {
      why = server_->LastError();
      return false;
    }
    log_.Add(elog_INFO, 0, "Modbus server on port %d", server_->Port());
    std::printf("modbus port %d\r\n", server_->Port());
    std::fflush(stdout);
  }
  return true;
}

void FieldDevices::Stop() {
  stopped_ = true;
  if (server_) server_->Stop();
  for (auto& d : devices_) d->Stop();
}

void FieldDevices::BindPoints(StationPoints& points) {
  const int64_t now = points.clock.NowUtcUs();
  auto bind = [&](Slot& slot, zqpoints::PointConfig c) {
    slot.point = points.table.Find(slot.name);  // a [Point.NAME] section comes first
    std::string why;
    if (slot.point < 0) {
      c.name = slot.name;
      slot.point = points.table.Add(c, &why);
    }
    if (slot.point < 0) log_.Add(elog_ERROR, 0, "device point %s: %s", slot.name.c_str(), why.c_str());
    else if (points.table[slot.point].config().unit != c.unit)
      log_.Add(elog_WARN, 0, "[Point.%s] Unit = %s, but the device map says %s", slot.name.c_str(),
               points.table[slot.point].config().unit.c_str(), c.unit.c_str());
  };
  for (Slot& slot : values_) {
    zqpoints::PointConfig c;
    c.unit = slot.unit;
    c.description = "device value " + slot.name;
    bind(slot, c);
  }
  for (Slot& slot : faults_) {
    const std::string device = slot.name.substr(0, slot.name.size() - sizeof ".fault" + 1);
    zqpoints::PointConfig c;
    c.description = "1 while device " + device + " does not answer";
    c.guidance = "check the device's power, wiring and address, then: device recover " + device;
    c.display_low = 0;
    c.display_high = 1;
    c.hi = 0.5;
    c.hi_severity = zqpoints::Severity::High;
    bind(slot, c);
    if (slot.point >= 0) points.table.Update(static_cast<size_t>(slot.point), 0, now);
  }
  points_ = &points;
}

void FieldDevices::Poll() {
  std::deque<Event> events;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    events.swap(events_);
    for (Slot& slot : values_) {
      if (!points_ || !slot.fresh || slot.point < 0) continue;
      slot.fresh = false;
      points_->table.Update(static_cast<size_t>(slot.point), slot.value, slot.time_us,
                            slot.good ? zqpoints::Quality::Good : zqpoints::Quality::DeviceFault);
    }
  }
  for (const Event& e : events) {
    log_.Add(e.faulted ? elog_ERROR : elog_INFO, 0, "%s", e.text.c_str());
    if (points_ && e.device < faults_.size() && faults_[e.device].point >= 0)
      points_->table.Update(static_cast<size_t>(faults_[e.device].point), e.faulted ? 1 : 0, e.time_us);
  }
  if (server_) log_writes();
}

namespace {

// Modbus function codes and exception codes in write records.
enum : unsigned int { kWriteCoil = 5, kWriteCoils = 15, kMaskWrite = 22 };
enum : unsigned int { kIllegalFunction = 1, kIllegalAddress = 2 };

// What a write record wrote, as the audit line says it: "coil 64 = 1",
// "coils 4-6 = 1 0 1", "register 3 = 7", "registers 3-4 = 7 ...".
std::string write_target(const zqdevices::ModbusServer::WriteRecord& r) {
  const bool coils = r.function == kWriteCoil || r.function == kWriteCoils;
  std::string out = coils ? "coil" : "register";
  if (r.count > 1) out += "s";
  out += " " + std::to_string(r.address);
  if (r.count > 1) out += "-" + std::to_string(r.address + r.count - 1);
  out += " =";
  if (r.function == kWriteCoil)
    out += r.value == 0xFF00 ? " 1" : r.value == 0 ? " 0" : " " + std::to_string(r.value) + " (not a coil state)";
  else if (coils)
    for (unsigned int b = 0; b < r.count && b < 16; ++b) out += (r.value >> b) & 1 ? " 1" : " 0";
  else
    out += " " + std::to_string(r.value);
  if (r.count > (coils ? 16 : 1)) out += " ...";
  if (r.function == kMaskWrite) out += " (mask write)";
  return out;
}

const char* write_result(unsigned int code) {
  switch (code) {
    case 0: return "accepted";
    case kIllegalFunction: return "refused, writes not allowed from this address (exception 1)";
    case kIllegalAddress: return "refused, read-only or not in the map (exception 2)";
    default: return "refused, not a valid value (exception 3)";
  }
}

constexpr std::chrono::seconds kUnloggedReport{10};

}  // namespace

void FieldDevices::log_writes() {
  server_->TakeWriteRecords(
      [this](const zqdevices::ModbusServer::WriteRecord& r) {
        log_.Add(r.result == 0 ? elog_INFO : elog_WARN, 0, "audit: modbus client %s: write %s: %s", r.client,
                 write_target(r).c_str(), write_result(r.result));
      },
      unlogged_writes_);
  const auto now = std::chrono::steady_clock::now();
  if (unlogged_writes_ == 0 || (now < next_unlogged_report_ && !stopped_)) return;
  log_.Add(elog_WARN, 0, "audit: modbus: %llu more write requests not logged (over %u a second)",
           static_cast<unsigned long long>(unlogged_writes_), zqdevices::ModbusServer::kRecordsPerSecond);
  unlogged_writes_ = 0;
  next_unlogged_report_ = now + kUnloggedReport;
}

void FieldDevices::Deliver(const zqdevices::DeviceValue& v) {
  if (server_) server_->Deliver(v);
  const auto device = slot_of_.find(v.device);
  if (device == slot_of_.end()) return;
  const auto value = device->second.second.find(v.name);
  if (value == device->second.second.end()) return;
  const int64_t time_us =
      std::chrono::duration_cast<std::chrono::microseconds>(v.time.time_since_epoch()).count();
  std::lock_guard<std::mutex> lock(mutex_);
  Slot& slot = values_[value->second];
  slot.value = v.value;
  slot.time_us = time_us;
  slot.good = v.quality == zqdevices::Quality::good;
  slot.fresh = true;
}

void FieldDevices::StateChanged(const std::string& device, bool faulted, const std::string& reason) {
  const auto found = slot_of_.find(device);
  const int64_t now = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::system_clock::now().time_since_epoch()).count();
  std::lock_guard<std::mutex> lock(mutex_);
  if (events_.size() < 256)
    events_.push_back(Event{faulted, found != slot_of_.end() ? found->second.first : faults_.size(), now,
                            "device " + device + (faulted ? " fault: " : " recovered: ") + reason});
}

std::string FieldDevices::TakeSamples() {
  std::string out;
  std::lock_guard<std::mutex> lock(mutex_);
  for (Slot& v : values_) {
    if (v.time_us == 0 || v.time_us == v.sampled_us) continue;
    v.sampled_us = v.time_us;
    zqfleet::JsonFields f;
    f.Add("name", v.name).Add("unit", v.unit).Add("value", v.value).Add("time_us", static_cast<long long>(v.time_us));
    f.Add("quality", v.good ? "good" : "device-fault");
    out += (out.empty() ? "[{" : ",{") + f.Text() + "}";
  }
  return out.empty() ? out : out + "]";
}

std::string FieldDevices::List() {
  static const char* const kStates[] = {"stopped", "running", "FAULT"};
  std::ostringstream out;
  for (auto& d : devices_) {
    const auto st = d->GetStats();
    out << d->Config().name << ": " << kStates[d->GetState()] << ", " << d->Config().url.ToString() << ", "
        << st.polls << " polls, " << st.faults << " faults";
    if (d->GetState() == zqdevices::ModbusDevice::faulted) out << " (" << d->LastError() << ")";
    out << "\r\n";
  }
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Slot& v : values_)
    if (v.time_us != 0)
      out << "  " << v.name << " = " << v.value << (v.unit.empty() ? "" : " ") << v.unit
          << (v.good ? "" : " (device fault)") << "\r\n";
  return out.str();
}

bool FieldDevices::Recover(const std::string& name, std::string& why) {
  for (auto& d : devices_) {
    if (d->Config().name != name) continue;
    if (d->GetState() != zqdevices::ModbusDevice::faulted) {
      why = "device " + name + " is not faulted";
      return false;
    }
    d->Recover();
    return true;
  }
  why = "no device " + name;
  return false;
}

namespace {

int cmd_device(void* arg, int argc, const char** argv) {
  Session& s = *static_cast<Session*>(arg);
  FieldDevices* f = field_devices();
  if (!f || f->Empty()) {
    std::fputs("device: no [Device.*] sections configured\r\n", s.out);
    return argc == 1 || std::strcmp(argv[1], "list") == 0 ? 0 : 1;
  }
  if (argc == 1 || (argc == 2 && std::strcmp(argv[1], "list") == 0)) {
    std::fputs(f->List().c_str(), s.out);
    return 0;
  }
  if (argc == 3 && std::strcmp(argv[1], "recover") == 0) {
    std::string why;
    if (!f->Recover(argv[2], why)) {
      std::fprintf(s.out, "device: %s\r\n", why.c_str());
      return 1;
    }
    s.station->log.Add(elog_INFO, 0, "device recover %s by %s", argv[2], s.peer.c_str());
    std::fprintf(s.out, "device %s: recovery asked for\r\n", argv[2]);
    return 0;
  }
  std::fputs("usage: device [list | recover NAME]\r\n", s.out);
  return 1;
}

}  // namespace

void register_device_commands(CLI& cli, Session& s) {
  cli.Register(cmd_device, &s, "device", nullptr, "device [list|recover NAME]: field devices and their values");
}

int print_modbus_map(Config_File& cfg) {
  std::vector<zqdevices::DeviceConfig> configs;
  std::string why;
  zqdevices::ModbusServerConfig sc;
  unsigned int bytes = kBoardBytes;
  if (load_devices(cfg, configs, why)) {
    for (const auto& c : configs) bytes += device_bytes(c);
    if (zqdevices::ModbusServerConfig::Load(cfg, configs, bytes, sc, why)) {
      std::fputs(zqdevices::ModbusServer(sc).MapText().c_str(), stdout);
      return 0;
    }
  }
  std::fprintf(stderr, "station: %s\n", why.c_str());
  return 2;
}

bool take_modbus_map_option(int& argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--modbus-map") != 0) continue;
    for (int j = i; j + 1 < argc; ++j) argv[j] = argv[j + 1];
    --argc;
    return true;
  }
  return false;
}

}  // namespace station

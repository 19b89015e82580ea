// Typed configuration structures: registration, conversions, Load and Save.
#include "zqcommon/ew.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "zqcommon/bug.h"
#include "zqcommon/functions.h"

using zqcommon::Config_DataAcessMode;
using zqcommon::Config_DataTypes;

template <> const int SuperEnum<Config_DataTypes>::SIZE = 11;
template <> const int SuperEnum<Config_DataTypes>::ROWS = 8;
template <> const Config_DataTypes SuperEnum<Config_DataTypes>::_vals[] = {
    zqcommon::cfg_INT,  zqcommon::cfg_UINT, zqcommon::cfg_LONG,          zqcommon::cfg_FLOAT,
    zqcommon::cfg_STRING, zqcommon::cfg_BOOL, zqcommon::cfg_STRINGIZEABLE, zqcommon::cfg_SELF};
template <> const char* const SuperEnum<Config_DataTypes>::_texts[] = {
    "int", "unsigned int", "long long int", "double", "std::string", "bool", "symbolic",
    "Config_Data"};
template <> const char* const SuperEnum<Config_DataTypes>::_descr[] = {
    "int", "unsigned int", "long long int", "double", "string", "bool", "Symbolic Type",
    "ConfigData"};

template <> const int SuperEnum<Config_DataAcessMode>::SIZE = 4;
template <> const int SuperEnum<Config_DataAcessMode>::ROWS = 4;
template <> const Config_DataAcessMode SuperEnum<Config_DataAcessMode>::_vals[] = {
    zqcommon::cfg_LOAD, zqcommon::cfg_SAVE, zqcommon::cfg_READ, zqcommon::cfg_WRITE};
template <> const char* const SuperEnum<Config_DataAcessMode>::_texts[] = {"L", "S", "R", "W"};
template <> const char* const SuperEnum<Config_DataAcessMode>::_descr[] = {
    "loadable entry", "saveable entry", "readable", "writeable"};

namespace zqcommon {

namespace {

// strtol as a 32-bit system reads numbers: automatic base, clamped to the
// 32-bit range the way strtol reports an overflow there.
int32_t strtol32(const char* text, char** end) {
  const long v = std::strtol(text, end, 0);
  if (v > INT32_MAX) return INT32_MAX;
  if (v < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(v);
}

std::string scaled_text(long long v) {
  static const struct {
    long long factor;
    char suffix;
  } kScales[] = {{1LL << 30, 'G'}, {1LL << 20, 'M'}, {1LL << 10, 'k'}};
  if (v != 0) {
    for (const auto& s : kScales) {
      if (v % s.factor == 0) return Format("%lli%c", v / s.factor, s.suffix);
    }
  }
  return Format("%lli", v);
}

// "%f" without trailing zeros and decimal point: 1.5, 2, 0.
std::string float_text(double v) {
  std::string text = Format("%f", v);
  if (text.find('.') != std::string::npos) {
    while (!text.empty() && text.back() == '0') text.pop_back();
    if (!text.empty() && text.back() == '.') text.pop_back();
  }
  return text.empty() ? "0" : text;
}

// The trimmed text between `open` and the next "}" in a comment, or "".
std::string marker(const std::string& comment, const char* open) {
  const auto start = comment.find(open);
  if (start == std::string::npos) return std::string();
  const auto from = start + std::strlen(open);
  const auto end = comment.find(Config_Data::EW_IDENTIFIER_END, from);
  if (end == std::string::npos) return std::string();
  return Trim(comment.substr(from, end - from));
}

}  // namespace

// ------------------------------------------------------- Config_Data_Entry

Config_Data_Entry::Config_Data_Entry(Config_Data* owner_, const std::string& name_,
                                     Config_DataTypes type_, void* pointer_,
                                     const Config_Access& access_, const std::string& unit_,
                                     const std::string& description_)
    : owner(owner_),
      name(name_),
      path(name_),
      type(type_),
      pointer(pointer_),
      access(access_),
      unit(unit_),
      description(description_) {}

Config_Data_Entry::operator std::string() const {
  switch (type) {
    case cfg_INT:
    case cfg_UINT:
    case cfg_LONG: {
      const long long v = type == cfg_INT    ? *static_cast<const int*>(pointer)
                          : type == cfg_UINT ? *static_cast<const unsigned int*>(pointer)
                                             : *static_cast<const long long*>(pointer);
      const bool wide = type == cfg_LONG;
      switch (base) {
        case cfg_DECIMAL:
          return type == cfg_INT    ? Format("%i", static_cast<int>(v))
                 : type == cfg_UINT ? Format("%u", static_cast<unsigned>(v))
                                    : Format("%lli", v);
        case cfg_OCTAL:
          return wide ? Format("%#llo", static_cast<unsigned long long>(v))
                      : Format("%#o", static_cast<unsigned>(v));
        case cfg_HEXADECIMAL:
          return wide ? Format("%#llx", static_cast<unsigned long long>(v))
                      : Format("%#x", static_cast<unsigned>(v));
        case cfg_STORAGE: return scaled_text(v);
      }
      return "#error!";
    }
    case cfg_FLOAT: return float_text(*static_cast<const double*>(pointer));
    case cfg_STRING: return *static_cast<const std::string*>(pointer);
    case cfg_CHARS: {
      const char* chars = static_cast<const char*>(pointer);
      return std::string(chars, strnlen(chars, size));
    }
    case cfg_BINARY: return std::string(static_cast<const char*>(pointer), size);
    case cfg_BOOL: return Format("%i", *static_cast<const bool*>(pointer) ? 1 : 0);
    case cfg_STRINGIZEABLE: return *static_cast<const stringize*>(pointer);
    case cfg_RESOLVE: {
      std::string text;
      if (resolver != nullptr) resolver(0, pointer, text);
      return text;
    }
    case cfg_SELF: return Format("<Config_Data>[%p]", pointer);
  }
  return "#error!";
}

bool Config_Data_Entry::operator=(const std::string& text) {
  switch (type) {
    case cfg_INT:
    case cfg_UINT:
    case cfg_LONG: {
      long long v;
      if (base == cfg_STORAGE) {
        const char* p = text.c_str();
        if (*p == '+') ++p;
        char* end = nullptr;
        const long long number = strtol32(p, &end);
        long long factor;
        switch (*end) {
          case '\0': factor = 1; break;
          case 'k':
          case 'K': factor = 1LL << 10; break;
          case 'M':
          case 'm': factor = 1LL << 20; break;
          case 'G':
          case 'g': factor = 1LL << 30; break;
          default: return false;
        }
        v = number * factor;
      } else {
        v = strtol32(text.c_str(), nullptr);
      }
      if (type == cfg_LONG) {
        *static_cast<long long*>(pointer) = v;
      } else {
        const auto low = static_cast<uint32_t>(static_cast<unsigned long long>(v));
        std::memcpy(pointer, &low, sizeof low);  // int and unsigned alike
      }
      return true;  // integers do not notify the owner
    }
    case cfg_RESOLVE: {
      if (resolver == nullptr) return false;
      std::string copy = text;
      return resolver(1, pointer, copy);
    }
    case cfg_SELF: return false;
    case cfg_FLOAT: *static_cast<double*>(pointer) = std::strtod(text.c_str(), nullptr); break;
    case cfg_CHARS: std::strncpy(static_cast<char*>(pointer), text.c_str(), size); break;
    case cfg_BOOL: *static_cast<bool*>(pointer) = strtol32(text.c_str(), nullptr) != 0; break;
    case cfg_STRINGIZEABLE: *static_cast<stringize*>(pointer) = text; break;
    case cfg_BINARY:
      std::memcpy(pointer, text.data(), text.size() < size ? text.size() : size);
      break;
    case cfg_STRING: *static_cast<std::string*>(pointer) = text; break;
  }
  if (owner != nullptr) owner->Var_Changed(name, pointer);
  return true;
}

bool Config_Data_Entry::operator+=(const std::string& item) {
  if (type == cfg_STRINGIZEABLE) return *static_cast<stringize*>(pointer) += item;
  if (type == cfg_RESOLVE && resolver != nullptr) {
    std::string copy = item;
    return resolver(2, pointer, copy);
  }
  return false;
}

bool Config_Data_Entry::operator-=(const std::string& item) {
  if (type == cfg_STRINGIZEABLE) return *static_cast<stringize*>(pointer) -= item;
  if (type == cfg_RESOLVE && resolver != nullptr) {
    std::string copy = item;
    return resolver(3, pointer, copy);
  }
  return false;
}

// ------------------------------------------------------------- Config_Data

Config_Data_Entry& Config_Data::Register_Core(const std::string& name, Config_DataTypes type,
                                              void* pointer, const Config_Access& access,
                                              const std::string& unit,
                                              const std::string& description) {
  ZQ_DEBUG(19, "Registering %s [%p->%p], type %s\n", name.c_str(), static_cast<void*>(this),
           pointer, static_cast<const char*>(SuperEnum<Config_DataTypes>(type)));
  Config_Data_Entry& entry = entries[name];
  entry = Config_Data_Entry(this, name, type, pointer, access, unit, description);
  entry.path = path_prefix + name;
  return entry;
}

Config_Data_Entry& Config_Data::Register(const std::string& name, int& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description, Config_NumberBase base) {
  return with_base(Register_Core(name, cfg_INT, &member, access, unit, description), base);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, unsigned int& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description, Config_NumberBase base) {
  return with_base(Register_Core(name, cfg_UINT, &member, access, unit, description), base);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, long long int& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description, Config_NumberBase base) {
  return with_base(Register_Core(name, cfg_LONG, &member, access, unit, description), base);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, double& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description) {
  return Register_Core(name, cfg_FLOAT, &member, access, unit, description);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, std::string& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description) {
  return Register_Core(name, cfg_STRING, &member, access, unit, description);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, bool& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description) {
  return Register_Core(name, cfg_BOOL, &member, access, unit, description);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, stringize& member,
                                         const Config_Access& access, const std::string& unit,
                                         const std::string& description) {
  return Register_Core(name, cfg_STRINGIZEABLE, &member, access, unit, description);
}

Config_Data_Entry& Config_Data::Register(const std::string& name, Config_Data& member,
                                         const Config_Access& access) {
  Config_Data_Entry& e =
      Register_Core(name, cfg_SELF, &member, access, "", "Sub Config Data Structure");
  member.set_paths(path_prefix + name + EW_SUBCFG_SEPARATOR);
  return e;
}

Config_Data_Entry& Config_Data::RegisterChars(const std::string& name, char* buffer, size_t size,
                                              const Config_Access& access,
                                              const std::string& unit,
                                              const std::string& description) {
  Config_Data_Entry& e = Register_Core(name, cfg_CHARS, buffer, access, unit, description);
  e.size = size;
  return e;
}

Config_Data_Entry& Config_Data::RegisterBinary(const std::string& name, void* block, size_t size,
                                               const Config_Access& access,
                                               const std::string& unit,
                                               const std::string& description) {
  Config_Data_Entry& e = Register_Core(name, cfg_BINARY, block, access, unit, description);
  e.size = size;
  return e;
}

Config_Data_Entry& Config_Data::RegisterResolver(const std::string& name, void* object,
                                                 Config_Resolver resolver,
                                                 const Config_Access& access,
                                                 const std::string& unit,
                                                 const std::string& description) {
  Config_Data_Entry& e = Register_Core(name, cfg_RESOLVE, object, access, unit, description);
  e.resolver = resolver;
  return e;
}

void Config_Data::set_paths(const std::string& prefix) {
  path_prefix = prefix;
  for (auto& item : entries) {
    Config_Data_Entry& e = item.second;
    e.path = prefix + e.name;
    if (e.type == cfg_SELF) {
      static_cast<Config_Data*>(e.pointer)->set_paths(e.path + EW_SUBCFG_SEPARATOR);
    }
  }
}

void Config_Data::Load(Config_File& file, const std::string& section,
                       const std::vector<std::string>* suffixes) {
  ZQ_DEBUG(99, "Config_Data::Load() called for section %s [%p]\n", section.c_str(),
           static_cast<void*>(this));
  std::vector<std::string> sections;
  if (suffixes == nullptr) {
    sections.push_back(section);
  } else {
    for (const std::string& suffix : *suffixes) sections.push_back(section + suffix);
  }
  std::vector<std::string> changed;
  for (auto& item : entries) {
    Config_Data_Entry& e = item.second;
    if (e.type == cfg_SELF) {
      ZQ_DEBUG(99, "Config_Data::Load() descending into sub-structure %s.%s [%p]\n",
               section.c_str(), e.name.c_str(), e.pointer);
      static_cast<Config_Data*>(e.pointer)
          ->Load(file, section + EW_SUBCFG_SEPARATOR + e.name, suffixes);
      continue;
    }
    if (!(e.access & cfg_LOAD) && !(e.access & cfg_SAVE)) continue;
    for (const std::string& s : sections) {
      std::string comment;
      int line = INT_MIN;
      const std::string value = file.get_entry(s, e.name, "", &comment, &line);
      ZQ_DEBUG(99, "Getting [%s].%s = >%s<, line %i\n", s.c_str(), e.name.c_str(), value.c_str(),
               line);
      if (line == INT_MIN) continue;
      e.line = line;
      if (e.access & cfg_LOAD) {
        e = value;
        changed.push_back(e.name);
      }
      if (e.type == cfg_INT || e.type == cfg_UINT || e.type == cfg_FLOAT || e.type == cfg_BOOL) {
        const std::string unit = marker(comment, EW_UNIT_IDENTIFIER);
        if (!unit.empty()) e.unit = unit;
      }
      const std::string description = marker(comment, EW_DESCR_IDENTIFIER);
      if (!description.empty()) e.description = description;
    }
  }
  Config_Changed(file, section, changed);
}

void Config_Data::Save(Config_File& file, const Config_Access& filter,
                       const std::string& section) {
  Save_Core(file, *this, section, filter);
}

void Config_Data::Save_Core(Config_File& file, Config_Data& structure, const std::string& section,
                            const Config_Access& filter) {
  for (auto& item : structure.entries) {
    Config_Data_Entry& e = item.second;
    if (e.type == cfg_SELF) {
      Save_Core(file, *static_cast<Config_Data*>(e.pointer),
                section + EW_SUBCFG_SEPARATOR + e.name, filter);
      continue;
    }
    if ((e.access & filter).empty()) continue;
    ZQ_DEBUG(49, "Saving entry %s.%s\n", section.c_str(), e.name.c_str());
    const std::string value = e;
    if (e.line != INT_MIN) {
      try {
        file.get_line(e.line) = value;
      } catch (const std::invalid_argument&) {
        ZQ_DEBUG(0, "Error while saving..., line was %i\n", e.line);
      }
      continue;
    }
    if (section.empty()) continue;
    int line = INT_MIN;
    file.get_entry(section, e.name, "", nullptr, &line);
    if (line != INT_MIN) {
      file.get_line(line) = value;
      e.line = line;
      continue;
    }
    // A new entry: the value padded so that name and value fill MinValueSpace
    // characters (at least one blank, so an empty value still has its '='),
    // and a comment that describes the member.
    std::string padded = value;
    const size_t used = e.name.size() + value.size();
    padded.append(used < static_cast<size_t>(MinValueSpace) ? MinValueSpace - used : 0, ' ');
    if (padded.empty()) padded = " ";
    const std::string comment = std::string(EW_ACCESS_IDENTIFIER) +
                                static_cast<std::string>(e.access) + EW_IDENTIFIER_END + " " +
                                EW_UNIT_IDENTIFIER + e.unit + EW_IDENTIFIER_END + " " +
                                EW_DESCR_IDENTIFIER + e.description + EW_IDENTIFIER_END;
    try {
      SECTION sec = file.has_section(section) ? file.get_section(section)
                                              : file.add_section(section);
      LINE* added = sec.add_entry(e.name, padded, comment);
      // A line number already taken by another line keeps that line.
      if (added->IsEntry() && added->Name() == e.name) {
        e.line = added->Line();
      } else {
        ZQ_DEBUG(0, "Error while saving..., line was %i\n", added->Line());
      }
    } catch (const std::exception&) {
      ZQ_DEBUG(0, "Error while saving..., line was %i\n", INT_MIN);
    }
  }
}

Config_Data_Entry& Config_Data::GetEntry(const std::string& name) {
  if (entries.empty()) throw std::underflow_error("No entry at all");
  auto it = entries.find(name);
  if (it != entries.end()) return it->second;
  const auto dot = name.find(EW_SUBCFG_SEPARATOR);
  if (dot == std::string::npos) throw std::invalid_argument("No such entry");
  it = entries.find(name.substr(0, dot));
  if (it == entries.end() || it->second.type != cfg_SELF) {
    throw std::invalid_argument("No such path to entry");
  }
  try {
    return static_cast<Config_Data*>(it->second.pointer)->GetEntry(name.substr(dot + 1));
  } catch (const std::exception&) {
    throw std::invalid_argument("No such path to entry");
  }
}

Config_Data_Entry& Config_Data::GetEntry(size_t index) {
  if (entries.empty()) throw std::underflow_error("No entry at all");
  if (index >= entries.size()) throw std::invalid_argument("No such entry");
  auto it = entries.begin();
  std::advance(it, static_cast<long>(index));
  return it->second;
}

Config_Data_Entry* Config_Data::find_member(const void* member) {
  for (auto& item : entries) {
    if (item.second.pointer == member) return &item.second;
  }
  for (auto& item : entries) {
    if (item.second.type != cfg_SELF) continue;
    if (Config_Data_Entry* e = static_cast<Config_Data*>(item.second.pointer)->find_member(member)) {
      return e;
    }
  }
  return nullptr;
}

Config_Data_Entry& Config_Data::GetEntry(const void* member) {
  if (entries.empty()) throw std::underflow_error("No entry at all");
  Config_Data_Entry* e = find_member(member);
  if (e == nullptr) throw std::invalid_argument("No such entry");
  return *e;
}

void Config_Data::Config_Changed(Config_File&, const std::string&,
                                 const std::vector<std::string>&) {}
void Config_Data::Var_Changed(const std::string&, void*) {}

}  // namespace zqcommon

// Typed configuration structures whose members are registered by name.
#ifndef ZQCOMMON_EW_H
#define ZQCOMMON_EW_H

#include <climits>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "zqcommon/SuperEnum.h"
#include "zqcommon/lib_config.h"
#include "zqcommon/stringize.h"
#include "zqcommon/export.h"

namespace zqcommon {

// The kind of a registered member.
enum Config_DataTypes {
  cfg_INT = 0,
  cfg_UINT = 1,
  cfg_LONG = 2,
  cfg_FLOAT = 3,
  cfg_STRING = 4,
  cfg_CHARS = 5,
  cfg_BOOL = 6,
  cfg_STRINGIZEABLE = 7,
  cfg_RESOLVE = 8,
  cfg_BINARY = 9,
  cfg_SELF = 10
};

// How a registered member may be used: loaded from a file, saved to it, read
// or written by an operator.
enum Config_DataAcessMode { cfg_LOAD = 0, cfg_SAVE = 1, cfg_READ = 2, cfg_WRITE = 3 };

// How integers are written: "%i"-style, "%#o", "%#x", or scaled with a
// k/M/G suffix for multiples of 2^10, 2^20 and 2^30 (e.g. "4k", "3M").
enum Config_NumberBase { cfg_DECIMAL = 10, cfg_OCTAL = 8, cfg_HEXADECIMAL = 16, cfg_STORAGE = 0 };

typedef SuperEnumSet<Config_DataAcessMode> Config_Access;

// Text access to a member of any other kind: op 0 writes the member's text,
// op 1 reads it from text, ops 2 and 3 add and remove text items. The
// SuperEnum and SuperEnumSet resolve() functions have this shape.
typedef bool (*Config_Resolver)(int op, void* object, std::string& text);

// The predefined access sets; constant, so usable during static start-up.
struct ZQ_EXPORT Config_Data_Init {
  Config_Access R, RW, L, S, LS, NONE, FULL;
};
inline constexpr Config_Data_Init Config_Data_INIT = {
    Config_Access(1ULL << cfg_READ),
    Config_Access((1ULL << cfg_READ) | (1ULL << cfg_WRITE)),
    Config_Access(1ULL << cfg_LOAD),
    Config_Access(1ULL << cfg_SAVE),
    Config_Access((1ULL << cfg_LOAD) | (1ULL << cfg_SAVE)),
    Config_Access(0ULL),
    Config_Access(0xFULL),
};

class Config_Data;

// One registered member: where it lives, its kind and how it converts to and
// from text. Owned by its Config_Data; the member itself is the program's.
class ZQ_EXPORT Config_Data_Entry {
 public:
  Config_Data_Entry() = default;
  Config_Data_Entry(Config_Data* owner, const std::string& name, Config_DataTypes type,
                    void* pointer, const Config_Access& access, const std::string& unit,
                    const std::string& description);

  // The member as text (see Config_Data::Save for the number formats).
  std::string Value() const { return *this; }
  operator std::string() const;
  // Takes the member from text by its kind; true on success. Numbers with the
  // scaled base accept an optional k/M/G factor and refuse anything else after
  // the number; the other bases read whatever strtol reads. After a change of
  // a float, character, bool, symbolic, binary or string member the owner's
  // Var_Changed() hook is called; integer and resolver members return at once.
  bool operator=(const std::string& text);
  // Adds or removes a text item of a symbolic or resolver member.
  bool operator+=(const std::string& item);
  bool operator-=(const std::string& item);

  const std::string& Name() const { return name; }
  // The name with the names of enclosing sub-structures, e.g. "Log.FlushCycle".
  const std::string& Path() const { return path; }
  const std::string& Description() const { return description; }
  const std::string& Unit() const { return unit; }
  void* GetPointer() const { return pointer; }
  const Config_Access& GetAccess() const { return access; }
  Config_DataTypes Type() const { return type; }
  // The entry's line in the file it was loaded from or saved to; INT_MIN when none.
  int Line() const { return line; }
  // How an integer member is written and read; the size of a character
  // buffer or binary block (0 for other kinds).
  Config_NumberBase Base() const { return base; }
  size_t Size() const { return size; }

 private:
  friend class Config_Data;

  Config_Data* owner = nullptr;
  std::string name;
  std::string path;
  Config_DataTypes type = cfg_STRING;
  void* pointer = nullptr;
  Config_NumberBase base = cfg_DECIMAL;
  size_t size = 0;  // character buffers and binary blocks
  Config_Resolver resolver = nullptr;
  Config_Access access;
  std::string unit;
  std::string description;
  int line = INT_MIN;
};

// Base of a program's settings structure. The structure registers each member
// once in its constructor (name, member, access, unit, description), sets its
// defaults, and then Load() fills the members from one section of a
// Config_File; members missing there keep their defaults. Save() writes them
// back: known lines are updated in place, missing entries are added with a
// self-describing comment ("_A{L,S} _U{ms} _D{cycle time}"). Members that are
// Config_Data structures themselves map to the sections "Section.Member".
//
// Entries are kept, loaded and saved in ascending name order; registering a
// name again replaces the earlier entry. Not copyable (entries point into the
// object). Look-ups throw std::underflow_error("No entry at all") when nothing
// is registered and std::invalid_argument("No such entry") or, for a dotted
// path, ("No such path to entry"). Not locked.
class ZQ_EXPORT Config_Data {
 public:
  static constexpr const char* EW_UNIT_IDENTIFIER = "_U{";
  static constexpr const char* EW_ACCESS_IDENTIFIER = "_A{";
  static constexpr const char* EW_DESCR_IDENTIFIER = "_D{";
  static constexpr const char* EW_IDENTIFIER_END = "}";
  static constexpr const char* EW_SUBCFG_SEPARATOR = ".";
  static constexpr int MinValueSpace = 25;

  typedef std::map<std::string, Config_Data_Entry>::iterator iterator;

  Config_Data() = default;
  virtual ~Config_Data() = default;
  Config_Data(const Config_Data&) = delete;
  Config_Data& operator=(const Config_Data&) = delete;

  // ---- registration; each returns the stored entry
  Config_Data_Entry& Register(const std::string& name, int& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "",
                              Config_NumberBase base = cfg_DECIMAL);
  Config_Data_Entry& Register(const std::string& name, unsigned int& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "",
                              Config_NumberBase base = cfg_DECIMAL);
  Config_Data_Entry& Register(const std::string& name, long long int& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "",
                              Config_NumberBase base = cfg_DECIMAL);
  Config_Data_Entry& Register(const std::string& name, double& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "");
  Config_Data_Entry& Register(const std::string& name, std::string& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "");
  Config_Data_Entry& Register(const std::string& name, bool& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "");
  Config_Data_Entry& Register(const std::string& name, stringize& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "");
  // A sub-structure, loaded from and saved to the section "Section.name".
  Config_Data_Entry& Register(const std::string& name, Config_Data& member,
                              const Config_Access& access = Config_Data_INIT.LS);
  // A named enumeration or a set of one.
  template <typename E>
  Config_Data_Entry& Register(const std::string& name, SuperEnum<E>& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "") {
    return RegisterResolver(name, &member, &SuperEnum<E>::resolve, access, unit, description);
  }
  template <typename E>
  Config_Data_Entry& Register(const std::string& name, SuperEnumSet<E>& member,
                              const Config_Access& access = Config_Data_INIT.LS,
                              const std::string& unit = "", const std::string& description = "") {
    return RegisterResolver(name, &member, &SuperEnumSet<E>::resolve, access, unit, description);
  }
  // A character buffer of `size` bytes (copied with strncpy: no terminator
  // when the text fills it).
  Config_Data_Entry& RegisterChars(const std::string& name, char* buffer, size_t size,
                                   const Config_Access& access = Config_Data_INIT.LS,
                                   const std::string& unit = "",
                                   const std::string& description = "");
  // A binary block of `size` bytes, kept as raw bytes in the text.
  Config_Data_Entry& RegisterBinary(const std::string& name, void* block, size_t size,
                                    const Config_Access& access = Config_Data_INIT.LS,
                                    const std::string& unit = "",
                                    const std::string& description = "");
  // Any object whose text the resolver converts.
  Config_Data_Entry& RegisterResolver(const std::string& name, void* object,
                                      Config_Resolver resolver,
                                      const Config_Access& access = Config_Data_INIT.LS,
                                      const std::string& unit = "",
                                      const std::string& description = "");

  // ---- loading and saving
  // Reads every loadable member from `section` (or from section + suffix for
  // each suffix in order, later ones overriding earlier ones), remembering the
  // line of every entry found, and takes units and descriptions from "_U{}"
  // and "_D{}" markers in the comments. Calls Config_Changed() with the names
  // of the members assigned.
  void Load(Config_File& file, const std::string& section,
            const std::vector<std::string>* suffixes = nullptr);
  // Writes every member whose access shares a mode with `filter` into
  // `section`. Integers are written by their base ("4k", "0x1f", "12"),
  // doubles without trailing zeros ("1.5", "2", "0").
  void Save(Config_File& file, const Config_Access& filter, const std::string& section);

  // ---- look-ups
  // By name; a dotted name ("Log.FlushCycle") descends into sub-structures.
  Config_Data_Entry& GetEntry(const std::string& name);
  // (A string literal must not pick the member-address overload below.)
  Config_Data_Entry& GetEntry(const char* name) { return GetEntry(std::string(name)); }
  // By position in name order.
  Config_Data_Entry& GetEntry(size_t index);
  // By member address, searching sub-structures too.
  Config_Data_Entry& GetEntry(const void* member);
  size_t Size() const { return entries.size(); }
  std::string GetName(const void* member) { return GetEntry(member).Name(); }
  std::string GetPath(const void* member) { return GetEntry(member).Path(); }
  std::string GetUnit(const void* member) { return GetEntry(member).Unit(); }
  std::string GetDescription(const void* member) { return GetEntry(member).Description(); }
  iterator begin() { return entries.begin(); }
  iterator end() { return entries.end(); }

 protected:
  // Called at the end of Load() with the section and the names of the members
  // that were assigned from the file (possibly none). Default: nothing.
  virtual void Config_Changed(Config_File& file, const std::string& section,
                              const std::vector<std::string>& names);
  // Called after a member of this structure was assigned from text (floating
  // point, character, boolean, symbolic, binary and string members), with the
  // member's name and address. Default: nothing.
  virtual void Var_Changed(const std::string& name, void* member);

  Config_Data_Entry& Register_Core(const std::string& name, Config_DataTypes type, void* pointer,
                                   const Config_Access& access, const std::string& unit,
                                   const std::string& description);
  static void Save_Core(Config_File& file, Config_Data& structure, const std::string& section,
                        const Config_Access& filter);

 private:
  friend class Config_Data_Entry;
  static Config_Data_Entry& with_base(Config_Data_Entry& e, Config_NumberBase base) {
    e.base = base;
    return e;
  }
  // Gives every entry of this structure (and its sub-structures) its path.
  void set_paths(const std::string& prefix);
  Config_Data_Entry* find_member(const void* member);

  std::map<std::string, Config_Data_Entry> entries;
  std::string path_prefix;
};

}  // namespace zqcommon

ZQ_SUPERENUM_DECLARE(zqcommon::Config_DataTypes);
ZQ_SUPERENUM_DECLARE(zqcommon::Config_DataAcessMode);

#endif

// Config_File's look-up index: built from the lines in file order.
#include "config/config_index.h"

#include <memory>

#include "core/chartype.h"

uint64_t Config_File::LookupIndex::key(int header, const char* name, size_t n) const {
  uint64_t h = 0x9E3779B97F4A7C15ull ^ static_cast<uint32_t>(header);
  for (size_t i = 0; i < n; ++i) {
    const char c = fold ? upper[static_cast<unsigned char>(name[i])] : name[i];
    h = (h ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
  }
  h ^= h >> 29;
  return h | 1;  // never 0, the mark of an empty slot
}

void Config_File::LookupIndex::add(int header, const LINE& entry, int number) {
  const uint64_t h = key(header, entry.data.data() + entry.name, entry.namelen);
  const size_t mask = slots.size() - 1;
  for (size_t i = h & mask;; i = (i + 1) & mask) {
    Slot& s = slots[i];
    if (s.hash == 0) {
      s = Slot{h, header, number};
      return;
    }
    // The first entry of a name stays. (Two names of one section with the
    // same 64-bit hash leave the second out: get_entry() checks the name it
    // finds and scans the section when it differs.)
    if (s.hash == h && s.header == header) return;
  }
}

int Config_File::LookupIndex::find(int header, const std::string& name) const {
  if (slots.empty()) return INT_MIN;
  const uint64_t h = key(header, name.data(), name.size());
  const size_t mask = slots.size() - 1;
  for (size_t i = h & mask;; i = (i + 1) & mask) {
    const Slot& s = slots[i];
    if (s.hash == 0) return INT_MIN;
    if (s.hash == h && s.header == header) return s.number;
  }
}

const Config_File::LookupIndex& Config_File::lookup_index() {
  if (index_ != nullptr && index_->lines == data.size() && index_->sections == sections.size() &&
      index_->fold == ignorecase) {
    return *index_;
  }
  auto index = std::make_shared<LookupIndex>();
  index->lines = data.size();
  index->sections = sections.size();
  index->fold = ignorecase;
  for (int c = 0; c < 256; ++c) index->upper[c] = zqdetail::upper(static_cast<char>(c));
  size_t entries = 0;
  for (auto it = data.begin(); it != data.end(); ++it) entries += it.line().IsEntry() ? 1 : 0;
  size_t capacity = 16;
  while (capacity < entries * 2) capacity *= 2;
  index->slots.assign(capacity, LookupIndex::Slot{0, 0, 0});
  int header = INT_MIN;  // entries before the first section belong to none
  for (auto it = data.begin(); it != data.end(); ++it) {
    const LINE& l = it.line();
    if (l.IsSection()) {
      header = it.number();
    } else if (l.IsEntry() && header != INT_MIN) {
      index->add(header, l, it.number());
    }
  }
  index->exact_sections.insert(sections.begin(), sections.end());
  if (ignorecase) {
    for (const auto& s : sections) {
      std::string upper = s.first;
      for (char& c : upper) c = zqdetail::upper(c);
      index->folded_sections.emplace(std::move(upper), s.second);
    }
  }
  index_ = std::move(index);
  return *index_;
}

// Changing a few values of an operator's configuration file in place.
#ifndef ZQCOMMON_CONFIG_EDIT_H
#define ZQCOMMON_CONFIG_EDIT_H

#include <string>
#include <vector>

#include "zqcommon/export.h"

namespace zqcommon {

// Writes chosen values into a configuration file and nothing else: every
// other byte of the file (line ends, order, blank lines, comments, other
// programs' sections) stays as it is, and no markers are added. A value
// replaces the old one in its line (the comment keeps its column where it
// can); a key not in its section is added after the section's last entry; a
// missing section is added at the end. (Config_File::write rewrites the
// whole file in its own format; this is for files people edit.)
//
// The file is read once (Read) and compared at Save: when it changed on disk
// meanwhile, the changes are merged into its new text unless one of the
// keys being written was changed there too, which refuses the save. The file
// is replaced atomically; a missing file is created (mode 0644 before the
// umask). Failures are results with the reason. Not locked.
class ZQ_EXPORT Config_Edit {
 public:
  enum Result { kSaved, kMerged, kConflict, kFailed };

  explicit Config_Edit(const std::string& path) : path_(path) {}

  // Takes the file's text as the base of later saves; a missing file reads
  // as empty. False (with the reason) when it exists but cannot be read.
  bool Read(std::string* why);
  // Queues "Section.Key = value" for the next Save; false (nothing queued)
  // for a value that a configuration line cannot hold (a line end, a '#',
  // blanks around it).
  bool Set(const std::string& section, const std::string& key, const std::string& value);
  // Writes the queued values. kSaved, or kMerged when the file had changed
  // elsewhere (the reason says so); kConflict or kFailed with the reason and
  // the file untouched. After a success the queue is empty and the written
  // text is the new base.
  Result Save(std::string* why);
  bool Pending() const { return !changes_.empty(); }
  const std::string& Path() const { return path_; }

  // `text` with the one value set as above.
  static std::string Apply(const std::string& text, const std::string& section, const std::string& key,
                           const std::string& value);

 private:
  struct Change {
    std::string section, key, value;
  };
  std::string path_;
  std::string base_;
  std::vector<Change> changes_;
};

}  // namespace zqcommon

#endif

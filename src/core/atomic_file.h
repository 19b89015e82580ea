// Replacing a file's content as one step.
#ifndef ZQCOMMON_SRC_ATOMIC_FILE_H
#define ZQCOMMON_SRC_ATOMIC_FILE_H

#include <sys/types.h>

#include <string>

namespace zqdetail {

// Writes `content` to a new file beside `path` (same folder, so the same file
// system), flushes it to the disk, gives it the original's permissions and
// owner (`new_mode` when there is no original) and renames it over `path`;
// a symbolic link at `path` is kept and its target replaced. A device or a
// FIFO is written in place. Readers see the
// old content or the new, never a part. False, with errno set and the
// original untouched, when any step fails (a full disk, a read-only folder).
// With `exact_mode` the new file gets exactly `new_mode` whatever the
// original's permissions and the umask are (key and password files: 0600).
bool write_file_atomically(const std::string& path, const std::string& content,
                           mode_t new_mode = 0666, bool exact_mode = false);

}  // namespace zqdetail

#endif

// Replacing a file so that readers see the old or the new content, never a part.
#ifndef ZQCOMMON_SRC_ATOMIC_WRITE_H
#define ZQCOMMON_SRC_ATOMIC_WRITE_H

#include <sys/types.h>

#include <string>

namespace zqdetail {

// Writes `data` to a new file next to `path` created with `mode` (O_EXCL,
// O_NOFOLLOW), syncs it, renames it over `path` and syncs the folder. False
// with `error` naming the file and the reason; the temporary file is removed.
bool write_file_atomically(const std::string& path, const std::string& data, mode_t mode, std::string& error);

}  // namespace zqdetail

#endif

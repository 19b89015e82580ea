// Operators, their access levels and password hashes, kept in an INI file.
#ifndef ZQSECURITY_USERFILE_H
#define ZQSECURITY_USERFILE_H

#include <map>
#include <string>
#include <vector>

#include "zqcommon/export.h"

namespace ZQSecurity {

// Access levels, ordered: a level may do what every lower one may.
enum AccessLevel { kNoAccess = 0, kViewer = 1, kOperator = 2, kAdmin = 3 };

// The users file: an INI file with one section, [users], and one line per
// user, "name = level:hash" (level viewer, operator or admin; '#' and ';'
// start comments). Hashes are scrypt with a random 16-byte salt per user:
// "scrypt$N$r$p$SALT$KEY" in hexadecimal; the cost of new hashes is N 16384,
// r 8, p 1 (about 16 MB and 50-100 ms of one core per check).
//
// Verify() takes the same time for an unknown user as for a wrong password
// and compares in constant time. Load() reports the file and line of the
// first malformed line; Save() writes mode 0600, replacing the file
// atomically. Not locked: one thread uses an object (the file may be
// reloaded between uses).
class ZQ_EXPORT UserFile {
 public:
  // Reads `path`; false with `error` (file and line) when it cannot.
  bool Load(const std::string& path, std::string& error);
  bool Save(const std::string& path, std::string& error) const;

  // The user's level when the password is right, else kNoAccess.
  AccessLevel Verify(const std::string& name, const std::string& password) const;
  // The user's level without a password (for a verified certificate's
  // identity); kNoAccess for an unknown name.
  AccessLevel LevelOf(const std::string& name) const;
  // Adds or replaces a user; false (and `error`) for an invalid name (letters,
  // digits, '.', '_', '-', '@'), an empty password or a hashing failure.
  bool Set(const std::string& name, AccessLevel level, const std::string& password, std::string& error);
  size_t Size() const { return users_.size(); }
  // The users' names, sorted.
  std::vector<std::string> Names() const;

  // "viewer", "operator", "admin" (or "none"), and back (kNoAccess for others).
  static const char* LevelName(AccessLevel level);
  static AccessLevel ParseLevel(const std::string& text);
  // A new scrypt hash of `password` with a fresh random salt; empty on failure.
  static std::string MakeHash(const std::string& password);
  // Whether `password` matches `hash` (constant-time comparison).
  static bool CheckHash(const std::string& hash, const std::string& password);

 private:
  static const std::string& unknown_user_hash();
  struct User {
    AccessLevel level = kNoAccess;
    std::string hash;
  };
  std::map<std::string, User> users_;
};

// The level that the users file at `path` gives `identity` (a user name or
// a verified certificate's name); kNoAccess when the file cannot be read or
// does not name it.
ZQ_EXPORT AccessLevel UserLevel(const std::string& path, const std::string& identity);

}  // namespace ZQSecurity

#endif

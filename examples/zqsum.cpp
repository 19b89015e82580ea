// zqsum: checksums and digests of files, by method name.
//
//   zqsum [-m METHOD[,METHOD...]] [-l] FILE...
//
// Prints one line per file and method, "METHOD  DIGEST  SIZE  FILE", where
// METHOD is any digest the linked OpenSSL knows ("sha1", "sha256", ...) or the
// built-in "crc32"/"crc16" (host byte order, as the library stores them).
// -l lists the methods the installed tool reports; --version prints the
// library's information table. Exit status 1 when a file could not be read or
// a method is unknown.
#include <zqcommon/functions.h>
#include <zqcommon/library_info.h>
#include <zqsecurity/hash.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

bool read_file(const std::string& path, std::string& contents) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  contents.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

int usage() {
  std::fputs("usage: zqsum [-m METHOD[,METHOD...]] [-l] [--version] FILE...\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string methods = "crc32,crc16,sha256";
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "-m" && i + 1 < argc) {
      methods = argv[++i];
    } else if (arg == "--version") {
      for (const char* const* line = zqcommon_LIBRARYINFO; *line != nullptr; ++line) {
        std::printf("%s\n", *line);
      }
      return 0;
    } else if (arg == "-l") {
      std::printf("%s\n", ZQSecurity::Hash::supportedMethods().c_str());
      return 0;
    } else if (!arg.empty() && arg[0] == '-') {
      return usage();
    } else {
      files.push_back(arg);
    }
  }
  if (files.empty()) return usage();

  std::vector<std::unique_ptr<ZQSecurity::Hash>> owned;
  int status = 0;
  while (!methods.empty()) {
    const std::string name = Trim(GetExtToken(&methods, ","));
    owned.push_back(std::make_unique<ZQSecurity::Hash>(name));
    if (owned.back()->GetMethod().empty()) {
      std::fprintf(stderr, "zqsum: unknown method '%s'\n", name.c_str());
      status = 1;
      owned.pop_back();
    }
  }

  std::string contents;
  for (const std::string& file : files) {
    if (!read_file(file, contents) || contents.size() > 0xFFFFFFFFu) {
      std::fprintf(stderr, "zqsum: cannot read '%s'\n", file.c_str());
      status = 1;
      continue;
    }
    for (auto& hash : owned) {
      const std::string digest =
          hash->mkHashText(contents.data(), static_cast<unsigned int>(contents.size()));
      std::printf("%-10s %s  %zu  %s\n", hash->GetMethod().c_str(), digest.c_str(),
                  contents.size(), file.c_str());
    }
  }
  return status;
}

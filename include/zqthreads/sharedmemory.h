// A named block of shared memory between processes.
#ifndef ZQTHREADS_SHAREDMEMORY_H
#define ZQTHREADS_SHAREDMEMORY_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zqcommon/export.h"

// One named block of shared memory. The creator makes it with a size and a
// name; other processes attach by the name alone. The name becomes the
// numeric key mk_crc32(name), and the POSIX shared-memory object is named
// "/zqshm-" and that key in hexadecimal, so two names with the same CRC-32
// meet in one block. Every block starts with a header at fixed offsets (host
// byte order): size (the requested size minus 44) at 0, key at 4, the name
// (at most 32 characters, terminated only when shorter) at 8; the user's area
// starts at 40.
//
// Lifetime: the block's name lives as long as its creator. When the creator
// is destroyed the name is removed (whatever DeleteOnDestroy was told), so
// new attachments fail, while processes already attached keep their mapping
// until they end. A creator that dies without running its destructor leaves
// the name behind (in /dev/shm) until it is removed or the machine restarts.
// The block is locked in memory where the process may lock memory.
//
// Failures are results: operator void*() answers null, GetSize() 0 and
// GetId() "". No lock: users synchronise through their own means.
class ZQ_EXPORT SharedMemory {
 public:
  // The bytes at the start of the mapping that describe the segment.
  struct Header {
    uint32_t size;
    uint32_t key;
    char name[32];
  };
  static_assert(sizeof(Header) == 40, "the header is 40 bytes");

  // Creates (or, when it exists, opens) the block and writes its header.
  SharedMemory(unsigned int size, const std::string& name);
  // Attaches to an existing block.
  explicit SharedMemory(const std::string& name);
  ~SharedMemory();
  SharedMemory(const SharedMemory&) = delete;
  SharedMemory& operator=(const SharedMemory&) = delete;

  void DeleteOnDestroy(bool on) { delonexit = on; }
  // The user's area (40 bytes into the block), or null.
  operator void*() const;
  unsigned int GetSize() const;
  std::string GetId() const;
  bool IsValid() const { return true; }
  uint32_t GetKey() const { return static_cast<uint32_t>(shmid); }
  static bool Exists(const std::string& name);

 private:
  bool mapped() const;

  bool delonexit = false;
  long long shmid = -1;
  bool iamclient = false;
  Header* cmap = nullptr;
  size_t length_ = 0;
};

#endif

// Named shared memory on POSIX shared-memory objects.
#include "zqthreads/sharedmemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "zqsecurity/crc32.h"

namespace {

uint32_t key_of(const std::string& name) {
  return mk_crc32(name.data(), static_cast<unsigned int>(name.size()));
}

std::string object_name(uint32_t key) {
  char text[32];
  std::snprintf(text, sizeof text, "/zqshm-%08x", key);
  return text;
}

// Maps `length` bytes of `fd`, locked when the process may lock memory.
void* map_block(int fd, size_t length) {
  void* p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED, fd, 0);
  if (p == MAP_FAILED) p = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return p;
}

}  // namespace

SharedMemory::SharedMemory(unsigned int size, const std::string& name) : delonexit(true) {
  const uint32_t key = key_of(name);
  shmid = key;
  const int fd = shm_open(object_name(key).c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) return;
  struct stat st {};
  if (fstat(fd, &st) == 0 && st.st_size == 0 && size != 0) {
    if (ftruncate(fd, size) != 0) {
      ::close(fd);
      return;
    }
    st.st_size = size;
  }
  length_ = static_cast<size_t>(st.st_size);
  void* p = length_ != 0 ? map_block(fd, length_) : MAP_FAILED;
  ::close(fd);
  if (p == MAP_FAILED || length_ < sizeof(Header)) {
    if (p != MAP_FAILED) munmap(p, length_);
    return;
  }
  cmap = static_cast<Header*>(p);
  cmap->key = key;
  cmap->size = size - 44;  // as the header has always recorded it
  // At most 32 characters; terminated only when shorter (zero-filled).
  std::memset(cmap->name, 0, sizeof cmap->name);
  std::memcpy(cmap->name, name.data(), std::min(name.size(), sizeof cmap->name));
}

SharedMemory::SharedMemory(const std::string& name) : iamclient(true) {
  const uint32_t key = key_of(name);
  shmid = key;
  const int fd = shm_open(object_name(key).c_str(), O_RDWR | O_CLOEXEC, 0600);
  if (fd < 0) return;
  struct stat st {};
  if (fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) >= sizeof(Header)) {
    length_ = static_cast<size_t>(st.st_size);
    void* p = map_block(fd, length_);
    if (p != MAP_FAILED) cmap = static_cast<Header*>(p);
  }
  ::close(fd);
}

SharedMemory::~SharedMemory() {
  if (mapped()) munmap(cmap, length_);
  if (!iamclient && shmid >= 0) shm_unlink(object_name(static_cast<uint32_t>(shmid)).c_str());
  cmap = nullptr;
  shmid = -1;
}

bool SharedMemory::mapped() const { return cmap != nullptr && cmap != MAP_FAILED; }

SharedMemory::operator void*() const {
  return mapped() ? reinterpret_cast<char*>(cmap) + sizeof(Header) : nullptr;
}

unsigned int SharedMemory::GetSize() const { return mapped() ? cmap->size : 0; }

// A name of 32 characters has no terminator: it reads on into the user's
// area up to the first zero byte, but never past the block.
std::string SharedMemory::GetId() const {
  if (!mapped()) return "";
  const char* start = cmap->name;
  const size_t room = length_ - offsetof(Header, name);
  return std::string(start, strnlen(start, room));
}

bool SharedMemory::Exists(const std::string& name) {
  const int fd = shm_open(object_name(key_of(name)).c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

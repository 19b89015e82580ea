// Attaches to a shared block by name and prints what it finds:
// "id=<name> size=<size> key=<hex> data=<text>", or "none".
#include <cstdio>

#include "zqthreads/sharedmemory.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  SharedMemory block(argv[1]);
  const char* data = static_cast<const char*>(static_cast<void*>(block));
  if (data == nullptr) {
    std::puts("none");
    return 1;
  }
  std::printf("id=%s size=%u key=%08x data=%s\n", block.GetId().c_str(), block.GetSize(), block.GetKey(),
              data);
  return 0;
}

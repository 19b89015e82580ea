// A process image of digital inputs and outputs moved through I/O handlers.
#ifndef ZQCOMMON_IOCONTROL_H
#define ZQCOMMON_IOCONTROL_H

#include <cstdint>

#include "zqcommon/export.h"

enum IOResult {
  IOR_SUCCESS = 0,
  IOR_INVALID = 1,   // no handler with that id
  IOR_BOUNDARY = 2,  // position outside the image
  IOR_FAIL = 3       // handler in error, table full or image too small
};

// A source of input bytes and a sink of output bytes. Derived handlers
// override the sizes and the byte transfers; the base class has no bytes and
// answers IOR_FAIL (stored in last_result) to every transfer. A handler in
// error is skipped by IOControl. The name is not copied.
class ZQ_EXPORT IOHandler {
 public:
  IOHandler(unsigned int id, const char* name) : id(id), name(name) {}
  virtual ~IOHandler() = default;

  virtual unsigned int isize() { return 0; }
  virtual unsigned int osize() { return 0; }
  // Clears the error state.
  virtual void init() { error = false; }
  virtual IOResult Get8(unsigned int index, void* byte);
  virtual IOResult Get16(unsigned int index, void* word);
  virtual IOResult Get32(unsigned int index, void* word);
  virtual IOResult Get64(unsigned int index, void* word);
  virtual IOResult Set8(unsigned int index, const void* byte);
  virtual IOResult Set16(unsigned int index, const void* word);
  virtual IOResult Set32(unsigned int index, const void* word);
  virtual IOResult Set64(unsigned int index, const void* word);

  unsigned int Id() const { return id; }
  const char* Name() const { return name; }
  bool has_error() const { return error; }

 protected:
  IOResult fail() { return last_result = IOR_FAIL; }

  unsigned int id;
  const char* name;
 public:
  bool error = false;
  IOResult last_result = IOR_SUCCESS;
};

// A handler without hardware: eight bytes that serve as both its inputs and
// its outputs (id 0, name "Sim-IO"). Indexes above 7 answer IOR_FAIL.
class ZQ_EXPORT SimIOHandler : public IOHandler {
 public:
  SimIOHandler() : IOHandler(0, "Sim-IO") {}
  unsigned int isize() override { return 8; }
  unsigned int osize() override { return 8; }
  IOResult Get8(unsigned int index, void* byte) override;
  IOResult Set8(unsigned int index, const void* byte) override;

  uint8_t data[8] = {};
};

// Where one handler's bytes sit in the process image.
struct ZQ_EXPORT IOHandlerList {
  unsigned int iofs = 0;  // first input byte of the handler in the image
  unsigned int oofs = 0;  // first output byte
  IOHandler* handler = nullptr;
  bool dirty = false;
};

// Keeps the image in seven caller-owned buffers of `size` bytes each and up
// to seven handlers (not owned), placed one after the other in the order
// they are added. ReadAll fills the input image from the handlers and
// mirrors each handler's inputs into its outputs; WriteAll hands the output
// image to the handlers at their input positions. Bit n of a handler is bit
// n % 8 of its byte n / 8. The output masks are kept but not applied; the
// previous-input image is the caller's to update. No locks: one thread or
// callers that serialise.
class ZQ_EXPORT IOControl {
 public:
  // The first buffer becomes the previous-input image and the second the
  // input image; the order is part of the interface.
  IOControl(unsigned int size, void* a, void* b, void* i_and, void* i_or, void* o,
            void* o_and, void* o_or);

  IOResult AddHandler(IOHandler& h);
  // Look-up by name is not provided: always -1.
  int QueryHandler(const char* name) const;

  // Image position of byte `offset` of handler `id`. A position equal to
  // the image size still passes.
  IOResult GetIOffset(unsigned int id, unsigned int offset, unsigned int& pos) const;
  IOResult GetOOffset(unsigned int id, unsigned int offset, unsigned int& pos) const;

  // One masked input byte; the image's last byte is not readable here.
  template <class T>
  IOResult Get(unsigned int id, unsigned int offset, T& value);

  IOResult GetBit(unsigned int id, unsigned int bit, bool& value);
  IOResult GetBitChanged(unsigned int id, unsigned int bit, bool& changed);
  IOResult SetBit(unsigned int id, unsigned int bit);
  IOResult ClearBit(unsigned int id, unsigned int bit);
  IOResult InvertBit(unsigned int id, unsigned int bit);
  IOResult CopyBit(unsigned int id, unsigned int bit, bool value);

  IOResult ReadAll();
  IOResult WriteAll();

 private:
  enum class BitOp { set, clear, invert };
  IOResult find(unsigned int id, unsigned int offset, bool input, unsigned int& pos) const;
  IOResult change_bit(unsigned int id, unsigned int bit, BitOp op);
  IOResult transfer(bool read);

  unsigned int size;
  uint8_t* i;
  uint8_t* pi;
  uint8_t* i_and;
  uint8_t* i_or;
  uint8_t* o;
  uint8_t* o_and;
  uint8_t* o_or;
  IOHandlerList handler[8];
  int hwp = 0;
};

template <>
IOResult IOControl::Get<unsigned char>(unsigned int id, unsigned int offset, unsigned char& value);

#endif

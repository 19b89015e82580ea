#include "zqcommon/iocontrol.h"

#include <cstring>

IOResult IOHandler::Get8(unsigned int, void*) { return fail(); }
IOResult IOHandler::Get16(unsigned int, void*) { return fail(); }
IOResult IOHandler::Get32(unsigned int, void*) { return fail(); }
IOResult IOHandler::Get64(unsigned int, void*) { return fail(); }
IOResult IOHandler::Set8(unsigned int, const void*) { return fail(); }
IOResult IOHandler::Set16(unsigned int, const void*) { return fail(); }
IOResult IOHandler::Set32(unsigned int, const void*) { return fail(); }
IOResult IOHandler::Set64(unsigned int, const void*) { return fail(); }

IOResult SimIOHandler::Get8(unsigned int index, void* byte) {
  if (index > 7) return IOR_FAIL;
  *static_cast<uint8_t*>(byte) = data[index];
  return IOR_SUCCESS;
}

IOResult SimIOHandler::Set8(unsigned int index, const void* byte) {
  if (index > 7) return IOR_FAIL;
  data[index] = *static_cast<const uint8_t*>(byte);
  return IOR_SUCCESS;
}

IOControl::IOControl(unsigned int size, void* a, void* b, void* i_and, void* i_or, void* o,
                     void* o_and, void* o_or)
    : size(size),
      i(static_cast<uint8_t*>(b)),
      pi(static_cast<uint8_t*>(a)),
      i_and(static_cast<uint8_t*>(i_and)),
      i_or(static_cast<uint8_t*>(i_or)),
      o(static_cast<uint8_t*>(o)),
      o_and(static_cast<uint8_t*>(o_and)),
      o_or(static_cast<uint8_t*>(o_or)) {}

IOResult IOControl::AddHandler(IOHandler& h) {
  // Slot 0 stays empty as the zero base, so slots 1..7 take handlers.
  if (hwp >= 7) return IOR_FAIL;
  const IOHandlerList& last = handler[hwp];
  unsigned int iofs = last.iofs + (last.handler ? last.handler->isize() : 0);
  unsigned int oofs = last.oofs + (last.handler ? last.handler->osize() : 0);
  if (iofs + h.isize() > size || oofs + h.osize() > size) return IOR_FAIL;
  ++hwp;
  handler[hwp].iofs = iofs;
  handler[hwp].oofs = oofs;
  handler[hwp].handler = &h;
  handler[hwp].dirty = false;
  return IOR_SUCCESS;
}

int IOControl::QueryHandler(const char*) const { return -1; }

IOResult IOControl::find(unsigned int id, unsigned int offset, bool input,
                         unsigned int& pos) const {
  for (int k = 0; k <= hwp; ++k) {
    const IOHandlerList& slot = handler[k];
    if (!slot.handler || slot.handler->Id() != id) continue;
    if (slot.handler->has_error()) return IOR_FAIL;
    pos = (input ? slot.iofs : slot.oofs) + offset;
    return pos <= size ? IOR_SUCCESS : IOR_BOUNDARY;
  }
  return IOR_INVALID;
}

IOResult IOControl::GetIOffset(unsigned int id, unsigned int offset, unsigned int& pos) const {
  return find(id, offset, true, pos);
}

IOResult IOControl::GetOOffset(unsigned int id, unsigned int offset, unsigned int& pos) const {
  return find(id, offset, false, pos);
}

template <>
IOResult IOControl::Get<unsigned char>(unsigned int id, unsigned int offset,
                                       unsigned char& value) {
  unsigned int pos = 0;
  IOResult r = GetIOffset(id, offset, pos);
  if (r != IOR_SUCCESS) return r;
  if (pos + 1 >= size) return IOR_BOUNDARY;
  value = (i[pos] & i_and[pos]) | i_or[pos];
  return IOR_SUCCESS;
}

IOResult IOControl::GetBit(unsigned int id, unsigned int bit, bool& value) {
  unsigned char byte = 0;
  IOResult r = Get(id, bit / 8, byte);
  value = (byte >> (bit % 8)) & 1;
  return r;
}

IOResult IOControl::GetBitChanged(unsigned int id, unsigned int bit, bool& changed) {
  unsigned int pos = 0;
  IOResult r = GetIOffset(id, bit / 8, pos);
  // A position equal to the size passes the look-up but has no byte.
  if (r == IOR_SUCCESS && pos >= size) r = IOR_BOUNDARY;
  if (r == IOR_SUCCESS) changed = ((pi[pos] ^ i[pos]) >> (bit % 8)) & 1;
  return r;
}

IOResult IOControl::change_bit(unsigned int id, unsigned int bit, BitOp op) {
  unsigned int pos = 0;
  IOResult r = GetOOffset(id, bit / 8, pos);
  if (r == IOR_SUCCESS && pos >= size) r = IOR_BOUNDARY;
  if (r != IOR_SUCCESS) return r;
  const uint8_t mask = static_cast<uint8_t>(1u << (bit % 8));
  switch (op) {
    case BitOp::set: o[pos] |= mask; break;
    case BitOp::clear: o[pos] &= static_cast<uint8_t>(~mask); break;
    case BitOp::invert: o[pos] ^= mask; break;
  }
  return IOR_SUCCESS;
}

IOResult IOControl::SetBit(unsigned int id, unsigned int bit) {
  return change_bit(id, bit, BitOp::set);
}
IOResult IOControl::ClearBit(unsigned int id, unsigned int bit) {
  return change_bit(id, bit, BitOp::clear);
}
IOResult IOControl::InvertBit(unsigned int id, unsigned int bit) {
  return change_bit(id, bit, BitOp::invert);
}
IOResult IOControl::CopyBit(unsigned int id, unsigned int bit, bool value) {
  return change_bit(id, bit, value ? BitOp::set : BitOp::clear);
}

// Moves the image through every handler not in error, byte by byte, stopping
// a handler at its first failed byte. Reading fills the inputs and mirrors
// them into the outputs; writing hands out the output image at the
// handler's input positions and for its input size (for handlers with equal
// input and output sizes the ranges coincide).
IOResult IOControl::transfer(bool read) {
  for (int k = 0; k <= hwp; ++k) {
    const IOHandlerList& slot = handler[k];
    IOHandler* h = slot.handler;
    if (!h || h->has_error()) continue;
    const unsigned int end = slot.iofs + h->isize();
    if (end > size) return IOR_FAIL;
    for (unsigned int p = slot.iofs; p < end; ++p) {
      const IOResult r = read ? h->Get8(p - slot.iofs, &i[p]) : h->Set8(p - slot.iofs, &o[p]);
      if (r != IOR_SUCCESS) break;
    }
    if (!read) continue;
    // Mirror the inputs into the outputs, within the image.
    unsigned int n = h->osize();
    if (slot.oofs + n > size) n = slot.oofs < size ? size - slot.oofs : 0;
    if (slot.iofs + n > size) n = size - slot.iofs;
    std::memmove(&o[slot.oofs], &i[slot.iofs], n);
  }
  return IOR_SUCCESS;
}

IOResult IOControl::ReadAll() { return transfer(true); }
IOResult IOControl::WriteAll() { return transfer(false); }

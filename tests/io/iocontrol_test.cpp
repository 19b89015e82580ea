#include "zqcommon/iocontrol.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

// The seven image buffers, with open input masks.
struct Image {
  explicit Image(unsigned int n)
      : size(n), pi(n), i(n), i_and(n, 0xFF), i_or(n), o(n), o_and(n, 0xFF), o_or(n),
        io(n, pi.data(), i.data(), i_and.data(), i_or.data(), o.data(), o_and.data(),
           o_or.data()) {}
  unsigned int size;
  std::vector<unsigned char> pi, i, i_and, i_or, o, o_and, o_or;
  IOControl io;
};

struct Sized : IOHandler {
  Sized(unsigned int id, unsigned int n) : IOHandler(id, "sized"), n(n) {}
  unsigned int isize() override { return n; }
  unsigned int osize() override { return n; }
  unsigned int n;
};

// Simulated bytes under another id, as a second board would have.
struct SimWithId : SimIOHandler {
  explicit SimWithId(unsigned int n) { id = n; }
};

TEST(IOControl, HandlerTableAndImageLimits) {
  Image img(16);
  SimIOHandler a, b, c;
  EXPECT_EQ(img.io.AddHandler(a), IOR_SUCCESS);
  EXPECT_EQ(img.io.AddHandler(b), IOR_SUCCESS);
  EXPECT_EQ(img.io.AddHandler(c), IOR_FAIL);  // image full
  EXPECT_EQ(img.io.QueryHandler("Sim-IO"), -1);

  Image empty(4);
  std::vector<Sized> zero;
  for (unsigned int k = 0; k < 8; ++k) zero.emplace_back(k + 1, 0);
  for (int k = 0; k < 7; ++k) EXPECT_EQ(empty.io.AddHandler(zero[k]), IOR_SUCCESS);
  EXPECT_EQ(empty.io.AddHandler(zero[7]), IOR_FAIL);  // only seven slots

  // Positions: a second handler starts where the first ends.
  Image two(16);
  Sized h1(1, 3), h2(2, 5);
  two.io.AddHandler(h1);
  two.io.AddHandler(h2);
  unsigned int in = 99, out = 99, past = 0;
  EXPECT_EQ((std::vector<IOResult>{two.io.GetIOffset(2, 0, in), two.io.GetOOffset(2, 13, out)}),
            (std::vector<IOResult>{IOR_SUCCESS, IOR_SUCCESS}));
  EXPECT_EQ((std::vector<unsigned>{in, out}), (std::vector<unsigned>{3, 16}));  // 16 == size passes
  EXPECT_EQ(two.io.GetOOffset(2, 14, past), IOR_BOUNDARY);
  EXPECT_EQ(two.io.GetIOffset(9, 0, past), IOR_INVALID);
}

TEST(IOControl, BitsAtAndPastTheEnd) {
  Image img(16);
  SimIOHandler a;
  SimWithId b(1);
  img.io.AddHandler(a);
  img.io.AddHandler(b);

  bool v = true;
  EXPECT_EQ(img.io.GetBit(7, 0, v), IOR_INVALID);
  EXPECT_FALSE(v);

  img.i[15] = 0xFF;
  img.i[14] = 0x80;
  EXPECT_EQ(img.io.GetBit(1, 6 * 8 + 7, v), IOR_SUCCESS);  // byte 14
  EXPECT_TRUE(v);
  v = true;
  EXPECT_EQ(img.io.GetBit(1, 7 * 8, v), IOR_BOUNDARY);  // the last byte is not readable
  EXPECT_FALSE(v);
  EXPECT_EQ(img.io.GetBit(1, 8 * 8, v), IOR_BOUNDARY);

  // Output bits: the byte one past the image is refused, not written.
  EXPECT_EQ(img.io.SetBit(1, 7 * 8 + 1), IOR_SUCCESS);
  EXPECT_EQ(img.o[15], 2);
  bool changed = false;
  for (IOResult r : {img.io.SetBit(1, 8 * 8), img.io.InvertBit(1, 9 * 8), img.io.GetBitChanged(1, 8 * 8, changed)})
    EXPECT_EQ(r, IOR_BOUNDARY);

  // Masks apply to byte reads; change detection sees the raw bytes.
  img.i[0] = 0x0F;
  img.i_and[0] = 0x03;
  img.i_or[0] = 0x80;
  unsigned char byte = 0;
  EXPECT_EQ(img.io.Get(0, 0, byte), IOR_SUCCESS);
  EXPECT_EQ(byte, 0x83);
  img.pi[0] = 0x0E;
  bool changed1 = true;
  EXPECT_EQ((std::vector<IOResult>{img.io.GetBitChanged(0, 0, changed), img.io.GetBitChanged(0, 1, changed1)}),
            (std::vector<IOResult>{IOR_SUCCESS, IOR_SUCCESS}));
  EXPECT_TRUE(changed && !changed1);

  EXPECT_EQ(img.io.CopyBit(0, 2, true), IOR_SUCCESS);
  EXPECT_EQ(img.io.InvertBit(0, 0), IOR_SUCCESS);
  EXPECT_EQ(img.io.ClearBit(0, 2), IOR_SUCCESS);
  EXPECT_EQ(img.o[0], 1);
}

TEST(IOControl, TransfersMirrorInputsAndSkipFailedHandlers) {
  Image img(16);
  SimIOHandler sim;
  img.io.AddHandler(sim);
  EXPECT_EQ(img.io.SetBit(0, 3), IOR_SUCCESS);
  img.o[5] = 0x55;
  EXPECT_EQ(img.io.WriteAll(), IOR_SUCCESS);
  EXPECT_EQ((std::vector<int>{sim.data[0], sim.data[5]}), (std::vector<int>{8, 0x55}));

  sim.data[1] = 0x22;
  std::memset(img.o.data(), 0xAA, 8);
  // Inputs read; outputs overwritten by the mirrored inputs; the previous
  // image is the caller's.
  EXPECT_EQ(img.io.ReadAll(), IOR_SUCCESS);
  EXPECT_EQ((std::vector<int>{img.i[0], img.i[1], img.o[1], img.o[7], img.pi[0]}),
            (std::vector<int>{8, 0x22, 0x22, 0, 0}));

  sim.error = true;
  sim.data[0] = 0x77;
  img.o[0] = 0x11;
  EXPECT_EQ(img.io.ReadAll(), IOR_SUCCESS);  // a failed handler is skipped
  EXPECT_EQ(img.io.WriteAll(), IOR_SUCCESS);
  EXPECT_EQ((std::vector<int>{img.i[0], sim.data[0]}), (std::vector<int>{8, 0x77}));
  bool v = false;
  for (IOResult r : {img.io.GetBit(0, 0, v), img.io.SetBit(0, 0), img.io.GetBitChanged(0, 0, v)})
    EXPECT_EQ(r, IOR_FAIL);
  sim.init();
  EXPECT_FALSE(sim.has_error());

  // A handler without hardware, and bytes past the simulated eight, fail.
  IOHandler base(3, "base");
  unsigned char byte = 0;
  for (IOResult r : {base.Get8(0, &byte), base.Set64(0, &byte), sim.Get8(8, &byte), sim.Set8(8, &byte)})
    EXPECT_EQ(r, IOR_FAIL);
  EXPECT_EQ(base.last_result, IOR_FAIL);
}

}  // namespace

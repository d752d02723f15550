#include "laz_arithmetic_encoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

#include "cloud/laz_test_decoder.h"

namespace kvr::cloud::laz {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Bytes worked out by hand from the coder's steps: a 32-bit interval from 0
// with length 2^32 - 1, top bytes out while the length is below 2^24, and at
// the end 2^24 added (2^23 when the length is at most 2^25) plus zeros.
TEST(ArithmeticEncoder, WritesTheBytesWorkedOutByHand) {
  struct Case {
    const char* what;
    std::function<void(ArithmeticEncoder&)> code;
    Bytes bytes;
  };
  const Case cases[] = {
      {"nothing: base 2^24, one byte and three zeros", [](ArithmeticEncoder&) {}, {0x01, 0, 0, 0}},
      {"a raw 1: base 0x7FFFFFFF", [](ArithmeticEncoder& e) { e.writeBits(1, 1); }, {0x80, 0, 0, 0}},
      // 0xAB x 0xFFFFFF = 0xAAFFFF55: 0xAA out; the end's 2^24 overflows and carries into it.
      {"a carry into a byte written", [](ArithmeticEncoder& e) { e.writeBits(8, 0xAB); }, {0xAB, 0, 0, 0, 0}},
      // Length 0x01FFFFFF <= 2^25: base 2^23, two bytes, two zeros.
      {"a short interval ends in two bytes", [](ArithmeticEncoder& e) { e.writeBits(7, 0); }, {0x00, 0x80, 0, 0}},
      // 0x1234 x 0xFFFF = 0x1233EDCC: two bytes out at once.
      {"two bytes renormalized at once", [](ArithmeticEncoder& e) { e.writeBits(16, 0x1234); },
       {0x12, 0x33, 0xEE, 0, 0, 0}},
      // A fresh 5-symbol model: starts 0, 6553, 13107, ...; symbol 2 is [13107, 19660) x 0x1FFFF.
      {"a symbol of a fresh model",
       [](ArithmeticEncoder& e) {
         SymbolModel model(5);
         e.encodeSymbol(model, 2);
       },
       {0x67, 0, 0, 0}},
      // The top symbol takes the rest: base 0x4000 x 0x1FFFF.
      {"the top symbol",
       [](ArithmeticEncoder& e) {
         SymbolModel model(2);
         e.encodeSymbol(model, 1);
       },
       {0x80, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    ArithmeticEncoder encoder;
    c.code(encoder);
    encoder.done();
    EXPECT_EQ(encoder.bytes(), c.bytes) << c.what;
  }
}

// Bits, symbols of skewed models (so that they adapt), raw bits of every width
// and 32-bit words, mixed: a decoder with the same models reads them back.
TEST(ArithmeticEncoder, RoundTripsMixedSequences) {
  for (const std::uint32_t seed : {1u, 2u, 3u}) {
    std::mt19937 random(seed);
    struct Op {
      int kind;
      std::uint32_t value, width;
    };
    std::vector<Op> ops;
    for (int i = 0; i < 20000; ++i) {
      const int kind = static_cast<int>(random() % 4);
      const std::uint32_t width = 1 + random() % 32;
      std::uint32_t value = random();
      if (kind == 0) value = random() % 10 == 0 ? 1 : 0;
      if (kind == 1) value = random() % 3 == 0 ? value % 300 : value % 4;
      if (kind == 2) value = width == 32 ? value : value & ((1u << width) - 1);
      ops.push_back({kind, value, width});
    }
    ArithmeticEncoder encoder;
    BitModel bits;
    SymbolModel symbols(300);
    for (const Op& op : ops) {
      if (op.kind == 0) encoder.encodeBit(bits, op.value);
      if (op.kind == 1) encoder.encodeSymbol(symbols, op.value);
      if (op.kind == 2) encoder.writeBits(op.width, op.value);
      if (op.kind == 3) encoder.writeInt(op.value);
    }
    encoder.done();
    test::LazTestDecoder decoder(encoder.bytes());
    BitModel bitsBack;
    SymbolModel symbolsBack(300);
    std::size_t wrong = 0;
    for (const Op& op : ops) {
      std::uint32_t got = 0;
      if (op.kind == 0) got = decoder.decodeBit(bitsBack);
      if (op.kind == 1) got = decoder.decodeSymbol(symbolsBack);
      if (op.kind == 2) got = decoder.readBits(op.width);
      if (op.kind == 3) got = decoder.readBits(32);
      wrong += got != op.value ? 1 : 0;
    }
    EXPECT_EQ(wrong, 0u) << "seed " << seed;
    EXPECT_LE(decoder.position(), encoder.size()) << "the decoder read past the end";
  }
}

// A model that has seen mostly one symbol codes it in far less than a byte.
TEST(ArithmeticEncoder, AdaptsToASkewedSource) {
  ArithmeticEncoder encoder;
  SymbolModel model(256);
  BitModel bit;
  for (int i = 0; i < 10000; ++i) {
    encoder.encodeSymbol(model, i % 100 == 0 ? 7 : 200);
    encoder.encodeBit(bit, i % 50 == 0 ? 1 : 0);
  }
  encoder.done();
  EXPECT_LT(encoder.size(), 800u);  // 10,000 bytes and 1,250 unmodelled
}

}  // namespace
}  // namespace kvr::cloud::laz

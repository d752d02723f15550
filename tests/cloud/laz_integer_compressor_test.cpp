#include "laz_integer_compressor.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "cloud/laz_test_decoder.h"

namespace kvr::cloud::laz {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A difference c goes as its class k (bit length of -c for c <= 0, of c - 1
// above) in the context's model of bits + 1 symbols, then its place in the class
// (c + 2^k - 1 below zero, c - 1 above): in the class's model of 2^k symbols up
// to k = 8, above that its top 8 bits so and the rest raw; c = 0 or 1 as a bit.
// Bytes worked out by hand with fresh models (see the coder's test).
TEST(IntegerCompressor, WritesTheBytesWorkedOutByHand) {
  struct Case {
    const char* what;
    std::uint32_t bits;
    std::int32_t predicted, real;
    Bytes bytes;
  };
  const Case cases[] = {
      {"c = 0: class 0, then bit 0", 16, 5, 5, {0x01, 0, 0, 0}},
      {"c = 3: class 2, place 2 of 4", 16, 10, 13, {0x26, 0, 0, 0}},
      {"c = -10: class 4, place 5 of 16", 16, 100, 90, {0x40, 0xF1, 0, 0, 0}},
      // 60000 wraps to -5536: class 13, place 2655 = 82 << 5 | 31.
      {"a 16-bit difference wraps", 16, -30000, 30000, {0xC8, 0xA3, 0x2D, 0, 0, 0}},
      {"32 bits: c = 1000, class 10, place 999 = 249 << 2 | 3", 32, 0, 1000, {0x55, 0x23, 0x5F, 0, 0}},
  };
  for (const Case& c : cases) {
    ArithmeticEncoder encoder;
    IntegerCompressor ic(encoder, c.bits, 2);
    ic.compress(c.predicted, c.real, 1);
    encoder.done();
    EXPECT_EQ(encoder.bytes(), c.bytes) << c.what;
  }
}

TEST(IntegerCompressor, KIsTheClassOfTheLastDifference) {
  ArithmeticEncoder encoder;
  IntegerCompressor ic(encoder, 32, 1);
  const std::int32_t diffs[][2] = {{0, 0}, {1, 0}, {2, 1}, {3, 2}, {4, 2}, {5, 3}, {-1, 1}, {-2, 2}, {-3, 2},
                                   {-4, 3}, {256, 8}, {257, 9}, {INT32_MIN + 1, 31}};
  for (const auto& [diff, k] : diffs) {
    ic.compress(1000, 1000 + diff);
    EXPECT_EQ(ic.k(), static_cast<std::uint32_t>(k)) << diff;
  }
}

// Values of 16 and 32 bits, predictions near and far (differences that wrap),
// across contexts; the models are reset between two runs, as between chunks.
TEST(IntegerCompressor, RoundTripsValuesOfEveryRange) {
  for (const std::uint32_t bits : {8u, 16u, 32u}) {
    std::mt19937 random(bits);
    const std::uint32_t mask = bits == 32 ? 0xFFFFFFFFu : (1u << bits) - 1;
    struct Value {
      std::int32_t predicted, real;
      std::uint32_t context;
    };
    std::vector<Value> values;
    for (int i = 0; i < 5000; ++i) {
      const auto predicted = static_cast<std::int32_t>(random() & mask);
      const std::uint32_t spread = random() % 4 == 0 ? mask : 1u << (random() % 12);
      const auto real = static_cast<std::int32_t>((static_cast<std::uint32_t>(predicted) + random() % (spread | 1) - spread / 2) & mask);
      values.push_back({predicted, real, static_cast<std::uint32_t>(random() % 3)});
    }
    values.push_back({0, bits == 32 ? INT32_MIN : 0, 0});
    ArithmeticEncoder encoder;
    IntegerCompressor ic(encoder, bits, 3);
    for (int run = 0; run < 2; ++run) {
      ic.reset();
      encoder.reset();
      for (const Value& v : values) ic.compress(v.predicted, v.real, v.context);
      encoder.done();
    }
    test::LazTestDecoder decoder(encoder.bytes());
    test::LazTestIntegerDecoder back(decoder, bits, 3);
    std::size_t wrong = 0;
    for (const Value& v : values) wrong += back.decompress(v.predicted, v.context) != v.real ? 1 : 0;
    EXPECT_EQ(wrong, 0u) << bits << " bits";
  }
}

}  // namespace
}  // namespace kvr::cloud::laz

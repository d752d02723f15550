#include "laz_chunk_table.h"

#include "laz_arithmetic_encoder.h"
#include "laz_integer_compressor.h"
#include "laz_layer.h"

namespace kvr::cloud::laz {

std::vector<std::uint8_t> ChunkTable(std::span<const std::uint32_t> chunkBytes) {
  std::vector<std::uint8_t> table;
  AppendU32(table, 0);
  AppendU32(table, static_cast<std::uint32_t>(chunkBytes.size()));
  if (chunkBytes.empty()) return table;
  ArithmeticEncoder encoder;
  IntegerCompressor sizes(encoder, 32, 2);
  std::uint32_t previous = 0;
  for (const std::uint32_t bytes : chunkBytes) {
    sizes.compress(static_cast<std::int32_t>(previous), static_cast<std::int32_t>(bytes), 1);
    previous = bytes;
  }
  encoder.done();
  table.insert(table.end(), encoder.data(), encoder.data() + encoder.size());
  return table;
}

}  // namespace kvr::cloud::laz

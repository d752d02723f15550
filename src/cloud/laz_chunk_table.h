#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kvr::cloud::laz {

// The table after the last chunk that lets a reader seek: version 0, the number
// of chunks, then each chunk's size in bytes coded against the one before (all
// chunks but the last hold the same number of points, given in the LASzip record).
std::vector<std::uint8_t> ChunkTable(std::span<const std::uint32_t> chunkBytes);

}  // namespace kvr::cloud::laz

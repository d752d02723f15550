#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "kvr_decode/scan_file_map.h"

namespace kvr::scanmap {

// Where each scan line of a map begins, in file order: line L runs from its
// start to the next line's; shots before line 0 belong to no line (-1). Inline:
// readers of points find the lines of every block they decode.
class LineStarts {
 public:
  struct Start {
    std::uint32_t block;
    std::uint32_t shot;
  };

  LineStarts() = default;
  explicit LineStarts(std::vector<Start> starts) : starts_(std::move(starts)) {}
  // The map's lines 0, 1, ... up to the first one it does not hold (a map
  // without a line holds no later ones either).
  explicit LineStarts(const ScanFileMap& map) {
    for (std::int32_t line = 0; line < map.numberOfScanLines; ++line) {
      const auto it = map.scanLines.find(line);
      if (it == map.scanLines.end()) break;
      starts_.push_back({it->second.blockNumber, it->second.shotIndexInBlock});
    }
  }

  std::size_t size() const { return starts_.size(); }
  const Start& operator[](std::size_t line) const { return starts_[line]; }

  // The lines of shots 0, 1, ... of the block, one per entry of `lines`, a
  // line's shots in one fill. Keeps no state, so blocks may be taken in any
  // order, from several threads.
  void LinesOf(std::uint32_t block, std::span<std::int32_t> lines) const {
    const auto before = [](const Start& a, const Start& b) {
      return a.block < b.block || (a.block == b.block && a.shot < b.shot);
    };
    // Starts up to (block, shot) have begun; the last of them is the shot's line.
    auto next = static_cast<std::size_t>(std::upper_bound(starts_.begin(), starts_.end(), Start{block, 0}, before) -
                                         starts_.begin());
    for (std::size_t shot = 0; shot < lines.size();) {
      std::size_t end = lines.size();
      if (next < starts_.size() && starts_[next].block == block) end = std::min<std::size_t>(end, starts_[next].shot);
      std::fill(lines.begin() + static_cast<std::ptrdiff_t>(shot), lines.begin() + static_cast<std::ptrdiff_t>(end),
                static_cast<std::int32_t>(next) - 1);
      shot = end;
      while (next < starts_.size() && starts_[next].block == block && starts_[next].shot <= shot) ++next;
    }
  }

 private:
  std::vector<Start> starts_;
};

}  // namespace kvr::scanmap

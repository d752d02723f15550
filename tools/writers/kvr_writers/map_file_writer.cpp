#include "kvr_writers/map_file_writer.h"

#include "header/header_layout.h"
#include "kvr_writers/byte_writer.h"
#include "scanmap/map_layout.h"

namespace kvr::writers {

namespace {

void WriteHeaderSection(ByteWriter& out, const MapFileHeaderSection& h) {
  using namespace header::layout;
  out.fixed(h.signature, kSignature.size).u32(h.headerLayout).u32(h.dataOffset);
  for (std::uint32_t w : h.headerWords) out.u32(w);
  out.fixed(h.idText1, kIdTextSize).u32(h.idValue);
  out.fixed(h.idText2, kIdTextSize).fixed(h.idText3, kIdTextSize).fixed(h.idText4, kIdTextSize);
  out.u32(h.scanWord0);
  for (float f : h.scanFloats) out.f32(f);
  out.u32(h.prf);
  for (std::uint32_t w : h.scanTailWords) out.u32(w);
  for (const MapFileText& text : h.texts) {
    out.u32(text.lengthField.value_or(static_cast<std::uint32_t>(text.bytes.size()))).text(text.bytes);
  }
}

}  // namespace

std::vector<std::uint8_t> BuildMapFile(const MapFileContents& c) {
  ByteWriter out;
  out.i32(c.currentLineFlag).i32(c.maxShotsPerLine).i32(c.numberOfScanLines).i32(c.shotsInCurrentLine);
  out.u32(c.spareA).u16(c.maxReturnsPerShot).u32(c.dataStartOffset);
  out.fixed(c.signature, scanmap::map_layout::kSignatureSize).i32(c.blockCount).i32(c.maxShotsPerBlock);
  out.i32(c.nameLengthField.value_or(static_cast<std::int32_t>(c.scanFileName.size() + 1)));
  out.text(c.scanFileName).u8(0);

  out.i32(c.entryCountField.value_or(static_cast<std::int32_t>(c.entries.size())));
  for (const MapFileEntry& e : c.entries) {
    out.i32(e.key).u32(e.blockNumber).u32(e.shotIndexInBlock).i32(e.lineFlag).i32(e.shotCount);
    out.i32(e.eventCountField.value_or(static_cast<std::int32_t>(e.eventShots.size())));
    for (std::uint32_t v : e.eventShots) out.u32(v);
  }
  out.u32(c.spareB).f32(c.shotsPerLineEstimate);
  WriteHeaderSection(out, c.header);

  out.f64(c.binWidth).f64(c.minimum).f64(c.maximumSlot);
  for (double a : c.a) out.f64(a);
  out.f64(c.intensityAt95).i32(c.numberOfBins).f64(c.gamma).u32(c.validSampleCount);
  for (double v : c.binValues) out.f64(v);
  if (c.signature == scanmap::map_layout::kSignature) {
    out.u32(c.mapVersion);
    if (c.mapVersion == 1 || c.mapVersion == 2) {
      for (std::uint64_t n : c.returnCounts) out.u64(n);
    }
    if (c.mapVersion == 2) out.f64(c.trailingBinWidth);
  }
  return out.take();
}

}  // namespace kvr::writers

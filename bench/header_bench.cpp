#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kvr_decode/file_header.h"
#include "kvr_writers/scan_file_writer.h"
#include "support/temp_dir.h"

namespace {

// A header of the size the scanner writes: a sectioned calibration text, three
// PRF tables of 100 rows, a few kilobytes of optical model text, and a side
// table of 12 keys by 200 rows.
kvr::writers::HeaderBlockFields TypicalHeader() {
  kvr::writers::HeaderBlockFields f;
  f.headerLayout = 0;
  f.dataOffset = 65536;
  for (int prf : {50, 200, 500}) {
    f.calibrationText += "[PRF=" + std::to_string(prf) + "]\n";
    for (int i = 0; i < 20; ++i) f.calibrationText += "key" + std::to_string(i) + " = " + std::to_string(i * 0.5) + "\n";
    f.parameterText += "[PRF = " + std::to_string(prf) + "]\n";
    for (int i = 0; i < 100; ++i) f.parameterText += std::to_string(i) + " a b " + std::to_string(i * 0.25) + " 1.5\n";
  }
  for (int i = 0; i < 100; ++i) f.thirdText += "<tag" + std::to_string(i) + ">1.25</tag" + std::to_string(i) + ">\n";
  f.fourthText = std::string(512, 'x');
  return f;
}

std::vector<std::vector<double>> SideTableRows() {
  std::vector<std::vector<double>> rows;
  for (int r = 0; r < 200; ++r) {
    std::vector<double> row{r * 0.05};
    for (int k = 0; k < 12; ++k) row.push_back(r + k * 0.5);
    rows.push_back(row);
  }
  return rows;
}

struct ScanFileOnDisk {
  kvr::test::TempDir dir;
  std::wstring name;
  std::size_t headerSize = 0;
  ScanFileOnDisk() {
    const auto fields = TypicalHeader();
    headerSize = kvr::writers::BuildHeaderBlock(fields).size();
    kvr::test::WriteFile(dir / "scan.raw", kvr::writers::BuildScanFile(fields));
    std::vector<int> keys;
    for (int k = 0; k < 12; ++k) keys.push_back(10 + 2 * k);
    kvr::test::WriteFile(dir / "scan.raw.tbl", kvr::writers::BuildSideTable(keys, SideTableRows()));
    name = kvr::test::WideName(dir / "scan.raw");
  }
};

void BM_ReadFileHeader(benchmark::State& state) {
  ScanFileOnDisk file;
  RawFileHeader header;
  for (auto _ : state) {
    FILE* stream = ReadFileHeader(file.name.c_str(), header);
    benchmark::DoNotOptimize(header.sideTableGrid);
    std::fclose(stream);
    ReleaseFileHeader(header);
  }
}
BENCHMARK(BM_ReadFileHeader);

// The floor: opening the same file and reading its header block and side table
// with plain fread.
void BM_FreadHeaderAndSideTable(benchmark::State& state) {
  ScanFileOnDisk file;
  const std::string raw = (file.dir / "scan.raw").string();
  const std::string table = raw + ".tbl";
  std::vector<char> buffer(1 << 20);
  for (auto _ : state) {
    for (const std::string* path : {&raw, &table}) {
      FILE* stream = std::fopen(path->c_str(), "rb");
      benchmark::DoNotOptimize(std::fread(buffer.data(), 1, path == &raw ? file.headerSize : buffer.size(), stream));
      std::fclose(stream);
    }
  }
}
BENCHMARK(BM_FreadHeaderAndSideTable);

void BM_DecodeFileHeader(benchmark::State& state) {
  std::vector<std::uint8_t> block = kvr::writers::BuildHeaderBlock(TypicalHeader());
  RawFileHeader header;
  for (auto _ : state) {
    benchmark::DoNotOptimize(DecodeFileHeader(block.data(), static_cast<int>(block.size()), header));
    ReleaseFileHeader(header);
  }
}
BENCHMARK(BM_DecodeFileHeader);

}  // namespace

#include "header/side_table.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "header/text_tokens.h"
#include "platform/file_system.h"

namespace kvr::header {

namespace {

constexpr const wchar_t* kSideTableSuffix = L".tbl";
constexpr std::string_view kSeparators = " \t\n";
constexpr int kLineReadLimit = 510;  // characters per read; a longer line continues as a new one
constexpr double kRowStep = 0.05;    // the table is required to be sampled at 0.05
constexpr double kKeyStep = 1.0;

// Keys are whole numbers read from text, so a single pair like 0 and 2000000000
// would ask for billions of resampled columns, and a few kilobytes of rows under
// two distant keys for hundreds of megabytes. Tables beyond these sizes (32 MB of
// values) are refused rather than allowed to exhaust memory and time.
constexpr long long kMaxGridColumns = 1 << 16;
constexpr long long kMaxGridValues = 1 << 22;

// The table as read: one row coordinate and one value per key for every data
// line (fewer when the line is short).
struct TableText {
  std::size_t columnCount = 0;  // tokens of the key line; 0 until it is seen
  std::vector<int> keys;
  std::vector<double> rows;
  std::vector<std::vector<double>> values;  // values[k]: the column of keys[k]
};

void ProcessLine(const char* buffer, TableText& table) {
  std::string_view line(buffer);
  line = line.substr(0, line.find_first_of("\r\n"));
  const std::vector<std::string> tokens = SplitTokens(line, kSeparators);
  if (tokens.size() < 3) return;
  if (table.columnCount == 0) {
    // The key line: its first token labels the row coordinate column.
    table.columnCount = tokens.size();
    for (std::size_t i = 1; i < tokens.size(); ++i) table.keys.push_back(ParseWhole(tokens[i]));
    table.values.resize(table.keys.size());
    return;
  }
  table.rows.push_back(ParseDouble(tokens[0]));
  const std::size_t used = std::min(tokens.size(), table.columnCount);
  for (std::size_t i = 1; i < used; ++i) table.values[i - 1].push_back(ParseDouble(tokens[i]));
}

// False when the file cannot be read to its end.
bool ReadTable(std::FILE* in, TableText& table) {
  // The buffer keeps its contents when a read finds nothing, and the end of the
  // file is only noticed after processing: a table ending in a line feed has its
  // last row counted twice, and rowCount includes it.
  char buffer[kLineReadLimit + 1] = {};
  do {
    std::fgets(buffer, sizeof buffer, in);
    // A read error never reaches end of file; without this the loop would not end.
    if (std::ferror(in)) return false;
    ProcessLine(buffer, table);
  } while (!std::feof(in));
  return true;
}

bool GridWithinLimits(const TableText& table) {
  if (table.keys.empty()) return true;  // resampling reports the missing keys
  long long positiveSteps = 0;
  for (std::size_t i = 0; i + 1 < table.keys.size(); ++i) {
    const long long step = static_cast<long long>(table.keys[i + 1]) - table.keys[i];
    if (step > 0) positiveSteps += step;
  }
  const long long span = static_cast<long long>(table.keys.back()) - table.keys.front();
  const long long columns = std::max(span, positiveSteps) + 1;
  const std::size_t rows = table.rows.size();  // no value column is longer
  return columns <= kMaxGridColumns && columns * static_cast<long long>(rows) <= kMaxGridValues;
}

std::vector<double> Interpolate(const std::vector<double>& from, const std::vector<double>& to, double t) {
  std::vector<double> out(from.size());
  for (std::size_t e = 0; e < from.size(); ++e) {
    const double a = from[e];
    const double b = CheckedAt(to, e);
    out[e] = a + (b - a) * t;
  }
  return out;
}

}  // namespace

GridColumns ResampleColumns(const std::vector<int>& keys, const std::vector<std::vector<double>>& valueColumns) {
  GridColumns grid;
  const long long first = CheckedAt(keys, 0);
  const long long last = keys.back();
  for (long long offset = 0; offset <= last - first; ++offset) grid[static_cast<int>(offset)];
  int offset = 0;
  for (std::size_t i = 0; i + 1 < keys.size(); ++i) {
    const long long distance = static_cast<long long>(keys[i + 1]) - keys[i];
    for (long long j = 0; j < distance; ++j) {
      const double t = static_cast<double>(j) / static_cast<double>(distance);
      grid[offset++] = Interpolate(CheckedAt(valueColumns, i), CheckedAt(valueColumns, i + 1), t);
    }
  }
  grid[offset] = CheckedAt(valueColumns, keys.size() - 1);
  return grid;
}

int LoadSideTable(const wchar_t* scanFileName, RawFileHeader& record) {
  const std::wstring tableName = std::wstring(scanFileName) + kSideTableSuffix;
  std::FILE* in = platform::OpenFile(tableName.c_str(), "rt");
  if (in == nullptr) return -1;
  TableText table;
  const bool complete = ReadTable(in, table);
  std::fclose(in);
  if (!complete || !GridWithinLimits(table)) return kSideTableNotLoaded;

  auto grid = std::make_unique<SideTableGrid>();
  grid->columns = ResampleColumns(table.keys, table.values);
  grid->rowCount = static_cast<std::int32_t>(grid->columns[0].size());  // offset 0 always exists
  grid->keyCount = static_cast<std::int32_t>(grid->columns.size());
  grid->rowOrigin = CheckedAt(table.rows, 0);
  grid->keyOrigin = table.keys.front();
  grid->keyStep = kKeyStep;
  grid->rowStep = kRowStep;
  grid->rowEnd = grid->rowCount * grid->rowStep + grid->rowOrigin;
  grid->keyEnd = grid->keyCount * grid->keyStep + grid->keyOrigin;
  grid->keySpan = grid->keyEnd - grid->keyOrigin;
  grid->rowSpan = grid->rowEnd - grid->rowOrigin;
  record.sideTableGrid = grid.release();
  return 0;
}

}  // namespace kvr::header

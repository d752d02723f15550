// blocks SCAN: the block dump, one line per FIFO block as the library's Dump
// writes it (time stamp, signature, cast block number, shot count), with the
// block's index, file offset and time in seconds beside it.

#include <cstdio>
#include <sstream>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/fifo_block.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

constexpr unsigned long long kGoodSignature = 0xAAAAAAAA;

struct DumpLine {
  bool badSignature = false;
  unsigned long long timeStamp = 0;
  unsigned long long signature = 0;
  unsigned long long castBlockNumber = 0;
  unsigned long long shotCount = 0;
};

// Dump's line: the four values, behind sixteen exclamation marks when the
// signature is wrong.
bool ParseDumpLine(std::string_view line, DumpLine& out) {
  out.badSignature = line.starts_with("!!!!!!!!!!!!!!!! ");
  if (out.badSignature) line.remove_prefix(17);
  std::istringstream in{std::string(line)};
  return static_cast<bool>(in >> out.timeStamp >> out.signature >> out.castBlockNumber >> out.shotCount);
}

// Dump writes into a memory stream, rewound before every block, so the line of
// the block just read is all it holds.
class DumpBuffer {
 public:
  DumpBuffer() : stream_(::open_memstream(&data_, &size_)) {}
  ~DumpBuffer() {
    if (stream_ != nullptr) std::fclose(stream_);
    std::free(data_);
  }
  DumpBuffer(const DumpBuffer&) = delete;
  DumpBuffer& operator=(const DumpBuffer&) = delete;

  std::FILE* rewound() {
    std::fseek(stream_, 0, SEEK_SET);
    return stream_;
  }
  std::string_view line() {
    std::fflush(stream_);
    return std::string_view(data_, size_);
  }
  bool ok() const { return stream_ != nullptr; }

 private:
  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::FILE* stream_ = nullptr;
};

struct BlocksOptions {
  std::string scan;
  std::optional<std::int64_t> first, count;
  bool json = false;
};

int RunBlocks(const BlocksOptions& args, Context& context) {
  ScanSource scan(args.scan);
  DumpBuffer dump;
  if (!dump.ok()) throw ToolError("cannot make a memory stream for the dump");
  const auto first = static_cast<std::uint64_t>(args.first.value_or(0));
  const std::uint64_t limit = static_cast<std::uint64_t>(args.count.value_or(INT64_MAX));
  if (first > 0 && fseeko(*scan.stream(), static_cast<off_t>(scan.header().dataOffset + first * kBlockSize), SEEK_SET) != 0) {
    throw FileError(scan.path(), "cannot seek to block " + std::to_string(first));
  }

  JsonWriter json;
  std::string text;
  if (context.json) {
    json.beginObject();
    json.field("filename", scan.path());
    json.key("blocks").beginArray();
  } else {
    text = Format("%7s %12s %15s %13s %11s %5s %5s\n", "block", "offset", "time stamp", "time [s]", "signature",
                  "cast", "shots");
  }
  std::uint64_t index = first;
  std::uint64_t shown = 0;
  std::uint64_t bad = 0;
  std::uint64_t firstBad = 0;
  while (shown < limit && Dump(scan.stream(), dump.rewound()) == 0) {
    DumpLine line;
    if (!ParseDumpLine(dump.line(), line)) throw ToolError("unexpected line from the block dump");
    if (line.badSignature && bad++ == 0) firstBad = index;
    const std::uint64_t offset = scan.header().dataOffset + index * kBlockSize;
    const double seconds = CalculateTimeInSecs(line.timeStamp);
    if (context.json) {
      json.beginObject();
      json.field("index", index).field("offset", offset);
      json.field("CycleSyncTimeStamp", line.timeStamp).field("time", seconds);
      json.field("signature", line.signature).field("signatureOk", line.signature == kGoodSignature);
      json.field("castBlockNumber", line.castBlockNumber).field("shotCount", line.shotCount);
      json.endObject();
    } else {
      text += Format("%7llu %12llu %15llu %13.6f %11llu %5llu %5llu%s\n", static_cast<unsigned long long>(index),
                     static_cast<unsigned long long>(offset), line.timeStamp, seconds, line.signature,
                     line.castBlockNumber, line.shotCount, line.badSignature ? "  bad signature" : "");
      if (text.size() > (1u << 20)) {
        Console::write(text);
        text.clear();
      }
    }
    ++index;
    ++shown;
  }
  const bool reachedEnd = shown < limit;
  const std::uint64_t trailing = reachedEnd ? scan.trailingBytes() : 0;
  if (context.json) {
    json.endArray();
    json.field("num_blocks", shown);
    json.field("bad_blocks", bad);
    json.field("trailing_bytes", trailing);
    json.endObject();
    Console::write(json.text());
  } else {
    text += GroupedCount(shown) + (shown == 1 ? " block" : " blocks") + ", " + GroupedCount(bad) +
            " with a bad signature";
    if (trailing > 0) text += ", then " + std::to_string(trailing) + " bytes of a cut-off block";
    text += "\n";
    Console::write(text);
  }
  std::string damage;
  if (bad > 0) damage = std::to_string(bad) + " blocks with a bad signature (first: block " + std::to_string(firstBad) + ")";
  if (trailing > 0) {
    damage += (damage.empty() ? "" : "; ") + std::string("the file ends inside block ") + std::to_string(index) +
              " (" + std::to_string(trailing) + " of 65536 bytes)";
  }
  return damage.empty() ? kExitOk : context.damaged(scan.path() + ": " + damage);
}

constexpr CommandInfo kInfo{
    "blocks",
    "SCAN [--first N] [--count N] [--json]",
    "the block dump: time stamp, signature, cast block number and shot count of every FIFO block",
    "Each line is the library's Dump of one block, with the block's index, file offset and time\n"
    "(the time stamp in seconds since the scanner's tick counter started). Blocks with a bad\n"
    "signature are marked, and make the exit status 1.",
};

}  // namespace

void AddBlocksCommand(CommandSet& commands) {
  auto options = std::make_shared<BlocksOptions>();
  CLI::App& command = commands.add(kInfo, options, RunBlocks);
  AddInput(command, "SCAN", options->scan);
  AddInteger(command, "--first", "N", options->first, 0, INT32_MAX, "start at block N (default 0)");
  AddInteger(command, "--count", "N", options->count, 0, INT64_MAX, "show at most N blocks");
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan

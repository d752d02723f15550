// blocks SCAN: the block dump, one line per FIFO block as the library's Dump
// writes it (time stamp, signature, cast block number, shot count), with the
// block's index, file offset and time in seconds beside it.

#include <cstdio>
#include <sstream>
#include <vector>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "kvr_decode/fifo_block.h"
#include "scan_source.h"

namespace kvrscan {

namespace {

constexpr unsigned long long kGoodSignature = kvr::fifo::layout::kBlockSignature;

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

struct BlockLine {
  std::uint64_t index = 0;
  std::uint64_t offset = 0;
  double seconds = 0.0;
  DumpLine dump;
};

struct BlockListing {
  std::vector<BlockLine> blocks;
  std::uint64_t bad = 0;       // blocks with a bad signature
  std::uint64_t firstBad = 0;  // the first of them
  std::uint64_t end = 0;       // the index after the last block listed
  std::uint64_t trailing = 0;  // bytes of a cut-off block after the last whole one, when the listing reached it
};

BlockListing CollectBlocks(ScanSource& scan, std::uint64_t first, std::uint64_t limit) {
  DumpBuffer dump;
  if (!dump.ok()) throw ToolError("cannot make a memory stream for the dump");
  if (first > 0) scan.seekToBlock(first);
  BlockListing listing;
  std::uint64_t index = first;
  while (listing.blocks.size() < limit && Dump(scan.stream(), dump.rewound()) == 0) {
    BlockLine& line = listing.blocks.emplace_back();
    if (!ParseDumpLine(dump.line(), line.dump)) throw ToolError("unexpected line from the block dump");
    if (line.dump.badSignature && listing.bad++ == 0) listing.firstBad = index;
    line.index = index++;
    line.offset = scan.header().dataOffset + line.index * kBlockSize;
    line.seconds = CalculateTimeInSecs(line.dump.timeStamp);
  }
  listing.end = index;
  if (listing.blocks.size() < limit) listing.trailing = scan.trailingBytes();
  return listing;
}

std::string BlocksJson(const std::string& path, const BlockListing& listing) {
  JsonWriter json;
  json.beginObject();
  json.field("filename", path);
  json.key("blocks").beginArray();
  for (const BlockLine& line : listing.blocks) {
    json.beginObject();
    json.field("index", line.index).field("offset", line.offset);
    json.field("CycleSyncTimeStamp", line.dump.timeStamp).field("time", line.seconds);
    json.field("signature", line.dump.signature).field("signatureOk", line.dump.signature == kGoodSignature);
    json.field("castBlockNumber", line.dump.castBlockNumber).field("shotCount", line.dump.shotCount);
    json.endObject();
  }
  json.endArray();
  json.field("num_blocks", listing.blocks.size());
  json.field("bad_blocks", listing.bad);
  json.field("trailing_bytes", listing.trailing);
  json.endObject();
  return json.text();
}

std::string BlocksText(const BlockListing& listing) {
  std::string text = Format("%7s %12s %15s %13s %11s %5s %5s\n", "block", "offset", "time stamp", "time [s]",
                            "signature", "cast", "shots");
  for (const BlockLine& line : listing.blocks) {
    const DumpLine& d = line.dump;
    text += Format("%7llu %12llu %15llu %13.6f %11llu %5llu %5llu%s\n", static_cast<unsigned long long>(line.index),
                   static_cast<unsigned long long>(line.offset), d.timeStamp, line.seconds, d.signature,
                   d.castBlockNumber, d.shotCount, d.badSignature ? "  bad signature" : "");
  }
  const std::uint64_t shown = listing.blocks.size();
  text += GroupedCount(shown) + (shown == 1 ? " block" : " blocks") + ", " + GroupedCount(listing.bad) +
          " with a bad signature";
  if (listing.trailing > 0) text += ", then " + std::to_string(listing.trailing) + " bytes of a cut-off block";
  return text + "\n";
}

// What is wrong with the blocks listed, or nothing.
std::string BlocksDamage(const BlockListing& listing) {
  std::string damage;
  if (listing.bad > 0) {
    damage = std::to_string(listing.bad) + " blocks with a bad signature (first: block " +
             std::to_string(listing.firstBad) + ")";
  }
  if (listing.trailing > 0) {
    damage += (damage.empty() ? "" : "; ") + std::string("the file ends inside block ") + std::to_string(listing.end) +
              " (" + std::to_string(listing.trailing) + " of " + std::to_string(kBlockSize) + " bytes)";
  }
  return damage;
}

int RunBlocks(const BlocksOptions& args, Context& context) {
  ScanSource scan(args.scan);
  const BlockListing listing = CollectBlocks(scan, static_cast<std::uint64_t>(args.first.value_or(0)),
                                             static_cast<std::uint64_t>(args.count.value_or(INT64_MAX)));
  Console::write(context.json ? BlocksJson(scan.path(), listing) : BlocksText(listing));
  const std::string damage = BlocksDamage(listing);
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

// ticks FILE: the records of a tick file (pulses and time sentences) and the
// time of week the library gives each pulse.

#include <map>

#include "commands.h"
#include "console.h"
#include "errors.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "nmea/tick_layout.h"
#include "scan_source.h"
#include "tick_source.h"

namespace kvrscan {

namespace {

constexpr std::uint32_t kPulse = kvr::nmea::layout::kPulseRecordType;

struct TicksOptions {
  std::string file;
  bool records = false;
  std::optional<std::int64_t> timeOffset;
  bool json = false;
};

std::string_view RecordKind(const TickRecord& record) {
  return record.type == kPulse ? std::string_view("pulse") : SentenceKind(record.text);
}

// The tick file with the time of week the library gives each pulse.
struct TickSummary {
  TickFileContents contents;
  int timeOffset = 0;
  std::vector<double> pulseTimes;  // one per pulse, in file order; negative where unknown
  std::uint64_t pulsesWithTime = 0;
  double firstTime = -1.0, lastTime = -1.0;
  std::map<std::string, std::uint64_t> sentenceKinds;
  std::uint64_t firstTicks = 0, lastTicks = 0;

  std::uint64_t pulses() const { return pulseTimes.size(); }
  std::uint64_t sentences() const { return contents.records.size() - pulses(); }
};

TickSummary CollectTicks(const std::string& path, int timeOffset) {
  TicksManager ticks(path, timeOffset);
  TickSummary s;
  s.contents = ticks.contents();
  s.timeOffset = timeOffset;
  for (const TickRecord& record : s.contents.records) {
    if (record.type != kPulse) {
      ++s.sentenceKinds[std::string(SentenceKind(record.text))];
      continue;
    }
    const double time = ticks.timeOfWeekAt(record.ticks);
    s.pulseTimes.push_back(time);
    if (time >= 0.0) {
      if (s.pulsesWithTime++ == 0) s.firstTime = time;
      s.lastTime = time;
    }
  }
  if (!s.contents.records.empty()) {
    s.firstTicks = s.contents.records.front().ticks;
    s.lastTicks = s.contents.records.back().ticks;
  }
  return s;
}

std::string TicksJson(const std::string& path, const TickSummary& s, bool listRecords) {
  const TickFileContents& contents = s.contents;
  JsonWriter json;
  json.beginObject();
  json.field("filename", path).field("version", contents.version).field("header_word", contents.headerWord);
  json.field("time_offset", s.timeOffset);
  json.field("num_records", contents.records.size()).field("num_pulses", s.pulses()).field("num_sentences", s.sentences());
  json.key("sentences_by_kind").beginObject();
  for (const auto& [kind, count] : s.sentenceKinds) json.field(kind, count);
  json.endObject();
  json.field("pulses_with_time", s.pulsesWithTime);
  json.field("first_ticks", s.firstTicks).field("last_ticks", s.lastTicks);
  json.key("pulses").beginArray();
  std::size_t pulse = 0;
  for (const TickRecord& record : contents.records) {
    if (record.type != kPulse) continue;
    json.beginObject().field("ticks", record.ticks).field("time_of_week", s.pulseTimes[pulse++]).endObject();
  }
  json.endArray();
  if (listRecords) {
    json.key("records").beginArray();
    for (const TickRecord& record : contents.records) {
      json.beginObject().field("offset", record.offset).field("ticks", record.ticks).field("type", record.type);
      json.field("kind", RecordKind(record));
      if (record.type != kPulse) json.field("text", record.text);
      json.endObject();
    }
    json.endArray();
  }
  json.field("cut_short_bytes", contents.cutShortBytes);
  json.endObject();
  return json.text();
}

std::string TicksText(const std::string& path, const TickSummary& s, bool listRecords) {
  const TickFileContents& contents = s.contents;
  TextReport report;
  report.line(path + ": tick file version " + std::to_string(contents.version) + ", " +
              GroupedCount(contents.records.size()) + " records");
  report.field("pulses", GroupedCount(s.pulses()));
  std::string kinds;
  for (const auto& [kind, count] : s.sentenceKinds) kinds += (kinds.empty() ? "" : ", ") + kind + " " + GroupedCount(count);
  report.field("sentences", GroupedCount(s.sentences()) + (kinds.empty() ? "" : " (" + kinds + ")"));
  if (!contents.records.empty()) {
    report.field("ticks", std::to_string(s.firstTicks) + " .. " + std::to_string(s.lastTicks) +
                              Format(" (%.3f s)", CalculateTimeInSecs(s.lastTicks - s.firstTicks)));
  }
  report.field("pulses with a time", GroupedCount(s.pulsesWithTime) + " of " + GroupedCount(s.pulses()));
  if (s.pulsesWithTime > 0) {
    report.field("time of week", FormatTimeOfWeek(s.firstTime) + " .. " + FormatTimeOfWeek(s.lastTime) +
                                     Format(" (%.3f .. %.3f s)", s.firstTime, s.lastTime));
  }
  if (listRecords) {
    report.heading("records");
    std::size_t pulse = 0;
    for (const TickRecord& record : contents.records) {
      std::string line = Format("  %10llu %15llu  %-6s", static_cast<unsigned long long>(record.offset),
                                static_cast<unsigned long long>(record.ticks), std::string(RecordKind(record)).c_str());
      if (record.type == kPulse) line += " " + FormatTimeOfWeek(s.pulseTimes[pulse++]);
      else line += " " + PrintableBytes(record.text);
      report.line(line);
    }
  }
  return report.text();
}

int RunTicks(const TicksOptions& args, Context& context) {
  const TickSummary summary = CollectTicks(args.file, static_cast<int>(args.timeOffset.value_or(0)));
  Console::write(context.json ? TicksJson(args.file, summary, args.records) : TicksText(args.file, summary, args.records));
  if (summary.contents.cutShortBytes > 0) {
    return context.damaged(args.file + ": the file ends inside a record (" +
                           std::to_string(summary.contents.cutShortBytes) + " bytes after the last whole record)");
  }
  return kExitOk;
}

constexpr CommandInfo kInfo{
    "ticks",
    "FILE [--records] [--time-offset SECONDS] [--json]",
    "a tick file (Serial.dat): its pulses and time sentences, and the time of week of each pulse",
    "The times are the library's: the tick manager pairs each pulse with the sentence that names\n"
    "it and interpolates between pairs; 'unknown' (-1 in JSON) where the file does not cover a tick.",
};

}  // namespace

void AddTicksCommand(CommandSet& commands) {
  auto options = std::make_shared<TicksOptions>();
  CLI::App& command = commands.add(kInfo, options, RunTicks);
  AddInput(command, "FILE", options->file);
  AddFlag(command, "--records", options->records,
          "list every record: offset, ticks, kind, and the pulse's time or the sentence");
  AddTimeOffsetOption(command, options->timeOffset);
  AddJsonOption(command, options->json);
}

}  // namespace kvrscan

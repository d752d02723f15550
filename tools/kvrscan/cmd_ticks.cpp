// ticks FILE: the records of a tick file (pulses and time sentences) and the
// time of week the library gives each pulse.

#include <map>

#include "commands.h"
#include "errors.h"
#include "console.h"
#include "json_writer.h"
#include "kvr_decode/conversions.h"
#include "scan_source.h"
#include "tick_source.h"

namespace kvrscan {

namespace {

std::string_view RecordKind(const TickRecord& record) {
  return record.type == 1 ? std::string_view("pulse") : SentenceKind(record.text);
}

struct TicksOptions {
  std::string file;
  bool records = false;
  std::optional<std::int64_t> timeOffset;
  bool json = false;
};

int RunTicks(const TicksOptions& args, Context& context) {
  const std::string& path = args.file;
  const auto offset = static_cast<int>(args.timeOffset.value_or(0));
  TicksManager ticks(path, offset);
  const TickFileContents& contents = ticks.contents();
  const bool listRecords = args.records;

  std::uint64_t pulses = 0, pulsesWithTime = 0;
  std::map<std::string, std::uint64_t> sentenceKinds;
  std::vector<double> pulseTimes;
  double firstTime = -1.0, lastTime = -1.0;
  for (const TickRecord& record : contents.records) {
    if (record.type != 1) {
      ++sentenceKinds[std::string(SentenceKind(record.text))];
      continue;
    }
    ++pulses;
    const double time = ticks.timeOfWeekAt(record.ticks);
    pulseTimes.push_back(time);
    if (time >= 0.0) {
      if (pulsesWithTime++ == 0) firstTime = time;
      lastTime = time;
    }
  }
  const std::uint64_t sentences = contents.records.size() - pulses;
  const std::uint64_t firstTicks = contents.records.empty() ? 0 : contents.records.front().ticks;
  const std::uint64_t lastTicks = contents.records.empty() ? 0 : contents.records.back().ticks;

  if (context.json) {
    JsonWriter json;
    json.beginObject();
    json.field("filename", path).field("version", contents.version).field("header_word", contents.headerWord);
    json.field("time_offset", offset);
    json.field("num_records", contents.records.size()).field("num_pulses", pulses).field("num_sentences", sentences);
    json.key("sentences_by_kind").beginObject();
    for (const auto& [kind, count] : sentenceKinds) json.field(kind, count);
    json.endObject();
    json.field("pulses_with_time", pulsesWithTime);
    json.field("first_ticks", firstTicks).field("last_ticks", lastTicks);
    json.key("pulses").beginArray();
    std::size_t pulse = 0;
    for (const TickRecord& record : contents.records) {
      if (record.type != 1) continue;
      json.beginObject().field("ticks", record.ticks).field("time_of_week", pulseTimes[pulse++]).endObject();
    }
    json.endArray();
    if (listRecords) {
      json.key("records").beginArray();
      for (const TickRecord& record : contents.records) {
        json.beginObject().field("offset", record.offset).field("ticks", record.ticks).field("type", record.type);
        json.field("kind", RecordKind(record));
        if (record.type != 1) json.field("text", record.text);
        json.endObject();
      }
      json.endArray();
    }
    json.field("cut_short_bytes", contents.cutShortBytes);
    json.endObject();
    Console::write(json.text());
  } else {
    TextReport report;
    report.line(path + ": tick file version " + std::to_string(contents.version) + ", " +
                GroupedCount(contents.records.size()) + " records");
    report.field("pulses", GroupedCount(pulses));
    std::string kinds;
    for (const auto& [kind, count] : sentenceKinds) kinds += (kinds.empty() ? "" : ", ") + kind + " " + GroupedCount(count);
    report.field("sentences", GroupedCount(sentences) + (kinds.empty() ? "" : " (" + kinds + ")"));
    if (!contents.records.empty()) {
      report.field("ticks", std::to_string(firstTicks) + " .. " + std::to_string(lastTicks) +
                                Format(" (%.3f s)", CalculateTimeInSecs(lastTicks - firstTicks)));
    }
    report.field("pulses with a time", GroupedCount(pulsesWithTime) + " of " + GroupedCount(pulses));
    if (pulsesWithTime > 0) {
      report.field("time of week", FormatTimeOfWeek(firstTime) + " .. " + FormatTimeOfWeek(lastTime) +
                                       Format(" (%.3f .. %.3f s)", firstTime, lastTime));
    }
    if (listRecords) {
      report.heading("records");
      std::size_t pulse = 0;
      for (const TickRecord& record : contents.records) {
        std::string line = Format("  %10llu %15llu  %-6s", static_cast<unsigned long long>(record.offset),
                                  static_cast<unsigned long long>(record.ticks),
                                  std::string(RecordKind(record)).c_str());
        if (record.type == 1) line += " " + FormatTimeOfWeek(pulseTimes[pulse++]);
        else line += " " + PrintableBytes(record.text);
        report.line(line);
      }
    }
    Console::write(report.text());
  }
  if (contents.cutShortBytes > 0) {
    return context.damaged(path + ": the file ends inside a record (" + std::to_string(contents.cutShortBytes) +
                           " bytes after the last whole record)");
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

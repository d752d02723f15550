#pragma once

#include <string>

// The time lines a GNSS receiver writes into the tick file: NMEA ZDA, a PPS
// sentence and a plain "UTC" line, each turned into a time of week in seconds
// (Sunday 00:00 = 0). Numbers are read with atof/atoi, so a field that is not a
// number reads as 0. Malformed fields that the parsers index past their end
// throw std::out_of_range ("invalid vector<T> subscript" or "invalid string
// position"); every other rejection is a -1 result.
namespace kvr::nmea {

enum SentenceType : int {
  kUnknownSentence = -1,
  kZdaSentence = 1,
  kPpsSentence = 2,
  kUtcLine = 3,
};

// Kind of the line by its first token; kUnknownSentence when the line has
// fewer than four tokens.
int GetSentenceType(const char* text);

// Time of week of a line already classified as `type`, or -1.0 when the line
// is not a usable time. `length` is the record's byte count (ZDA checksum).
double SentenceTimeOfWeek(int type, const char* text, unsigned int length);

// "$ttZDA,hhmmss.ff,dd,mm,yyyy,zh,zm*cs": 0 with the fields, or -1.
int ParseZda(const char* text, unsigned int length, double* secondsOfDay, int* day, int* month, int* year);
// "$ttPPS,hhmmss.fff,days,..." (at least seven tokens): 0 with the time of week, or -1.
int ParsePps(const char* text, unsigned int length, double* timeOfWeek);
// "UTC yy.mm.dd hh.mm.ss status": 0 with the time of week, or -1.
int ParseUtc(const char* text, unsigned int length, double* timeOfWeek);

// 0 when the exclusive or of the first `length` bytes ('$' skipped, up to '*')
// equals the two hexadecimal digits of checksumToken, else -1.
int VerifyChecksum(const char* text, int length, std::string checksumToken);

// Value of the first two hexadecimal digits (any other character counts 0);
// -1 when count is below 2.
int HexPairValue(const char* digits, int count);

// 0 (Sunday) to 6 (Saturday) for a Gregorian date; -1 for a month outside 1-12.
int DayOfWeek(int day, int month, int year);

}  // namespace kvr::nmea

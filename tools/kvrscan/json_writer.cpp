#include "json_writer.h"

#include <charconv>
#include <cmath>

namespace kvrscan {

namespace {

// Length of the valid UTF-8 sequence starting at text[i], or 0 when it is not one.
std::size_t Utf8SequenceLength(std::string_view text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char lead = byte(i);
  std::size_t length = 0;
  std::uint32_t min = 0;
  std::uint32_t cp = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1Fu, min = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0Fu, min = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07u, min = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i + k) & 0x3Fu);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return length;
}

void AppendEscapedByte(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789abcdef";
  out += "\\u00";
  out += kHex[c >> 4];
  out += kHex[c & 15];
}

}  // namespace

void AppendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c >= 0x80) {
      const std::size_t length = Utf8SequenceLength(text, i);
      if (length == 0) {
        AppendEscapedByte(out, c);
        ++i;
      } else {
        out.append(text.substr(i, length));
        i += length;
      }
      continue;
    }
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) AppendEscapedByte(out, c);
        else out += static_cast<char>(c);
    }
    ++i;
  }
  out += '"';
}

std::string FormatDouble(double number) {
  if (std::isnan(number)) return "nan";
  if (std::isinf(number)) return number > 0 ? "inf" : "-inf";
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
  return std::string(buffer, result.ptr);
}

void JsonWriter::newline() {
  out_ += '\n';
  out_.append(2 * stack_.size(), ' ');
}

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (stack_.empty()) return;
  Level& level = stack_.back();
  if (level.count++ > 0) out_ += ',';
  if (level.inlined) {
    if (level.count > 1) out_ += ' ';
  } else {
    newline();
  }
}

JsonWriter& JsonWriter::beginObject() {
  beforeValue();
  out_ += '{';
  stack_.push_back({false, inlined(), 0});
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  const Level level = stack_.back();
  stack_.pop_back();
  if (level.count > 0 && !level.inlined) newline();
  out_ += '}';
  if (stack_.empty()) out_ += '\n';
  return *this;
}

JsonWriter& JsonWriter::beginArray(bool inlinedArray) {
  beforeValue();
  out_ += '[';
  stack_.push_back({true, inlinedArray || inlined(), 0});
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  const Level level = stack_.back();
  stack_.pop_back();
  if (level.count > 0 && !level.inlined) newline();
  out_ += ']';
  if (stack_.empty()) out_ += '\n';
  return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
  beforeValue();
  AppendJsonString(out_, name);
  out_ += ": ";
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
  beforeValue();
  AppendJsonString(out_, text);
  return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
  beforeValue();
  out_ += flag ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::value(double number) {
  beforeValue();
  out_ += std::isfinite(number) ? FormatDouble(number) : "null";
  return *this;
}

JsonWriter& JsonWriter::value(std::nullptr_t) {
  beforeValue();
  out_ += "null";
  return *this;
}

JsonWriter& JsonWriter::integer(std::int64_t number) {
  beforeValue();
  out_ += std::to_string(number);
  return *this;
}

JsonWriter& JsonWriter::unsignedInteger(std::uint64_t number) {
  beforeValue();
  out_ += std::to_string(number);
  return *this;
}

}  // namespace kvrscan

#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvrscan {

// Writes one JSON document into a string, indented by two blanks. Arrays begun
// inline stay on one line (and so does everything inside them), which keeps
// number lists and tables readable.
//
// Numbers: integers as they are; doubles in their shortest form that reads back
// to the same double; a float is widened to double first, so the text reads back
// as exactly the float's value. NaN and infinities, which JSON cannot hold, are
// written as null. Strings: valid UTF-8 is copied, every other byte is written as
// the code point of the same value (\u00XX), so any byte string gives valid JSON.
class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray(bool inlined = false);
  JsonWriter& endArray();
  JsonWriter& key(std::string_view name);

  JsonWriter& value(std::string_view text);
  JsonWriter& value(const char* text) { return value(std::string_view(text)); }
  JsonWriter& value(const std::string& text) { return value(std::string_view(text)); }
  JsonWriter& value(bool flag);
  JsonWriter& value(double number);
  JsonWriter& value(float number) { return value(static_cast<double>(number)); }
  JsonWriter& value(std::nullptr_t);
  template <std::integral T>
    requires(!std::same_as<T, bool> && !std::same_as<T, char>)
  JsonWriter& value(T number) {
    if constexpr (std::is_signed_v<T>) return integer(static_cast<std::int64_t>(number));
    else return unsignedInteger(static_cast<std::uint64_t>(number));
  }

  template <typename T>
  JsonWriter& field(std::string_view name, const T& v) {
    key(name);
    return value(v);
  }

  // A whole array of numbers on one line.
  template <typename Range>
  JsonWriter& numbers(std::string_view name, const Range& values) {
    key(name);
    beginArray(true);
    for (const auto& v : values) value(v);
    return endArray();
  }

  // The document; complete once every container is closed.
  const std::string& text() const { return out_; }

 private:
  struct Level {
    bool array;
    bool inlined;
    std::size_t count;
  };

  JsonWriter& integer(std::int64_t number);
  JsonWriter& unsignedInteger(std::uint64_t number);
  void beforeValue();
  void newline();
  bool inlined() const { return !stack_.empty() && stack_.back().inlined; }

  std::string out_;
  std::vector<Level> stack_;
  bool afterKey_ = false;
};

// Appends `text` as a JSON string literal (quotes included) to `out`.
void AppendJsonString(std::string& out, std::string_view text);

// Shortest decimal text that reads back to the same double ("nan"/"inf" for the rest).
std::string FormatDouble(double number);

}  // namespace kvrscan

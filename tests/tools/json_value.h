#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace kvr::test {

// A parsed JSON document, enough to check the tool's --json output: objects,
// arrays, strings (with \uXXXX escapes of code points below 256 as the tool
// writes them, and valid UTF-8 as it is), numbers kept as text and read as double
// or integer on demand, true, false, null.
class JsonValue {
 public:
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };

  static JsonValue Parse(std::string_view text) {
    std::size_t at = 0;
    JsonValue value = ParseValue(text, at);
    SkipBlanks(text, at);
    if (at != text.size()) throw std::runtime_error("JSON: text after the document");
    return value;
  }

  Kind kind() const { return kind_; }
  bool isNull() const { return kind_ == Kind::kNull; }
  bool boolean() const { return expect(Kind::kBool), flag_; }
  double number() const { return expect(Kind::kNumber), std::stod(text_); }
  std::int64_t integer() const { return expect(Kind::kNumber), std::stoll(text_); }
  std::uint64_t unsignedInteger() const { return expect(Kind::kNumber), std::stoull(text_); }
  const std::string& string() const { return expect(Kind::kString), text_; }
  const std::vector<JsonValue>& array() const { return expect(Kind::kArray), items_; }
  std::size_t size() const { return kind_ == Kind::kObject ? members_.size() : array().size(); }
  bool has(const std::string& key) const { return expect(Kind::kObject), members_.count(key) != 0; }
  const JsonValue& operator[](const std::string& key) const {
    expect(Kind::kObject);
    const auto it = members_.find(key);
    if (it == members_.end()) throw std::runtime_error("JSON: no member " + key);
    return it->second;
  }
  const JsonValue& operator[](std::size_t index) const { return array().at(index); }
  const std::map<std::string, JsonValue>& members() const { return expect(Kind::kObject), members_; }

 private:
  void expect(Kind kind) const {
    if (kind_ != kind) throw std::runtime_error("JSON: value of another kind");
  }

  static void SkipBlanks(std::string_view text, std::size_t& at) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\n' || text[at] == '\r' || text[at] == '\t')) ++at;
  }

  static std::string ParseString(std::string_view text, std::size_t& at) {
    std::string out;
    ++at;  // opening quote
    while (at < text.size() && text[at] != '"') {
      char c = text[at++];
      if (static_cast<unsigned char>(c) < 0x20) throw std::runtime_error("JSON: raw control character in a string");
      if (c != '\\') {
        out += c;
        continue;
      }
      c = text.at(at++);
      switch (c) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'u': {
          const unsigned code = static_cast<unsigned>(std::stoul(std::string(text.substr(at, 4)), nullptr, 16));
          at += 4;
          if (code > 0xFF) throw std::runtime_error("JSON: escape beyond the tool's range");
          out += static_cast<char>(code);
          break;
        }
        default: out += c;
      }
    }
    if (at >= text.size()) throw std::runtime_error("JSON: unterminated string");
    ++at;
    return out;
  }

  static JsonValue ParseValue(std::string_view text, std::size_t& at) {
    SkipBlanks(text, at);
    if (at >= text.size()) throw std::runtime_error("JSON: unexpected end");
    JsonValue value;
    const char c = text[at];
    if (c == '{') {
      value.kind_ = Kind::kObject;
      ++at;
      SkipBlanks(text, at);
      if (text.at(at) == '}') return ++at, value;
      for (;;) {
        SkipBlanks(text, at);
        if (text.at(at) != '"') throw std::runtime_error("JSON: key expected");
        std::string key = ParseString(text, at);
        SkipBlanks(text, at);
        if (text.at(at++) != ':') throw std::runtime_error("JSON: colon expected");
        value.members_[key] = ParseValue(text, at);
        SkipBlanks(text, at);
        const char next = text.at(at++);
        if (next == '}') return value;
        if (next != ',') throw std::runtime_error("JSON: comma expected");
      }
    }
    if (c == '[') {
      value.kind_ = Kind::kArray;
      ++at;
      SkipBlanks(text, at);
      if (text.at(at) == ']') return ++at, value;
      for (;;) {
        value.items_.push_back(ParseValue(text, at));
        SkipBlanks(text, at);
        const char next = text.at(at++);
        if (next == ']') return value;
        if (next != ',') throw std::runtime_error("JSON: comma expected");
      }
    }
    if (c == '"') {
      value.kind_ = Kind::kString;
      value.text_ = ParseString(text, at);
      return value;
    }
    for (const auto& [word, kind, flag] : {std::tuple{"true", Kind::kBool, true}, std::tuple{"false", Kind::kBool, false},
                                          std::tuple{"null", Kind::kNull, false}}) {
      if (text.substr(at).starts_with(word)) {
        at += std::string_view(word).size();
        value.kind_ = kind;
        value.flag_ = flag;
        return value;
      }
    }
    const std::size_t start = at;
    while (at < text.size() && std::string_view("+-0123456789.eE").find(text[at]) != std::string_view::npos) ++at;
    if (at == start) throw std::runtime_error("JSON: unexpected character");
    value.kind_ = Kind::kNumber;
    value.text_ = std::string(text.substr(start, at - start));
    return value;
  }

  Kind kind_ = Kind::kNull;
  bool flag_ = false;
  std::string text_;
  std::vector<JsonValue> items_;
  std::map<std::string, JsonValue> members_;
};

}  // namespace kvr::test

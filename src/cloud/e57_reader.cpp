#include "kvr_decode/cloud/e57_reader.h"

#include <cctype>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include "e57_format.h"
#include "file_access.h"
#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::cloud {

namespace {

using e57::kPagePayload;
using e57::kPageSize;

std::uint64_t Le(const std::uint8_t* at, int bytes) {
  std::uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | at[i];
  return v;
}

// Logical bytes of a checked file, from a physical offset on.
class PagedInput {
 public:
  PagedInput(const std::filesystem::path& path, std::FILE* file, std::uint64_t length)
      : path_(path), file_(file), length_(length) {}

  std::vector<std::uint8_t> read(std::uint64_t physical, std::uint64_t size) {
    if (physical % kPageSize >= kPagePayload || physical > length_ || size > length_) fail("an offset or length beyond the file");
    std::vector<std::uint8_t> out;
    out.reserve(size);
    std::uint8_t page[kPageSize];
    while (out.size() < size) {
      const std::uint64_t start = physical / kPageSize * kPageSize;
      if (start + kPageSize > length_ || !SeekTo(file_, start) || std::fread(page, 1, kPageSize, file_) != kPageSize) {
        fail("a section runs past the end of the file");
      }
      const std::size_t at = physical % kPageSize;
      const std::size_t n = std::min<std::uint64_t>(kPagePayload - at, size - out.size());
      out.insert(out.end(), page + at, page + at + n);
      physical = start + kPageSize;
    }
    return out;
  }
  [[noreturn]] void fail(const std::string& what) const { throw InputError(path_, what); }

 private:
  const std::filesystem::path& path_;
  std::FILE* file_;
  std::uint64_t length_;
};

// The XML the layer writes: elements, attributes in double quotes, CDATA and text.
struct Node {
  std::string name;
  std::vector<std::pair<std::string, std::string>> attributes;
  std::string text;
  std::vector<Node> children;

  const Node* child(std::string_view tag) const {
    for (const Node& c : children) {
      if (c.name == tag) return &c;
    }
    return nullptr;
  }
  std::string attribute(std::string_view key) const {
    for (const auto& [k, v] : attributes) {
      if (k == key) return v;
    }
    return {};
  }
  std::string textOf(std::string_view tag) const {
    const Node* c = child(tag);
    return c != nullptr ? c->text : std::string();
  }
};

class XmlParser {
 public:
  XmlParser(std::string_view xml, const PagedInput& input) : xml_(xml), input_(input) {}

  Node document() {
    skipSpace();
    if (xml_.substr(at_, 5) == "<?xml") {
      const std::size_t end = xml_.find("?>", at_);
      if (end == std::string_view::npos) input_.fail("the XML declaration is not closed");
      at_ = end + 2;
    }
    skipSpace();
    return element(0);
  }

 private:
  Node element(int depth) {
    if (depth > 64 || at_ >= xml_.size() || xml_[at_] != '<') input_.fail("the XML section is not as written here");
    ++at_;
    Node node;
    node.name = name();
    for (;;) {
      skipSpace();
      if (at_ >= xml_.size()) input_.fail("an XML element is not closed");
      if (xml_.substr(at_, 2) == "/>") {
        at_ += 2;
        return node;
      }
      if (xml_[at_] == '>') break;
      std::string key = name();
      if (xml_.substr(at_, 2) != "=\"") input_.fail("an XML attribute is not quoted");
      at_ += 2;
      const std::size_t end = xml_.find('"', at_);
      if (end == std::string_view::npos) input_.fail("an XML attribute is not closed");
      node.attributes.emplace_back(std::move(key), std::string(xml_.substr(at_, end - at_)));
      at_ = end + 1;
    }
    ++at_;
    for (;;) {
      if (at_ >= xml_.size()) input_.fail("an XML element is not closed");
      if (xml_.substr(at_, 9) == "<![CDATA[") {
        const std::size_t end = xml_.find("]]>", at_ + 9);
        if (end == std::string_view::npos) input_.fail("a CDATA section is not closed");
        node.text.append(xml_.substr(at_ + 9, end - at_ - 9));
        at_ = end + 3;
      } else if (xml_.substr(at_, 2) == "</") {
        at_ += 2;
        if (name() != node.name || at_ >= xml_.size() || xml_[at_] != '>') input_.fail("XML elements do not nest");
        ++at_;
        return node;
      } else if (xml_[at_] == '<') {
        node.children.push_back(element(depth + 1));
      } else {
        const std::size_t end = xml_.find('<', at_);
        if (end == std::string_view::npos) input_.fail("an XML element is not closed");
        for (char c : xml_.substr(at_, end - at_)) {
          if (c != ' ' && c != '\n' && c != '\r' && c != '\t') node.text += c;
        }
        at_ = end;
      }
    }
  }
  std::string name() {
    const std::size_t start = at_;
    while (at_ < xml_.size() && (std::isalnum(static_cast<unsigned char>(xml_[at_])) || xml_[at_] == ':' || xml_[at_] == '_')) ++at_;
    if (at_ == start) input_.fail("an XML name is missing");
    return std::string(xml_.substr(start, at_ - start));
  }
  void skipSpace() {
    while (at_ < xml_.size() && std::isspace(static_cast<unsigned char>(xml_[at_]))) ++at_;
  }

  std::string_view xml_;
  const PagedInput& input_;
  std::size_t at_ = 0;
};

template <typename T>
T NumberOf(const std::string& text, const PagedInput& input) {
  T value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) input.fail("'" + text + "' is not a number");
  return value;
}

struct OpenFile {
  FilePtr file;
  std::uint64_t length = 0;
};

OpenFile Open(const std::filesystem::path& path) {
  OpenFile f;
  f.length = ReadableFileSize(path);
  f.file.reset(OpenForReading(path));
  if (!f.file) throw InputError(path, "cannot be opened");
  return f;
}

}  // namespace

E57Summary ReadE57Summary(const std::filesystem::path& path) {
  OpenFile f = Open(path);
  PagedInput input(path, f.file.get(), f.length);
  std::uint8_t header[e57::kFileHeaderSize];
  if (std::fread(header, 1, sizeof header, f.file.get()) != sizeof header) input.fail("shorter than an E57 header");
  if (std::memcmp(header, "ASTM-E57", 8) != 0) input.fail("not an E57 file (no ASTM-E57 signature)");
  if (Le(header + 8, 4) != 1 || Le(header + 12, 4) != 0) input.fail("not E57 version 1.0");
  if (Le(header + 40, 8) != kPageSize) input.fail("pages of other than 1024 bytes");
  if (Le(header + 16, 8) != f.length || f.length % kPageSize != 0) {
    input.fail("the header's length " + std::to_string(Le(header + 16, 8)) + " is not the file's " + std::to_string(f.length));
  }
  E57Summary summary;
  std::uint8_t page[kPageSize];
  if (!SeekTo(f.file.get(), 0)) input.fail("cannot be read");
  for (std::uint64_t p = 0; p < f.length / kPageSize; ++p) {
    if (std::fread(page, 1, kPageSize, f.file.get()) != kPageSize) input.fail("cannot be read");
    const std::uint32_t crc = e57::Crc32c({page, kPagePayload});
    const std::uint32_t stored = (std::uint32_t{page[kPagePayload]} << 24) | (std::uint32_t{page[kPagePayload + 1]} << 16) |
                                 (std::uint32_t{page[kPagePayload + 2]} << 8) | page[kPagePayload + 3];
    if (crc != stored) input.fail("the checksum of page " + std::to_string(p) + " is wrong");
  }
  summary.pages = f.length / kPageSize;
  const std::vector<std::uint8_t> xml = input.read(Le(header + 24, 8), Le(header + 32, 8));
  summary.xml.assign(xml.begin(), xml.end());
  const Node root = XmlParser(summary.xml, input).document();
  if (root.name != "e57Root") input.fail("the XML has no e57Root");
  summary.guid = root.textOf("guid");
  if (const Node* data3D = root.child("data3D")) {
    for (const Node& scan : data3D->children) {
      E57ScanSummary s;
      s.name = scan.textOf("name");
      s.guid = scan.textOf("guid");
      const Node* points = scan.child("points");
      if (points == nullptr) input.fail("a scan has no points");
      s.points = NumberOf<std::uint64_t>(points->attribute("recordCount"), input);
      s.pointsOffset = NumberOf<std::uint64_t>(points->attribute("fileOffset"), input);
      if (const Node* prototype = points->child("prototype")) {
        for (const Node& field : prototype->children) {
          E57Field e;
          e.name = field.name;
          e.type = field.attribute("type");
          if (e.type != "Float") {
            e.minimum = NumberOf<std::int64_t>(field.attribute("minimum"), input);
            e.maximum = NumberOf<std::int64_t>(field.attribute("maximum"), input);
          } else if (field.attribute("precision") != "double") {
            input.fail("a field of single precision");
          }
          if (e.type == "ScaledInteger") {
            e.scale = NumberOf<double>(field.attribute("scale"), input);
            e.offset = NumberOf<double>(field.attribute("offset"), input);
          }
          s.fields.push_back(std::move(e));
        }
      }
      if (const Node* schemes = scan.child("pointGroupingSchemes")) {
        if (const Node* byLine = schemes->child("groupingByLine")) {
          s.groups = NumberOf<std::uint64_t>(byLine->textOf("groupsSize"), input);
        }
      }
      summary.scans.push_back(std::move(s));
    }
  }
  if (const Node* images = root.child("images2D")) {
    for (const Node& image : images->children) {
      E57ImageSummary i;
      i.name = image.textOf("name");
      i.scanGuid = image.textOf("associatedData3DGuid");
      for (const Node& representation : image.children) {
        for (const char* kind : {"png", "jpeg"}) {
          if (const Node* blob = representation.child(std::string(kind) + "Image")) {
            i.kind = kind;
            i.bytes = NumberOf<std::uint64_t>(blob->attribute("length"), input);
            i.width = NumberOf<std::uint64_t>(representation.textOf("imageWidth"), input);
            i.height = NumberOf<std::uint64_t>(representation.textOf("imageHeight"), input);
          }
        }
      }
      summary.images.push_back(std::move(i));
    }
  }
  return summary;
}

std::vector<std::vector<std::int64_t>> ReadE57Fields(const std::filesystem::path& path, const E57ScanSummary& scan) {
  OpenFile f = Open(path);
  PagedInput input(path, f.file.get(), f.length);
  const std::vector<std::uint8_t> head = input.read(scan.pointsOffset, e57::kSectionHeaderSize);
  if (head[0] != 1) input.fail("the points' section is not a compressed vector");
  const std::uint64_t sectionLength = Le(&head[8], 8);
  std::uint64_t at = Le(&head[16], 8);
  const std::size_t count = scan.fields.size();
  std::vector<std::vector<std::uint8_t>> streams(count);
  // Packets until the section's logical length is used up.
  std::uint64_t used = e57::kSectionHeaderSize;
  while (used < sectionLength) {
    const std::vector<std::uint8_t> packetHead = input.read(at, e57::kPacketHeaderSize + 2 * count);
    if (packetHead[0] != 1 || Le(&packetHead[4], 2) != count) input.fail("a packet is not a data packet of the prototype");
    const std::uint64_t length = Le(&packetHead[2], 2) + 1;
    const std::vector<std::uint8_t> packet = input.read(at, length);
    std::size_t offset = e57::kPacketHeaderSize + 2 * count;
    for (std::size_t s = 0; s < count; ++s) {
      const std::size_t n = Le(&packetHead[e57::kPacketHeaderSize + 2 * s], 2);
      if (offset + n > packet.size()) input.fail("a packet's streams overrun it");
      streams[s].insert(streams[s].end(), packet.begin() + offset, packet.begin() + offset + n);
      offset += n;
    }
    used += length;
    at = e57::PhysicalOf(e57::LogicalOf(at) + length);
  }
  std::vector<std::vector<std::int64_t>> values(count);
  for (std::size_t s = 0; s < count; ++s) {
    const E57Field& field = scan.fields[s];
    const unsigned width = field.type == "Float" ? 64 : e57::BitsFor(field.minimum, field.maximum);
    const std::vector<std::uint8_t>& bytes = streams[s];
    if (bytes.size() * 8 < scan.points * width) input.fail("the stream of " + field.name + " is too short");
    for (std::uint64_t i = 0, bit = 0; i < scan.points; ++i, bit += width) {
      std::uint64_t raw = 0;
      for (unsigned b = 0; b < width; ++b) {
        const std::uint64_t k = bit + b;
        raw |= std::uint64_t{(bytes[k / 8] >> (k % 8)) & 1u} << b;
      }
      values[s].push_back(field.type == "Float" ? static_cast<std::int64_t>(raw) : static_cast<std::int64_t>(raw) + field.minimum);
    }
  }
  return values;
}

}  // namespace kvr::cloud

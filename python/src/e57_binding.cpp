// E57 files from Python: Scan.write_e57 and the writer of several scans, E57File.

#include <memory>

#include "binding.h"
#include "kvr_decode/cloud/e57_writer.h"
#include "kvr_decode/cloud/point_reader.h"

namespace kvr::python {

namespace {

cloud::Returns ReturnsNamed(const std::string& name) {
  if (name == "all") return cloud::Returns::kAll;
  if (name == "first") return cloud::Returns::kFirst;
  if (name == "last") return cloud::Returns::kLast;
  throw py::value_error("returns must be 'all', 'first' or 'last', not '" + name + "'");
}

class PyE57File {
 public:
  explicit PyE57File(const py::object& path) : path_(PathOf(path)) {
    Guarded(path_, [&] { writer_ = std::make_unique<cloud::E57Writer>(path_); });
  }

  void addScan(const py::object& scan, const std::string& returns) {
    cloud::Selection selection;
    selection.returns = ReturnsNamed(returns);
    selection.columns = cloud::E57Writer::kColumns;
    const std::shared_ptr<const cloud::Scan> shared = SharedScan(scan);
    cloud::E57Writer& writer = open();
    py::gil_scoped_release release;
    Guarded(path_, [&] {
      writer.beginScan(cloud::E57ScanInfo::Of(*shared));
      cloud::PointReader reader(*shared, selection);
      cloud::PointBatch batch;
      while (reader.next(batch)) writer.write(batch);
      writer.endScan();
    });
  }

  void addImage(const std::string& name, const py::bytes& data) {
    const std::string_view bytes = data;
    const std::span<const std::uint8_t> view(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    cloud::E57Image image;
    image.name = name;
    if (*cloud::ImageKindOf(view) != '\0') {
      image.bytes.assign(view.begin(), view.end());
    } else if (auto png = cloud::NetpbmAsPng(view)) {
      image.bytes = std::move(*png);
    } else {
      throw py::value_error("image " + name + " is not a JPEG, PNG or binary netpbm image");
    }
    cloud::E57Writer& writer = open();
    Guarded(path_, [&] { writer.addImage(image); });
  }

  void close() {
    if (!writer_) return;
    const std::unique_ptr<cloud::E57Writer> writer = std::move(writer_);
    Guarded(path_, [&] { writer->finish(); });
  }
  // Dropped without close(): nothing is left behind.
  void abandon() { writer_.reset(); }

  cloud::E57Writer& open() {
    if (!writer_) throw py::value_error("the E57 file is closed");
    return *writer_;
  }

  std::uint64_t points() const { return writer_ ? writer_->totalCount() : 0; }

 private:
  std::filesystem::path path_;
  std::unique_ptr<cloud::E57Writer> writer_;
};

}  // namespace

void BindE57(py::module_& m) {
  py::class_<PyE57File>(m, "E57File",
                        "An E57 file of several scans, written as they are added (see add_scan); the file takes "
                        "its name on close(), or at the end of a with block that raised nothing.")
      .def(py::init<const py::object&>(), py::arg("path"))
      .def("add_scan", &PyE57File::addScan, py::arg("scan"), py::arg("returns") = "all",
           "Writes the scan's points (returns: 'all', 'first' or 'last') as the file's next scan.")
      .def("add_image", &PyE57File::addImage, py::arg("name"), py::arg("data"),
           "An image of the scan added last: JPEG or PNG bytes, or a binary netpbm image (stored as PNG).")
      .def("close", &PyE57File::close, "Writes the XML section and renames the file into place.")
      .def_property_readonly("points", &PyE57File::points, "Points written so far.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](PyE57File& file, const py::object& type, const py::object&, const py::object&) {
        if (type.is_none()) {
          file.close();
        } else {
          file.abandon();
        }
        return false;
      });
  py::object scanType = m.attr("Scan");
  py::setattr(scanType, "write_e57",
              py::cpp_function(
                  [](const py::object& self, const py::object& path, const std::string& returns) {
                    PyE57File file(path);
                    file.addScan(self, returns);
                    file.close();
                  },
                  py::name("write_e57"), py::is_method(scanType), py::sibling(py::getattr(scanType, "write_e57", py::none())),
                  py::arg("path"), py::arg("returns") = "all",
                  "Writes the scan's points into an E57 file of this one scan (see E57File for several)."));
}

}  // namespace kvr::python

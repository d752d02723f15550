#include <cstdio>
#include <memory>
#include <mutex>

#include "binding.h"
#include "kvr_decode/camera_file.h"
#include "kvr_decode/cloud/scan.h"
#include "kvr_decode/cloud/tick_file.h"
#include "kvr_decode/device_data.h"

namespace kvr::python {

namespace {

py::str Latin1(const char* text, std::size_t size) {
  return py::reinterpret_steal<py::str>(PyUnicode_DecodeLatin1(text, static_cast<py::ssize_t>(size), nullptr));
}

// A tick file: its records, and the decoder's tick manager for times of week.
class PyTicks {
 public:
  PyTicks(const py::object& path, int timeOffset) {
    const std::filesystem::path file = PathOf(path);
    py::gil_scoped_release release;
    manager_ = Guarded(file, [&] { return std::make_unique<cloud::TicksManager>(file, timeOffset); });
  }

  const cloud::TickFileContents& contents() const { return manager_->contents(); }

  // Ticks of the records of one kind (pulses: type 1; sentences: the rest).
  py::array_t<std::uint64_t> ticksOf(bool pulses) const {
    std::vector<std::uint64_t> ticks;
    for (const cloud::TickRecord& r : contents().records) {
      if ((r.type == 1) == pulses) ticks.push_back(r.ticks);
    }
    return py::array_t<std::uint64_t>(ticks.size(), ticks.data());
  }

  py::list sentences() const {
    py::list texts;
    for (const cloud::TickRecord& r : contents().records) {
      if (r.type != 1) texts.append(Latin1(r.text.data(), r.text.size()));
    }
    return texts;
  }

  py::array_t<double> timeOfWeek(const py::array_t<std::uint64_t, py::array::c_style | py::array::forcecast>& ticks) {
    py::array_t<double> times(ticks.request().shape);
    const std::uint64_t* in = ticks.data();
    double* out = times.mutable_data();
    const auto n = static_cast<std::size_t>(ticks.size());
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);  // the manager keeps the pulse pair it found last
    for (std::size_t i = 0; i < n; ++i) out[i] = manager_->timeOfWeekAt(in[i]);
    return times;
  }

 private:
  std::unique_ptr<cloud::TicksManager> manager_;
  std::mutex mutex_;
};

template <typename Record>
py::array RecordsOf(const std::shared_ptr<AncillaryDevicesData>& data, const std::vector<Record>& records,
                    const py::dtype& type) {
  return ViewOf(type, records.size(), records.data(),
                OwningCapsule(new std::shared_ptr<AncillaryDevicesData>(data)));
}

py::dict ReadDevices(const py::object& path) {
  const std::filesystem::path file = PathOf(path);
  auto data = std::make_shared<AncillaryDevicesData>();
  {
    py::gil_scoped_release release;
    Guarded(file, [&] {
      LogWatch watch;
      cloud::ReadableFileSize(file);
      const std::wstring wide = cloud::WideName(file);
      const int result = ReadDeviceDataInfo(wide.c_str(), *data);
      if (result == -1) Refuse(file, "cannot be read as a device data file (it cannot be opened or its header is cut short)", watch);
      if (result == -2) Refuse(file, "not a device data file: its signature is wrong", watch);
      if (result != 0) Refuse(file, "the device data reader failed with code " + std::to_string(result), watch);
    });
  }
  py::dict d;
  d["version"] = data->version;
  const InclinometerCalibration& i = data->inclinometerCalibration;
  py::dict inclinometer;
  inclinometer["sxx"] = i.sxx, inclinometer["syy"] = i.syy, inclinometer["sxy"] = i.sxy, inclinometer["syx"] = i.syx;
  inclinometer["offnomx"] = i.offnomx, inclinometer["offnomy"] = i.offnomy;
  inclinometer["bsroll"] = i.bsroll, inclinometer["bspitch"] = i.bspitch, inclinometer["bsheading"] = i.bsheading;
  inclinometer["alpha"] = i.alpha, inclinometer["beta"] = i.beta, inclinometer["vref"] = i.vref, inclinometer["pga"] = i.pga;
  d["inclinometer"] = inclinometer;
  const CompassCalibration& c = data->compassCalibration;
  py::dict compass;
  compass["xsf"] = c.xsf, compass["ysf"] = c.ysf, compass["xoff"] = c.xoff, compass["yoff"] = c.yoff;
  compass["declination"] = c.declination;
  d["compass"] = compass;
  // Views of the reader's own lists; the dtypes follow the records as compiled.
  d["type1"] = RecordsOf(data, data->type1Records,
                         RecordType({{"time", "<u8"}, {"tiltX", "<f8"}, {"tiltY", "<f8"}, {"notFilled", "<f8"}, {"raw", "(6,)<i4"}},
                                    {offsetof(DeviceRecord1, time), offsetof(DeviceRecord1, tiltX), offsetof(DeviceRecord1, tiltY),
                                     offsetof(DeviceRecord1, notFilled), offsetof(DeviceRecord1, raw)},
                                    sizeof(DeviceRecord1)));
  d["type2"] = RecordsOf(data, data->type2Records,
                         RecordType({{"time", "<u8"}, {"a", "<u8"}, {"b", "<u8"}, {"c", "<u8"}, {"value", "<u4"}, {"nearestType7", "<i4"}},
                                    {offsetof(DeviceRecord2, time), offsetof(DeviceRecord2, a), offsetof(DeviceRecord2, b),
                                     offsetof(DeviceRecord2, c), offsetof(DeviceRecord2, value), offsetof(DeviceRecord2, nearestType7)},
                                    sizeof(DeviceRecord2)));
  d["type3"] = RecordsOf(data, data->type3Records,
                         RecordType({{"time", "<u8"}, {"w0", "<u4"}, {"w1", "<u4"}, {"w2", "<u4"}, {"w3", "<u4"}, {"w4", "<u4"}},
                                    {offsetof(DeviceRecord3, time), offsetof(DeviceRecord3, w0), offsetof(DeviceRecord3, w1),
                                     offsetof(DeviceRecord3, w2), offsetof(DeviceRecord3, w3), offsetof(DeviceRecord3, w4)},
                                    sizeof(DeviceRecord3)));
  d["type4"] = RecordsOf(data, data->type4Records,
                         RecordType({{"time", "<u8"}, {"values", "(2,)<u4"}},
                                    {offsetof(DeviceRecord4, time), offsetof(DeviceRecord4, values)}, sizeof(DeviceRecord4)));
  const py::dtype type5 = RecordType({{"time", "<u8"}, {"values", "(6,)<u4"}},
                                     {offsetof(DeviceRecord5, time), offsetof(DeviceRecord5, values)}, sizeof(DeviceRecord5));
  d["type5"] = RecordsOf(data, data->type5Records, type5);
  d["type6"] = RecordsOf(data, data->type6Records, type5);
  d["type7"] = RecordsOf(data, data->type7Records,
                         RecordType({{"time", "<u8"}, {"d", "<u8"}, {"e0", "<u4"}, {"e1", "<u4"}, {"e2", "<u4"}, {"e3", "<u4"},
                                     {"e4", "<u4"}, {"e5", "<u4"}, {"e6", "<u4"}},
                                    {offsetof(DeviceRecord7, time), offsetof(DeviceRecord7, d), offsetof(DeviceRecord7, e0),
                                     offsetof(DeviceRecord7, e1), offsetof(DeviceRecord7, e2), offsetof(DeviceRecord7, e3),
                                     offsetof(DeviceRecord7, e4), offsetof(DeviceRecord7, e5), offsetof(DeviceRecord7, e6)},
                                    sizeof(DeviceRecord7)));
  d["type8"] = RecordsOf(data, data->type8Records,
                         RecordType({{"time", "<u8"}, {"value", "<u4"}},
                                    {offsetof(DeviceRecord8, time), offsetof(DeviceRecord8, value)}, sizeof(DeviceRecord8)));
  return d;
}

struct CameraImage {
  std::uint64_t timeStamp;
  std::array<std::uint32_t, 6> values;
  unsigned char* image;  // from the C allocator; null when it could not be had
  std::uint32_t imageSize;
};

struct StreamCloser {
  void operator()(std::FILE* f) const {
    if (f != nullptr) std::fclose(f);
  }
};

py::dict ReadCamera(const py::object& path) {
  const std::filesystem::path file = PathOf(path);
  CameraFileHeader header;
  std::vector<CameraImage> images;
  bool cutShort = false;
  {
    py::gil_scoped_release release;
    Guarded(file, [&] {
      LogWatch watch;
      const std::uint64_t size = cloud::ReadableFileSize(file);
      const std::wstring wide = cloud::WideName(file);
      std::unique_ptr<std::FILE, StreamCloser> stream;
      try {
        stream.reset(ReadCameraFileHeader(wide.c_str(), header));
      } catch (const std::bad_alloc&) {
        Refuse(file, "its header's text length (" + std::to_string(header.textLength) +
                         " bytes) asks for more memory than there is", watch);
      }
      if (!stream) Refuse(file, "not a camera file (wrong signature or header cut short)", watch);
      std::FILE* f = stream.get();
      // The reader cannot tell the end of the file from a cut record: a record
      // that starts at the end is the end, one the file ends inside is cut.
      while (static_cast<std::uint64_t>(::ftello(f)) < size) {
        CameraFileRecord record;
        const int result = GetNextCameraFileRecord(&f, header, record);
        if (std::feof(f) || std::ferror(f)) {
          std::free(record.imageData);
          cutShort = true;
          break;
        }
        CameraImage image{record.timeStamp, {}, record.imageData, record.imageSize};
        std::copy(std::begin(record.recordValues), std::end(record.recordValues), image.values.begin());
        images.push_back(image);
        if (result != 0 && result != -3) break;
      }
    });
  }
  std::unique_ptr<char, decltype(&std::free)> text(header.text, &std::free);
  py::dict d;
  d["time_stamps"] = header.timeStampPresent != 0;
  d["text"] = Latin1(header.text == nullptr ? "" : header.text, header.text == nullptr ? 0 : header.textLength);
  d["header_value"] = header.headerValue;
  d["cut_short"] = cutShort;
  py::list records;
  for (std::size_t i = 0; i < images.size(); ++i) {
    CameraImage& image = images[i];
    py::dict r;
    r["time_stamp"] = image.timeStamp;
    r["values"] = py::make_tuple(image.values[0], image.values[1], image.values[2], image.values[3], image.values[4],
                                 image.values[5]);
    if (image.image != nullptr) {
      // The image bytes the reader allocated, handed to numpy as they are.
      r["image"] = ViewOf(py::dtype::of<std::uint8_t>(), image.imageSize, image.image, FreeingCapsule(image.image));
      image.image = nullptr;
    } else {
      r["image"] = py::none();
    }
    records.append(r);
  }
  return d["records"] = records, d;
}

}  // namespace

void BindSideFiles(py::module_& m) {
  py::class_<PyTicks>(m, "Ticks", "A tick file (\"Serial.dat\"): pulses, sentences and the tick-to-time conversion.")
      .def(py::init<const py::object&, int>(), py::arg("path"), py::arg("time_offset") = 0)
      .def_property_readonly("version", [](const PyTicks& t) { return t.contents().version; })
      .def_property_readonly("header_word", [](const PyTicks& t) { return t.contents().headerWord; })
      .def_property_readonly("cut_short_bytes", [](const PyTicks& t) { return t.contents().cutShortBytes; })
      .def_property_readonly("pulses", [](const PyTicks& t) { return t.ticksOf(true); }, "Tick counts of the pulses.")
      .def_property_readonly("sentence_ticks", [](const PyTicks& t) { return t.ticksOf(false); },
                             "Tick counts at which the sentences arrived.")
      .def_property_readonly("sentences", &PyTicks::sentences, "The sentences' texts, as received.")
      .def("time_of_week", &PyTicks::timeOfWeek, py::arg("ticks"),
           "Times of week (seconds, time offset included) of tick counts, as the library times a block "
           "stamped with them; -1.0 where the file does not cover a count. Any array shape.");
  m.def("read_devices", &ReadDevices, py::arg("path"),
        "Reads a device data file: version, calibrations, and each reading type as a structured array.");
  m.def("read_camera", &ReadCamera, py::arg("path"),
        "Reads a camera file: its header and every record with its image bytes as a uint8 array.");
}

}  // namespace kvr::python

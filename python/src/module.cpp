#include <algorithm>
#include <cerrno>
#include <fstream>
#include <thread>

#include "binding.h"

namespace kvr::python {

namespace {

constexpr const char* kLogName = "KVR_Decode.log";
// More than any one failure writes; a log that grew further is cut to its start.
constexpr std::uintmax_t kMostLogAttached = 64 * 1024;

std::uintmax_t LogSize() {
  std::error_code ec;
  const std::uintmax_t size = std::filesystem::file_size(kLogName, ec);
  return ec ? 0 : size;
}

// kvr_decode.Error, made once when the module loads and kept for the process.
PyObject* errorType = nullptr;

// Library texts may quote bytes of a damaged file: undecodable ones are shown escaped.
py::str Text(const std::string& text) {
  PyObject* decoded = PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "backslashreplace");
  if (decoded == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(decoded);
}

// A path as Python spells it (os.fsdecode: undecodable bytes as surrogate escapes).
py::object PathText(const std::string& path) {
  return py::module_::import("os").attr("fsdecode")(py::bytes(path));
}

void RaiseError(const BindingError& error) {
  py::object exception = py::reinterpret_borrow<py::object>(errorType)(Text(error.message));
  exception.attr("path") = PathText(error.path);
  exception.attr("reason") = Text(error.reason);
  exception.attr("log") = Text(error.log);
  PyErr_SetObject(errorType, exception.ptr());
}

void RaiseMissing(const MissingFile& missing) {
  py::object exception =
      py::reinterpret_borrow<py::object>(PyExc_FileNotFoundError)(ENOENT, Text(missing.message), PathText(missing.path));
  PyErr_SetObject(PyExc_FileNotFoundError, exception.ptr());
}

}  // namespace

LogWatch::LogWatch() : start_(LogSize()) {}

std::string LogWatch::added() const {
  const std::uintmax_t size = LogSize();
  if (size <= start_) return {};
  std::ifstream in(kLogName, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(start_));
  std::string text(static_cast<std::size_t>(std::min(size - start_, kMostLogAttached)), '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  return text;
}

void Refuse(const std::filesystem::path& path, const std::string& reason, const LogWatch& watch) {
  throw BindingError{path.string(), reason, path.string() + ": " + reason, watch.added()};
}

unsigned ThreadsOf(const py::object& threads) {
  // As kvrscan export: past a few threads the file's reading and writing set the pace.
  if (threads.is_none()) return std::clamp(std::thread::hardware_concurrency(), 1u, 8u);
  const auto n = threads.cast<std::int64_t>();
  if (n < 1 || n > 256) throw py::value_error("threads: 1 to 256");
  return static_cast<unsigned>(n);
}

py::capsule FreeingCapsule(void* memory) {
  return py::capsule(memory, [](void* p) { std::free(p); });
}

py::array ViewOf(const py::dtype& dtype, std::size_t count, const void* data, py::handle owner) {
  // numpy wants an address even for no records; any static one does.
  static const std::uint64_t kNothing = 0;
  const auto itemSize = static_cast<py::ssize_t>(dtype.itemsize());
  return py::array(dtype, {static_cast<py::ssize_t>(count)}, {itemSize}, count == 0 ? &kNothing : data, owner);
}

py::dtype RecordType(std::initializer_list<std::pair<const char*, const char*>> fields,
                     std::initializer_list<std::size_t> offsets, std::size_t itemSize) {
  py::list names, formats, where;
  for (const auto& [name, format] : fields) {
    names.append(name);
    formats.append(format);
  }
  for (const std::size_t offset : offsets) where.append(offset);
  return py::dtype(names, formats, where, static_cast<py::ssize_t>(itemSize));
}

std::filesystem::path PathOf(const py::object& path) {
  // os.fsencode gives the bytes the file system uses, also for names that are
  // not valid UTF-8 (held as surrogate escapes in a str).
  const py::bytes bytes = py::module_::import("os").attr("fsencode")(path);
  return std::filesystem::path(static_cast<std::string>(bytes));
}

}  // namespace kvr::python

PYBIND11_MODULE(_kvr_decode, m) {
  namespace kp = kvr::python;
  namespace py = pybind11;
  m.doc() = "Compiled part of kvr_decode; import kvr_decode instead.";
  kp::errorType = PyErr_NewExceptionWithDoc(
      "kvr_decode.Error",
      "A damaged or foreign input. str() names the file and what is wrong; the attributes path, reason and "
      "log hold the file, the reason alone, and what the library wrote to its diagnostic log (KVR_Decode.log "
      "in the current directory) during the call.",
      PyExc_ValueError, nullptr);
  m.attr("Error") = py::handle(kp::errorType);
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(thrown);
    } catch (const kp::BindingError& error) {
      kp::RaiseError(error);
    } catch (const kp::MissingFile& missing) {
      kp::RaiseMissing(missing);
    }
  });
  kp::BindScan(m);
  kp::BindWriters(m);
  kp::BindSideFiles(m);
  kp::BindE57(m);
}

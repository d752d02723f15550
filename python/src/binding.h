#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "kvr_decode/cloud/error.h"
#include "kvr_decode/cloud/scan.h"

namespace kvr::python {

namespace py = pybind11;

// A failure the module raises as kvr_decode.Error: the file, what is wrong with
// it, and what the library wrote to its diagnostic log meanwhile.
struct BindingError {
  std::string path;
  std::string reason;
  std::string message;
  std::string log;
};

// An input that does not exist: FileNotFoundError.
struct MissingFile {
  std::string path;
  std::string message;
};

// The library's diagnostic log ("KVR_Decode.log" in the current directory) as
// it stood when a call began, to attach what the call added to an error.
class LogWatch {
 public:
  LogWatch();
  std::string added() const;

 private:
  std::uintmax_t start_;
};

// Runs a call of the library for `path`, turning the layer's refusals and the
// decoder's stray exceptions into BindingError or MissingFile. Memory
// exhaustion stays MemoryError.
template <typename Call>
auto Guarded(const std::filesystem::path& path, Call&& call) -> decltype(call()) {
  LogWatch watch;
  try {
    return call();
  } catch (const cloud::MissingFileError& error) {
    throw MissingFile{error.path().string(), error.what()};
  } catch (const cloud::Error& error) {
    throw BindingError{error.path().string(), error.reason(), error.what(), watch.added()};
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const BindingError&) {
    throw;
  } catch (const std::exception& error) {
    const std::string reason = std::string("the library failed on it: ") + error.what();
    throw BindingError{path.string(), reason, path.string() + ": " + reason, watch.added()};
  }
}

// Refuses `path` with `reason` (raised as kvr_decode.Error).
[[noreturn]] void Refuse(const std::filesystem::path& path, const std::string& reason, const LogWatch& watch);

// The threads a `threads=` argument asks for: None is one per processor, at
// most 8; otherwise 1 to 256 (ValueError).
unsigned ThreadsOf(const py::object& threads);

// Memory from the C allocator handed to numpy: the array's base is a capsule
// that frees it, so the array owns C++ memory without copying it.
py::capsule FreeingCapsule(void* memory);

// A one-dimensional array over `count` records of `dtype` at `data`, owned by `owner`.
py::array ViewOf(const py::dtype& dtype, std::size_t count, const void* data, py::handle owner);

// A capsule that keeps a C++ object alive for as long as arrays over it live.
template <typename T>
py::capsule OwningCapsule(T* object) {
  return py::capsule(object, [](void* p) { delete static_cast<T*>(p); });
}

// Structured dtype from parallel lists of names, formats and byte offsets.
py::dtype RecordType(std::initializer_list<std::pair<const char*, const char*>> fields,
                     std::initializer_list<std::size_t> offsets, std::size_t itemSize);

// Paths from Python: str or os.PathLike, taken as UTF-8.
std::filesystem::path PathOf(const py::object& path);

void BindScan(py::module_& m);
void BindSideFiles(py::module_& m);
void BindE57(py::module_& m);
// Adds the writing methods to kvr_decode.Scan (after BindScan).
void BindWriters(py::module_& m);

// The scan a kvr_decode.Scan object holds.
std::shared_ptr<const cloud::Scan> SharedScan(const py::handle& scan);
// The counts per bin of the map's histogram, binned again from the scan's
// samples (the map keeps none after its build); empty for a loaded map.
py::array MapHistogram(const std::shared_ptr<const cloud::Scan>& scan);

}  // namespace kvr::python

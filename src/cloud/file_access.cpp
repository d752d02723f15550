#include "file_access.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include "kvr_decode/cloud/error.h"

#if defined(_WIN32)
#include <process.h>
#else
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace kvr::cloud {

namespace {

// The temporary files being written, where a signal handler can find them:
// fixed storage, read without allocating or locking. A file that finds no free
// slot (more than kSlotCount at once, or a name longer than kNameRoom) is still
// removed on every other way out, only not on a signal.
constexpr int kSlotCount = 64;
constexpr std::size_t kNameRoom = 4096;
enum SlotState : int { kFree, kTaken, kLive };
struct Slot {
  std::atomic<int> state{kFree};
  char name[kNameRoom];
};
Slot gSlots[kSlotCount];

int Remember([[maybe_unused]] const std::filesystem::path& temporary) {
#if defined(_WIN32)
  return -1;
#else
  const std::string& name = temporary.native();
  if (name.size() >= kNameRoom) return -1;
  for (int i = 0; i < kSlotCount; ++i) {
    int expected = kFree;
    if (gSlots[i].state.compare_exchange_strong(expected, kTaken)) {
      std::memcpy(gSlots[i].name, name.c_str(), name.size() + 1);
      gSlots[i].state.store(kLive);
      return i;
    }
  }
  return -1;
#endif
}

#if !defined(_WIN32)
extern "C" void RemoveUnfinishedOutputs(int signal) {
  const int saved = errno;
  for (Slot& slot : gSlots) {
    if (slot.state.load() == kLive) ::unlink(slot.name);
  }
  // The default action, once this handler returns and unblocks the signal.
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  errno = saved;
}
#endif

}  // namespace

std::FILE* OpenForReading(const std::filesystem::path& path) {
#if defined(_WIN32)
  return _wfopen(path.c_str(), L"rb");
#else
  return std::fopen(path.c_str(), "rb");
#endif
}

bool SeekTo(std::FILE* file, std::uint64_t offset) {
#if defined(_WIN32)
  return offset <= static_cast<std::uint64_t>(INT64_MAX) && _fseeki64(file, static_cast<__int64>(offset), SEEK_SET) == 0;
#else
  return offset <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) &&
         fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
#endif
}

OutputFile::OutputFile(std::filesystem::path target) : target_(std::move(target)) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::file_status status = fs::status(target_, ec);
  if (fs::exists(status) && !fs::is_regular_file(status) && !fs::is_directory(status)) {
#if defined(_WIN32)
    file_ = _wfopen(target_.c_str(), L"wb");
#else
    file_ = std::fopen(target_.c_str(), "wb");
#endif
    if (file_ == nullptr) fail("cannot create", errno);
    return;
  }
#if defined(_WIN32)
  // Unique enough: the target's name, the process and a counter.
  static std::atomic<unsigned> counter{0};
  temporary_ = target_;
  temporary_ += L".tmp" + std::to_wstring(_getpid()) + L"-" + std::to_wstring(counter++);
  file_ = _wfopen(temporary_.c_str(), L"wb");
  if (file_ == nullptr) fail("cannot create", errno);
#else
  std::string pattern = target_.string() + ".tmp-XXXXXX";
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) fail("cannot create", errno);
  temporary_ = pattern;
  slot_ = Remember(temporary_);
  // mkstemp makes the file readable by its owner only; an output gets the usual mode.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  file_ = ::fdopen(fd, "wb");
  if (file_ == nullptr) {
    const int error = errno;
    ::close(fd);
    fail("cannot create", error);
  }
#endif
}

OutputFile::~OutputFile() {
  if (file_ != nullptr) std::fclose(file_);
  if (!temporary_.empty()) {
    std::error_code ec;
    std::filesystem::remove(temporary_, ec);
  }
  forget();
}

void OutputFile::forget() {
  if (slot_ >= 0) gSlots[slot_].state.store(kFree);
  slot_ = -1;
}

void OutputFile::fail(const std::string& what, int error) const {
  throw OutputError(target_, what + " (" + std::strerror(error) + ")");
}

void OutputFile::write(const void* data, std::size_t size) {
  if (size > 0 && std::fwrite(data, 1, size, file_) != size) fail("write failed", errno);
}

void OutputFile::overwrite(std::uint64_t offset, const void* data, std::size_t size, const char* what) {
  const int error = std::fflush(file_) != 0 ? errno : 0;
  if (error != 0) fail("write failed", error);
  if (!SeekTo(file_, offset) || std::fwrite(data, 1, size, file_) != size) {
    fail(what, errno);
  }
}

std::filesystem::path OutputFile::handOver() {
  if (file_ != nullptr) {
    std::FILE* file = std::exchange(file_, nullptr);
    if (std::fclose(file) != 0) fail("write failed", errno);
  }
  return temporary_.empty() ? target_ : temporary_;
}

void OutputFile::commit() {
  if (file_ != nullptr) {
    std::FILE* file = std::exchange(file_, nullptr);
    const bool flushed = std::fflush(file) == 0;
    int error = flushed ? 0 : errno;
    if (std::fclose(file) != 0 && error == 0) error = errno;
    if (!flushed || error != 0) fail("write failed", error != 0 ? error : EIO);
  }
  if (temporary_.empty()) return;
  std::error_code ec;
  std::filesystem::rename(temporary_, target_, ec);
  if (ec) throw OutputError(target_, "cannot replace the file (" + ec.message() + ")");
  temporary_.clear();
  forget();
}

void WriteWholeFile(const std::filesystem::path& path, std::span<const unsigned char> bytes) {
  OutputFile out(path);
  out.write(bytes.data(), bytes.size());
  out.commit();
}

void RemoveUnfinishedOutputsOnSignal() {
#if !defined(_WIN32)
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction current {};
    if (::sigaction(signal, nullptr, &current) != 0 || current.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = RemoveUnfinishedOutputs;
    sigfillset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
  }
  std::signal(SIGXFSZ, SIG_IGN);
#endif
}

}  // namespace kvr::cloud

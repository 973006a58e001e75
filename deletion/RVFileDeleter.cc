#include "deletion/RVFileDeleter.h"

#include <fcntl.h>
#include <fts.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>

#include "platform/Files.h"

namespace {

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

RVFileDeleter::RVFileDeleter(std::vector<std::string> paths)
    : _paths(std::move(paths)), _dispatchQueue("-[RVFileDeleter initWithPaths:]") {}

void RVFileDeleter::start() {
  int expected = paused;
  if (!_state.compare_exchange_strong(expected, running)) return;
  _dispatchQueue.async([self = shared_from_this()] { self->deleteFiles(); });
}

void RVFileDeleter::pause() {
  int expected = running;
  _state.compare_exchange_strong(expected, paused);
}

void RVFileDeleter::stop() {
  int current = _state.load();
  while (current < stopped) {
    if (_state.compare_exchange_weak(current, stopped)) {
      _dispatchQueue.async([self = shared_from_this()] { self->completedStep(); });
      return;
    }
  }
}

void RVFileDeleter::deleteFiles() {
  if (_paths.empty()) return completedStep();
  std::string path = _paths.back();
  while (_state.load() == running) {
    Result result = deleteAt(path);
    if (result == interrupted) return;  // taken up again by the next start
    int error = result == failed ? errno : 0;
    if (auto d = delegate.lock()) d->fileDeleterDeleted(path, error);
    _paths.pop_back();
    if (_paths.empty()) return completedStep();
    path = _paths.back();
  }
}

RVFileDeleter::Result RVFileDeleter::deleteAt(const std::string& path) {
  // The system would read the path only up to a NUL, and so delete something else.
  if (path.find('\0') != std::string::npos) {
    errno = EINVAL;
    return failed;
  }
  updateCurrentPath(path.c_str());
  struct stat status;
  if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? deleted : failed;
  if (S_ISDIR(status.st_mode)) return deleteDirectoryAt(path.c_str());
  return ::unlink(path.c_str()) == 0 ? deleted : failed;
}

RVFileDeleter::Result RVFileDeleter::deleteDirectoryAt(const char* path) {
  char* const roots[] = {const_cast<char*>(path), nullptr};
  FTS* tree = ::fts_open(roots, FTS_NOCHDIR | FTS_NOSTAT | FTS_PHYSICAL, nullptr);
  if (tree == nullptr) return failed;
  // The errno of a failure inside is what the caller reports; closing must not overwrite it.
  auto close = [tree](Result result) {
    int saved = errno;
    ::fts_close(tree);
    errno = saved;
    return result;
  };
  const std::uint64_t mount = platform::mountIdentifier(AT_FDCWD, path);
  while (FTSENT* entry = ::fts_read(tree)) {
    if (_state.load() != running) return close(interrupted);
    switch (entry->fts_info) {
      case FTS_D:
        // Another file system mounted inside (a bind mount too) is not entered: the folder
        // can't be deleted whole, and nothing below the mount is touched.
        if (entry->fts_level > 0 &&
            platform::mountIdentifier(AT_FDCWD, entry->fts_accpath) != mount) {
          errno = EXDEV;
          return close(failed);
        }
        break;
      case FTS_DNR:
      case FTS_ERR:
        errno = entry->fts_errno;
        return close(failed);
      case FTS_DP:
        updateCurrentPath(entry->fts_path);
        if (::rmdir(entry->fts_accpath) != 0) return close(failed);
        break;
      case FTS_NSOK:
        updateCurrentPath(entry->fts_path);
        if (::unlink(entry->fts_accpath) != 0) return close(failed);
        break;
      default:
        break;
    }
  }
  // fts_read gives nothing at the end (errno 0) or on an error of its own.
  int ended = errno;
  if (ended != 0) return close(failed);
  return close(deleted);
}

void RVFileDeleter::updateCurrentPath(const char* path) {
  double now = monotonicSeconds();
  if (now - _time <= 0.03) return;
  _time = now;
  if (auto d = delegate.lock()) d->fileDeleterCurrent(path);
}

void RVFileDeleter::completedStep() {
  if (_state.exchange(completed) == completed) return;
  if (auto d = delegate.lock()) d->fileDeleterCompleted();
}

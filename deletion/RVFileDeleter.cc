#include "deletion/RVFileDeleter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>

#include "platform/TreeDeletion.h"

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
    auto d = delegate.lock();
    if (d && result == failed) d->fileDeleterLeft(path, _inHand);
    _inHand = {};
    if (d) d->fileDeleterDeleted(path, error);
    _paths.pop_back();
    if (_paths.empty()) return completedStep();
    path = _paths.back();
  }
}

RVFileDeleter::Result RVFileDeleter::deleteAt(const std::string& path) {
  updateCurrentPath(path.c_str());
  std::string absolute = path;
  if (!path.empty() && path.front() != '/') {
    std::error_code error;
    absolute = (std::filesystem::current_path(error) / path).string();
  }
  platform::TreeDeletionOptions options;
  // The first failure ends a folder: what went stays gone, the rest stays.
  options.stopAtFirstFailure = true;
  options.guard = guard;
  options.parents = &_parents;
  // A big folder is shared by a few threads: unlinking in separate folders runs side by side.
  options.threads = std::min(platform::processorCount(), 4u);
  options.goOn = [this] { return _state.load() == running; };
  options.current = [this](const std::string& folder, std::string_view name) {
    if (!currentPathDue()) return;
    std::string current = folder.empty() ? std::string(name) : folder + "/" + std::string(name);
    if (auto d = delegate.lock()) d->fileDeleterCurrent(current);
  };
  platform::TreeDeletion outcome = platform::deleteTree(absolute, options);
  // A path taken up again after a pause adds to what went before.
  outcome.removed += _inHand.removed;
  _inHand = outcome;
  if (outcome.interrupted) return interrupted;
  if (outcome.error != 0) {
    errno = outcome.error;
    return failed;
  }
  return deleted;
}

bool RVFileDeleter::currentPathDue() {
  double now = monotonicSeconds();
  if (now - _time <= 0.03) return false;
  _time = now;
  return true;
}

void RVFileDeleter::updateCurrentPath(const char* path) {
  if (!currentPathDue()) return;
  if (auto d = delegate.lock()) d->fileDeleterCurrent(path);
}

void RVFileDeleter::completedStep() {
  if (_state.exchange(completed) == completed) return;
  auto d = delegate.lock();
  if (d && _inHand.interrupted && !_paths.empty()) d->fileDeleterLeft(_paths.back(), _inHand);
  if (d) d->fileDeleterCompleted();
}

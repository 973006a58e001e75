// The privileged helper (the build's `ravelin-helper` target; the program file is named by the
// helper's identifier, com.fernhollow.Ravelin.PrivilegedHelper). It serves the library's requests
// that need root (deleting what the user may not, measuring what the user can't read, switching
// system units) on a Unix socket, to root and to the one user it was started for, and to no one
// else; it deletes only in that user's clean-up places.
//
//   com.fernhollow.Ravelin.PrivilegedHelper --allow-uid UID [--socket PATH] [--home DIR]
//       [--units-root DIR] [--state-dir DIR]
//
// The socket is /run/ravelin/helper-UID.sock unless --socket names another. --home replaces the
// user's home folder of the password database, --units-root makes unit changes below DIR instead
// of on this system (an image, a test), --state-dir keeps the record of units switched off
// elsewhere than /var/lib/ravelin. Under systemd its unit instance starts it as root for one
// user; tests start it in the foreground on a socket of their own.

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "helper/Protocols.h"
#include "helper/tool/HelperService.h"
#include "platform/Files.h"
#include "platform/Xpc.h"

// The tool's information property list, kept in the file so that an installer can read the
// version without running it.
extern "C" __attribute__((used, section(".ravelin_info"))) const char kRavelinInfoPlist[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<plist version=\"1.0\"><dict>"
    "<key>CFBundleIdentifier</key><string>com.fernhollow.Ravelin.PrivilegedHelper</string>"
    "<key>CFBundleVersion</key><string>" RAVELIN_HELPER_VERSION
    "</string>"
    "</dict></plist>";

namespace {

// At most this many clients are served at once; another is closed unanswered.
constexpr std::size_t kMaxConnections = 16;

void usage() {
  std::fprintf(stderr,
               "usage: com.fernhollow.Ravelin.PrivilegedHelper --allow-uid UID [--socket PATH]\n"
               "         [--home DIR] [--units-root DIR] [--state-dir DIR]\n");
}

// Every connection's service, kept until its connection ends.
std::mutex gServicesMutex;
std::condition_variable gConnectionEnded;
std::map<platform::xpc::Connection*, std::pair<std::shared_ptr<platform::xpc::Connection>,
                                               std::shared_ptr<helper::HelperService>>>
    gServices;

std::size_t connectionCount() {
  std::lock_guard lock(gServicesMutex);
  return gServices.size();
}

// Waits until a connection ends, or a second has passed: descriptors run out for reasons other
// than our own connections too.
void waitForAConnectionToEnd() {
  std::unique_lock lock(gServicesMutex);
  const std::size_t now = gServices.size();
  gConnectionEnded.wait_for(lock, std::chrono::seconds(1), [&] { return gServices.size() < now; });
}

void serve(int fd, const helper::HelperSettings& settings) {
  auto connection = platform::xpc::Connection::fromSocket(fd);
  connection->setExportedInterface(helper::helperProtocolInterface());
  connection->setRemoteObjectInterface(helper::helperDelegateInterface());
  std::weak_ptr<platform::xpc::Connection> weak = connection;
  auto client = helper::delegateProxy(connection->remoteObjectProxyWithErrorHandler([weak] {
    if (auto c = weak.lock()) c->invalidate();
  }));
  auto service = std::make_shared<helper::HelperService>(client, settings);
  connection->setExportedObject(helper::helperReceiver(service));
  platform::xpc::Connection* key = connection.get();
  connection->setInvalidationHandler([key] {
    std::shared_ptr<helper::HelperService> ended;
    {
      std::lock_guard lock(gServicesMutex);
      auto found = gServices.find(key);
      if (found == gServices.end()) return;
      ended = found->second.second;
      gServices.erase(found);
    }
    gConnectionEnded.notify_all();
    ended->shutDown();
  });
  {
    std::lock_guard lock(gServicesMutex);
    gServices[key] = {connection, service};
  }
  connection->resume();
}

// True when a server answers on the socket at `path`.
bool someoneListens(const sockaddr_un& address) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool answers = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return answers;
}

// The folder of the default socket, made when missing. It must be a real folder that only root
// may change, or the socket in it could be replaced by anyone.
bool prepareSocketFolder(const std::string& folder) {
  if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return false;
  struct stat status;
  return ::lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == ::geteuid() && (status.st_mode & 022) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string socketPath;
  std::optional<uid_t> allowed;
  helper::HelperSettings settings;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    bool hasValue = i + 1 < argc;
    if (argument == "--socket" && hasValue) {
      socketPath = argv[++i];
    } else if (argument == "--allow-uid" && hasValue) {
      char* end = nullptr;
      errno = 0;
      unsigned long uid = std::strtoul(argv[++i], &end, 10);
      if (errno != 0 || end == argv[i] || *end != '\0' || uid > 0xFFFFFFFEul) {
        std::fprintf(stderr, "ravelin helper: --allow-uid: not a user id: %s\n", argv[i]);
        return 2;
      }
      allowed = static_cast<uid_t>(uid);
    } else if (argument == "--home" && hasValue) {
      settings.home = argv[++i];
    } else if (argument == "--units-root" && hasValue) {
      settings.unitsRoot = argv[++i];
    } else if (argument == "--state-dir" && hasValue) {
      settings.stateFolder = argv[++i];
    } else {
      usage();
      return 2;
    }
  }
  if (!allowed) {
    usage();
    return 2;
  }
  settings.servedUser = *allowed;
  if (socketPath.empty()) {
    socketPath = helper::helperSocketPath(*allowed);
    if (!prepareSocketFolder(platform::deletingLastPathComponent(socketPath))) {
      std::fprintf(stderr, "ravelin helper: %s must be a folder only root can change\n",
                   platform::deletingLastPathComponent(socketPath).c_str());
      return 1;
    }
  }
  ::signal(SIGPIPE, SIG_IGN);

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof(address.sun_path)) {
    std::fprintf(stderr, "ravelin helper: socket path too long\n");
    return 1;
  }
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  // A socket left by an earlier run is replaced; one that a running helper serves, or anything
  // else at the path, is not touched.
  struct stat existing;
  if (::lstat(socketPath.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) {
    if (someoneListens(address)) {
      std::fprintf(stderr, "ravelin helper: another helper serves %s\n", socketPath.c_str());
      return 1;
    }
    ::unlink(socketPath.c_str());
  }
  int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // Anyone may connect (the socket is made 0666 by the mask, never changed by path, which a link
  // put in its place could redirect); who may stay is decided by the peer's credentials.
  mode_t mask = ::umask(0111);
  bool bound = listener >= 0 &&
               ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  ::umask(mask);
  if (!bound || ::listen(listener, 16) != 0) {
    std::fprintf(stderr, "ravelin helper: can't listen on %s: %s\n", socketPath.c_str(),
                 std::strerror(errno));
    return 1;
  }

  for (;;) {
    int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        waitForAConnectionToEnd();  // the waiting clients stay in the backlog meanwhile
        continue;
      }
      if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO) continue;
      std::fprintf(stderr, "ravelin helper: accept: %s\n", std::strerror(errno));
      return 1;
    }
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    bool admitted = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
                    (credentials.uid == 0 || credentials.uid == *allowed) &&
                    connectionCount() < kMaxConnections;
    if (!admitted) {
      ::close(fd);  // before a single byte is read
      continue;
    }
    serve(fd, settings);
  }
}

// ravelin-helper: the privileged helper. It serves the library's requests that need root
// (deleting what the user may not, measuring what the user can't read, switching system units)
// on a Unix socket, to root and to the one user it was installed for, and to no one else.
//
//   ravelin-helper [--socket PATH] [--allow-uid UID] [--units-root DIR]
//
// --units-root makes unit changes below DIR instead of on this system (an image, a test).
// Under systemd its unit starts it as root with the user's id; tests start it in the foreground
// on a socket of their own.

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
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

void usage() {
  std::fprintf(stderr,
               "usage: ravelin-helper [--socket PATH] [--allow-uid UID] [--units-root DIR]\n");
}

// Every connection's service, kept until its connection ends.
std::mutex gServicesMutex;
std::map<platform::xpc::Connection*, std::pair<std::shared_ptr<platform::xpc::Connection>,
                                               std::shared_ptr<helper::HelperService>>>
    gServices;

void serve(int fd) {
  auto connection = platform::xpc::Connection::fromSocket(fd);
  connection->setExportedInterface(helper::helperProtocolInterface());
  connection->setRemoteObjectInterface(helper::helperDelegateInterface());
  std::weak_ptr<platform::xpc::Connection> weak = connection;
  auto client = helper::delegateProxy(connection->remoteObjectProxyWithErrorHandler([weak] {
    if (auto c = weak.lock()) c->invalidate();
  }));
  auto service = std::make_shared<helper::HelperService>(client);
  connection->setExportedObject(helper::helperReceiver(service));
  platform::xpc::Connection* key = connection.get();
  connection->setInvalidationHandler([key] {
    std::lock_guard lock(gServicesMutex);
    auto found = gServices.find(key);
    if (found == gServices.end()) return;
    found->second.second->shutDown();
    gServices.erase(found);
  });
  {
    std::lock_guard lock(gServicesMutex);
    gServices[key] = {connection, service};
  }
  connection->resume();
}

}  // namespace

int main(int argc, char** argv) {
  std::string socketPath = platform::xpc::socketPath(helper::kServiceName);
  std::optional<uid_t> allowed;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (argument == "--socket" && i + 1 < argc) {
      socketPath = argv[++i];
    } else if (argument == "--allow-uid" && i + 1 < argc) {
      char* end = nullptr;
      errno = 0;
      unsigned long uid = std::strtoul(argv[++i], &end, 10);
      if (errno != 0 || end == argv[i] || *end != '\0' || uid > 0xFFFFFFFEul) {
        std::fprintf(stderr, "ravelin-helper: --allow-uid: not a user id: %s\n", argv[i]);
        return 2;
      }
      allowed = static_cast<uid_t>(uid);
    } else if (argument == "--units-root" && i + 1 < argc) {
      helper::HelperService::setUnitsRoot(argv[++i]);
    } else {
      usage();
      return 2;
    }
  }
  ::signal(SIGPIPE, SIG_IGN);

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof(address.sun_path)) {
    std::fprintf(stderr, "ravelin-helper: socket path too long\n");
    return 1;
  }
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A socket left by an earlier run is replaced; anything else at the path is not touched.
  struct stat existing;
  if (::lstat(socketPath.c_str(), &existing) == 0 && S_ISSOCK(existing.st_mode)) {
    ::unlink(socketPath.c_str());
  }
  if (listener < 0 ||
      ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener, 16) != 0) {
    std::fprintf(stderr, "ravelin-helper: can't listen on %s: %s\n", socketPath.c_str(),
                 std::strerror(errno));
    return 1;
  }
  // Anyone may connect; who may stay is decided by the peer's credentials.
  ::chmod(socketPath.c_str(), 0666);

  for (;;) {
    int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE) continue;
      std::fprintf(stderr, "ravelin-helper: accept: %s\n", std::strerror(errno));
      return 1;
    }
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    bool admitted = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
                    (credentials.uid == 0 || (allowed && credentials.uid == *allowed));
    if (!admitted) {
      ::close(fd);  // before a single byte is read
      continue;
    }
    serve(fd);
  }
}

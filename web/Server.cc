#include "web/Server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <httplib.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>
#include <unordered_map>

#include "host/Dupes.h"
#include "host/Helper.h"
#include "host/Host.h"
#include "host/Monitor.h"
#include "host/Rules.h"
#include "host/Scans.h"
#include "host/Startup.h"
#include "platform/Dispatch.h"
#include "platform/Files.h"
#include "platform/Locations.h"
#include "resources/Resources.h"
#include "web/Assets.h"
#include "web/Security.h"

extern char** environ;

namespace web {

namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr std::size_t kMaxBody = 1 << 20;
constexpr std::size_t kMaxStreams = 8;
constexpr std::size_t kMaxScansKept = 32;
constexpr std::int64_t kMaxPicture = 32 << 20;

// An answer other than success, thrown by a handler and written as {"error": ...}.
struct HttpError : std::runtime_error {
  HttpError(int status, const std::string& message) : std::runtime_error(message), status(status) {}
  int status;
};

// What a running job shows to any thread: its state, progress and, once settled, its result.
struct Live {
  std::mutex mutex;
  std::condition_variable settled;
  std::string state = "running";
  double progress = 0;
  std::string current;
  std::shared_ptr<const std::string> result;  // JSON text

  void show(double value, const std::string& path) {
    std::lock_guard lock(mutex);
    if (state != "running") return;  // a late report of a settled job
    progress = value;
    current = path;
  }
  void settle(std::string to, std::shared_ptr<const std::string> text) {
    {
      std::lock_guard lock(mutex);
      state = std::move(to);
      progress = 1;
      result = std::move(text);
    }
    settled.notify_all();
  }
};

struct Scan {
  std::string id, kind;
  Live live;
  // The main queue's alone:
  std::unique_ptr<host::ScanJob> job;
  host::DupesScan* dupes = nullptr;  // the job, when it is a duplicate search
  // Each member the scan reported, by the text its path has in the result; what a page may name.
  std::unordered_map<std::string, std::string> reported;
  std::unordered_map<std::string, std::string> icons;  // of an applications scan: id, its icon
  bool deleting = false;
};

struct Deletion {
  std::string id;
  Live live;
  std::unique_ptr<host::DeletionJob> job;  // the main queue's alone
};

// Runs `block` on the main queue and waits for it; what it throws is thrown here.
template <class F>
auto onMain(F&& block) {
  std::exception_ptr failure;
  using Result = decltype(block());
  if constexpr (std::is_void_v<Result>) {
    platform::DispatchQueue::main().sync([&] {
      try {
        block();
      } catch (...) {
        failure = std::current_exception();
      }
    });
    if (failure) std::rethrow_exception(failure);
  } else {
    std::optional<Result> result;
    platform::DispatchQueue::main().sync([&] {
      try {
        result.emplace(block());
      } catch (...) {
        failure = std::current_exception();
      }
    });
    if (failure) std::rethrow_exception(failure);
    return std::move(*result);
  }
}

void answer(httplib::Response& response, int status, const json& body) {
  response.status = status;
  response.set_content(body.dump(), "application/json");
}

json parseBody(const httplib::Request& request) {
  json body = json::parse(request.body, nullptr, false);
  if (body.is_discarded() || !body.is_object())
    throw HttpError(400, "the body is not a JSON object");
  return body;
}

std::vector<std::string> stringList(const json& body, const char* key) {
  std::vector<std::string> out;
  if (!body.contains(key)) return out;
  const json& list = body.at(key);
  if (!list.is_array()) throw HttpError(400, fmt::format("\"{}\" is not a list", key));
  for (const auto& item : list) {
    if (!item.is_string()) throw HttpError(400, fmt::format("\"{}\" holds a non-string", key));
    out.push_back(item.get<std::string>());
  }
  return out;
}

// A path sent by a page: the text the reports wrote, turned back into the bytes on disk.
std::string pathFromPage(const std::string& text) {
  auto bytes = host::unescapeText(text);
  if (!bytes || bytes->empty() || bytes->front() != '/') {
    throw HttpError(400, "not an absolute path: " + host::displayText(text));
  }
  return *bytes;
}

// The type of a picture by its first bytes, never by its name; nothing for what isn't one.
std::optional<std::string> pictureType(std::string_view head) {
  if (head.starts_with("\xff\xd8\xff")) return "image/jpeg";
  if (head.starts_with("\x89PNG\r\n\x1a\n")) return "image/png";
  if (head.starts_with("GIF87a") || head.starts_with("GIF89a")) return "image/gif";
  if (head.size() >= 12 && head.starts_with("RIFF") && head.substr(8, 4) == "WEBP") {
    return "image/webp";
  }
  return std::nullopt;
}

std::string contentType(std::string_view name) {
  auto ends = [&](std::string_view suffix) { return name.ends_with(suffix); };
  if (ends(".html")) return "text/html; charset=utf-8";
  if (ends(".js")) return "text/javascript; charset=utf-8";
  if (ends(".css")) return "text/css; charset=utf-8";
  if (ends(".svg")) return "image/svg+xml";
  if (ends(".png")) return "image/png";
  return "text/plain; charset=utf-8";
}

class App {
 public:
  App(int port, std::string token) : port_(port), token_(std::move(token)) {}

  void routes(httplib::Server& server);
  const std::string& token() const { return token_; }

  // On the main queue, at the end: every job is asked to stop.
  void stopAll() {
    for (auto& [id, scan] : scans_) {
      if (!scan->job->finished()) scan->job->stop();
    }
    for (auto& [id, deletion] : deletions_) {
      if (deletion->job && deletion->job->running()) deletion->job->stop();
    }
  }
  // On the main queue: true when no job runs.
  bool settled() const {
    for (const auto& [id, scan] : scans_) {
      if (!scan->job->finished()) return false;
    }
    for (const auto& [id, deletion] : deletions_) {
      if (deletion->job && deletion->job->running()) return false;
    }
    return true;
  }
  // Every stream ends at its next look.
  void shutdown() {
    stopping_ = true;
    stopped_.notify_all();
  }

 private:
  bool guard(const httplib::Request& request, httplib::Response& response);
  void page(const httplib::Request& request, httplib::Response& response);

  void startScan(const httplib::Request& request, httplib::Response& response);
  void showScan(const std::string& id, httplib::Response& response);
  void stopScan(const std::string& id, httplib::Response& response);
  void startDeletion(const std::string& scanId, const httplib::Request& request,
                     httplib::Response& response);
  void showDeletion(const std::string& id, httplib::Response& response);
  void picture(const std::string& scanId, const httplib::Request& request,
               httplib::Response& response);
  void icon(const std::string& scanId, const httplib::Request& request,
            httplib::Response& response);
  void home(httplib::Response& response);
  void switchStartup(const httplib::Request& request, httplib::Response& response);
  void monitorStream(httplib::Response& response);
  void liveStream(std::shared_ptr<void> owner, Live& live, httplib::Response& response);

  // Looked up on the main queue.
  std::shared_ptr<Scan> scan(const std::string& id) {
    auto found = scans_.find(id);
    if (found == scans_.end()) throw HttpError(404, "no such scan");
    return found->second;
  }
  std::shared_ptr<Deletion> deletion(const std::string& id) {
    auto found = deletions_.find(id);
    if (found == deletions_.end()) throw HttpError(404, "no such deletion");
    return found->second;
  }
  void finishScan(const std::shared_ptr<Scan>& scan);
  // Takes a slot for an event stream, or refuses when all are taken.
  void takeStream();

  const int port_;
  const std::string token_;
  std::atomic<bool> stopping_{false};
  std::mutex stopMutex_;
  std::condition_variable stopped_;
  std::atomic<std::size_t> streams_{0};
  // The main queue's alone:
  std::uint64_t nextId_ = 1;
  std::map<std::string, std::shared_ptr<Scan>> scans_;
  std::map<std::string, std::shared_ptr<Deletion>> deletions_;
};

// Every request passes here first: the Host names this server, an API request carries the
// token, and a request that changes anything is JSON from this server's own pages.
bool App::guard(const httplib::Request& request, httplib::Response& response) {
  if (!hostAllowed(request.get_header_value("Host"), port_)) {
    answer(response, 403, {{"error", "this server answers to 127.0.0.1, localhost or [::1] only"}});
    return false;
  }
  if (!request.path.starts_with("/api/")) return true;
  if (request.get_header_value("Sec-Fetch-Site") == "cross-site") {
    answer(response, 403, {{"error", "a request from another site"}});
    return false;
  }
  std::optional<std::string> token = bearerToken(request.get_header_value("Authorization"));
  if (!token) token = cookieValue(request.get_header_value("Cookie"), cookieName(port_));
  if (!token || !sameToken(*token, token_)) {
    answer(response, 401,
           {{"error", "open the address ravelin serve printed: it holds the token"}});
    return false;
  }
  if (request.method != "GET" && request.method != "HEAD") {
    if (request.has_header("Origin") && !originAllowed(request.get_header_value("Origin"), port_)) {
      answer(response, 403, {{"error", "a request from another origin"}});
      return false;
    }
    if (request.method == "POST" && !isJsonType(request.get_header_value("Content-Type"))) {
      answer(response, 400, {{"error", "send JSON, with Content-Type: application/json"}});
      return false;
    }
  }
  return true;
}

void App::page(const httplib::Request& request, httplib::Response& response) {
  if (request.path == "/" && request.has_param("token")) {
    // The printed address: its token becomes a cookie the pages' requests carry, and the address
    // bar, the history and any referrer lose it.
    if (!sameToken(request.get_param_value("token"), token_)) {
      response.status = 401;
      response.set_content("This address's token is not this server's.\n", "text/plain");
      return;
    }
    response.set_header("Set-Cookie",
                        cookieName(port_) + "=" + token_ + "; HttpOnly; SameSite=Strict; Path=/");
    response.set_redirect("/", 303);
    return;
  }
  auto bytes = asset(request.path == "/" ? "/index.html" : request.path);
  if (!bytes) {
    response.status = 404;
    response.set_content("Not found\n", "text/plain");
    return;
  }
  response.set_content(std::string(*bytes),
                       contentType(request.path == "/" ? "/index.html" : request.path));
}

void App::takeStream() {
  if (streams_.fetch_add(1) >= kMaxStreams) {
    --streams_;
    throw HttpError(503, "too many event streams");
  }
}

namespace {

bool flag(const json& body, const char* key) {
  if (!body.contains(key)) return false;
  if (!body.at(key).is_boolean())
    throw HttpError(400, fmt::format("\"{}\" is not true or false", key));
  return body.at(key).get<bool>();
}

std::optional<std::int64_t> count(const json& body, const char* key) {
  if (!body.contains(key)) return std::nullopt;
  const json& value = body.at(key);
  if (!value.is_number_integer() || value.get<std::int64_t>() < 0) {
    throw HttpError(400, fmt::format("\"{}\" is not a number of bytes or items", key));
  }
  return value.get<std::int64_t>();
}

// The job a request asks for, its options checked; what the options can't be is a 400.
std::unique_ptr<host::ScanJob> makeJob(const std::string& kind, const json& body) {
  if (kind == "dupes") {
    host::DupesOptions options;
    for (const auto& root : stringList(body, "roots")) options.roots.push_back(pathFromPage(root));
    for (const auto& path : stringList(body, "exclude")) {
      options.exclude.push_back(pathFromPage(path));
    }
    options.minSize = count(body, "min_size").value_or(0);
    options.hidden = flag(body, "hidden");
    return std::make_unique<host::DupesScan>(std::move(options));
  }
  if (kind == "large") {
    std::string root;
    if (body.contains("root")) {
      if (!body.at("root").is_string()) throw HttpError(400, "\"root\" is not a path");
      root = pathFromPage(body.at("root").get<std::string>());
    }
    return std::make_unique<host::LargeScan>(
        root, count(body, "min_size").value_or(100 << 20),
        static_cast<std::size_t>(count(body, "count").value_or(0)), flag(body, "tree"));
  }
  if (kind == "junk") return std::make_unique<host::JunkScan>();
  if (kind == "apps") return std::make_unique<host::AppFilesScan>(flag(body, "files"), false);
  if (kind == "leftovers") return std::make_unique<host::AppFilesScan>(false, true);
  if (kind == "startup") return std::make_unique<host::StartupScan>(flag(body, "all"));
  throw HttpError(400, "unknown kind of scan: " + host::displayText(kind));
}

}  // namespace

void App::startScan(const httplib::Request& request, httplib::Response& response) {
  json body = parseBody(request);
  if (!body.contains("kind") || !body.at("kind").is_string()) {
    throw HttpError(400, "\"kind\" names no kind of scan");
  }
  const std::string kind = body.at("kind").get<std::string>();
  std::string id = onMain([&] {
    for (const auto& [other, scan] : scans_) {
      if (scan->kind == kind && !scan->job->finished()) {
        throw HttpError(409, "a scan of this kind is running");
      }
    }
    auto scan = std::make_shared<Scan>();
    scan->id = std::to_string(nextId_++);
    scan->kind = kind;
    try {
      scan->job = makeJob(kind, body);
    } catch (const host::CommandError& error) {
      throw HttpError(error.status == host::kUsage ? 400 : 500, error.message);
    }
    scan->dupes = dynamic_cast<host::DupesScan*>(scan->job.get());
    scans_[scan->id] = scan;
    // Old settled scans give way to new ones.
    while (scans_.size() > kMaxScansKept) {
      auto oldest = std::find_if(scans_.begin(), scans_.end(), [](const auto& entry) {
        return entry.second->job->finished() && !entry.second->deleting;
      });
      if (oldest == scans_.end()) break;
      scans_.erase(oldest);
    }
    std::weak_ptr<Scan> weak = scan;
    scan->job->start(
        [this, weak] {
          if (auto scan = weak.lock()) finishScan(scan);
        },
        [weak] {
          if (auto scan = weak.lock()) scan->live.show(scan->job->progress(), scan->job->current());
        });
    return scan->id;
  });
  answer(response, 201, {{"id", id}});
}

void App::finishScan(const std::shared_ptr<Scan>& scan) {
  auto text = std::make_shared<std::string>();
  scan->job->writeJson([&](std::string_view piece) { text->append(piece); });
  for (auto& path : scan->job->reportedPaths()) {
    std::string key = host::utf8Safe(path);
    scan->reported.emplace(std::move(key), std::move(path));
  }
  if (scan->kind == "apps") {
    // Each application's icon as its report names it: what the icon request may serve.
    json result = json::parse(*text, nullptr, false);
    if (result.is_object() && result.contains("apps")) {
      for (const auto& app : result.at("apps")) {
        if (!app.contains("icon") || !app.at("icon").is_string()) continue;
        if (auto path = host::unescapeText(app.at("icon").get<std::string>())) {
          scan->icons.emplace(app.at("id").get<std::string>(), *path);
        }
      }
    }
  }
  scan->live.settle(scan->job->stopped() ? "stopped" : "finished", std::move(text));
}

void App::showScan(const std::string& id, httplib::Response& response) {
  auto found = onMain([&] { return scan(id); });
  std::unique_lock lock(found->live.mutex);
  json head{{"id", found->id},
            {"kind", found->kind},
            {"state", found->live.state},
            {"progress", found->live.progress},
            {"current_path", host::jsonText(found->live.current)}};
  auto result = found->live.result;
  lock.unlock();
  std::string out = head.dump();
  out.pop_back();
  out += ",\"result\":";
  out += result ? *result : std::string("null");
  out += "}";
  response.set_content(std::move(out), "application/json");
}

void App::stopScan(const std::string& id, httplib::Response& response) {
  onMain([&] {
    auto found = scan(id);
    if (!found->job->finished()) found->job->stop();
  });
  showScan(id, response);
}

void App::startDeletion(const std::string& scanId, const httplib::Request& request,
                        httplib::Response& response) {
  json body = parseBody(request);
  std::vector<std::string> paths = stringList(body, "paths");
  std::vector<std::string> categories = stringList(body, "categories");
  if (paths.empty() && categories.empty()) {
    throw HttpError(400, "\"paths\" names nothing to delete");
  }
  if (body.contains("keep") && !body.at("keep").is_string()) {
    throw HttpError(400, "\"keep\" is first, newest, oldest or shortest-path");
  }
  auto rule = host::keepRuleNamed(body.value("keep", "first"));
  if (!rule) throw HttpError(400, "\"keep\" is first, newest, oldest or shortest-path");
  for (const auto& category : categories) {
    const auto& known = host::junkCategories();
    if (std::find(known.begin(), known.end(), category) == known.end()) {
      throw HttpError(400, "not a category of junk: " + host::displayText(category));
    }
  }
  std::string id = onMain([&] {
    auto found = scan(scanId);
    if (found->kind == "startup") throw HttpError(400, "a startup scan deletes nothing");
    if (!categories.empty() && found->kind != "junk") {
      throw HttpError(400, "only a junk scan deletes by category");
    }
    if (!found->job->finished()) throw HttpError(409, "the scan is still running");
    if (found->job->stopped()) {
      throw HttpError(409, "the scan was stopped: what it settled is shown, nothing is deleted");
    }
    for (const auto& [other, deletion] : deletions_) {
      if (deletion->job->running()) throw HttpError(409, "a deletion is running");
    }
    // Only what this scan reported may be named; anything else stops the whole request.
    std::set<std::string> chosen;
    for (const auto& text : paths) {
      auto member = found->reported.find(text);
      if (member == found->reported.end()) {
        throw HttpError(400, "not reported by this scan: " + host::displayText(text));
      }
      chosen.insert(member->second);
    }
    if (auto* junk = dynamic_cast<host::JunkScan*>(found->job.get()); junk && !categories.empty()) {
      for (auto& path : junk->paths({categories.begin(), categories.end()})) {
        // Only what is still there to name: a path already deleted stays deleted.
        if (found->reported.count(host::utf8Safe(path))) chosen.insert(std::move(path));
      }
    }
    auto deletion = std::make_shared<Deletion>();
    deletion->id = std::to_string(nextId_++);
    deletion->job = std::make_unique<host::DeletionJob>(
        found->dupes ? found->dupes->deletion(chosen, *rule) : found->job->deletion(chosen));
    found->deleting = true;
    std::weak_ptr<Deletion> weak = deletion;
    std::weak_ptr<Scan> weakScan = found;
    deletion->job->start(
        [weak, weakScan] {
          auto deletion = weak.lock();
          if (!deletion) return;
          const auto& outcome = deletion->job->outcome();
          if (auto scan = weakScan.lock()) {
            // What is gone can't be named again.
            for (const auto& path : outcome.deleted) scan->reported.erase(host::utf8Safe(path));
            scan->deleting = false;
          }
          deletion->live.settle(outcome.stopped ? "stopped" : "finished",
                                std::make_shared<std::string>(host::outcomeJson(outcome).dump()));
        },
        [weak] {
          if (auto deletion = weak.lock()) {
            deletion->live.show(deletion->job->progress(), deletion->job->current());
          }
        });
    deletions_[deletion->id] = deletion;
    return deletion->id;
  });
  answer(response, 201, {{"id", id}});
}

void App::showDeletion(const std::string& id, httplib::Response& response) {
  auto found = onMain([&] { return deletion(id); });
  std::unique_lock lock(found->live.mutex);
  json out{{"id", found->id},
           {"state", found->live.state},
           {"progress", found->live.progress},
           {"current_path", host::jsonText(found->live.current)}};
  if (found->live.result) out.update(json::parse(*found->live.result));
  lock.unlock();
  answer(response, 200, out);
}

namespace {

// The bytes of a regular file of at most `limit` bytes, opened without following a link: nothing
// when it can't be opened, no bytes when it is another kind of file or larger.
std::optional<std::string> readSmallFile(const std::string& path, std::int64_t limit) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat status;
  std::string bytes;
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= limit) {
    bytes.resize(static_cast<std::size_t>(status.st_size));
    std::size_t got = 0;
    while (got < bytes.size()) {
      ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    bytes.resize(got);
  }
  ::close(fd);
  return bytes;
}

}  // namespace

// An application's icon, as its applications scan reported it: PNG by its first bytes, or SVG
// (an image is never run as a page: the policy of every response holds for it too).
void App::icon(const std::string& scanId, const httplib::Request& request,
               httplib::Response& response) {
  std::string id = request.get_param_value("app");
  std::string path = onMain([&] {
    auto found = scan(scanId);
    auto icon = found->icons.find(id);
    if (icon == found->icons.end()) throw HttpError(404, "no icon reported for this application");
    return icon->second;
  });
  auto bytes = readSmallFile(path, 1 << 20);
  if (!bytes || bytes->empty()) throw HttpError(404, "gone");
  std::string_view head = std::string_view(*bytes).substr(0, 256);
  const char* type = head.starts_with("\x89PNG\r\n\x1a\n")         ? "image/png"
                     : head.find("<svg") != std::string_view::npos ? "image/svg+xml"
                                                                   : nullptr;
  if (!type) throw HttpError(415, "not a PNG or SVG icon");
  response.set_header("Cache-Control", "private, max-age=300");
  response.set_content(std::move(*bytes), type);
}

// A picture the scan reported, for its thumbnail: opened without following a link, a regular
// file, of a type told by its first bytes.
void App::picture(const std::string& scanId, const httplib::Request& request,
                  httplib::Response& response) {
  std::string text = request.get_param_value("path");
  std::string path = onMain([&] {
    auto found = scan(scanId);
    auto member = found->reported.find(text);
    if (member == found->reported.end()) throw HttpError(404, "not reported by this scan");
    return member->second;
  });
  auto read = readSmallFile(path, kMaxPicture);
  if (!read) throw HttpError(404, "gone");
  std::string bytes = std::move(*read);
  auto type = pictureType(std::string_view(bytes).substr(0, 16));
  if (!type) throw HttpError(415, "not a picture");
  response.set_header("Cache-Control", "private, max-age=300");
  response.set_content(std::move(bytes), type->c_str());
}

// Lists the startup items afresh, switches the one named and answers the state read back.
void App::switchStartup(const httplib::Request& request, httplib::Response& response) {
  json body = parseBody(request);
  if (!body.contains("item") || !body.at("item").is_string()) {
    throw HttpError(400, "\"item\" names no startup item");
  }
  if (!body.contains("enabled") || !body.at("enabled").is_boolean()) {
    throw HttpError(400, "\"enabled\" is not true or false");
  }
  auto item = host::unescapeText(body.at("item").get<std::string>());
  if (!item) throw HttpError(400, "\"item\" holds an escape the reports never write");
  const bool enabled = body.at("enabled").get<bool>();
  using Answer = std::pair<int, json>;
  auto promise = std::make_shared<std::promise<Answer>>();
  auto future = promise->get_future();
  onMain([&] {
    auto scan = std::make_shared<host::StartupScan>(true);
    std::weak_ptr<host::StartupScan> weak = scan;
    scan->start([weak, scan, promise, name = *item, enabled]() mutable {
      host::Switched switched{};
      Answer answer{200, json::object()};
      try {
        host::switchStartupItem(weak.lock()->items(), name, enabled, switched);
      } catch (const host::CommandError& error) {
        answer = {error.status == host::kUsage ? 400 : 409, {{"error", error.message}}};
      }
      if (!switched.name.empty()) {
        answer.second.update({{"item", host::jsonText(switched.name)},
                              {"enabled", switched.enabled},
                              {"state", switched.state}});
      }
      promise->set_value(std::move(answer));
      // The listing goes once it has answered, after its report has returned.
      platform::DispatchQueue::main().async([keep = std::move(scan)] {});
    });
  });
  if (future.wait_for(5min) != std::future_status::ready) {
    throw HttpError(500, "the startup items could not be listed");
  }
  auto [status, out] = future.get();
  answer(response, status, out);
}

void App::home(httplib::Response& response) {
  const std::string home = platform::currentLocations().home;
  json folders = json::array();
  if (auto entries = platform::listDirectory(home, platform::Follow::no); entries.ok()) {
    std::vector<std::string> names;
    for (const auto& entry : *entries) {
      if (entry.isDirectory() && !entry.name.starts_with(".")) names.push_back(entry.name);
    }
    std::sort(names.begin(), names.end());
    for (const auto& name : names) folders.push_back(host::jsonText(name));
  }
  answer(response, 200, {{"home", host::jsonText(home)}, {"folders", folders}});
}

// Server-sent events: `progress` at least five times a second while the job runs, then
// `finished` with its state, then the end of the stream.
void App::liveStream(std::shared_ptr<void> owner, Live& live, httplib::Response& response) {
  takeStream();
  response.set_header("Cache-Control", "no-store");
  response.set_chunked_content_provider(
      "text/event-stream",
      [this, owner, &live](std::size_t, httplib::DataSink& sink) {
        std::unique_lock lock(live.mutex);
        live.settled.wait_for(lock, 150ms, [&] { return live.state != "running"; });
        std::string state = live.state;
        json progress{{"progress", live.progress}, {"current_path", host::jsonText(live.current)}};
        lock.unlock();
        if (stopping_) {
          sink.done();
          return true;
        }
        std::string out = "event: progress\ndata: " + progress.dump() + "\n\n";
        if (state != "running")
          out += "event: finished\ndata: " + json{{"state", state}}.dump() + "\n\n";
        if (!sink.write(out.data(), out.size())) return false;
        if (state != "running") sink.done();
        return true;
      },
      [this, owner](bool) { --streams_; });
}

// A `snapshot` every second: each processor's use and the network's rates since the last.
void App::monitorStream(httplib::Response& response) {
  takeStream();
  auto previous = std::make_shared<host::Snapshot>(onMain([] { return host::takeSnapshot(); }));
  response.set_header("Cache-Control", "no-store");
  response.set_chunked_content_provider(
      "text/event-stream",
      [this, previous](std::size_t, httplib::DataSink& sink) {
        {
          std::unique_lock lock(stopMutex_);
          stopped_.wait_for(lock, 1s, [&] { return stopping_.load(); });
        }
        if (stopping_) {
          sink.done();
          return true;
        }
        host::Snapshot now = onMain([] { return host::takeSnapshot(); });
        json event{
            {"cpu", host::busyPercent(*previous, now)}, {"network", nullptr}, {"memory", nullptr}};
        if (auto rates = host::networkRates(*previous, now)) {
          event["network"] = {{"in", rates->in}, {"out", rates->out}};
        }
        if (now.memory) {
          event["memory"] = {{"total", now.memory->totalSize}, {"free", now.memory->freeSize}};
        }
        *previous = std::move(now);
        std::string out = "event: snapshot\ndata: " + event.dump() + "\n\n";
        return sink.write(out.data(), out.size());
      },
      [this](bool) { --streams_; });
}

void App::routes(httplib::Server& server) {
  server.set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        return guard(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                        : httplib::Server::HandlerResponse::Handled;
      });
  server.set_post_routing_handler([](const httplib::Request& request, httplib::Response& response) {
    response.set_header("Content-Security-Policy",
                        "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; "
                        "form-action 'none'");
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("X-Frame-Options", "DENY");
    response.set_header("Cross-Origin-Resource-Policy", "same-origin");
    if (request.path.starts_with("/api/") && !response.has_header("Cache-Control")) {
      response.set_header("Cache-Control", "no-store");
    }
  });
  server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& response, std::exception_ptr failure) {
        try {
          std::rethrow_exception(failure);
        } catch (const HttpError& error) {
          answer(response, error.status, {{"error", error.what()}});
        } catch (const std::exception& error) {
          answer(response, 500, {{"error", error.what()}});
        } catch (...) {
          answer(response, 500, {{"error", "an unknown failure"}});
        }
      });
  server.set_error_handler([](const httplib::Request& request, httplib::Response& response) {
    if (!response.body.empty()) return;
    const char* message = response.status == 404   ? "not found"
                          : response.status == 413 ? "the body is larger than 1 MiB"
                          : response.status == 405 ? "not a method this path takes"
                                                   : "a bad request";
    answer(response, response.status, {{"error", message}});
  });

  auto wrap = [](auto handler) {
    return [handler](const httplib::Request& request, httplib::Response& response) {
      handler(request, response);
    };
  };
  server.Get("/api/monitor", wrap([](const httplib::Request&, httplib::Response& response) {
               answer(response, 200,
                      host::snapshotJson(onMain([] { return host::takeSnapshot(); })));
             }));
  server.Get("/api/monitor/events",
             wrap([this](const httplib::Request&, httplib::Response& response) {
               monitorStream(response);
             }));
  server.Get("/api/disk", wrap([](const httplib::Request&, httplib::Response& response) {
               auto disk = onMain([] { return host::startupDiskJson(); });
               if (!disk) throw HttpError(500, "cannot read the start-up disk");
               answer(response, 200, *disk);
             }));
  server.Post("/api/monitor/free-memory",
              wrap([](const httplib::Request& request, httplib::Response& response) {
                parseBody(request);
                answer(response, 200, onMain([] { return host::freeMemory(); }));
              }));
  server.Get("/api/helper", wrap([](const httplib::Request&, httplib::Response& response) {
               auto promise = std::make_shared<std::promise<json>>();
               auto future = promise->get_future();
               onMain([&] {
                 host::helperStatus([promise](json out) { promise->set_value(std::move(out)); });
               });
               if (future.wait_for(30s) != std::future_status::ready) {
                 throw HttpError(500, "the helper's status could not be read");
               }
               answer(response, 200, future.get());
             }));
  // The rule document built in, or one sent to be checked; with "for", what serves an identifier.
  server.Get("/api/rules", wrap([](const httplib::Request& request, httplib::Response& response) {
               const std::string id = request.get_param_value("for");
               auto report = onMain([&] {
                 return host::readRules(std::string(resources::ruleDocument()), "rule.yaml", id);
               });
               answer(response, 200, report.json());
             }));
  server.Post(
      "/api/rules/check", wrap([](const httplib::Request& request, httplib::Response& response) {
        json body = parseBody(request);
        if (!body.contains("document") || !body.at("document").is_string()) {
          throw HttpError(400, "\"document\" holds no rule document");
        }
        if (body.contains("for") && !body.at("for").is_string()) {
          throw HttpError(400, "\"for\" is not an identifier");
        }
        const std::string document = body.at("document").get<std::string>();
        const std::string id = body.value("for", "");
        try {
          auto report = onMain([&] { return host::readRules(document, "the document", id); });
          answer(response, 200, report.json());
        } catch (const host::CommandError& error) {
          throw HttpError(400, error.message);
        }
      }));
  server.Get("/api/home", wrap([this](const httplib::Request&, httplib::Response& response) {
               home(response);
             }));
  server.Post("/api/scans",
              wrap([this](const httplib::Request& request, httplib::Response& response) {
                startScan(request, response);
              }));
  server.Post("/api/startup",
              wrap([this](const httplib::Request& request, httplib::Response& response) {
                switchStartup(request, response);
              }));
  server.Get(R"(/api/scans/(\d+))",
             wrap([this](const httplib::Request& request, httplib::Response& response) {
               showScan(request.matches[1], response);
             }));
  server.Delete(R"(/api/scans/(\d+))",
                wrap([this](const httplib::Request& request, httplib::Response& response) {
                  stopScan(request.matches[1], response);
                }));
  server.Get(R"(/api/scans/(\d+)/events)",
             wrap([this](const httplib::Request& request, httplib::Response& response) {
               auto found = onMain([&] { return scan(request.matches[1]); });
               liveStream(found, found->live, response);
             }));
  server.Get(R"(/api/scans/(\d+)/picture)",
             wrap([this](const httplib::Request& request, httplib::Response& response) {
               picture(request.matches[1], request, response);
             }));
  server.Get(R"(/api/scans/(\d+)/icon)",
             wrap([this](const httplib::Request& request, httplib::Response& response) {
               icon(request.matches[1], request, response);
             }));
  server.Post(R"(/api/scans/(\d+)/deletions)",
              wrap([this](const httplib::Request& request, httplib::Response& response) {
                startDeletion(request.matches[1], request, response);
              }));
  server.Get(R"(/api/deletions/(\d+))",
             wrap([this](const httplib::Request& request, httplib::Response& response) {
               showDeletion(request.matches[1], response);
             }));
  server.Delete(R"(/api/deletions/(\d+))",
                wrap([this](const httplib::Request& request, httplib::Response& response) {
                  onMain([&] {
                    auto found = deletion(request.matches[1]);
                    if (found->job->running()) found->job->stop();
                  });
                  showDeletion(request.matches[1], response);
                }));
  server.Get(R"(/api/deletions/(\d+)/events)",
             wrap([this](const httplib::Request& request, httplib::Response& response) {
               auto found = onMain([&] { return deletion(request.matches[1]); });
               liveStream(found, found->live, response);
             }));
  server.Get(R"(/api/.*)", [](const httplib::Request&, httplib::Response& response) {
    answer(response, 404, {{"error", "not found"}});
  });
  server.Get(R"(/.*)", [this](const httplib::Request& request, httplib::Response& response) {
    page(request, response);
  });
}

// Asks the desktop to open `address`, where there is a desktop.
void openInBrowser(const std::string& address) {
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
    std::fprintf(stderr,
                 "ravelin serve: no desktop to open the page in; visit the address above\n");
    return;
  }
  const char* argv[] = {"xdg-open", address.c_str(), nullptr};
  pid_t child;
  if (::posix_spawnp(&child, "xdg-open", nullptr, nullptr, const_cast<char**>(argv), environ) !=
      0) {
    std::fprintf(stderr, "ravelin serve: xdg-open could not be run; visit the address above\n");
    return;
  }
  // xdg-open hands the address over and ends; its end is collected out of the way.
  std::thread([child] { ::waitpid(child, nullptr, 0); }).detach();
}

}  // namespace

void serve(const ServeOptions& options) {
  host::InterruptGuard interrupt;
  httplib::Server server;
  server.new_task_queue = [] { return new httplib::ThreadPool(16); };
  server.set_payload_max_length(kMaxBody);
  // A response goes out in two writes (head, body): without this each waits for a delayed ACK.
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(1000);
  // An idle connection holds a thread, and the end of the server waits for it.
  server.set_keep_alive_timeout(1);
  int port = options.port;
  if (port == 0) {
    port = server.bind_to_any_port("127.0.0.1");
  } else if (!server.bind_to_port("127.0.0.1", port)) {
    port = -1;
  }
  if (port <= 0) {
    throw host::CommandError{host::kFailure,
                             fmt::format("cannot listen on 127.0.0.1:{}", options.port)};
  }
  App app(port, newToken());
  const std::string address = fmt::format("http://127.0.0.1:{}/?token=", port);
  app.routes(server);
  std::atomic<bool> listening{true};
  std::thread listener([&] {
    server.listen_after_bind();
    listening = false;
  });
  if (options.listening) options.listening(address + app.token());
  if (options.open) openInBrowser(address + app.token());

  while (!interrupt.interrupted() && listening) {
    platform::runMainUntil([&] { return interrupt.interrupted() || !listening; }, 100ms);
  }
  // Running jobs stop cleanly and settle; then the streams end and the server with them, while
  // the main queue still answers the requests in flight.
  app.stopAll();
  platform::runMainUntil([&] { return app.settled(); }, 60s);
  app.shutdown();
  server.stop();
  while (listening) platform::runMainUntil([&] { return !listening.load(); }, 100ms);
  listener.join();
}

}  // namespace web

#include "platform/url_session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

using namespace std::chrono_literals;

// Long enough for a loaded sanitizer build; a passing test never waits for it.
constexpr auto kPatience = 20s;

// An HTTP server on 127.0.0.1 and an ephemeral port, listening on its own thread.
class LoopbackServer {
 public:
  explicit LoopbackServer(const std::function<void(httplib::Server&)>& routes) {
    routes(server_);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is ignored until the accept loop runs.
    while (!server_.is_running()) {
      std::this_thread::sleep_for(1ms);
    }
  }
  ~LoopbackServer() {
    server_.stop();
    thread_.join();
  }
  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
};

// Accepts connections on 127.0.0.1 and reads one request from each, `chunk` bytes at a time
// with `pause` after each read, keeping its exact bytes, then either answers with `reply` or,
// when it is empty, closes the connection unanswered.
class RawServer {
 public:
  explicit RawServer(std::string reply, std::size_t chunk = 4096,
                     std::chrono::milliseconds pause = 0ms)
      : reply_(std::move(reply)), chunk_(chunk), pause_(pause) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (pause_ > 0ms) {
      // A small window, so that the client sees the slow reading as slow sending.
      const int window = static_cast<int>(chunk_);
      ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &window, sizeof window);
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_, 8);
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~RawServer() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }
  std::vector<std::string> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    for (int connection; (connection = ::accept(listener_, nullptr, nullptr)) >= 0;) {
      std::string received;
      std::vector<char> buffer(chunk_);
      while (!complete(received)) {
        const ssize_t count = ::recv(connection, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
          break;
        }
        received.append(buffer.data(), static_cast<size_t>(count));
        std::this_thread::sleep_for(pause_);
      }
      {
        std::lock_guard lock(mutex_);
        requests_.push_back(received);
      }
      if (!reply_.empty()) {
        ::send(connection, reply_.data(), reply_.size(), MSG_NOSIGNAL);
      }
      ::close(connection);
    }
  }

  static bool complete(const std::string& received) {
    const auto end = received.find("\r\n\r\n");
    if (end == std::string::npos) {
      return false;
    }
    const auto lengthAt = received.find("Content-Length: ");
    if (lengthAt == std::string::npos || lengthAt > end) {
      return true;
    }
    return received.size() >= end + 4 + std::stoul(received.substr(lengthAt + 16));
  }

  const std::string reply_;
  const std::size_t chunk_;
  const std::chrono::milliseconds pause_;
  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;  // owns requests_
  std::vector<std::string> requests_;
};

struct Outcome {
  std::optional<Bytes> data;
  std::optional<HTTPURLResponse> response;
  std::optional<Error> error;
  std::thread::id thread;
};

// Collects completions by task number; counts every call so that a second completion of the
// same task is caught.
class Recorder {
 public:
  DataTaskCompletion completion(int task) {
    return [this, task](std::optional<Bytes> data, std::optional<HTTPURLResponse> response,
                        std::optional<Error> error) {
      std::lock_guard lock(mutex_);
      outcomes_[task].push_back(Outcome{std::move(data), std::move(response), std::move(error),
                                        std::this_thread::get_id()});
      ++calls_;
      changed_.notify_all();
    };
  }
  bool waitForCalls(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return calls_ >= count; });
  }
  int calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  // The single outcome of `task`; fails the test when there is not exactly one.
  Outcome only(int task) const {
    std::lock_guard lock(mutex_);
    const auto found = outcomes_.find(task);
    const bool one = found != outcomes_.end() && found->second.size() == 1;
    EXPECT_TRUE(one) << "task " << task;
    return one ? found->second.front() : Outcome{};
  }
  // The error code of the single outcome of `task`; 0 without an error.
  std::int64_t code(int task) const {
    const auto outcome = only(task);
    return outcome.error ? outcome.error->code : 0;
  }

 private:
  mutable std::mutex mutex_;  // owns outcomes_ and calls_
  std::condition_variable changed_;
  std::map<int, std::vector<Outcome>> outcomes_;
  int calls_ = 0;
};

URLRequest get(std::string url) {
  URLRequest request;
  request.url = std::move(url);
  return request;
}

std::int64_t code(URLErrorCode value) {
  return static_cast<std::int64_t>(value);
}

std::shared_ptr<URLSession> session(std::chrono::milliseconds timeout = 10s, int connections = 1) {
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = timeout;
  configuration.httpMaximumConnectionsPerHost = connections;
  auto made = makeURLSession(configuration);
  EXPECT_NE(made, nullptr);
  return made;
}

TEST(URLSessionExchange, RequestAndAnswerCrossTheWireAsTheyAre) {
  // An interim answer with a field of its own first, a folded field, a field twice.
  RawServer server(
      "HTTP/1.1 100 Continue\r\nX-Interim: 1\r\n\r\nHTTP/1.1 201 Created\r\nContent-Length: "
      "2\r\nX-A: 1\r\n"
      "X-B: one\r\n two\r\nX-A: 2\r\n\r\nok");
  auto urlSession = session();
  URLRequest request;
  request.url = server.url("/api/v1.3/ingest/bulk/");
  request.httpMethod = "POST";
  request.addValue("application/json", "Content-Type");
  request.addValue("Bearer abc", "Authorization");
  request.addValue("first", "Source");
  request.addValue("0.1.0", "Version");
  request.addValue("second", "Source");
  request.addValue("", "Empty");
  request.httpBody = toBytes(R"([{"a":1}])");
  Recorder recorder;
  urlSession->dataTask(request, recorder.completion(0))->resume();
  ASSERT_TRUE(recorder.waitForCalls(1));

  const Outcome outcome = recorder.only(0);
  ASSERT_FALSE(outcome.error) << outcome.error->text();
  EXPECT_EQ(outcome.response->statusCode, 201);
  EXPECT_EQ(outcome.response->url, server.url("/api/v1.3/ingest/bulk/"));
  EXPECT_EQ(toString(*outcome.data), "ok");
  EXPECT_EQ(outcome.response->headerFields,
            (HTTPHeaders{{"Content-Length", "2"}, {"X-A", "1"}, {"X-B", "one two"}, {"X-A", "2"}}));
  EXPECT_NE(outcome.thread, std::this_thread::get_id());

  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests().front(),
            "POST /api/v1.3/ingest/bulk/ HTTP/1.1\r\nHost: " + server.url("").substr(7) +
                "\r\nAccept: */*\r\nContent-Type: application/json\r\nAuthorization: Bearer "
                "abc\r\nSource: first\r\nVersion: 0.1.0\r\nSource: second\r\nEmpty:\r\n"
                "Content-Length: 9\r\n\r\n[{\"a\":1}]");
}

TEST(URLSessionConnections, OneConnectionPerHostCarriesRequestsOneAfterAnother) {
  std::mutex mutex;  // owns the three below
  int inside = 0;
  int mostInside = 0;
  std::set<int> ports;
  LoopbackServer server([&](httplib::Server& s) {
    s.Get("/work", [&](const httplib::Request& req, httplib::Response& res) {
      {
        std::lock_guard lock(mutex);
        ports.insert(req.remote_port);
        mostInside = std::max(mostInside, ++inside);
      }
      // Gives a second connection, if there were one, the time to arrive.
      std::this_thread::sleep_for(150ms);
      std::lock_guard lock(mutex);
      --inside;
      res.set_content("done", "text/plain");
    });
  });
  // Three requests behind the one connection take 450 ms in all, each well within 400 ms: the
  // wait for the connection is not counted.
  auto urlSession = session(400ms);
  Recorder recorder;
  for (int task = 0; task < 3; ++task) {
    urlSession->dataTask(get(server.url("/work")), recorder.completion(task))->resume();
  }
  ASSERT_TRUE(recorder.waitForCalls(3));
  for (int task = 0; task < 3; ++task) {
    EXPECT_EQ(recorder.code(task), 0) << recorder.only(task).error->text();
  }
  std::lock_guard lock(mutex);
  EXPECT_EQ(mostInside, 1);
  EXPECT_EQ(ports.size(), 1u) << "the connection was not kept alive";
}

TEST(URLSessionFailures, TimeOutCountsOnlyTimeWithoutProgressUpToTheResourceLimit) {
  // The server takes in the upload slowly but steadily: the exchange lasts several time-outs,
  // yet no pause in it comes near one.
  RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", 64 * 1024, 15ms);
  auto urlSession = session(400ms);
  URLRequest request = get(server.url("/ingest"));
  request.httpMethod = "POST";
  request.httpBody = Bytes(4 << 20, '7');
  Recorder recorder;
  const auto started = std::chrono::steady_clock::now();
  urlSession->dataTask(request, recorder.completion(0))->resume();
  ASSERT_TRUE(recorder.waitForCalls(1));
  const auto elapsed = std::chrono::steady_clock::now() - started;

  const Outcome outcome = recorder.only(0);
  ASSERT_FALSE(outcome.error) << outcome.error->text();
  EXPECT_EQ(outcome.response->statusCode, 200);
  // Longer than the time-out as a whole, which is what the test is about.
  EXPECT_GT(elapsed, 400ms);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(server.requests()[0].ends_with(std::string(16, '7')));

  // However steadily it moves, a request has its limit as a whole.
  URLSessionConfiguration capped;
  capped.timeoutIntervalForResource = 300ms;
  auto cappedSession = makeURLSession(capped);
  ASSERT_TRUE(cappedSession);
  cappedSession->dataTask(request, recorder.completion(1))->resume();
  ASSERT_TRUE(recorder.waitForCalls(2));
  const Outcome cut = recorder.only(1);
  ASSERT_TRUE(cut.error);
  EXPECT_EQ(cut.error->code, code(URLErrorCode::timedOut));
  EXPECT_TRUE(cut.error->description.starts_with("curl error 28:")) << cut.error->description;
}

TEST(URLSessionFailures, TransportFailuresAndBadHeaderFieldsMapToTheirCodes) {
  // Bound but not listening: connections are refused, and no client socket can take the port
  // (a free port in the ephemeral range may otherwise connect to itself).
  const int refuser = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(refuser, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(refuser, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string closedPort = std::to_string(ntohs(address.sin_port));
  RawServer dropper("");
  auto urlSession = session(5s);

  URLRequest injected = get(dropper.url("/injected"));
  injected.addValue("x\r\nEvil: 1", "Source");
  URLRequest badName = get(dropper.url("/bad-name"));
  badName.addValue("1", "Bad:Name");
  struct Case {
    URLRequest request;
    URLErrorCode expected;
    std::string description;  // how it starts
  };
  const std::vector<Case> cases = {
      {get("http://127.0.0.1:" + closedPort + "/"), URLErrorCode::cannotConnectToHost,
       "curl error 7:"},
      {get(dropper.url("/drop")), URLErrorCode::networkConnectionLost, "curl error 52:"},
      {get("http://127.0.0.1:99999/"), URLErrorCode::badURL, "curl error 3:"},
      {get(""), URLErrorCode::badURL, ""},
      {get("ftp://127.0.0.1/file"), URLErrorCode::unsupportedURL, "curl error 1:"},
      {get("file:///etc/passwd"), URLErrorCode::unsupportedURL, "curl error 1:"},
      // Refused before anything is sent.
      {injected, URLErrorCode::badURL, "invalid header field \"Source\""},
      {badName, URLErrorCode::badURL, "invalid header field \"Bad:Name\""},
  };
  Recorder recorder;
  for (size_t i = 0; i < cases.size(); ++i) {
    urlSession->dataTask(cases[i].request, recorder.completion(static_cast<int>(i)))->resume();
  }
  ASSERT_TRUE(recorder.waitForCalls(static_cast<int>(cases.size())));
  for (size_t i = 0; i < cases.size(); ++i) {
    const Outcome outcome = recorder.only(static_cast<int>(i));
    ASSERT_TRUE(outcome.error) << cases[i].request.url;
    EXPECT_EQ(outcome.error->domain, kURLErrorDomain);
    EXPECT_EQ(outcome.error->code, code(cases[i].expected))
        << cases[i].request.url << ": " << outcome.error->description;
    EXPECT_TRUE(outcome.error->description.starts_with(cases[i].description))
        << outcome.error->description;
    EXPECT_FALSE(outcome.response || outcome.data);
  }
  ASSERT_EQ(dropper.requests().size(), 1u);
  EXPECT_TRUE(dropper.requests()[0].starts_with("GET /drop "));
  ::close(refuser);
}

// A server whose "/held" answers once the test sets `released_` (or after five seconds, so that
// a failing test leaves no handler stuck), and "/quick" at once.
class URLSessionCancellation : public ::testing::Test {
 protected:
  URLSessionCancellation()
      : server_([this](httplib::Server& s) {
          s.Get("/held", [this](const httplib::Request&, httplib::Response& res) {
            arrived_.fetch_add(1);
            for (int i = 0; i < 5000 && !released_; ++i) {
              std::this_thread::sleep_for(1ms);
            }
            res.set_content("released", "text/plain");
          });
          s.Get("/quick", [this](const httplib::Request&, httplib::Response& res) {
            arrived_.fetch_add(1);
            res.set_content("quick", "text/plain");
          });
        }) {}
  ~URLSessionCancellation() override { released_ = true; }

  void waitForArrivals(int count) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (arrived_.load() < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(5ms);
    }
    ASSERT_GE(arrived_.load(), count);
  }

  std::atomic<bool> released_{false};
  std::atomic<int> arrived_{0};
  LoopbackServer server_;
};

TEST_F(URLSessionCancellation, CancelInFlightOrBeforeResumeCompletesOnceWithCancelled) {
  auto urlSession = session();
  Recorder recorder;
  auto held = urlSession->dataTask(get(server_.url("/held")), recorder.completion(0));
  held->resume();
  waitForArrivals(1);
  held->cancel();
  ASSERT_TRUE(recorder.waitForCalls(1));
  held->cancel();
  held->resume();
  released_ = true;
  auto never = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1));
  never->cancel();
  never->resume();
  // A later request on the same thread flushes any late second completion of the others.
  urlSession->dataTask(get(server_.url("/quick")), recorder.completion(2))->resume();
  ASSERT_TRUE(recorder.waitForCalls(3));
  EXPECT_EQ(recorder.code(0), code(URLErrorCode::cancelled));
  EXPECT_EQ(recorder.only(0).error->domain, kURLErrorDomain);
  EXPECT_EQ(recorder.code(1), code(URLErrorCode::cancelled));
  EXPECT_EQ(recorder.code(2), 0);
  EXPECT_EQ(recorder.calls(), 3);
  EXPECT_EQ(arrived_.load(), 2);
}

TEST_F(URLSessionCancellation, InvalidatingOrReleasingCompletesEveryOutstandingTaskOnce) {
  for (const bool invalidate : {true, false}) {
    Recorder recorder;
    std::shared_ptr<URLSessionDataTask> survivor;
    {
      auto urlSession = session();
      urlSession->dataTask(get(server_.url("/held")), recorder.completion(0))->resume();
      // Queued behind the held one on the single connection.
      urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1))->resume();
      survivor = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(2));
      waitForArrivals(invalidate ? 1 : 2);
      if (invalidate) {
        urlSession->invalidateAndCancel();
        ASSERT_TRUE(recorder.waitForCalls(3));
        // After invalidation a new task is refused with the same error.
        urlSession->dataTask(get(server_.url("/quick")), recorder.completion(3))->resume();
        ASSERT_TRUE(recorder.waitForCalls(4));
        survivor->resume();
      }
    }
    // Completed by the time the session is gone, while the server still holds the request.
    const int tasks = invalidate ? 4 : 3;
    EXPECT_EQ(recorder.calls(), tasks);
    for (int task = 0; task < tasks; ++task) {
      EXPECT_EQ(recorder.code(task), code(URLErrorCode::cancelled)) << task;
    }
    // A task never resumed, or outliving its session, does nothing.
    survivor->resume();
    survivor->cancel();
    EXPECT_EQ(recorder.calls(), tasks);
  }
  EXPECT_EQ(arrived_.load(), 2);
}

TEST_F(URLSessionCancellation, ACompletionMayStartTheNextTaskAndReleaseItsSession) {
  auto holder = session();
  const std::weak_ptr<URLSession> watch = holder;
  std::promise<void> released;
  auto second = holder->dataTask(get(server_.url("/quick")), [&](auto, auto, auto error) {
    EXPECT_FALSE(error);
    holder.reset();  // the last owner: the session goes away on its own thread
    released.set_value();
  });
  holder
      ->dataTask(get(server_.url("/quick")),
                 [&](auto, auto, auto error) {
                   EXPECT_FALSE(error);
                   second->resume();
                 })
      ->resume();
  ASSERT_EQ(released.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(watch.expired());
}

TEST_F(URLSessionCancellation, ManyConcurrentTasksEachCompleteExactlyOnce) {
  released_ = true;
  auto urlSession = session(10s, 2);
  Recorder recorder;
  constexpr int kThreads = 4;
  constexpr int kPerThread = 40;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int i = 0; i < kPerThread; ++i) {
        auto task = urlSession->dataTask(get(server_.url(i % 2 ? "/quick" : "/held")),
                                         recorder.completion(t * kPerThread + i));
        // Cancelled only, resumed then cancelled, cancelled then resumed, or resumed only.
        const auto way = random() % 4;
        if (way == 1 || way == 3) {
          task->resume();
        }
        if (way != 3) {
          task->cancel();
        }
        if (way == 2) {
          task->resume();
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  ASSERT_TRUE(recorder.waitForCalls(kThreads * kPerThread));
  std::set<std::thread::id> completionThreads;
  for (int id = 0; id < kThreads * kPerThread; ++id) {
    const Outcome outcome = recorder.only(id);
    completionThreads.insert(outcome.thread);
    if (outcome.error) {
      EXPECT_EQ(outcome.error->code, code(URLErrorCode::cancelled)) << outcome.error->text();
    } else {
      EXPECT_EQ(outcome.response->statusCode, 200);
    }
  }
  EXPECT_EQ(completionThreads.size(), 1u);
  urlSession.reset();
  EXPECT_EQ(recorder.calls(), kThreads * kPerThread);
}

}  // namespace
}  // namespace kestrova

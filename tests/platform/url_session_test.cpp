#include "platform/url_session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace kestrova {
namespace {

using namespace std::chrono_literals;

// Long enough for a loaded sanitizer build; a passing test never waits for it.
constexpr auto kPatience = 20s;

// Accepts connections on 127.0.0.1, each on a thread of its own, reads one request from each
// keeping its exact bytes (pausing `pace` after each read of up to 64 KiB), and answers with
// `reply` once `hold` has returned.
class RawServer {
 public:
  explicit RawServer(std::string reply, std::function<void(const std::string&)> hold = {},
                     std::chrono::milliseconds pace = {})
      : reply_(std::move(reply)), hold_(std::move(hold)), pace_(pace) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
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
    std::vector<std::thread> answering;
    for (int connection; (connection = ::accept(listener_, nullptr, nullptr)) >= 0;) {
      answering.emplace_back([this, connection] { answer(connection); });
    }
    for (auto& thread : answering) {
      thread.join();
    }
  }

  void answer(int connection) {
    std::string received;
    std::vector<char> buffer(64 * 1024);
    while (!complete(received)) {
      const ssize_t count = ::recv(connection, buffer.data(), buffer.size(), 0);
      if (count <= 0) {
        break;
      }
      received.append(buffer.data(), static_cast<size_t>(count));
      std::this_thread::sleep_for(pace_);
    }
    {
      std::lock_guard lock(mutex_);
      requests_.push_back(received);
    }
    if (hold_) {
      hold_(received);
    }
    ::send(connection, reply_.data(), reply_.size(), MSG_NOSIGNAL);
    ::close(connection);
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
  const std::function<void(const std::string&)> hold_;
  const std::chrono::milliseconds pace_;
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

std::shared_ptr<URLSession> session(int connections = 1) {
  URLSessionConfiguration configuration;
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

TEST(URLSessionFailures, TransportFailuresAndInjectedHeaderFieldsMapToTheirCodes) {
  URLRequest injected = get("http://127.0.0.1:1/injected");
  injected.addValue("x\r\nEvil: 1", "Source");
  struct Case {
    URLRequest request;
    URLErrorCode expected;
    std::string description;  // how it starts
  };
  // Nothing listens on port 1: the connection is refused.
  const std::vector<Case> cases = {
      {get("http://127.0.0.1:1/"), URLErrorCode::cannotConnectToHost, "curl error 7:"},
      {get("http://127.0.0.1:99999/"), URLErrorCode::badURL, "curl error 3:"},
      {get("file:///etc/passwd"), URLErrorCode::unsupportedURL, "curl error 1:"},
      // Refused before anything is sent.
      {injected, URLErrorCode::badURL, "invalid header field \"Source\""},
  };
  auto urlSession = session();
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
}

// An upload on a slow link moves all the time: only a pause without progress may time it out,
// or a large file would never get through.
TEST(URLSessionFailures, TheTimeOutCountsOnlyTimeWithoutProgress) {
  RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", {}, 15ms);
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = 300ms;
  auto slow = makeURLSession(configuration);
  ASSERT_TRUE(slow);
  URLRequest request = get(server.url("/ingest"));
  request.httpMethod = "POST";
  request.httpBody = Bytes(4 << 20, '7');  // 64 reads of 15 ms: several time-outs in all
  Recorder recorder;
  slow->dataTask(request, recorder.completion(0))->resume();
  ASSERT_TRUE(recorder.waitForCalls(1));
  const Outcome outcome = recorder.only(0);
  ASSERT_FALSE(outcome.error) << outcome.error->text();
  EXPECT_EQ(outcome.response->statusCode, 200);
}

// A server that answers "/held" once the test sets `released_` (or after five seconds, so that
// a failing test leaves no answer stuck), and everything else at once.
class URLSessionCancellation : public ::testing::Test {
 protected:
  ~URLSessionCancellation() override { released_ = true; }

  void waitForArrivals(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (server_.requests().size() < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(5ms);
    }
    ASSERT_GE(server_.requests().size(), count);
  }

  std::atomic<bool> released_{false};
  RawServer server_{"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok",
                    [this](const std::string& request) {
                      for (int i = 0; i < 5000 && !released_ && request.starts_with("GET /held ");
                           ++i) {
                        std::this_thread::sleep_for(1ms);
                      }
                    }};
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
  EXPECT_EQ(recorder.code(1), code(URLErrorCode::cancelled));
  EXPECT_EQ(recorder.code(2), 0);
  EXPECT_EQ(recorder.calls(), 3);
  EXPECT_EQ(server_.requests().size(), 2u);
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
  EXPECT_EQ(server_.requests().size(), 2u);
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
  auto urlSession = session(2);
  Recorder recorder;
  constexpr int kThreads = 4;
  constexpr int kPerThread = 40;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        auto task = urlSession->dataTask(get(server_.url(i % 2 ? "/quick" : "/held")),
                                         recorder.completion(t * kPerThread + i));
        // Cancelled only, resumed then cancelled, cancelled then resumed, or resumed only.
        const int way = (t + i / 2) % 4;
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

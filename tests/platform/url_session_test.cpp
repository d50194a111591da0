#include "platform/url_session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
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

// A latch that server handlers wait on; it opens by itself after a deadline so that a failing
// test never leaves a handler thread stuck.
class Gate {
 public:
  void open() {
    std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void wait(std::chrono::milliseconds limit = 5000ms) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return open_; });
  }

 private:
  std::mutex mutex_;  // owns open_
  std::condition_variable changed_;
  bool open_ = false;
};

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

// How fast a server takes in a request: `bytes` at a time with a pause after each read.
struct ReadingPace {
  std::size_t bytes = 4096;
  std::chrono::milliseconds pause{0};
};

// Accepts connections on 127.0.0.1 and reads one request from each, at `pace`, keeping its
// exact bytes, then either answers with `reply` or, when it is empty, closes the connection
// unanswered.
class RawServer {
 public:
  explicit RawServer(std::string reply, ReadingPace pace = {})
      : reply_(std::move(reply)), pace_(pace) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    if (pace_.pause > 0ms) {
      // A small window, so that the client sees the slow reading as slow sending.
      const int window = static_cast<int>(pace_.bytes);
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
    for (;;) {
      const int connection = ::accept(listener_, nullptr, nullptr);
      if (connection < 0) {
        return;
      }
      std::string received;
      std::vector<char> buffer(pace_.bytes);
      while (!complete(received)) {
        const ssize_t count = ::recv(connection, buffer.data(), buffer.size(), 0);
        if (count <= 0) {
          break;
        }
        received.append(buffer.data(), static_cast<size_t>(count));
        std::this_thread::sleep_for(pace_.pause);
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
    const auto length = std::stoul(received.substr(lengthAt + 16));
    return received.size() >= end + 4 + length;
  }

  const std::string reply_;
  const ReadingPace pace_;
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
  std::vector<Outcome> of(int task) const {
    std::lock_guard lock(mutex_);
    auto found = outcomes_.find(task);
    return found == outcomes_.end() ? std::vector<Outcome>{} : found->second;
  }
  // The single outcome of `task`; fails the test when there is not exactly one.
  Outcome only(int task) const {
    auto all = of(task);
    EXPECT_EQ(all.size(), 1u) << "task " << task;
    return all.empty() ? Outcome{} : all.front();
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

std::shared_ptr<URLSession> session(std::chrono::milliseconds timeout = 10'000ms,
                                    int connections = 1) {
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = timeout;
  configuration.httpMaximumConnectionsPerHost = connections;
  auto made = makeURLSession(configuration);
  EXPECT_NE(made, nullptr);
  return made;
}

std::optional<std::string> header(const HTTPHeaders& headers, std::string_view name) {
  for (const auto& [field, value] : headers) {
    if (field == name) {
      return value;
    }
  }
  return std::nullopt;
}

TEST(URLSessionExchange, GetDeliversStatusBodyAndFieldsOnTheSessionThread) {
  LoopbackServer server([](httplib::Server& s) {
    s.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
      res.set_header("X-Reply", "yes");
      res.set_content("hi there", "text/plain");
    });
    s.Get("/missing", [](const httplib::Request&, httplib::Response& res) { res.status = 500; });
  });
  auto urlSession = session();
  Recorder recorder;
  urlSession->dataTask(get(server.url("/hello")), recorder.completion(0))->resume();
  urlSession->dataTask(get(server.url("/missing")), recorder.completion(1))->resume();
  ASSERT_TRUE(recorder.waitForCalls(2));

  const Outcome hello = recorder.only(0);
  ASSERT_FALSE(hello.error) << hello.error->text();
  ASSERT_TRUE(hello.response && hello.data);
  EXPECT_EQ(hello.response->statusCode, 200);
  EXPECT_EQ(hello.response->url, server.url("/hello"));
  EXPECT_EQ(header(hello.response->headerFields, "X-Reply"), "yes");
  EXPECT_EQ(toString(*hello.data), "hi there");
  EXPECT_NE(hello.thread, std::this_thread::get_id());

  // A status that is not success is still a response, never an error.
  const Outcome missing = recorder.only(1);
  EXPECT_FALSE(missing.error);
  ASSERT_TRUE(missing.response && missing.data);
  EXPECT_EQ(missing.response->statusCode, 500);
  EXPECT_TRUE(missing.data->empty());
  EXPECT_EQ(missing.thread, hello.thread);
}

TEST(URLSessionExchange, PostSendsBodyAndHeadersInOrderWithDuplicatesOnTheWire) {
  RawServer server("HTTP/1.1 201 Created\r\nContent-Length: 2\r\nX-A: 1\r\nX-A: 2\r\n\r\nok");
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
  EXPECT_EQ(toString(*outcome.data), "ok");
  // Repeated response fields are reported one by one, in order.
  HTTPHeaders repeated;
  for (const auto& field : outcome.response->headerFields) {
    if (field.first == "X-A") {
      repeated.push_back(field);
    }
  }
  EXPECT_EQ(repeated, (HTTPHeaders{{"X-A", "1"}, {"X-A", "2"}}));

  ASSERT_EQ(server.requests().size(), 1u);
  const std::string raw = server.requests().front();
  EXPECT_TRUE(raw.starts_with("POST /api/v1.3/ingest/bulk/ HTTP/1.1\r\n")) << raw;
  const std::vector<std::string> inOrder = {"Content-Type: application/json\r\n",
                                            "Authorization: Bearer abc\r\n",
                                            "Source: first\r\n",
                                            "Version: 0.1.0\r\n",
                                            "Source: second\r\n",
                                            "Empty:"};
  size_t at = 0;
  for (const auto& line : inOrder) {
    const auto found = raw.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << " missing or out of order in\n" << raw;
    at = found + line.size();
  }
  EXPECT_EQ(raw.find("Expect:"), std::string::npos) << raw;
  EXPECT_TRUE(raw.ends_with("\r\n\r\n[{\"a\":1}]")) << raw;
}

TEST(URLSessionConnections, OneConnectionPerHostCarriesRequestsOneAfterAnother) {
  std::mutex mutex;  // owns the three below
  int inside = 0;
  int mostInside = 0;
  std::set<int> ports;
  std::condition_variable changed;
  LoopbackServer server([&](httplib::Server& s) {
    s.Get("/work", [&](const httplib::Request& req, httplib::Response& res) {
      std::unique_lock lock(mutex);
      ports.insert(req.remote_port);
      mostInside = std::max(mostInside, ++inside);
      changed.notify_all();
      // Gives a second connection, if there were one, the time to arrive.
      changed.wait_for(lock, 150ms, [&] { return inside > 1; });
      --inside;
      res.set_content("done", "text/plain");
    });
  });

  for (int connections : {1, 3}) {
    {
      std::lock_guard lock(mutex);
      mostInside = 0;
      ports.clear();
    }
    auto urlSession = session(10'000ms, connections);
    Recorder recorder;
    for (int task = 0; task < 3; ++task) {
      urlSession->dataTask(get(server.url("/work")), recorder.completion(task))->resume();
    }
    ASSERT_TRUE(recorder.waitForCalls(3));
    for (int task = 0; task < 3; ++task) {
      EXPECT_EQ(recorder.only(task).response->statusCode, 200);
    }
    std::lock_guard lock(mutex);
    if (connections == 1) {
      EXPECT_EQ(mostInside, 1);
      EXPECT_EQ(ports.size(), 1u) << "the connection was not kept alive";
    } else {
      EXPECT_GT(mostInside, 1) << "the connection limit was not lifted";
    }
  }
}

TEST(URLSessionFailures, ServerSlowerThanTheTimeOutGivesTimedOut) {
  Gate gate;
  LoopbackServer server([&](httplib::Server& s) {
    s.Get("/slow", [&](const httplib::Request&, httplib::Response& res) {
      gate.wait();
      res.set_content("late", "text/plain");
    });
  });
  auto urlSession = session(300ms);
  Recorder recorder;
  const auto started = std::chrono::steady_clock::now();
  urlSession->dataTask(get(server.url("/slow")), recorder.completion(0))->resume();
  ASSERT_TRUE(recorder.waitForCalls(1));
  const auto elapsed = std::chrono::steady_clock::now() - started;
  gate.open();

  const Outcome outcome = recorder.only(0);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain, kURLErrorDomain);
  EXPECT_EQ(outcome.error->code, code(URLErrorCode::timedOut));
  EXPECT_EQ(outcome.error->description, "no byte moved for 300 ms");
  EXPECT_FALSE(outcome.response);
  EXPECT_FALSE(outcome.data);
  EXPECT_GE(elapsed, 250ms);
  EXPECT_LT(elapsed, 3s);
}

TEST(URLSessionFailures, TimeOutCountsOnlyTimeWithoutProgress) {
  // The server takes in the upload slowly but steadily: the exchange lasts several time-outs,
  // yet no pause in it comes near one.
  RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", ReadingPace{64 * 1024, 15ms});
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
  EXPECT_NE(cut.error->description.find("curl error 28"), std::string::npos)
      << cut.error->description;
}

TEST(URLSessionFailures, TimeOutDoesNotCountTheWaitForTheConnection) {
  LoopbackServer server([](httplib::Server& s) {
    s.Get("/step", [](const httplib::Request&, httplib::Response& res) {
      std::this_thread::sleep_for(150ms);
      res.set_content("ok", "text/plain");
    });
  });
  // Four requests behind one connection take 600 ms in all, each well within 400 ms.
  auto urlSession = session(400ms);
  Recorder recorder;
  for (int task = 0; task < 4; ++task) {
    urlSession->dataTask(get(server.url("/step")), recorder.completion(task))->resume();
  }
  ASSERT_TRUE(recorder.waitForCalls(4));
  for (int task = 0; task < 4; ++task) {
    const Outcome outcome = recorder.only(task);
    EXPECT_FALSE(outcome.error) << outcome.error->text();
  }
}

TEST(URLSessionFailures, TransportFailuresMapToTheirCodes) {
  // Bound but not listening: connections are refused, and no client socket can take the port
  // (a free port in the ephemeral range may otherwise connect to itself).
  const int refuser = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(refuser, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(refuser, reinterpret_cast<sockaddr*>(&address), &length);
  const int closedPort = ntohs(address.sin_port);
  RawServer dropper("");
  auto urlSession = session(5'000ms);

  struct Case {
    std::string url;
    URLErrorCode expected;
    std::string curlCode;
  };
  const std::vector<Case> cases = {
      {"http://127.0.0.1:" + std::to_string(closedPort) + "/", URLErrorCode::cannotConnectToHost,
       "curl error 7:"},
      {dropper.url("/drop"), URLErrorCode::networkConnectionLost, "curl error 52:"},
      {"http://127.0.0.1:99999/", URLErrorCode::badURL, "curl error 3:"},
      {"", URLErrorCode::badURL, ""},
      {"ftp://127.0.0.1/file", URLErrorCode::unsupportedURL, "curl error 1:"},
      {"file:///etc/passwd", URLErrorCode::unsupportedURL, "curl error 1:"},
  };
  Recorder recorder;
  for (size_t i = 0; i < cases.size(); ++i) {
    urlSession->dataTask(get(cases[i].url), recorder.completion(static_cast<int>(i)))->resume();
  }
  ASSERT_TRUE(recorder.waitForCalls(static_cast<int>(cases.size())));
  for (size_t i = 0; i < cases.size(); ++i) {
    const Outcome outcome = recorder.only(static_cast<int>(i));
    ASSERT_TRUE(outcome.error) << cases[i].url;
    EXPECT_EQ(outcome.error->domain, kURLErrorDomain);
    EXPECT_EQ(outcome.error->code, code(cases[i].expected))
        << cases[i].url << ": " << outcome.error->description;
    EXPECT_TRUE(outcome.error->description.starts_with(cases[i].curlCode))
        << outcome.error->description;
    EXPECT_FALSE(outcome.response);
    EXPECT_FALSE(outcome.data);
  }
  EXPECT_EQ(dropper.requests().size(), 1u);
  ::close(refuser);
}

TEST(URLSessionFailures, HeaderFieldWithLineBreakIsRefusedBeforeAnythingIsSent) {
  RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
  auto urlSession = session();
  Recorder recorder;
  URLRequest injected = get(server.url("/"));
  injected.addValue("x\r\nEvil: 1", "Source");
  URLRequest badName = get(server.url("/"));
  badName.addValue("1", "Bad:Name");
  urlSession->dataTask(injected, recorder.completion(0))->resume();
  urlSession->dataTask(badName, recorder.completion(1))->resume();
  // A good request afterwards proves the server was reachable all along.
  urlSession->dataTask(get(server.url("/fine")), recorder.completion(2))->resume();
  ASSERT_TRUE(recorder.waitForCalls(3));
  EXPECT_EQ(recorder.only(0).error->code, code(URLErrorCode::badURL));
  EXPECT_EQ(recorder.only(1).error->code, code(URLErrorCode::badURL));
  EXPECT_FALSE(recorder.only(2).error);
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_TRUE(server.requests().front().starts_with("GET /fine "));
}

// A self-signed certificate for 127.0.0.1, made fresh so that no trust store can know it.
struct SelfSigned {
  SelfSigned() {
    key.reset(EVP_EC_gen("P-256"));
    certificate.reset(X509_new());
    X509* cert = certificate.get();
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key.get());
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(cert, name);
    X509_sign(cert, key.get(), EVP_sha256());
  }
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key{nullptr, EVP_PKEY_free};
  std::unique_ptr<X509, decltype(&X509_free)> certificate{nullptr, X509_free};
};

TEST(URLSessionSecurity, UntrustedCertificateIsRefusedWithoutSendingTheRequest) {
  SelfSigned identity;
  std::atomic<int> served{0};
  httplib::SSLServer server(identity.certificate.get(), identity.key.get());
  ASSERT_TRUE(server.is_valid());
  server.Get("/secret", [&](const httplib::Request&, httplib::Response& res) {
    served.fetch_add(1);
    res.set_content("leaked", "text/plain");
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  std::thread thread([&] { server.listen_after_bind(); });
  while (!server.is_running()) {
    std::this_thread::sleep_for(1ms);
  }

  auto urlSession = session(5'000ms);
  Recorder recorder;
  URLRequest request = get("https://127.0.0.1:" + std::to_string(port) + "/secret");
  request.addValue("Bearer credential", "Authorization");
  urlSession->dataTask(request, recorder.completion(0))->resume();
  ASSERT_TRUE(recorder.waitForCalls(1));
  server.stop();
  thread.join();

  const Outcome outcome = recorder.only(0);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, code(URLErrorCode::serverCertificateUntrusted))
      << outcome.error->description;
  EXPECT_FALSE(outcome.data);
  EXPECT_EQ(served.load(), 0);
}

class URLSessionCancellation : public ::testing::Test {
 protected:
  URLSessionCancellation()
      : server_([this](httplib::Server& s) {
          s.Get("/held", [this](const httplib::Request&, httplib::Response& res) {
            arrived_.fetch_add(1);
            gate_.wait();
            res.set_content("released", "text/plain");
          });
          s.Get("/quick", [this](const httplib::Request&, httplib::Response& res) {
            arrived_.fetch_add(1);
            res.set_content("quick", "text/plain");
          });
        }) {}
  ~URLSessionCancellation() override { gate_.open(); }

  void waitForArrivals(int count) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (arrived_.load() < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(5ms);
    }
    ASSERT_GE(arrived_.load(), count);
  }

  Gate gate_;
  std::atomic<int> arrived_{0};
  LoopbackServer server_;
};

TEST_F(URLSessionCancellation, CancelInFlightCompletesOnceWithCancelled) {
  auto urlSession = session();
  Recorder recorder;
  auto task = urlSession->dataTask(get(server_.url("/held")), recorder.completion(0));
  task->resume();
  waitForArrivals(1);
  task->cancel();
  ASSERT_TRUE(recorder.waitForCalls(1));
  task->cancel();
  task->resume();
  gate_.open();
  // A later request on the same thread flushes any late second completion of the first.
  urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1))->resume();
  ASSERT_TRUE(recorder.waitForCalls(2));
  EXPECT_EQ(recorder.only(0).error->code, code(URLErrorCode::cancelled));
  EXPECT_EQ(recorder.only(0).error->domain, kURLErrorDomain);
  EXPECT_FALSE(recorder.only(1).error);
  EXPECT_EQ(recorder.calls(), 2);
}

TEST_F(URLSessionCancellation, CancelBeforeResumeSendsNothing) {
  auto urlSession = session();
  Recorder recorder;
  auto task = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(0));
  task->cancel();
  task->resume();
  urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1))->resume();
  ASSERT_TRUE(recorder.waitForCalls(2));
  EXPECT_EQ(recorder.only(0).error->code, code(URLErrorCode::cancelled));
  EXPECT_FALSE(recorder.only(1).error);
  EXPECT_EQ(arrived_.load(), 1);
}

TEST_F(URLSessionCancellation, InvalidateCompletesEveryOutstandingTaskOnce) {
  auto urlSession = session();
  Recorder recorder;
  urlSession->dataTask(get(server_.url("/held")), recorder.completion(0))->resume();
  // Queued behind the held one on the single connection.
  urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1))->resume();
  auto neverResumed = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(2));
  waitForArrivals(1);
  urlSession->invalidateAndCancel();
  ASSERT_TRUE(recorder.waitForCalls(3));
  // After invalidation a new task is refused with the same error.
  auto late = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(3));
  late->resume();
  ASSERT_TRUE(recorder.waitForCalls(4));
  neverResumed->resume();
  gate_.open();
  urlSession.reset();
  for (int task = 0; task < 4; ++task) {
    const Outcome outcome = recorder.only(task);
    ASSERT_TRUE(outcome.error) << task;
    EXPECT_EQ(outcome.error->code, code(URLErrorCode::cancelled)) << task;
  }
  EXPECT_EQ(recorder.calls(), 4);
  EXPECT_EQ(arrived_.load(), 1);
}

TEST_F(URLSessionCancellation, ReleasingTheSessionCancelsWithoutHanging) {
  Recorder recorder;
  std::shared_ptr<URLSessionDataTask> survivor;
  {
    auto urlSession = session();
    urlSession->dataTask(get(server_.url("/held")), recorder.completion(0))->resume();
    survivor = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1));
    waitForArrivals(1);
  }
  // Completed by the time the session is gone, while the server still holds the request.
  EXPECT_EQ(recorder.calls(), 2);
  EXPECT_EQ(recorder.only(0).error->code, code(URLErrorCode::cancelled));
  EXPECT_EQ(recorder.only(1).error->code, code(URLErrorCode::cancelled));
  // A task that outlives its session does nothing.
  survivor->resume();
  survivor->cancel();
  EXPECT_EQ(recorder.calls(), 2);
}

TEST_F(URLSessionCancellation, SessionReleasedInsideItsOwnCompletionDoesNotDeadlock) {
  std::mutex mutex;  // owns released and holder
  std::condition_variable changed;
  bool released = false;
  auto holder = session();
  std::weak_ptr<URLSession> watch = holder;
  auto task = holder->dataTask(
      get(server_.url("/quick")),
      [&](std::optional<Bytes>, std::optional<HTTPURLResponse>, std::optional<Error>) {
        std::lock_guard lock(mutex);
        holder.reset();  // the last owner: the session goes away on its own thread
        released = true;
        changed.notify_all();
      });
  task->resume();
  std::unique_lock lock(mutex);
  ASSERT_TRUE(changed.wait_for(lock, kPatience, [&] { return released; }));
  EXPECT_TRUE(watch.expired());
}

TEST_F(URLSessionCancellation, ManyConcurrentTasksEachCompleteExactlyOnce) {
  gate_.open();
  auto urlSession = session(10'000ms, 2);
  Recorder recorder;
  constexpr int kThreads = 4;
  constexpr int kPerThread = 40;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int i = 0; i < kPerThread; ++i) {
        const int id = t * kPerThread + i;
        auto task = urlSession->dataTask(get(server_.url(i % 2 ? "/quick" : "/held")),
                                         recorder.completion(id));
        switch (random() % 4) {
          case 0:
            task->cancel();
            break;
          case 1:
            task->resume();
            task->cancel();
            break;
          case 2:
            task->cancel();
            task->resume();
            break;
          default:
            task->resume();
            break;
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

TEST_F(URLSessionCancellation, CompletionMayStartTheNextTaskOnTheSameSession) {
  auto urlSession = session();
  Recorder recorder;
  auto second = urlSession->dataTask(get(server_.url("/quick")), recorder.completion(1));
  auto onFirst = recorder.completion(0);
  urlSession
      ->dataTask(get(server_.url("/quick")),
                 [&, onFirst](std::optional<Bytes> data, std::optional<HTTPURLResponse> response,
                              std::optional<Error> error) {
                   second->resume();
                   onFirst(std::move(data), std::move(response), std::move(error));
                 })
      ->resume();
  ASSERT_TRUE(recorder.waitForCalls(2));
  EXPECT_FALSE(recorder.only(0).error);
  EXPECT_FALSE(recorder.only(1).error);
}

}  // namespace
}  // namespace kestrova

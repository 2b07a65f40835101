#include "agent/http_server.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "util/metric_lock.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

size_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t all = 0;
  size_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// One connection, with its bytes as they are.
class Client {
 public:
  explicit Client(int port, int receive_buffer = 0) {
    if (receive_buffer > 0) {
      setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
    }
    const timeval patience = {20, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  }

  // False if the server takes no more.
  bool Send(const std::string& bytes) const {
    const ssize_t sent = send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(bytes.size());
  }
  // What comes until the server closes, without a pause of 20 seconds.
  std::string ReadAll() const {
    std::string all;
    char part[65536];
    ssize_t size = 0;
    while ((size = recv(fd_.get(), part, sizeof(part), 0)) > 0) {
      all.append(part, static_cast<size_t>(size));
    }
    EXPECT_TRUE(size == 0 || errno == ECONNRESET) << errno;
    return all;
  }

 private:
  const UniqueFd fd_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

std::string Request(const std::string& path, const std::string& headers = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: h\r\n" + headers + "\r\n";
}

class HttpServerTest : public testing::Test {
 protected:
  void Start(const HttpLimits& limits = {}, const std::string& address = "127.0.0.1:0") {
    server_ = std::make_unique<HttpServer>(
        [this](std::string* page) {
          ++pages_made_;
          while (hold_) std::this_thread::sleep_for(milliseconds(1));
          if (no_memory_) throw std::bad_alloc();
          *page += page_;
        },
        [](const HttpRequest& request, HttpAnswer* answer) {
          for (const auto& [name, value] : request.arguments) {
            answer->text += name + "=" + value + ";";
          }
          answer->etag = "\"" + std::to_string(answer->text.size()) + "\"";
        },
        [this](const std::string& line) {
          const METRICS::WriteGuard guard(mutex_);
          log_ += line + "\n";
        },
        [] { ADD_FAILURE() << "ended by itself"; }, &health_, limits);
    std::string error;
    ASSERT_TRUE(server_->Start(address, &error)) << error;
    port_ = std::stoi(server_->url().substr(server_->url().rfind(':') + 1));
  }
  std::string Get(const std::string& path, const std::string& headers = "") const {
    const Client client(port_);
    EXPECT_TRUE(client.Send(Request(path, "Connection: close\r\n" + headers)));
    return client.ReadAll();
  }
  void AwaitPages(int number) const {
    for (int wait = 0; wait < 20000 && pages_made_ < number; ++wait) {
      std::this_thread::sleep_for(milliseconds(1));
    }
    ASSERT_GE(pages_made_, number);
  }
  void ExpectAlive() const { EXPECT_THAT(Get("/healthz"), HasSubstr("\r\n\r\nok\n")); }

  std::string page_ = "a 1\nb 2\n";
  std::atomic<bool> no_memory_{false};
  std::atomic<bool> hold_{false};  // the page that is being made
  std::atomic<int> pages_made_{0};
  METRICS::Mutex mutex_;
  std::string log_ METRICS_GUARDED_BY(mutex_);
  Health health_;
  std::unique_ptr<HttpServer> server_;
  int port_ = 0;
};

TEST_F(HttpServerTest, GivesTheWholePageWhateverRangeIsAskedFor) {
  page_ = std::string(3465, 'x') + "\n";
  Start();
  for (const char* path : {"/metrics", "/healthz", "/"}) {
    const std::string whole = Get(path);
    const std::string body = whole.substr(whole.find("\r\n\r\n") + 4);
    ASSERT_FALSE(body.empty());
    const std::string length = "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    for (const char* range :
         {"", "bytes=0-0", "bytes=3465-3466", "bytes=9-3", "bytes=-1", "bytes=-5000",
          "bytes=0-0,2-3", "bytes=", "bytes=-0", "bytes=1-", "bytes=3466-", "bytes=0-19999",
          "bytes=0-9223372036854775807", "bytes=9223372036854775806-9223372036854775807",
          "bytes=18446744073709551615-", "lines=1-2", "bytes=a-b"}) {
      SCOPED_TRACE(std::string(path) + " " + range);
      const std::string answer =
          Get(path, "Range: " + std::string(range) + "\r\nIf-Range: \"x\"\r\n");
      EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
      EXPECT_THAT(answer, HasSubstr(length));
      EXPECT_THAT(answer, Not(HasSubstr("Content-Range")));
      EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4), body);
    }
  }
}

TEST_F(HttpServerTest, AnswersHostileRequestsAndClosesThem) {
  Start();
  std::string many_lines = "GET / HTTP/1.1\r\nHost: h\r\n";
  while (many_lines.size() < 3900000) many_lines += "a: b\r\n";
  const std::string close = "Connection: close\r\n";
  struct {
    std::string request;
    std::vector<std::string> parts;  // of the answer, in this order
  } const kCases[] = {
      {many_lines, {"HTTP/1.1 431 "}},
      {"GET /" + std::string(100000, 'x'), {"HTTP/1.1 414 "}},
      {Request("/", "a: " + std::string(100000, 'x')), {"HTTP/1.1 431 "}},
      {Request("/", "Content-Length: x\r\n"), {"HTTP/1.1 400 "}},
      {"GET / HTTP/9.9\r\n\r\n", {"HTTP/1.1 505 "}},
      {"HEAD /metrics HTTP/1.1\r\nHost: h\r\n" + close + "\r\n",
       {"HTTP/1.1 200 ", "Content-Length: 8\r\n"}},
      {"POST /metrics HTTP/1.1\r\nHost: h\r\nContent-Length: 1000000000000\r\n\r\nabc",
       {"HTTP/1.1 405 ", "Allow: GET, HEAD\r\n"}},
      {"PUT / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabcde",
       {"HTTP/1.1 405 "}},
      {Request("/metrics", "Content-Length: 1000000000\r\n") + "abc", {"HTTP/1.1 413 "}},
      {Request("/metrics", "Transfer-Encoding: chunked\r\n") + "FFFFFFFFFFFFFFFF\r\n",
       {"HTTP/1.1 413 "}},
      {Request("/", "Expect: 100-continue\r\n") + Request("/"), {"HTTP/1.1 417 "}},
      {Request("/x", close), {"HTTP/1.1 404 "}},
      {Request("/healthz?a=b&c", close), {"HTTP/1.1 200 ", "ok\n"}},
      {Request("/api/none", close), {"HTTP/1.1 404 "}},
      {Request("/api/metrics?" + std::string(40000, 'a'), close), {"HTTP/1.1 414 "}},
      {Request("/api/metrics?a=%41+%26%00b%ff&c&a=d=e%zz", close),
       {"HTTP/1.1 200 ", "ETag: \"21\"",
        "\r\n\r\na=A &" + std::string(1, '\0') + "b\xff;c=;a=d=e%zz;"}},
      {Request("/api/metrics?a=b", "If-None-Match: W/\"x\", W/\"4\"\r\n" + close),
       {"HTTP/1.1 304 ", "ETag: \"4\"", "Content-Length: 4\r\n\r\n"}},
      {Request("/", "If-None-Match: *\r\n" + close),
       {"HTTP/1.1 304 ", "Content-Security-Policy: default-src 'none'"}},
  };
  for (const auto& [request, parts] : kCases) {
    SCOPED_TRACE(request.substr(0, 60));
    const Client client(port_);
    client.Send(request);
    const std::string answer = client.ReadAll();
    size_t at = 0;
    for (const std::string& part : parts) {
      // A client that goes on sending may lose the answer to the reset that ends it.
      if (answer.empty() && request.size() > 50000) break;
      const size_t found = answer.find(part, at);
      ASSERT_NE(found, std::string::npos) << part << "\n" << answer;
      at = found + part.size();
    }
    ExpectAlive();
  }
}

TEST_F(HttpServerTest, SlowAndIdleClientsLockNobodyOut) {
  HttpLimits limits;
  limits.connections = 32;
  limits.head = milliseconds(1500);
  Start(limits);
  std::vector<std::unique_ptr<Client>> dripping;
  for (int i = 0; i < 4; ++i) dripping.push_back(std::make_unique<Client>(port_));
  const Clock::time_point start = Clock::now();
  for (bool open = true; open;) {
    for (const auto& client : dripping) open = client->Send("G") && open;
    ExpectAlive();
    ASSERT_LT(Clock::now() - start, std::chrono::seconds(30)) << "still open";
    std::this_thread::sleep_for(milliseconds(100));
  }

  std::vector<std::unique_ptr<Client>> idle;
  for (int i = 0; i < 500; ++i) idle.push_back(std::make_unique<Client>(port_));
  ExpectAlive();
  EXPECT_THAT(Get("/metrics"), HasSubstr(page_));
  EXPECT_GE(health_.http_cut_crowded, 400u);
  // Those that were not cut for room are when their time is over.
  for (const auto& client : idle) EXPECT_EQ(client->ReadAll(), "");
}

TEST_F(HttpServerTest, SlowReadersHoldFewPages) {
  // Of a size that always goes back to the kernel; there is no need of it where that is not seen.
  constexpr size_t kPageSize = kSanitized ? 8 << 20 : 40 << 20;
  page_ = std::string(kPageSize, 'x');
  HttpLimits limits;
  limits.page = milliseconds(50);
  limits.answer = milliseconds(2000);
  Start(limits);
  const size_t before = ResidentBytes();
  std::vector<std::unique_ptr<Client>> readers;
  for (int i = 0; i < 20; ++i) {
    const int made = pages_made_;
    readers.push_back(std::make_unique<Client>(port_, 4096));
    ASSERT_TRUE(readers.back()->Send(Request("/metrics")));
    AwaitPages(made + 1);
    ExpectAlive();
  }
  EXPECT_TRUE(kSanitized || ResidentBytes() < before + 5 * kPageSize) << ResidentBytes() - before;
  EXPECT_GE(health_.http_cut_slow, 15u);
  EXPECT_GE(Get("/metrics").size(), kPageSize);
  // Who is not in the way of others has the time for the answer.
  EXPECT_FALSE(server_->Stop(milliseconds(0)));
  EXPECT_TRUE(server_->Stop(std::chrono::seconds(60)));
  EXPECT_TRUE(kSanitized || ResidentBytes() < before + kPageSize) << ResidentBytes() - before;
}

TEST_F(HttpServerTest, OnePageServesAllWhoWaitForIt) {
  hold_ = true;
  Start();
  std::vector<std::unique_ptr<Client>> readers;
  for (int i = 0; i < 100; ++i) {
    readers.push_back(std::make_unique<Client>(port_));
    ASSERT_TRUE(readers.back()->Send(Request("/metrics", "Connection: close\r\n")));
    if (i == 0) AwaitPages(1);
  }
  ExpectAlive();  // so all others have been seen as well
  hold_ = false;
  for (const auto& reader : readers) EXPECT_THAT(reader->ReadAll(), HasSubstr("\r\n\r\n" + page_));
  EXPECT_EQ(pages_made_, 2);
}

TEST_F(HttpServerTest, MissingMemoryIsAnAnswerALineAndACount) {
  Start();
  no_memory_ = true;
  const std::string answer = Get("/metrics");
  EXPECT_THAT(answer, StartsWith("HTTP/1.1 503 "));
  EXPECT_THAT(answer, HasSubstr("Retry-After: "));
  EXPECT_EQ(health_.http_failed_pages, 1u);
  {
    const METRICS::WriteGuard guard(mutex_);
    EXPECT_EQ(log_, "cannot make /metrics: std::bad_alloc\n");
  }
  no_memory_ = false;
  EXPECT_THAT(Get("/metrics"), HasSubstr(page_));
}

TEST_F(HttpServerTest, BindsToNamesAndToOnePortAlone) {
  Start({}, "localhost:0");
  EXPECT_THAT(server_->url(), StartsWith("http://localhost:"));
  HttpServer second([](std::string*) {}, nullptr, [](const std::string&) {}, [] {}, &health_);
  std::string error;
  EXPECT_FALSE(second.Start("localhost:" + std::to_string(port_), &error));
  EXPECT_EQ(error,
            "cannot serve HTTP on localhost:" + std::to_string(port_) + ": Address already in use");
  EXPECT_FALSE(second.Start("no.such.host.invalid:0", &error));
  EXPECT_EQ(error, "cannot serve HTTP on no.such.host.invalid:0: no such host");
  EXPECT_FALSE(second.Start("::1:0", &error));
  // Unless the machine has no such address.
  EXPECT_THAT(second.Start("[::1]:0", &error) ? second.url() : error,
              AnyOf(StartsWith("http://[::1]:"), HasSubstr("Cannot assign requested address"),
                    HasSubstr("Address family not supported")));
}

}  // namespace
}  // namespace tidegate::agent

// Limits of memory and of time, against servers that answer badly or not at all.

#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "agent/destinations.h"
#include "support/forwarder_fixture.h"
#include "support/tcp_port.h"

namespace tidegate::agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

TEST_F(ForwarderTest, BoundsTheQueueByBytesToo) {
  ForwardOptions options = Options("http://127.0.0.1:1");
  options.limits.batch_points = 100;
  options.limits.queue_bytes = 100000;
  Make(options);  // and nothing is taken out
  for (int value = 0; value < 10000; ++value) Handle(value);
  EXPECT_GT(numbers_.queue_bytes, 50000U);
  EXPECT_LE(numbers_.queue_bytes, 120000U);
  EXPECT_EQ(numbers_.queue_points + numbers_.Dropped(ForwardDrop::kFull), 10000U);
}

TEST_F(ForwarderTest, CutsLongPacketsIntoBatches) {
  database_.Serve({Status(204)});
  ForwardOptions options = Options(Url());
  options.limits.queue_points = 100;  // so a batch has ten
  options.limits.batch_points = 1000;
  Make(options);  // and nothing is taken out yet
  HandleBlock(MakeBlock(1, "m", {}, std::vector<Series>(505, {0, {}, {}, {1}})));
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kFull), 400U);  // what is open comes on top
  forwarder_->Start();
  forwarder_->Stop(seconds(20));
  // What was open becomes a batch of its own; it takes the place of the oldest one, unless that is
  // on its way already.
  const uint64_t forwarded = numbers_.forwarded_points;
  EXPECT_TRUE(forwarded == 95 || forwarded == 105) << forwarded;
  EXPECT_EQ(forwarded + numbers_.Dropped(ForwardDrop::kFull), 505U);
  EXPECT_EQ(numbers_.batches, (forwarded + 9) / 10);
}

TEST_F(ForwarderTest, LimitsTheLinesOfOnePacket) {
  Make(Options("http://127.0.0.1:1"));
  Packet packet = PacketWith(MakeBlock(1, std::string((256 << 10) - 100, 'm'), {},
                                       std::vector<Series>(2000, {0, {}, {}, {1}})));
  forwarder_->Handle(packet, ClientId());
  EXPECT_NEAR(static_cast<double>(numbers_.Dropped(ForwardDrop::kEmpty)), 2000 - 1025, 10);
  // Lines that are too long take as much work, so that the next block is beyond the limit too.
  const uint64_t so_far = numbers_.Dropped(ForwardDrop::kEmpty);
  for (Series& record : packet.blocks[0].series) record.tags = {{"k", std::string(100, 'v')}};
  packet.blocks.push_back(MakeBlock(1, "next", {}, {{0, {}, {}, {1}}}));
  forwarder_->Handle(packet, ClientId());
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kEmpty), so_far + 2001);
}

TEST_F(ForwarderTest, StopsInTimeThoughNobodyAnswers) {
  const test::Port port(true);
  for (const std::string scheme : {"http", "https"}) {
    ForwardOptions options = Options(scheme + "://127.0.0.1:" + std::to_string(port.number));
    options.target.timeout = seconds(3600);
    Start(options);
    Handle(1);
    Handle(2);
    const UniqueFd silent = port.Accept();
    char byte = 0;
    EXPECT_EQ(recv(silent.get(), &byte, 1, MSG_PEEK), 1);
    const auto start = steady_clock::now();
    forwarder_->Stop(milliseconds(100));
    EXPECT_LT(steady_clock::now() - start, seconds(2));
    EXPECT_EQ(log().back(), "dropped 2 points that could not be forwarded");
  }
  EXPECT_EQ(numbers_.Dropped(ForwardDrop::kShutdown), 4U);
}

TEST_F(ForwarderTest, ADestinationThatHangsHoldsNobodyUp) {
  const test::Port silent(true);
  database_.Serve({Status(204)});
  ForwardOptions works = Options(Url());
  works.name = "works";
  ForwardOptions hangs = Options(UrlOf(silent.number));
  hangs.name = "hangs";
  hangs.target.timeout = seconds(3600);
  Log log(-1);
  Destinations all({hangs, works}, {}, &health_, &log);
  std::vector<PacketSink*> sinks;
  all.AddSinks(&sinks);
  all.Start();
  constexpr uint64_t kPoints = 200;
  const Packet packet = PacketWith(MakeBlock(1, "m", {}, {{0, {}, {}, {1}}}));
  for (uint64_t i = 0; i < kPoints; ++i) {
    for (PacketSink* sink : sinks) sink->Handle(packet, ClientId());
  }
  EXPECT_TRUE(Await([&] { return all.Statuses()[1].forwarded_points == kPoints; }));
  EXPECT_FALSE(all.IsIdle());
  const auto start = steady_clock::now();
  all.Stop(milliseconds(100));
  EXPECT_LT(steady_clock::now() - start, seconds(10));
  const std::vector<DestinationStatus> ends = all.Statuses();
  EXPECT_EQ(ends[0].forwarded_points, 0U);
  EXPECT_EQ(ends[0].dropped[static_cast<size_t>(ForwardDrop::kShutdown)], kPoints);
  EXPECT_EQ(ends[1].forwarded_points, kPoints);
  EXPECT_EQ(health_.ForwardDropped(), kPoints);
}

// What a hostile server answers: `again` follows over and over, after each pause; if it is empty,
// the connection ends.
struct HostileReply {
  std::string start, again;
  int pause_ms;
  const char* told;
};

void Answer(int client, const HostileReply& reply) {
  char request[4096];
  if (recv(client, request, sizeof(request), 0) <= 0) return;
  std::string again = reply.again;
  while (reply.pause_ms == 0 && !again.empty() && again.size() < 65536) again += again;
  bool sent = send(client, reply.start.data(), reply.start.size(), MSG_NOSIGNAL) >= 0;
  while (sent && !again.empty()) {
    sent = send(client, again.data(), again.size(), MSG_NOSIGNAL) > 0;
    std::this_thread::sleep_for(milliseconds(reply.pause_ms));
  }
}

TEST_F(ForwarderTest, BoundsEveryReplyInBytesAndTime) {
  const std::string chunked = "HTTP/1.1 500 No\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::vector<HostileReply> replies = {
      {"HTTP/1.1 204 No Content\r\n", "X-a: b\r\n", 0, "the head of the reply does not end"},
      {"HTTP/1.1 204 No Content\r\nX-a: ", "b", 0, "too long"},
      {"", "HTTP/1.1 100 Continue\r\n\r\n", 0, "the head of the reply does not end"},
      {"", "HTTP/1.1 100 Continue\r\n\r\n", 10, "no reply in time"},
      {"HTTP/1.1 204 No Content\r\nX-a: ", "b", 10, "no reply in time"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9999\r\n\r\n", "b", 10, "no reply in time"},
      {chunked, "1\r\na\r\n", 0, "HTTP 500: aaa"},
      {chunked + "1;", "x", 0, "no reply in time"},
      {chunked + "ffffffffffffffffffffff\r\n", "x", 0, "the connection broke"},
      {"HTTP/1.1 204 No Content\r\nX-", "", 0, "the connection broke"},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc", "", 0, "the connection broke"},
      {"\x16\x03\x01 HTTP\r\n\r\n", "", 0, "the reply is not HTTP"},
      {"HTTP/9.7 two hundred\r\n\r\n", "", 0, "the reply is not HTTP"},
  };
  const test::Port port(true);
  ForwardOptions options = Options(UrlOf(port.number));
  options.target.timeout = seconds(1);  // far more than a slow machine takes to answer
  options.log_interval = milliseconds(0);
  Make(options);
  struct rusage before = {};
  getrusage(RUSAGE_SELF, &before);
  forwarder_->Start();
  Handle(1);
  const auto start = steady_clock::now();
  for (const HostileReply& reply : replies) Answer(port.Accept().get(), reply);
  EXPECT_LT(steady_clock::now() - start, seconds(30));
  // And one connection for both of these.
  const UniqueFd client = port.Accept();
  for (uint64_t points = 1; points <= 2; ++points) {
    if (points == 2) Handle(2);
    Answer(client.get(), {"HTTP/1.1 204 No Content\r\n\r\n", "", 0, ""});
    EXPECT_TRUE(Await([&] { return numbers_.forwarded_points == points; }));
  }
  forwarder_->Stop(milliseconds(0));
  struct rusage after = {};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 24 << 10);  // a sanitizer keeps what was freed
  EXPECT_EQ(numbers_.retried_points, replies.size());
  for (size_t i = 0; i < replies.size(); ++i) EXPECT_THAT(log()[i], HasSubstr(replies[i].told));
}

}  // namespace
}  // namespace tidegate::agent

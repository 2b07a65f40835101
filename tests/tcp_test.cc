#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <iterator>

#include "metrics/metric_tcp_sender.h"
#include "support/environment.h"
#include "support/tcp_port.h"
#include "util/metric_data_util.h"

namespace tidegate::test {
namespace {

using METRICS::MetricProducerPacket;
using METRICS::MetricTcpSender;

TEST(MetricProducerPacketTest, HeadTellsBothLengthsAndTheBodyGivesTheDataBack) {
  for (const std::string& data : {std::string(), std::string("abc"), std::string(100000, '\0')}) {
    const auto head = [&](size_t body) {
      const uint32_t words[6] = {1, static_cast<uint32_t>(body),
                                 static_cast<uint32_t>(data.size())};
      return std::string(reinterpret_cast<const char*>(words), sizeof(words));
    };
    const auto plain = MetricProducerPacket::CreateWithoutCompress(data);
    EXPECT_EQ(plain.header + plain.body, head(data.size()) + data);
    const auto packed = MetricProducerPacket::Create(data);
    EXPECT_EQ(packed.header, head(packed.body.size()));
    EXPECT_TRUE(packed.body.size() > 0 && packed.body.size() < 1000);
    EXPECT_EQ(METRICS::decompress_string(packed.body), data);
  }
}

struct Discovery final : METRICS::DummyServiceDiscovery {
  explicit Discovery(Endpoint to) : DummyServiceDiscovery("test"), answer(std::move(to)) {}
  bool GetOne(Endpoint& endpoint, signed char& /*retry_count*/) override {
    endpoint = answer;
    return !answer.host.empty();
  }
  const Endpoint answer;
};

MetricTcpSender& MakeSender(TestClient& client, const Endpoint& endpoint) {
  client->configer_->discovery_ = std::make_unique<Discovery>(endpoint);
  client->sender_manager_->CreateSender("t1", METRICS::MetricSenderType::kSenderTcp);
  return static_cast<MetricTcpSender&>(client.Sender());
}

TEST(TcpSenderTest, IsReadyWhateverItsFirstConnectionAndEndsFreelyWithNothingToSend) {
  const Port open(true), shut(false);
  const std::pair<Endpoint, std::string> kCases[] = {
      {{"127.0.0.1", open.number}, "]TCP Sender t1 ready.\n"},
      {{"127.0.0.1", shut.number}, "]Sender[t1]TCP connect to socket fail, errno: Connection ref"},
      {{"::1", open.number}, "]Sender[t1]TCP connect to socket fail, errno: Address family not"},
      {{"", 0}, "]TCP Sender t1 Initialed, but connection not ready\n"}};
  for (const auto& [endpoint, line] : kCases) {
    const auto run = [&to = endpoint] {
      TestClient client({{}, kNeverDue, {}, {}, std::nullopt});
      MetricTcpSender& sender = MakeSender(client, to);
      EXPECT_EQ(sender.state_.load(), METRICS::MetricState::READY);
      EXPECT_EQ(::fcntl(sender.sock_, F_GETFD), FD_CLOEXEC);
      sender.DoPackAndSend();
    };
    EXPECT_THAT(LogOf(run, 0), testing::HasSubstr(line));
  }
  EXPECT_TRUE(open.Accept().valid());
}

// The agent's end of a flush that does not end: its exit codes tell the faults.
void ExpectHeads(const Port& port) {
  const agent::UniqueFd peer = port.Accept();
  std::array<uint32_t, 6> heads[300];
  if (::recv(peer.get(), heads, sizeof(heads), MSG_WAITALL) != sizeof(heads)) ::_exit(1);
  if (std::count(std::begin(heads), std::end(heads), heads[0]) != 300) ::_exit(2);
  if (heads[0][0] != 1 || heads[0][1] == 0 || heads[0][2] <= heads[0][1]) ::_exit(3);
  ::kill(::getpid(), SIGKILL);
}

TEST(TcpSenderDeathTest, AFlushRepeatsTheHeadAndDoesNotEnd) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto flush = [] {
    const Port port(true);
    TestClient client;
    MakeSender(client, {"127.0.0.1", port.number});
    client.Metric("m")->WithTags({})->Emit({METRICS::Store(1)});
    std::thread peer(ExpectHeads, std::ref(port));
    client->FlushAndExit();
    ::_exit(4);
  };
  EXPECT_EXIT(flush(), testing::KilledBySignal(SIGKILL), "");
}

}  // namespace
}  // namespace tidegate::test

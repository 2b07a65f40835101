#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "agent/unique_fd.h"
#include "metrics/metric_tcp_sender.h"
#include "support/environment.h"
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

// A loopback port that refuses connections unless it is to `listen`.
struct Port {
  explicit Port(bool listen) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const raw = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(fd.get(), raw, size), 0);
    EXPECT_EQ(listen ? ::listen(fd.get(), 1) : 0, 0);
    EXPECT_EQ(::getsockname(fd.get(), raw, &size), 0);
    number = ntohs(address.sin_port);
  }
  agent::UniqueFd Accept() const { return agent::UniqueFd(::accept(fd.get(), nullptr, nullptr)); }

  const agent::UniqueFd fd;
  int number = 0;
};

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
      {{"localhost", open.number}, "]Sender[t1]TCP connect to socket fail, errno: "},
      {{"", 0}, "]TCP Sender t1 Initialed, but connection not ready\n"}};
  for (const auto& [endpoint, line] : kCases) {
    const auto run = [&to = endpoint] {
      TestClient client({{}, kNeverDue, {}, {}, std::nullopt});
      MetricTcpSender& sender = MakeSender(client, to);
      EXPECT_EQ(sender.state_.load(), METRICS::MetricState::READY);
      sender.DoPackAndSend();
    };
    EXPECT_THAT(LogOf(run, 0), testing::HasSubstr(line));
  }
  EXPECT_TRUE(open.Accept().valid());
}

TEST(TcpSenderTest, AFlushRepeatsTheHeadAndDoesNotEnd) {
  const Port port(true);
  int output[2];
  ASSERT_EQ(::pipe(output), 0);
  const std::string number = std::to_string(port.number);
  const pid_t helper = ::fork();
  if (helper == 0) {
    ::dup2(output[1], STDOUT_FILENO);
    ::execl(TIDEGATE_TCP_HELPER, TIDEGATE_TCP_HELPER, number.c_str(), nullptr);
    ::_exit(127);
  }
  ::close(output[1]);
  const agent::UniqueFd peer = port.Accept(), counts(output[0]);
  std::array<uint32_t, 6> heads[20];
  ASSERT_EQ(::recv(peer.get(), heads, sizeof(heads), MSG_WAITALL), 20 * 24);
  for (const auto& head : heads) EXPECT_EQ(head, heads[0]);
  EXPECT_THAT(heads[0], testing::ElementsAre(1, testing::Gt(0), testing::Gt(heads[0][1]), 0, 0, 0));
  for (int i = 0; i < 300; ++i) {
    signed char count = 0;
    ASSERT_EQ(::read(counts.get(), &count, 1), 1);
    EXPECT_EQ(count, static_cast<signed char>(i)) << "one more each time, and wrapping";
  }
  EXPECT_EQ(::waitpid(helper, nullptr, WNOHANG), 0) << "its FlushAndExit waits";
  ::kill(helper, SIGKILL);
  EXPECT_EQ(::waitpid(helper, nullptr, 0), helper);
}

}  // namespace
}  // namespace tidegate::test

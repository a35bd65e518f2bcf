// The receiver on real loopback sockets: lifecycle, start roll-back, and
// traffic from IPv4 and IPv6 exporters.
#include "ipfix/ipfix_receiver.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "recv_test_support.h"
#include "tools/hft_sim/ipfix_message_builder.h"

namespace {

using dtl::hftsim::IpfixMessageBuilder;
using dtl::ipfix::IpfixReceiver;
using recv_test::CountingSink;
using recv_test::LogCapture;
using recv_test::UdpSender;
using recv_test::WaitFor;

std::vector<uint8_t> OptionsMessage(uint32_t sequence, uint32_t domain) {
  IpfixMessageBuilder b;
  b.Begin(1000, sequence, domain);
  b.BeginSet(3);
  return b.Finish();
}

class IpfixReceiverTest : public testing::Test {
 protected:
  IpfixReceiverTest() {
    config_.port = recv_test::FreeUdpPort();
    config_.workers = 2;
    config_.busy_poll_us = 0;
    config_.backoff_min_us = 20;
    config_.backoff_max_us = 200;
  }

  std::unique_ptr<IpfixReceiver> Make() {
    auto sink = std::make_unique<CountingSink>();
    sink_ = sink.get();
    return std::make_unique<IpfixReceiver>(config_, std::move(sink));
  }

  std::string Port() const { return std::to_string(config_.port); }

  LogCapture log_;
  IpfixReceiver::Config config_;
  CountingSink* sink_ = nullptr;
};

TEST_F(IpfixReceiverTest, ZeroWorkersMeansOne) {
  config_.workers = 0;
  auto receiver = Make();
  ASSERT_TRUE(receiver->Start());
  EXPECT_EQ(LogCapture::Count("6 [IPFIX receiver] Starting IPFIX receiver on UDP port " + Port() +
                              " with 1 worker(s)"),
            1u);
  EXPECT_EQ(LogCapture::Count("6 [IPFIX receiver] IPFIX receiver started (1 workers)"), 1u);
  EXPECT_EQ(LogCapture::Count("Bound to UDP port " + Port() + " (dev='default', dual-stack)"), 1u);
}

TEST_F(IpfixReceiverTest, StartAndStopAreIdempotent) {
  auto receiver = Make();
  EXPECT_TRUE(receiver->Start());
  EXPECT_TRUE(receiver->Start()) << "a second start finds it running";
  EXPECT_EQ(LogCapture::Count("4 [IPFIX receiver] Receiver already running"), 1u);
  EXPECT_EQ(sink_->starts.load(), 1);
  EXPECT_TRUE(receiver->running());

  receiver->Stop();
  receiver->Stop();
  EXPECT_FALSE(receiver->running());
  EXPECT_EQ(sink_->stops.load(), 1);
  EXPECT_EQ(LogCapture::Count("[IPFIX receiver] Stopping IPFIX receiver (2 workers)"), 1u);
  EXPECT_EQ(LogCapture::Count("[IPFIX receiver] IPFIX receiver stopped"), 1u);
  EXPECT_EQ(LogCapture::Count("recv thread exiting normally"), 2u);

  // Workers are rebuilt on every start.
  EXPECT_TRUE(receiver->Start());
  EXPECT_TRUE(receiver->running());
  EXPECT_EQ(receiver->GetStats().packets_received, 0u);
}

TEST_F(IpfixReceiverTest, StopWithoutStartDoesNothing) {
  auto receiver = Make();
  receiver->Stop();
  receiver.reset();
  EXPECT_TRUE(LogCapture::Snapshot().empty());
}

// A port held by any other socket refuses the start before the storage is
// touched, whether or not that socket would share the port through
// SO_REUSEPORT (as a second collector's workers would); once it is gone the
// same receiver starts.
TEST_F(IpfixReceiverTest, PortHeldByAnotherSocketRefusesTheStart) {
  struct Holder {
    const char* name;
    int family;
    bool shares;  // SO_REUSEPORT and SO_REUSEADDR, like a receive worker
  };
  for (const Holder& holder : {Holder{"plain IPv4", AF_INET, false},
                               Holder{"plain IPv6", AF_INET6, false},
                               Holder{"sharing IPv4", AF_INET, true},
                               Holder{"sharing IPv6", AF_INET6, true}}) {
    SCOPED_TRACE(holder.name);
    LogCapture::Clear();
    const int fd = socket(holder.family, SOCK_DGRAM, 0);
    const int one = 1;
    if (holder.shares) {
      setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof(one));
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    }
    sockaddr_in6 address{};  // the IPv4 form is a prefix of the same bytes
    address.sin6_family = static_cast<sa_family_t>(holder.family);
    address.sin6_port = htons(config_.port);
    const socklen_t length = holder.family == AF_INET ? sizeof(sockaddr_in) : sizeof(address);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), length), 0);

    auto receiver = Make();
    EXPECT_FALSE(receiver->Start());
    EXPECT_FALSE(receiver->running());
    const std::string reason = "UDP port " + Port() + " is already in use by another socket: ";
    EXPECT_EQ(receiver->last_error().rfind(reason, 0), 0u) << receiver->last_error();
    EXPECT_EQ(LogCapture::Count("3 [IPFIX receiver] " + reason), 1u);
    EXPECT_EQ(LogCapture::Count("Bound to UDP port"), 0u);
    EXPECT_EQ(sink_->starts.load(), 0) << "storage is not touched";

    close(fd);
    EXPECT_TRUE(receiver->Start());
    EXPECT_EQ(receiver->last_error(), "");
  }
}

// A second collector on the same port: this program's own workers are the
// other holder.
TEST_F(IpfixReceiverTest, SecondReceiverOnTheSamePortIsRefused) {
  auto first = Make();
  ASSERT_TRUE(first->Start());
  auto second = Make();
  EXPECT_FALSE(second->Start());
  EXPECT_NE(second->last_error().find("UDP port " + Port() + " is already in use"),
            std::string::npos);
  EXPECT_TRUE(first->running());
  EXPECT_EQ(LogCapture::Count("IPFIX receiver started (2 workers)"), 1u);
}

// Storage that cannot work (an unusable data root) fails the start before
// any socket is opened: nothing listens, nothing runs.
TEST_F(IpfixReceiverTest, SinkThatCannotStartFailsTheStart) {
  class RefusingSink : public CountingSink {
   public:
    bool Start() override {
      ++starts;
      return false;
    }
  };
  auto sink = std::make_unique<RefusingSink>();
  RefusingSink* refusing = sink.get();
  IpfixReceiver receiver(config_, std::move(sink));
  EXPECT_FALSE(receiver.Start());
  EXPECT_FALSE(receiver.running());
  EXPECT_EQ(refusing->starts.load(), 1);
  EXPECT_EQ(LogCapture::Count("3 [IPFIX receiver] The storage under "), 1u);
  EXPECT_EQ(LogCapture::Count("Bound to UDP port"), 0u) << "no worker may start";
  EXPECT_EQ(LogCapture::Count("receiver started"), 0u);
  receiver.Stop();
  EXPECT_EQ(LogCapture::Count("Stopping IPFIX receiver"), 0u) << "there is nothing to stop";
}

TEST_F(IpfixReceiverTest, BurstIsCountedAndDrainedOnStop) {
  UdpSender sender;
  ASSERT_TRUE(sender.ok());
  auto receiver = Make();
  ASSERT_TRUE(receiver->Start());
  ASSERT_TRUE(receiver->running());

  constexpr uint64_t kValid = 300, kInvalid = 5;
  for (uint32_t i = 0; i < kValid; ++i) ASSERT_TRUE(sender.Send(config_.port, OptionsMessage(i, 7)));
  for (uint64_t i = 0; i < kInvalid; ++i) ASSERT_TRUE(sender.Send(config_.port, std::vector<uint8_t>(12, 0)));
  ASSERT_TRUE(WaitFor([&] { return receiver->GetStats().packets_received == kValid + kInvalid; }));

  const auto stats = receiver->GetStats();
  EXPECT_EQ(stats.parsed, kValid);
  EXPECT_EQ(stats.errors, kInvalid);
  EXPECT_EQ(stats.bytes, kValid * 20 + kInvalid * 12);
  EXPECT_GE(stats.batches, 2u);  // at most 256 datagrams per batch
  EXPECT_LE(stats.batches, kValid + kInvalid);
  EXPECT_EQ(stats.sessions, 1u);

  receiver->Stop();
  const std::string key = IpfixReceiver::MakeSessionKey(sender.SeenAs(), 7).ToKeyString();
  const auto removed = sink_->removed();
  ASSERT_EQ(removed.size(), 1u);
  EXPECT_EQ(removed[0].second, key);
  EXPECT_EQ(LogCapture::Count("[IPFIX receiver] final stats: packets_received=305 parsed=300 errors=5 "
                              "bytes=6060 sessions=0"),
            1u);
}

TEST_F(IpfixReceiverTest, SameHostOverIpv4AndIpv6IsTwoSessions) {
  UdpSender v4;
  UdpSender v6("::1");
  ASSERT_TRUE(v4.ok());
  if (!v6.ok()) GTEST_SKIP() << "no IPv6 loopback";
  config_.workers = 1;
  auto receiver = Make();
  ASSERT_TRUE(receiver->Start());
  ASSERT_TRUE(v4.Send(config_.port, OptionsMessage(1, 5)));
  ASSERT_TRUE(v6.Send(config_.port, OptionsMessage(1, 5)));
  ASSERT_TRUE(WaitFor([&] { return receiver->GetStats().sessions == 2; }));

  const std::string v4_port = std::to_string(ntohs(v4.SeenAs().sin6_port));
  const std::string v6_port = std::to_string(ntohs(v6.SeenAs().sin6_port));
  EXPECT_EQ(LogCapture::Count("created session for 127.0.0.1:" + v4_port + " domain 5"), 1u);
  EXPECT_EQ(LogCapture::Count("created session for ::1:" + v6_port + " domain 5"), 1u);
}

TEST_F(IpfixReceiverTest, OversizedReceiveBufferIsCutOnce) {
  config_.recv_buffer_size = 1ull << 32;
  auto receiver = Make();
  ASSERT_TRUE(receiver->Start());
  ASSERT_TRUE(receiver->running());
  EXPECT_EQ(LogCapture::Count("4 [IPFIX receiver] recv_buffer_size 4294967296 exceeds the socket limit"), 1u);
  EXPECT_EQ(LogCapture::Count("recv_buffer=2147483647"), 2u);
}

}  // namespace

// A receive worker: its checks of hostile datagrams and its session table,
// driven directly where the result depends on exact clock readings, and its
// receive thread on real loopback sockets with IPv4 and IPv6 exporters and
// with a socket that fails.
#include "ipfix/ipfix_recv_worker.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ipfix/ipfix_receiver.h"
#include "recording_sink.h"
#include "recv_test_support.h"
#include "tools/hft_sim/ipfix_message_builder.h"

namespace {

using dtl::ipfix::IpfixReceiver;
using dtl::ipfix::IpfixRecvWorker;
using recv_test::From;
using recv_test::LogCapture;
using recv_test::WaitFor;
using Removals = std::vector<std::pair<size_t, std::string>>;

constexpr uint64_t kSecond = 1000000000;

// A message holding the given 16-bit words after its header (by default one
// empty options template set, which a worker logs as it walks over it), with
// the Length field (0: the real length) and version given.
std::vector<uint8_t> Message(uint32_t export_time, uint32_t domain, const std::vector<uint16_t>& words = {3, 4},
                             uint16_t length = 0, uint8_t version = 10) {
  dtl::hftsim::IpfixMessageBuilder b;
  b.Begin(export_time, 1, domain);
  for (uint16_t word : words) b.PutU16(word);
  std::vector<uint8_t> bytes = b.Finish();
  bytes[1] = version;
  if (length != 0) {
    bytes[2] = static_cast<uint8_t>(length >> 8);
    bytes[3] = static_cast<uint8_t>(length);
  }
  return bytes;
}

std::string KeyOf(const sockaddr_in6& from, uint32_t domain) {
  return IpfixReceiver::MakeSessionKey(from, domain).ToKeyString();
}

class RecvWorkerTest : public testing::Test {
 protected:
  RecvWorkerTest() {
    config_.port = recv_test::FreeUdpPort();
    config_.max_sessions = 1;
    config_.session_timeout_sec = 10;
    config_.busy_poll_us = 0;
  }
  // One datagram from 127.0.0.1:port at a reading of the collector's clock.
  static void Feed(IpfixRecvWorker& worker, const std::vector<uint8_t>& bytes, uint16_t port, uint64_t now_ns) {
    worker.ProcessMessage(bytes.data(), bytes.size(), From("::ffff:127.0.0.1", port), now_ns);
  }

  LogCapture log_;
  IpfixRecvWorker::Config config_;
  RecordingSink sink_;
};

// Hostile datagrams: a bad header only counts an error; the walk over the
// sets stays inside the message and stops at the first impossible set.
TEST_F(RecvWorkerTest, WorkerWalksOnlyTheSetsInsideTheMessage) {
  // len: of the datagram, 0 for all the bytes.
  const struct { const char* what; std::vector<uint8_t> bytes; size_t len; uint64_t errors, sets_walked; } cases[] = {
      {"15 bytes", Message(100, 1), 15, 1, 0},
      {"version 9", Message(100, 1, {3, 4}, 0, 9), 0, 1, 0},
      {"length above the datagram", Message(100, 1, {3, 4}, 40), 0, 1, 0},
      {"length below the header", Message(100, 1, {3, 4}, 15), 0, 1, 0},
      {"length 16", Message(100, 1, {3, 4}, 16), 0, 0, 0},
      {"length 19", Message(100, 1, {3, 4}, 19), 0, 0, 0},
      {"reserved set skipped, one below 4 bytes ends", Message(100, 1, {3, 4, 1, 4, 3, 4, 3, 3, 3, 4}), 0, 0, 2},
      {"set running past the message", Message(100, 1, {3, 4, 3, 100, 0, 0}), 0, 0, 1},
      {"bytes after the message", Message(100, 1, {3, 4, 3, 4}, 20), 0, 0, 1},
  };
  for (const auto& c : cases) {
    LogCapture::Clear();
    IpfixRecvWorker worker(0, config_, &sink_);
    worker.ProcessMessage(c.bytes.data(), c.len ? c.len : c.bytes.size(), From("::ffff:127.0.0.1", 5000));
    const auto stats = worker.GetStats();
    EXPECT_EQ(stats.errors, c.errors) << c.what;
    EXPECT_EQ(stats.parsed, 1 - c.errors) << c.what;
    EXPECT_EQ(stats.sessions, 1 - c.errors) << c.what;
    EXPECT_EQ(LogCapture::Count("skipping options template set"), c.sets_walked) << c.what;
    if (c.errors) {
      EXPECT_TRUE(LogCapture::Snapshot().empty()) << c.what;
    }
  }
}

// A full session table refuses new exporters (logging every 256th refusal)
// until its oldest session has been silent for longer than the timeout on
// the collector's clock; the exporters' export times do not count.
TEST_F(RecvWorkerTest, FullTableRefusesUntilTheOldestSessionIsStale) {
  IpfixRecvWorker worker(0, config_, &sink_);
  Feed(worker, Message(900, 1), 5000, 1000 * kSecond);
  Feed(worker, Message(800, 1), 5000, 1005 * kSecond);  // refreshes the first session
  for (int i = 0; i < 600; ++i) Feed(worker, Message(700, 2), 5001, 1015 * kSecond);  // silent 10 s
  const auto lines = LogCapture::Matching("max sessions reached");
  ASSERT_EQ(lines.size(), 3u);
  for (size_t i = 0; i < 3; ++i)
    EXPECT_NE(lines[i].find("count=" + std::to_string(256 * i + 1) + ")"), std::string::npos) << lines[i];
  EXPECT_TRUE(sink_.removals().empty());
  Feed(worker, Message(600, 2), 5001, 1016 * kSecond + 1);
  EXPECT_EQ(sink_.removals(), (Removals{{0, KeyOf(From("::ffff:127.0.0.1", 5000), 1)}}));
  EXPECT_EQ(worker.GetStats().sessions, 1u);

  // One exporter's datagram, then after a silence on the collector's clock
  // another exporter's, each with its export time.
  const struct { const char* what; uint32_t live_export_time, other_export_time; uint64_t silence; bool reaped; }
  cases[] = {
      {"far-future stray", 1000, 0xFFFFFFFF, kSecond, false},
      {"far-past stray", 1000, 1, kSecond, false},
      {"zero stray", 1000, 0, kSecond, false},
      {"stray at the timeout", 1000, 0xFFFFFFFF, 10 * kSecond, false},
      {"own far-future time, silent", 0xFFFFFFFF, 0, 10 * kSecond + 1, true},
      {"own zero time, silent", 0, 0, 10 * kSecond + 1, true},
  };
  for (const auto& c : cases) {
    RecordingSink sink;
    IpfixRecvWorker fresh(0, config_, &sink);
    Feed(fresh, Message(c.live_export_time, 1), 5000, 50 * kSecond);
    Feed(fresh, Message(c.other_export_time, 7), 6000, 50 * kSecond + c.silence);
    EXPECT_EQ(sink.removals().size(), c.reaped ? 1u : 0u) << c.what;
    EXPECT_EQ(fresh.GetStats().sessions, 1u) << c.what;
  }
}

// The receive thread stamps datagrams with the real clock: a session silent
// for longer than the timeout goes when another exporter (here over IPv6)
// arrives, and not before.
TEST_F(RecvWorkerTest, SilentSessionIsReapedByTheReceiveThread) {
  config_.session_timeout_sec = 1;
  IpfixRecvWorker worker(0, config_, &sink_);
  ASSERT_TRUE(worker.OpenSocket());
  worker.Start();
  recv_test::UdpSender first, second("::1");
  ASSERT_TRUE(first.ok() && second.ok());
  ASSERT_TRUE(first.Send(config_.port, Message(100, 1)));
  ASSERT_TRUE(WaitFor([&] { return worker.GetStats().sessions == 1; }));
  // The first session's last datagram was stamped no later than this.
  const uint64_t seen_by = IpfixRecvWorker::MonotonicNowNs();
  ASSERT_TRUE(second.Send(config_.port, Message(0xFFFFFFFF, 2)));
  ASSERT_TRUE(WaitFor([&] { return worker.GetStats().parsed == 2; }));
  EXPECT_TRUE(sink_.removals().empty() && worker.GetStats().sessions == 1) << "refused, nothing reaped";

  // Only the clock is waited for here.
  while (IpfixRecvWorker::MonotonicNowNs() - seen_by <= kSecond)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(second.Send(config_.port, Message(0, 2)));
  EXPECT_TRUE(WaitFor([&] { return !sink_.removals().empty(); }));
  worker.Stop();
  EXPECT_EQ(sink_.removals(), (Removals{{0, KeyOf(first.SeenAs(), 1)}}));
  EXPECT_EQ(worker.GetStats().sessions, 1u);
}

// A socket that fails every receive: the thread keeps going, logs every
// 256th failure and still stops.
TEST_F(RecvWorkerTest, ReceiveErrorsAreLoggedOncePer256) {
  config_.backoff_min_us = 0;  // spin: errors pile up fast
  IpfixRecvWorker worker(0, config_, &sink_);
  ASSERT_TRUE(worker.OpenSocket());
  // A pipe in place of the socket makes every recvmmsg fail with ENOTSOCK.
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  ASSERT_GE(dup2(pipe_fds[0], worker.socket_fd()), 0);
  worker.Start();
  EXPECT_TRUE(WaitFor([] { return LogCapture::Count("recvmmsg:") >= 2; }));
  worker.Stop();
  worker.CloseSocket();
  close(pipe_fds[0]);
  close(pipe_fds[1]);
  const auto lines = LogCapture::Matching("recvmmsg:");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("4 [IPFIX recv worker] [w=0] recvmmsg: ", 0), 0u) << lines[0];
  EXPECT_NE(lines[0].find("(errno=88, count=1)"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("(errno=88, count=257)"), std::string::npos) << lines[1];
}

}  // namespace

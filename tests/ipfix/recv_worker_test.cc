// The worker's message path is driven directly (no thread) where the result
// depends on exact datagrams and clock readings; the receive thread itself is
// exercised through a real socket.
#include "ipfix/ipfix_recv_worker.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ipfix/ipfix_receiver.h"
#include "recv_test_support.h"
#include "tools/hft_sim/ipfix_message_builder.h"

namespace {

using dtl::hftsim::IpfixMessageBuilder;
using dtl::ipfix::IpfixReceiver;
using dtl::ipfix::IpfixRecvWorker;
using recv_test::CountingSink;
using recv_test::LogCapture;

constexpr const char* kOptionsLine = "skipping options template set";
constexpr uint64_t kSecond = 1000000000;

sockaddr_in6 From(uint16_t port) {
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  from.sin6_port = htons(port);
  inet_pton(AF_INET6, "::ffff:127.0.0.1", &from.sin6_addr);
  return from;
}

// A message holding one empty options template set: the worker logs each
// one it walks over, which makes the set walk observable.
std::vector<uint8_t> OptionsMessage(uint32_t export_time, uint32_t domain) {
  IpfixMessageBuilder b;
  b.Begin(export_time, 1, domain);
  b.BeginSet(3);
  return b.Finish();
}

class IpfixRecvWorkerTest : public testing::Test {
 protected:
  IpfixRecvWorkerTest() {
    config_.max_sessions = 16;
    config_.session_timeout_sec = 10;
    config_.busy_poll_us = 0;
  }

  void Feed(IpfixRecvWorker& worker, const std::vector<uint8_t>& bytes, uint16_t port = 5000) {
    worker.ProcessMessage(bytes.data(), bytes.size(), From(port));
  }
  // At a given reading of the collector's clock.
  void FeedAt(IpfixRecvWorker& worker, const std::vector<uint8_t>& bytes, uint16_t port, uint64_t now_ns) {
    worker.ProcessMessage(bytes.data(), bytes.size(), From(port), now_ns);
  }

  LogCapture log_;
  CountingSink sink_;
  IpfixRecvWorker::Config config_;
};

TEST_F(IpfixRecvWorkerTest, InvalidDatagramsOnlyCountErrors) {
  IpfixRecvWorker worker(0, config_, &sink_);
  std::vector<uint8_t> message = OptionsMessage(100, 1);
  worker.ProcessMessage(message.data(), 15, From(5000));
  message[1] = 9;  // version
  Feed(worker, message);
  message[1] = 10;
  message[3] = 40;  // length above the datagram
  Feed(worker, message);

  const IpfixRecvWorker::Stats stats = worker.GetStats();
  EXPECT_EQ(stats.errors, 3u);
  EXPECT_EQ(stats.parsed, 0u);
  EXPECT_EQ(stats.sessions, 0u);
  EXPECT_TRUE(LogCapture::Snapshot().empty());
}

TEST_F(IpfixRecvWorkerTest, MessageLengthBelowTwentyWalksNoSet) {
  IpfixRecvWorker worker(0, config_, &sink_);
  for (uint8_t length = 16; length < 20; ++length) {
    std::vector<uint8_t> message = OptionsMessage(100, length);
    message[3] = length;  // the set stays in the datagram, outside the message
    Feed(worker, message);
  }
  EXPECT_EQ(worker.GetStats().sessions, 4u);
  EXPECT_EQ(LogCapture::Count(kOptionsLine), 0u);

  Feed(worker, OptionsMessage(100, 16));
  EXPECT_EQ(LogCapture::Count(kOptionsLine), 1u);
}

TEST_F(IpfixRecvWorkerTest, SetWalkStopsAtFirstBadSet) {
  IpfixRecvWorker worker(0, config_, &sink_);
  IpfixMessageBuilder b;
  b.Begin(100, 1, 1);
  b.BeginSet(3);
  b.BeginSet(1);  // reserved ID: skipped, the walk goes on
  b.BeginSet(3);
  b.EndSet();
  b.PutU16(3);
  b.PutU16(3);  // set length below 4
  b.BeginSet(3);
  Feed(worker, b.Finish());
  EXPECT_EQ(LogCapture::Count(kOptionsLine), 2u);

  LogCapture::Clear();
  b.Begin(100, 2, 1);
  b.BeginSet(3);
  b.EndSet();
  b.PutU16(3);
  b.PutU16(100);  // runs past the message
  b.PutU32(0);
  Feed(worker, b.Finish());
  EXPECT_EQ(LogCapture::Count(kOptionsLine), 1u);

  // Bytes after the message length are not part of the message.
  LogCapture::Clear();
  std::vector<uint8_t> message = OptionsMessage(100, 1);
  const std::vector<uint8_t> extra = OptionsMessage(100, 1);
  message.insert(message.end(), extra.begin() + 16, extra.end());
  Feed(worker, message);
  EXPECT_EQ(LogCapture::Count(kOptionsLine), 1u);
}

TEST_F(IpfixRecvWorkerTest, TemplateAndDataSetsReachTheSession) {
  IpfixRecvWorker worker(0, config_, &sink_);
  IpfixMessageBuilder b;
  b.Begin(100, 1, 1);
  b.BeginSet(2);
  b.AddTemplate(300, {{1, 8, 0}, {2, 8, 0}});
  b.BeginSet(332);
  b.PutU64(1);
  Feed(worker, b.Finish());
  EXPECT_EQ(LogCapture::Count("cached counter template ID 300 with 2 fields"), 1u);
  EXPECT_EQ(LogCapture::Count("no template for counter set ID 332"), 1u);
}

TEST_F(IpfixRecvWorkerTest, FullTableRefusesUntilOldestIsStale) {
  config_.max_sessions = 1;
  IpfixRecvWorker worker(0, config_, &sink_);
  // Export times run against the collector's clock: only the latter counts.
  FeedAt(worker, OptionsMessage(900, 1), 5000, 1000 * kSecond);
  FeedAt(worker, OptionsMessage(800, 1), 5000, 1005 * kSecond);  // refreshes the first session
  FeedAt(worker, OptionsMessage(700, 2), 5001, 1015 * kSecond);  // silent 10 s: not more than the timeout
  EXPECT_EQ(LogCapture::Count("3 [IPFIX recv worker] [w=0] cannot create session for domain 2 (max "
                              "sessions reached, count=1)"),
            1u);
  EXPECT_TRUE(sink_.removed().empty());
  EXPECT_EQ(worker.GetStats().parsed, 3u);

  FeedAt(worker, OptionsMessage(600, 2), 5001, 1016 * kSecond + 1);
  EXPECT_EQ(LogCapture::Count("reaping stale session 127.0.0.1:5000/domain_1 (inactive 11 sec)"), 1u);
  const std::string first_key = IpfixReceiver::MakeSessionKey(From(5000), 1).ToKeyString();
  ASSERT_EQ(sink_.removed().size(), 1u);
  EXPECT_EQ(sink_.removed()[0], std::make_pair(size_t{0}, first_key));
  EXPECT_EQ(LogCapture::Count("created session for 127.0.0.1:5001 domain 2 (worker sessions: 1)"), 1u);
  EXPECT_EQ(worker.GetStats().sessions, 1u);
}

// Whatever export times exporters send, a session lives exactly as long as
// datagrams keep arriving for it.
TEST_F(IpfixRecvWorkerTest, ExportTimesNeitherReapNorKeepSessions) {
  config_.max_sessions = 1;
  struct Case {
    const char* what;
    uint32_t live_export_time;   // of the session's own datagram
    uint32_t other_export_time;  // of another exporter's datagram
    uint64_t silence;            // on the collector's clock before the other one
    bool reaped;
  } cases[] = {
      {"far-future stray", 1000, 0xFFFFFFFF, kSecond, false},
      {"far-past stray", 1000, 1, kSecond, false},
      {"zero stray", 1000, 0, kSecond, false},
      {"stray at the timeout", 1000, 0xFFFFFFFF, 10 * kSecond, false},
      {"own far-future time, silent", 0xFFFFFFFF, 0, 10 * kSecond + 1, true},
      {"own zero time, silent", 0, 0, 10 * kSecond + 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LogCapture::Clear();
    CountingSink sink;
    IpfixRecvWorker worker(0, config_, &sink);
    const uint64_t t0 = 50 * kSecond;
    FeedAt(worker, OptionsMessage(c.live_export_time, 1), 5000, t0);
    FeedAt(worker, OptionsMessage(c.other_export_time, 7), 6000, t0 + c.silence);
    EXPECT_EQ(LogCapture::Count("reaping"), c.reaped ? 1u : 0u);
    EXPECT_EQ(sink.removed().size(), c.reaped ? 1u : 0u);
    EXPECT_EQ(LogCapture::Count("max sessions reached"), c.reaped ? 0u : 1u);
    EXPECT_EQ(worker.GetStats().sessions, 1u);
  }
}

// The receive thread stamps datagrams with the real clock: a session silent
// for longer than the timeout goes when another exporter arrives, and not
// before.
TEST_F(IpfixRecvWorkerTest, SilentSessionIsReapedByTheReceiveThread) {
  config_.port = recv_test::FreeUdpPort();
  config_.max_sessions = 1;
  config_.session_timeout_sec = 1;
  IpfixRecvWorker worker(0, config_, &sink_);
  ASSERT_TRUE(worker.OpenSocket());
  worker.Start();
  recv_test::UdpSender first, second;
  ASSERT_TRUE(first.ok() && second.ok());

  ASSERT_TRUE(first.Send(config_.port, OptionsMessage(100, 1)));
  ASSERT_TRUE(recv_test::WaitFor([&] { return worker.GetStats().sessions == 1; }));
  // The first session's last datagram was stamped no later than this.
  const uint64_t seen_by = IpfixRecvWorker::MonotonicNowNs();
  ASSERT_TRUE(second.Send(config_.port, OptionsMessage(0xFFFFFFFF, 2)));
  ASSERT_TRUE(recv_test::WaitFor([] { return LogCapture::Count("max sessions reached") == 1; }));
  EXPECT_TRUE(sink_.removed().empty());

  // Only the clock is waited for here.
  while (IpfixRecvWorker::MonotonicNowNs() - seen_by <= kSecond)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(second.Send(config_.port, OptionsMessage(0, 2)));
  EXPECT_TRUE(recv_test::WaitFor([] { return LogCapture::Count("created session") == 2; }));
  worker.Stop();
  EXPECT_EQ(LogCapture::Count("reaping stale session 127.0.0.1:"), 1u);
  ASSERT_EQ(sink_.removed().size(), 1u);
  EXPECT_EQ(sink_.removed()[0].second,
            IpfixReceiver::MakeSessionKey(first.SeenAs(), 1).ToKeyString());
}

TEST_F(IpfixRecvWorkerTest, RefusedExporterIsLoggedOncePer256) {
  config_.max_sessions = 1;
  IpfixRecvWorker worker(0, config_, &sink_);
  Feed(worker, OptionsMessage(100, 1), 5000);
  for (int i = 0; i < 600; ++i) Feed(worker, OptionsMessage(100, 2), 5001 + i % 2);
  const auto lines = LogCapture::Matching("max sessions reached");
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("count=1)"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("count=257)"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("count=513)"), std::string::npos) << lines[2];
  EXPECT_EQ(worker.GetStats().parsed, 601u);
  EXPECT_EQ(worker.GetStats().sessions, 1u);
}

TEST_F(IpfixRecvWorkerTest, DrainHandsEverySessionToTheSink) {
  IpfixRecvWorker worker(3, config_, &sink_);
  for (uint16_t port = 6000; port < 6003; ++port) Feed(worker, OptionsMessage(50, 9), port);
  EXPECT_EQ(worker.GetStats().sessions, 3u);
  worker.Drain();
  EXPECT_EQ(worker.GetStats().sessions, 0u);
  const auto removed = sink_.removed();
  ASSERT_EQ(removed.size(), 3u);
  for (const auto& [index, key] : removed) {
    EXPECT_EQ(index, 3u);
    EXPECT_EQ(key.size(), 10u);
  }

  IpfixRecvWorker without_sink(0, config_, nullptr);
  Feed(without_sink, OptionsMessage(50, 9));
  without_sink.Drain();
  EXPECT_EQ(without_sink.GetStats().sessions, 0u);
}

TEST_F(IpfixRecvWorkerTest, ReceiveErrorsAreLoggedOncePer256) {
  config_.port = recv_test::FreeUdpPort();
  config_.backoff_min_us = 0;  // spin: errors pile up fast
  IpfixRecvWorker worker(0, config_, &sink_);
  ASSERT_TRUE(worker.OpenSocket());
  // A pipe in place of the socket makes every recvmmsg fail with ENOTSOCK.
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  ASSERT_GE(dup2(pipe_fds[0], worker.socket_fd()), 0);
  worker.Start();
  EXPECT_TRUE(recv_test::WaitFor([] { return LogCapture::Count("recvmmsg:") >= 2; }));
  worker.Stop();
  worker.CloseSocket();
  close(pipe_fds[0]);
  close(pipe_fds[1]);

  const auto lines = LogCapture::Matching("recvmmsg:");
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines[0].find("4 [IPFIX recv worker] [w=0] recvmmsg: "), std::string::npos);
  EXPECT_NE(lines[0].find("(errno=88, count=1)"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("(errno=88, count=257)"), std::string::npos) << lines[1];
  EXPECT_EQ(LogCapture::Count("[w=0] recv thread exiting normally"), 1u);
}

TEST_F(IpfixRecvWorkerTest, LongIndexCutsThreadName) {
  config_.port = recv_test::FreeUdpPort();
  IpfixRecvWorker worker(12345, config_, &sink_);
  ASSERT_TRUE(worker.OpenSocket());
  worker.Start();
  EXPECT_TRUE(recv_test::WaitFor(
      [] { return LogCapture::Count("thread name truncated to 'ipfix_recv_1234'") == 1; }));
  worker.Stop();
  worker.Stop();
  EXPECT_EQ(LogCapture::Count("[w=12345] recv thread exiting normally"), 1u);
}

}  // namespace

// The collector's account of its samples against what the simulator's loss
// injector dropped, through the real programs: hft-sim with injected loss
// into dtl-host, whose status lines and closing summary must give exactly
// the samples stored and the samples discarded.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/free_udp_port.h"
#include "tools/hft_sim/hft_simulator.h"

namespace fs = std::filesystem;
using dtl_test::ChildProcess;
using dtl_test::ReadTextFile;
using dtl_test::WaitForText;

namespace {

constexpr uint64_t kSamples = 2000;
const std::string kBin = std::string(DTL_BINARY_DIR) + "/bin/";

// What the collector can know of the injector's decisions: a damaged sample
// lost a fragment; samples after the last one whose first record arrived
// are invisible to it (nothing follows to show the gap).
struct Expected {
  uint64_t stored = 0;
  uint64_t discarded = 0;
};

Expected Replay(const dtl::hftsim::SimConfig& config) {
  dtl::hftsim::HftSimulator replica(config);
  replica.BuildAnnouncement(0);
  std::vector<bool> damaged(kSamples);
  std::vector<bool> opened(kSamples);
  for (uint64_t i = 0; i < kSamples; ++i) {
    const uint64_t dropped = replica.fragments_dropped();
    for (const auto& datagram : replica.BuildSample(0, i)) {
      // The first record of a sample is the data set of template 300.
      if (datagram.size() > 17 && datagram[16] == 300 >> 8 && datagram[17] == (300 & 0xff)) opened[i] = true;
    }
    damaged[i] = replica.fragments_dropped() != dropped;
  }
  uint64_t last_opened = 0;
  for (uint64_t i = 0; i < kSamples; ++i)
    if (opened[i]) last_opened = i;
  Expected e;
  for (uint64_t i = 0; i < kSamples; ++i) {
    if (!damaged[i])
      ++e.stored;
    else if (i <= last_opened)
      ++e.discarded;
  }
  return e;
}

uint64_t Number(const std::string& text, const std::string& pattern) {
  std::smatch m;
  return std::regex_search(text, m, std::regex(pattern)) ? std::stoull(m[1]) : UINT64_MAX;
}

TEST(LossAccounting, StoredAndDiscardedSamplesMatchTheInjectedLoss) {
  for (const uint64_t seed : {7u, 23u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const fs::path dir = fs::temp_directory_path() / ("dtl_loss_" + std::to_string(getpid()) + "_" + std::to_string(seed));
    fs::remove_all(dir);
    fs::create_directories(dir);
    const uint16_t port = dtl_test::FreeUdpPort();

    dtl::hftsim::SimConfig sim;
    sim.interface_count = 2;
    sim.counters_per_template = 4;  // 12 counters in 3 fragments
    sim.loss_probability = 0.02;
    sim.seed = seed;
    sim.announce_period_sec = 0;
    sim.start_time_ns = 1'700'000'000'000'000'000;
    const Expected expected = Replay(sim);
    ASSERT_GT(expected.discarded, 50u);

    const std::string host_log = (dir / "host.log").string();
    ChildProcess host({kBin + "dtl-host", "-o", "ipfix-receiver-port=" + std::to_string(port), "-o",
                       "ipfix-data-path=" + (dir / "data").string(), "-o", "ipfix-status-interval-sec=1"},
                      host_log);
    ASSERT_TRUE(WaitForText(host_log, "IPFIX receiver started", std::chrono::seconds(20))) << ReadTextFile(host_log);

    const std::string sim_log = (dir / "sim.log").string();
    ChildProcess sender({kBin + "hft-sim", "--target", "127.0.0.1:" + std::to_string(port), "--interfaces", "2",
                         "--counters-per-template", "4", "--loss", "0.02", "--seed", std::to_string(seed),
                         "--announce-period", "0", "--start-time", "1700000000", "--samples",
                         std::to_string(kSamples), "--rate", "1000"},
                        sim_log);
    ASSERT_EQ(sender.Wait(std::chrono::seconds(30)), 0) << ReadTextFile(sim_log);
    const uint64_t datagrams = Number(ReadTextFile(sim_log), R"((\d+) datagrams)");
    // Every datagram counted by a periodic status line: nothing is still on
    // its way when the stop begins.
    ASSERT_TRUE(WaitForText(host_log, "; " + std::to_string(datagrams) + " datagrams (", std::chrono::seconds(20)))
        << ReadTextFile(host_log);
    host.Signal(SIGINT);
    ASSERT_EQ(host.Wait(std::chrono::seconds(30)), 0) << ReadTextFile(host_log);

    const std::string log = ReadTextFile(host_log);
    // The periodic lines came while samples flowed, then the final ones.
    EXPECT_GE(Number(log, R"(\[IPFIX status\] Status: collector: \d+ session\(s\) open, (\d+) seen)"), 1u);
    const size_t final_line = log.find("[IPFIX status] Final status: collector:");
    ASSERT_NE(final_line, std::string::npos) << log;
    const std::string final_text = log.substr(final_line, log.find('\n', final_line) - final_line);
    EXPECT_EQ(Number(final_text, R"((\d+) samples stored)"), expected.stored) << final_text;
    EXPECT_EQ(Number(final_text, R"(discarded (\d+))"), expected.discarded) << final_text;
    EXPECT_EQ(Number(final_text, R"((\d+) fragment lost)"), expected.discarded) << final_text;
    // The first loss is told at once, with its sample time; the host's
    // last line sums up.
    EXPECT_NE(log.find("first sample discarded (fragment lost) at sample time 2023-11-14T"), std::string::npos);
    const std::string last = log.substr(log.rfind("dtl-host: "));
    EXPECT_EQ(last.rfind("dtl-host: done: 1 session(s); " + std::to_string(expected.stored) + " samples stored; discarded " +
                             std::to_string(expected.discarded) + ": " + std::to_string(expected.discarded) +
                             " fragment lost;",
                         0),
              0u)
        << last;
    fs::remove_all(dir);
  }
}

}  // namespace

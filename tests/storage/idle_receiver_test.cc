// A collector that has gone quiet: its workers wait in the kernel, wake for
// the idle flush and for the first datagrams after the quiet spell, and stop
// at once when asked.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <string>

#include "ipfix/ipfix_receiver.h"
#include "storage/ipfix_disk_writer.h"
#include "support/free_udp_port.h"
#include "support/wait_for.h"
#include "tools/dtl_read/data_file_reader.h"
#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/hft_simulator.h"

namespace fs = std::filesystem;
using dtl::hftsim::CounterValue;
using dtl_test::WaitFor;

namespace {

constexpr int64_t kStartNs = 1'700'000'000'000'000'000;
constexpr uint64_t kIntervalUs = 100;

class LoopbackSender {
 public:
  explicit LoopbackSender(uint16_t port) : fd_(socket(AF_INET, SOCK_DGRAM, 0)) {
    to_.sin_family = AF_INET;
    to_.sin_port = htons(port);
    to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  ~LoopbackSender() { close(fd_); }
  bool Send(const std::vector<uint8_t>& bytes) const {
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to_),
                  sizeof(to_)) == static_cast<ssize_t>(bytes.size());
  }

 private:
  int fd_;
  sockaddr_in to_{};
};

// Blocks stored under root whose time and every value are the simulator's
// for that sample; -1 as soon as a block is not, or a file cannot be read.
int64_t GoodBlocks(const fs::path& root, size_t counters) {
  int64_t good = 0;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; it != end; it.increment(ec)) {
    if (ec) return -1;
    if (it->path().extension() != ".bin") continue;
    dtl::read::DataFileReader reader;
    std::string error;
    if (!reader.Open(it->path().string(), &error)) return -1;
    dtl::read::DataFileReader::Result r;
    while ((r = reader.ReadNext(&error)) == dtl::read::DataFileReader::Result::kBlock) {
      const uint64_t sample = (reader.timestamp_us() - kStartNs / 1000) / kIntervalUs;
      for (size_t field = 0; field < counters; ++field) {
        uint64_t value;
        std::memcpy(&value, reader.block() + dtl::read::kBlockValuesOffset + 8 * field, sizeof(value));
        if (value != CounterValue(sample, field)) return -1;
      }
      ++good;
    }
    if (r == dtl::read::DataFileReader::Result::kError) return -1;
  }
  return good;
}

TEST(IdleReceiver, WakesForTheFirstDatagramsAfterAQuietSpellAndStopsAtOnce) {
  const fs::path root = fs::temp_directory_path() / ("dtl_idle_" + std::to_string(getpid()));
  fs::remove_all(root);
  dtl::ipfix::IpfixReceiver::Config config;
  config.port = dtl_test::FreeUdpPort();
  config.workers = 2;
  dtl::ipfix::DiskWriterConfig disk;
  disk.root = root.string();
  disk.workers = 2;
  disk.flush_idle_ms = 200;
  auto receiver = std::make_unique<dtl::ipfix::IpfixReceiver>(
      config, std::make_unique<dtl::ipfix::IpfixDiskWriter>(disk));
  ASSERT_TRUE(receiver->Start());
  // Nothing arrives: every worker leaves polling for a wait in the kernel.
  ASSERT_TRUE(WaitFor([&] { return receiver->GetStats().kernel_waits >= 2; }));

  dtl::hftsim::SimConfig sim;
  sim.interface_count = 2;  // 12 counters, one fragment per sample
  sim.start_time_ns = kStartNs;
  sim.sample_interval_us = kIntervalUs;
  dtl::hftsim::HftSimulator simulator(sim);
  const size_t counters = sim.TotalCounters();
  LoopbackSender sender(config.port);
  uint64_t next_sample = 0;
  auto send_samples = [&](uint64_t count) {
    for (const auto& datagram : simulator.BuildAnnouncement(0)) ASSERT_TRUE(sender.Send(datagram));
    for (uint64_t end = next_sample + count; next_sample < end; ++next_sample)
      for (const auto& datagram : simulator.BuildSample(0, next_sample)) ASSERT_TRUE(sender.Send(datagram));
  };

  // The first samples after the quiet start, then a quiet spell: the worker
  // that sleeps must still wake to write the session's partial page.
  send_samples(100);
  ASSERT_TRUE(WaitFor([&] { return GoodBlocks(root, counters) == 100; }, std::chrono::seconds(10)))
      << GoodBlocks(root, counters);
  // With its page written the worker sleeps with no time limit; traffic
  // again must wake it.
  send_samples(50);
  ASSERT_TRUE(WaitFor([&] { return GoodBlocks(root, counters) == 150; }, std::chrono::seconds(10)))
      << GoodBlocks(root, counters);
  EXPECT_EQ(receiver->GetStats().packets_received, receiver->GetStats().parsed);

  // Stop while the workers sleep without a time limit: the stop event wakes them.
  auto stopped = std::async(std::launch::async, [&] { receiver->Stop(); });
  if (stopped.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
    ADD_FAILURE() << "stop did not wake the sleeping workers";
    // Datagrams from many source ports reach every worker and end the test.
    for (int i = 0; i < 32; ++i) LoopbackSender(config.port).Send({0});
  }
  stopped.wait();
  EXPECT_EQ(GoodBlocks(root, counters), 150);
  receiver.reset();
  fs::remove_all(root);
}

}  // namespace

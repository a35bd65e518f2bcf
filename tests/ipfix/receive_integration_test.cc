// The whole receive path over real UDP: simulated switches (IPv4 and IPv6,
// several exporters) stream into a receiver with two workers; every session
// must reach a complete schema with the simulator's counters and metadata,
// and every sample must arrive with the simulator's values.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <thread>

#include "ipfix/ipfix_receiver.h"
#include "recording_sink.h"
#include "recv_test_support.h"
#include "tools/hft_sim/counter_layout.h"
#include "tools/hft_sim/hft_simulator.h"

namespace {

using dtl::hftsim::CounterLayout;
using dtl::hftsim::CounterValue;
using dtl::hftsim::HftSimulator;
using dtl::hftsim::SimConfig;
using dtl::ipfix::IpfixReceiver;

constexpr uint64_t kSamples = 300;

SimConfig Switch(const std::string& target, const std::string& name, uint32_t domain, uint32_t exporters) {
  SimConfig config;
  config.target = target;
  config.switch_name = name;
  config.observation_domain = domain;
  config.exporters = exporters;
  config.interface_count = 3;
  config.traffic_classes = {"tc0", "tc3"};
  config.counters_per_template = 10;  // 3 x 6 x 2 = 36 counters: templates 300-303
  config.sample_count = kSamples;
  config.rate = 3000;
  config.announce_period_sec = 0;
  return config;
}

TEST(ReceivePath, SimulatedSwitchesOverIpv4AndIpv6ReachCompleteSessions) {
  IpfixReceiver::Config config{};
  config.port = recv_test::FreeUdpPort();
  config.max_sessions = 16;
  config.recv_buffer_size = 8 << 20;
  config.workers = 2;
  config.backoff_min_us = 20;
  config.backoff_max_us = 200;
  config.session_timeout_sec = 300;
  auto owned = std::make_unique<RecordingSink>();
  RecordingSink& sink = *owned;
  IpfixReceiver receiver(config, std::move(owned));
  receiver.Start();
  ASSERT_TRUE(receiver.running());

  const std::string port = std::to_string(config.port);
  const SimConfig v4 = Switch("127.0.0.1:" + port, "leaf-v4", 10, 2);
  const SimConfig v6 = Switch("[::1]:" + port, "spine-v6", 20, 1);
  HftSimulator sim4(v4), sim6(v6);
  dtl::hftsim::SimRunResult r4, r6;
  std::thread t4([&] { r4 = sim4.Run(); });
  std::thread t6([&] { r6 = sim6.Run(); });
  t4.join();
  t6.join();
  ASSERT_TRUE(r4.ok()) << r4.error;
  ASSERT_TRUE(r6.ok()) << r6.error;

  const size_t sessions = 3;
  EXPECT_TRUE(recv_test::WaitFor([&] { return sink.commits().size() >= sessions * kSamples; }))
      << "commits: " << sink.commits().size();
  receiver.Stop();

  // One published schema per exporter session, each from the worker that
  // owns it, with the display name telling the address family.
  const auto updates = sink.schema_updates();
  std::map<std::string, RecordingSink::SchemaUpdate> by_key;
  for (const auto& u : updates) by_key[u.key] = u;
  ASSERT_EQ(by_key.size(), sessions);
  std::set<uint32_t> domains;
  for (const auto& [key, u] : by_key) {
    domains.insert(u.domain_id);
    const bool ipv6 = key.size() == 22;
    EXPECT_EQ(key.size(), ipv6 ? 22u : 10u);
    EXPECT_EQ(u.display_name.rfind(ipv6 ? "::1:" : "127.0.0.1:", 0), 0u) << u.display_name;
    const SimConfig& sim = ipv6 ? v6 : v4;
    EXPECT_EQ(u.snapshot.switch_name, sim.switch_name);

    // Flat fields follow the simulator's layout: templates in order, names
    // and per-counter metadata (interface, traffic class) by mapping order.
    const CounterLayout layout(sim);
    ASSERT_EQ(u.snapshot.flat_fields.size(), layout.counters().size());
    for (size_t i = 0; i < layout.counters().size(); ++i) {
      const auto& want = layout.counters()[i];
      const auto& got = u.snapshot.flat_fields[i];
      EXPECT_EQ(got.element_id, want.element_id) << i;
      EXPECT_EQ(got.name, want.name) << i;
      EXPECT_EQ(got.metadata_id, want.definition_id) << i;
      const dtl::ipfix::MetadataPairs pairs = {{"interface", want.interface_name},
                                               {"traffic_class", want.traffic_class}};
      EXPECT_EQ(got.metadata, pairs) << i;
    }
  }
  EXPECT_EQ(domains, (std::set<uint32_t>{10, 11, 20}));

  // Every sample committed once per session, carrying the simulator's values.
  std::map<std::string, std::set<uint64_t>> samples_by_key;
  for (const auto& c : sink.commits()) {
    const size_t fields = c.values.size() / 8;
    ASSERT_EQ(fields, 36u);
    uint64_t first;
    std::memcpy(&first, c.values.data(), 8);
    const uint64_t sample = first / 1000003 - 1;
    for (size_t f = 0; f < fields; ++f) {
      uint64_t value;
      std::memcpy(&value, c.values.data() + 8 * f, 8);
      ASSERT_EQ(value, CounterValue(sample, f)) << "sample " << sample << " field " << f;
    }
    samples_by_key[c.key].insert(sample);
  }
  ASSERT_EQ(samples_by_key.size(), sessions);
  for (const auto& [key, samples] : samples_by_key) {
    EXPECT_EQ(samples.size(), kSamples);
    EXPECT_EQ(*samples.rbegin(), kSamples - 1);
  }

  // Stop hands every session back to the sink.
  std::set<std::string> removed;
  for (const auto& r : sink.removals()) removed.insert(r.second);
  EXPECT_EQ(removed.size(), sessions);
}

TEST(ReceivePath, RepeatedStartStopIsBoundedAndLeavesNoSession) {
  IpfixReceiver::Config config{};
  config.port = recv_test::FreeUdpPort();
  config.max_sessions = 4;
  config.workers = 3;
  config.backoff_min_us = 50;
  config.backoff_max_us = 1000;
  config.session_timeout_sec = 300;
  IpfixReceiver receiver(config, std::make_unique<RecordingSink>());
  for (int round = 0; round < 5; ++round) {
    const auto begin = std::chrono::steady_clock::now();
    receiver.Start();
    ASSERT_TRUE(receiver.running());
    receiver.Stop();
    EXPECT_FALSE(receiver.running());
    EXPECT_EQ(receiver.GetStats().sessions, 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  }
}

}  // namespace

// The simulated switch is checked by decoding what it produces with the
// collector's own message parser: templates, descriptive records, samples,
// injected faults, options, and a real send over loopback UDP.
#include "tools/hft_sim/hft_simulator.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ipfix/message_parser.h"
#include "tests/tools/hft_sim_decoder.h"
#include "tools/hft_sim/sim_options.h"

namespace dtl::hftsim {
namespace {

using ipfix::MessageParser;
using ipfix::ParsedHeader;
using ipfix::ParsedTemplate;
using namespace test_support;

TEST(HftSimulatorAnnouncement, TemplatesFollowTheExporterConventions) {
  HftSimulator simulator(SmallConfig());
  Decoder decoder;
  const Announcement a = DecodeAnnouncement(simulator, 0, decoder);

  using Fields = std::vector<std::pair<uint16_t, uint16_t>>;
  const auto fields_of = [&](uint16_t id) {
    Fields fields;
    for (const auto& f : a.templates.at(id).fields) {
      EXPECT_FALSE(f.enterprise_bit);
      fields.emplace_back(f.element_id, f.length);
    }
    return fields;
  };
  EXPECT_EQ(fields_of(256), (Fields{{3, 65535}}));
  EXPECT_EQ(fields_of(257), (Fields{{5, 2}, {4, 65535}, {7, 4}}));
  EXPECT_EQ(fields_of(258), (Fields{{8, 8}, {9, 65535}, {10, 65535}, {7, 4}}));
  EXPECT_EQ(fields_of(259), (Fields{{6, 2}, {8, 8}, {7, 4}}));

  ASSERT_EQ(a.templates.size(), 7u);
  EXPECT_FALSE(a.templates.count(303));
  const Fields t300 = fields_of(300);
  ASSERT_EQ(t300.size(), 12u);
  EXPECT_EQ(t300[0], (std::pair<uint16_t, uint16_t>{1, 4}));
  EXPECT_EQ(t300[1], (std::pair<uint16_t, uint16_t>{2, 4}));
  EXPECT_EQ(fields_of(301).size(), 10u);
  EXPECT_EQ(fields_of(302).size(), 4u);

  // Counter fields: 8 bytes, element IDs 1000.. in field order, none reused.
  uint16_t expected_element = 1000;
  for (uint16_t id = 300; id <= 302; ++id) {
    const Fields fields = fields_of(id);
    for (size_t i = (id == 300 ? 2 : 0); i < fields.size(); ++i) {
      EXPECT_EQ(fields[i].first, expected_element++);
      EXPECT_EQ(fields[i].second, 8);
    }
  }
}

TEST(HftSimulatorAnnouncement, NamesDefinitionsAndMappingsDescribeEveryCounterInFieldOrder) {
  const SimConfig config = SmallConfig();
  HftSimulator simulator(config);
  Decoder decoder;
  const Announcement a = DecodeAnnouncement(simulator, 0, decoder);

  ASSERT_EQ(a.records[0].size(), 1u);
  EXPECT_EQ(Text(a.records[0][0], 3), "hft-sim");

  std::map<uint16_t, std::string> names;
  for (const Record& r : a.records[1]) {
    EXPECT_EQ(U32(Field(r, 7).data()), HftSimulator::kRevision);
    EXPECT_TRUE(names.emplace(U16(Field(r, 5).data()), Text(r, 4)).second) << "element named twice";
  }
  ASSERT_EQ(names.size(), 24u);

  std::map<uint64_t, std::vector<std::pair<std::string, std::string>>> definitions;
  for (const Record& r : a.records[2]) definitions[U64(Field(r, 8).data())].emplace_back(Text(r, 9), Text(r, 10));
  ASSERT_EQ(definitions.size(), 24u);
  EXPECT_EQ(definitions.begin()->first, 1u);

  std::map<uint16_t, std::vector<uint64_t>> mappings;
  for (const Record& r : a.records[3]) mappings[U16(Field(r, 6).data())].push_back(U64(Field(r, 8).data()));
  ASSERT_EQ(mappings.size(), 3u);

  // The k-th mapping of a template describes its k-th counter field. Counters
  // run by interface, then counter name, then traffic class.
  size_t k = 0;
  for (uint16_t id = 300; id <= 302; ++id) {
    std::vector<uint16_t> elements;
    for (const auto& f : a.templates.at(id).fields) {
      if (f.element_id != 1 && f.element_id != 2) elements.push_back(f.element_id);
    }
    ASSERT_EQ(mappings[id].size(), elements.size()) << "template " << id;
    for (size_t i = 0; i < elements.size(); ++i, ++k) {
      const std::string& interface_name = config.interfaces[k / 8];
      const std::string& counter = config.counter_names[(k / 2) % 4];
      const std::string& traffic_class = config.traffic_classes[k % 2];
      EXPECT_EQ(names[elements[i]], counter);
      EXPECT_EQ(definitions[mappings[id][i]],
                (std::vector<std::pair<std::string, std::string>>{{"interface", interface_name},
                                                                  {"traffic_class", traffic_class}}))
          << "template " << id << " field " << i;
    }
  }
}

TEST(HftSimulatorAnnouncement, WithoutTrafficClassesEachDefinitionHasOnlyTheInterface) {
  SimConfig config = SmallConfig();
  config.traffic_classes.clear();
  config.interfaces.clear();
  config.interface_count = 2;
  HftSimulator simulator(config);
  Decoder decoder;
  const Announcement a = DecodeAnnouncement(simulator, 0, decoder);
  ASSERT_EQ(a.records[2].size(), 8u);
  for (size_t k = 0; k < 8; ++k) {
    EXPECT_EQ(U64(Field(a.records[2][k], 8).data()), k + 1);
    EXPECT_EQ(Text(a.records[2][k], 9), "interface");
    EXPECT_EQ(Text(a.records[2][k], 10), k < 4 ? "Ethernet1/1" : "Ethernet1/2");
  }
}

TEST(HftSimulatorAnnouncement, MessagesStayWithinTheLimitAndNumberDataRecords) {
  SimConfig config = SmallConfig();
  config.max_datagram_bytes = 256;
  config.exporters = 3;
  config.observation_domain = 40;
  HftSimulator simulator(config);
  Decoder decoder;
  // Announce twice: the second announcement continues the numbering.
  simulator.BuildAnnouncement(2);
  const std::vector<Datagram> datagrams = simulator.BuildAnnouncement(2);
  ASSERT_GT(datagrams.size(), 5u);
  uint32_t records_before = 1 + 24 + 48 + 24;  // first announcement's data records
  uint32_t last_metadata_sequence = 0;
  bool first_metadata = true;
  for (const Datagram& datagram : datagrams) {
    EXPECT_LE(datagram.size(), 256u);
    const Message m = decoder.Decode(datagram);
    EXPECT_EQ(m.header.observation_domain_id, 42u);
    EXPECT_EQ(m.header.export_time, kStartNs / 1'000'000'000ull);
    EXPECT_EQ(m.header.sequence_number, records_before);
    for (const DataSet& set : m.data_sets) records_before += static_cast<uint32_t>(set.records.size());
    if (m.data_sets.empty()) continue;
    if (!first_metadata) {
      EXPECT_GT(m.header.sequence_number, last_metadata_sequence);
    }
    first_metadata = false;
    last_metadata_sequence = m.header.sequence_number;
  }
}

TEST(HftSimulatorSample, OneFragmentPerDatagramCarriesTimeAndFormulaValues) {
  SimConfig config = SmallConfig();
  config.exporters = 2;
  config.sample_interval_us = 250;
  HftSimulator simulator(config);
  Decoder decoder;
  for (uint32_t e = 0; e < 2; ++e) DecodeAnnouncement(simulator, e, decoder);
  const uint32_t sequence_after_announcement = 1 + 24 + 48 + 24;
  for (uint64_t sample : {0ull, 1ull, 4000000ull}) {
    const std::vector<Datagram> datagrams = simulator.BuildSample(1, sample);
    ASSERT_EQ(datagrams.size(), 3u);
    const uint64_t time_ns = kStartNs + sample * 250'000;
    const size_t sizes[] = {10, 10, 4};
    for (size_t f = 0; f < 3; ++f) {
      const Message m = decoder.Decode(datagrams[f]);
      EXPECT_EQ(m.header.observation_domain_id, 2u);
      EXPECT_EQ(m.header.export_time, time_ns / 1'000'000'000ull);
      ASSERT_EQ(m.data_sets.size(), 1u);
      ExpectCounterRecord(m.data_sets[0], static_cast<uint16_t>(300 + f), sample, f * 10, sizes[f], time_ns);
      if (sample == 0) {
        EXPECT_EQ(m.header.sequence_number, sequence_after_announcement + f);
      }
    }
  }
}

TEST(HftSimulatorSample, WholeSamplePerDatagramKeepsTemplateOrder) {
  SimConfig config = SmallConfig();
  config.sample_per_datagram = true;
  HftSimulator simulator(config);
  Decoder decoder;
  DecodeAnnouncement(simulator, 0, decoder);
  for (uint64_t sample = 0; sample < 3; ++sample) {
    const std::vector<Datagram> datagrams = simulator.BuildSample(0, sample);
    ASSERT_EQ(datagrams.size(), 1u);
    const Message m = decoder.Decode(datagrams[0]);
    EXPECT_EQ(m.header.sequence_number, 97u + sample * 3);
    ASSERT_EQ(m.data_sets.size(), 3u);
    const uint64_t time_ns = kStartNs + sample * 100'000;
    ExpectCounterRecord(m.data_sets[0], 300, sample, 0, 10, time_ns);
    ExpectCounterRecord(m.data_sets[1], 301, sample, 10, 10, time_ns);
    ExpectCounterRecord(m.data_sets[2], 302, sample, 20, 4, time_ns);
  }
}

// Fragment (set) IDs of each sample of exporter 0, after the announcement.
std::vector<std::vector<uint16_t>> SampleFragments(HftSimulator& simulator, uint64_t samples,
                                                   std::vector<uint32_t>* sequences = nullptr) {
  Decoder decoder;
  DecodeAnnouncement(simulator, 0, decoder);
  std::vector<std::vector<uint16_t>> result;
  for (uint64_t s = 0; s < samples; ++s) {
    result.emplace_back();
    for (const Datagram& datagram : simulator.BuildSample(0, s)) {
      const Message m = decoder.Decode(datagram);
      if (sequences != nullptr) sequences->push_back(m.header.sequence_number);
      for (const DataSet& set : m.data_sets) {
        result.back().push_back(set.set_id);
        const uint64_t first = (set.set_id - 300u) * 10u;
        ExpectCounterRecord(set, set.set_id, s, first, set.set_id == 302 ? 4 : 10, kStartNs + s * 100'000);
      }
    }
  }
  return result;
}

TEST(HftSimulatorInjection, EveryNthLossDropsThoseFragmentsAndLeavesSequenceGaps) {
  SimConfig config = SmallConfig();
  config.loss_every = 4;
  HftSimulator simulator(config);
  std::vector<uint32_t> sequences;
  const auto fragments = SampleFragments(simulator, 4, &sequences);
  // Fragments 1..12 over four samples of three: 4, 8 and 12 are lost.
  const std::vector<std::vector<uint16_t>> expected = {{300, 301, 302}, {301, 302}, {300, 302}, {300, 301}};
  EXPECT_EQ(fragments, expected);
  EXPECT_EQ(simulator.fragments_dropped(), 3u);
  EXPECT_EQ(sequences, (std::vector<uint32_t>{97, 98, 99, 101, 102, 103, 105, 106, 107}));
}

TEST(HftSimulatorInjection, RandomLossIsNearItsProbabilityAndRepeatableBySeed) {
  const auto run = [](uint64_t seed) {
    SimConfig config = SmallConfig();
    config.loss_probability = 0.25;
    config.seed = seed;
    HftSimulator simulator(config);
    const SimTotals totals = simulator.Generate(1000, nullptr);
    EXPECT_EQ(totals.fragments_dropped + totals.fragments_sent, 3000u);
    std::vector<Datagram> datagrams;
    for (uint64_t s = 0; s < 50; ++s) {
      for (Datagram& d : simulator.BuildSample(0, s)) datagrams.push_back(std::move(d));
    }
    return std::make_pair(totals.fragments_dropped, datagrams);
  };
  const auto a = run(7);
  EXPECT_GT(a.first, 600u);
  EXPECT_LT(a.first, 900u);
  EXPECT_EQ(run(7), a);
  EXPECT_NE(run(8).second, a.second);
}

TEST(HftSimulatorInjection, ReorderingSwapsNeighboursWithinASample) {
  SimConfig config = SmallConfig();
  config.reorder_probability = 1;
  HftSimulator always(config);
  EXPECT_EQ(SampleFragments(always, 2), (std::vector<std::vector<uint16_t>>{{301, 300, 302}, {301, 300, 302}}));
  EXPECT_EQ(always.fragment_swaps(), 2u);

  config.reorder_probability = 0.3;
  HftSimulator sometimes(config);
  size_t swapped_samples = 0;
  for (auto fragments : SampleFragments(sometimes, 200)) {
    if (fragments != std::vector<uint16_t>{300, 301, 302}) ++swapped_samples;
    std::sort(fragments.begin(), fragments.end());
    EXPECT_EQ(fragments, (std::vector<uint16_t>{300, 301, 302}));
  }
  EXPECT_GT(swapped_samples, 40u);
  EXPECT_LT(swapped_samples, 160u);
  EXPECT_EQ(sometimes.fragment_swaps(), swapped_samples);
}

TEST(HftSimulatorGenerate, ReannouncesEveryPeriodOfSampleTime) {
  SimConfig config = SmallConfig();
  config.exporters = 2;
  config.announce_period_sec = 0.001;  // every 10 samples of 100 us
  HftSimulator simulator(config);
  std::vector<uint32_t> template_messages(2);
  uint64_t datagrams = 0;
  const SimTotals totals = simulator.Generate(35, [&](uint32_t exporter, const Datagram& datagram) {
    ++datagrams;
    if (U16(&datagram[16]) == MessageParser::kTemplateSetId) ++template_messages.at(exporter);
  });
  EXPECT_EQ(totals.announcements, 8u);  // at samples 0, 10, 20, 30 for each exporter
  EXPECT_EQ(template_messages, (std::vector<uint32_t>{4, 4}));
  EXPECT_EQ(totals.samples, 70u);
  EXPECT_EQ(totals.fragments_sent, 210u);
  EXPECT_EQ(totals.datagrams, datagrams);
}

char* Arg(const char* text) { return const_cast<char*>(text); }

SimOptionsResult Parse(std::vector<const char*> args, SimConfig& config, std::string& error) {
  std::vector<char*> argv = {Arg("hft-sim")};
  for (const char* a : args) argv.push_back(Arg(a));
  argv.push_back(nullptr);
  return ParseSimOptions(static_cast<int>(argv.size() - 1), argv.data(), config, error);
}

TEST(HftSimOptions, ReadsEveryOption) {
  SimConfig config;
  std::string error;
  ASSERT_EQ(Parse({"--target", "[::1]:9999", "-n", "leaf1", "-d", "7", "-e", "3", "--source-port", "40000", "-i", "Eth1,Eth2", "-c", "a,b",
                   "--traffic-classes", "q0,q1,q2", "--counters-per-template", "5", "--interval-us", "50", "-r",
                   "2000.5", "-s", "100", "-D", "1.5", "--datagram", "sample", "--announce-period", "0", "--loss",
                   "0.1", "--loss-every", "9", "--reorder", "0.2", "--seed", "42", "--start-time", "1700000000.5",
                   "--max-datagram", "9000", "--export-time", "wall"},
                  config, error),
            SimOptionsResult::kRun)
      << error;
  EXPECT_EQ(config.target, "[::1]:9999");
  EXPECT_EQ(config.switch_name, "leaf1");
  EXPECT_EQ(config.observation_domain, 7u);
  EXPECT_EQ(config.exporters, 3u);
  EXPECT_EQ(config.source_port, 40000u);
  EXPECT_EQ(config.interfaces, (std::vector<std::string>{"Eth1", "Eth2"}));
  EXPECT_EQ(config.counter_names, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(config.traffic_classes, (std::vector<std::string>{"q0", "q1", "q2"}));
  EXPECT_EQ(config.TotalCounters(), 12u);
  EXPECT_EQ(config.CounterTemplateCount(), 3u);
  EXPECT_EQ(config.counters_per_template, 5u);
  EXPECT_EQ(config.sample_interval_us, 50u);
  EXPECT_DOUBLE_EQ(config.rate, 2000.5);
  EXPECT_EQ(config.sample_count, 100u);
  EXPECT_DOUBLE_EQ(config.duration_sec, 1.5);
  EXPECT_TRUE(config.sample_per_datagram);
  EXPECT_EQ(config.announce_period_sec, 0);
  EXPECT_DOUBLE_EQ(config.loss_probability, 0.1);
  EXPECT_EQ(config.loss_every, 9u);
  EXPECT_DOUBLE_EQ(config.reorder_probability, 0.2);
  EXPECT_EQ(config.seed, 42u);
  EXPECT_EQ(config.start_time_ns, 1'700'000'000'500'000'000);
  EXPECT_EQ(config.max_datagram_bytes, 9000u);
  EXPECT_TRUE(config.wall_clock_export_time);

  // A number of interfaces generates the names; parsing again starts afresh.
  SimConfig counted;
  ASSERT_EQ(Parse({"-i", "3"}, counted, error), SimOptionsResult::kRun) << error;
  EXPECT_EQ(counted.InterfaceNames(), (std::vector<std::string>{"Ethernet1/1", "Ethernet1/2", "Ethernet1/3"}));
  EXPECT_EQ(Parse({"-h"}, counted, error), SimOptionsResult::kHelp);

  SimConfig behaviours;
  EXPECT_EQ(behaviours.sequence_mode, SequenceMode::kRecords);
  ASSERT_EQ(Parse({"-i", "20", "--sequence", "message", "--interleave", "--fragments-per-message", "2",
                   "--withdraw-at", "5"},
                  behaviours, error),
            SimOptionsResult::kRun)
      << error;
  EXPECT_EQ(behaviours.sequence_mode, SequenceMode::kMessages);
  EXPECT_TRUE(behaviours.interleave_descriptive);
  EXPECT_EQ(behaviours.fragments_per_message, 2u);
  EXPECT_EQ(behaviours.withdraw_at_sample, 5);
  ASSERT_EQ(Parse({"--sequence", "constant"}, behaviours, error), SimOptionsResult::kRun) << error;
  EXPECT_EQ(behaviours.sequence_mode, SequenceMode::kConstant);
}

TEST(HftSimOptions, RejectsBadInput) {
  const std::vector<std::vector<const char*>> bad = {
      {"--bogus"},
      {"-x"},
      {"--rate"},
      {"--rate", "-1"},
      {"--rate", "fast"},
      {"--loss", "1.5"},
      {"--reorder", "-0.1"},
      {"--datagram", "packet"},
      {"--export-time", "local"},
      {"-t", "127.0.0.1"},
      {"-t", "::1:4739"},
      {"-t", "[::1]4739"},
      {"-t", "host:0"},
      {"-t", "host:65536"},
      {"-e", "0"},
      {"-d", "4294967295", "-e", "2"},
      {"--source-port", "65535", "-e", "2"},
      {"--source-port", "65536"},
      {"-c", "a,,b"},
      {"-c", ""},
      {"-i", "0"},
      {"--counters-per-template", "0"},
      {"--counters-per-template", "10", "-i", "100"},  // 2400 counters need 240 templates
      {"--interval-us", "0"},
      {"--max-datagram", "100"},
      {"-s", "12abc"},
      {"-s", "-5"},
      {"stray"},
      {"--sequence", "random"},
      {"--fragments-per-message", "0"},
      {"--fragments-per-message", "2", "--datagram", "sample"},
      {"--fragments-per-message", "400"},  // 400 fragments of 24 counters exceed a datagram
      {"--withdraw-at", "-1"},
      {"--withdraw-at", "3", "-i", "1"},  // a single counter template cannot be withdrawn
  };
  for (const auto& args : bad) {
    SimConfig config;
    std::string error;
    std::string joined;
    for (const char* a : args) joined += std::string(a) + " ";
    EXPECT_EQ(Parse(args, config, error), SimOptionsResult::kError) << joined;
    EXPECT_FALSE(error.empty()) << joined;
  }
}

TEST(HftSimOptions, AWholeSampleMustFitOneDatagram) {
  SimConfig config;
  config.interface_count = 10;
  config.counter_names.assign(800, "c");
  config.counters_per_template = 2000;  // 8000 counters in 4 templates: 64,040 bytes
  EXPECT_EQ(config.Validate(), "");
  config.sample_per_datagram = true;
  EXPECT_EQ(config.Validate(), "");
  config.counter_names.assign(820, "c");  // 8200 counters in 5 templates: 65,644 bytes
  EXPECT_NE(config.Validate(), "");
  config.sample_per_datagram = false;
  EXPECT_EQ(config.Validate(), "");
}

TEST(HftSimOptions, TargetForms) {
  SimTarget target;
  ASSERT_TRUE(ParseSimTarget("10.1.2.3:4739", target));
  EXPECT_EQ(target.host, "10.1.2.3");
  EXPECT_EQ(target.port, 4739);
  ASSERT_TRUE(ParseSimTarget("[fe80::1%eth0]:1", target));
  EXPECT_EQ(target.host, "fe80::1%eth0");
  EXPECT_EQ(target.port, 1);
  ASSERT_TRUE(ParseSimTarget("collector.example:65535", target));
  EXPECT_EQ(target.host, "collector.example");
  EXPECT_FALSE(ParseSimTarget("[]:4739", target));
  EXPECT_FALSE(ParseSimTarget(":4739", target));
}

// A loopback UDP socket on an ephemeral port.
class LoopbackReceiver {
 public:
  LoopbackReceiver() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    int size = 16 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackReceiver() { close(fd_); }

  std::string target() const { return "127.0.0.1:" + std::to_string(port_); }

  // Receives until `expected` datagrams arrived or nothing came for the quiet time.
  std::vector<Datagram> Receive(size_t expected, int quiet_ms = 2000) {
    std::vector<Datagram> received;
    std::vector<uint8_t> buffer(65536);
    while (received.size() < expected) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, quiet_ms) <= 0) break;
      const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
      if (n < 0) break;
      received.emplace_back(buffer.begin(), buffer.begin() + n);
    }
    return received;
  }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
};

TEST(HftSimulatorRun, SendsEveryDatagramOverLoopback) {
  LoopbackReceiver receiver;
  SimConfig config = SmallConfig();
  config.target = receiver.target();
  config.sample_count = 200;
  config.rate = 20000;
  config.exporters = 2;
  HftSimulator simulator(config);
  const SimRunResult result = simulator.Run();
  ASSERT_TRUE(result.ok()) << result.error;
  EXPECT_EQ(result.totals.samples, 400u);
  EXPECT_EQ(result.totals.send_errors, 0u);
  EXPECT_GE(result.elapsed_sec, 199 / 20000.0);

  HftSimulator reference(config);
  const SimTotals expected = reference.Generate(200, nullptr);
  EXPECT_EQ(result.totals.datagrams, expected.datagrams);
  EXPECT_EQ(result.totals.bytes, expected.bytes);
  const std::vector<Datagram> received = receiver.Receive(expected.datagrams);
  EXPECT_EQ(received.size(), expected.datagrams);
  std::set<uint32_t> domains;
  for (const Datagram& d : received) domains.insert(MessageParser::ParseHeader(d.data(), d.size()).observation_domain_id);
  EXPECT_EQ(domains, (std::set<uint32_t>{1, 2}));
}

TEST(HftSimulatorRun, StopsOnRequestFromAnotherThread) {
  LoopbackReceiver receiver;
  SimConfig config = SmallConfig();
  config.target = receiver.target();
  config.rate = 1000;  // no sample or time limit
  HftSimulator simulator(config);
  auto run = std::async(std::launch::async, [&] { return simulator.Run(); });
  // Wait (bounded) for the first sample to arrive, then stop the run.
  receiver.Receive(8, 5000);
  simulator.RequestStop();
  ASSERT_EQ(run.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  const SimRunResult result = run.get();
  ASSERT_TRUE(result.ok()) << result.error;
  EXPECT_GT(result.totals.samples, 0u);
  EXPECT_GT(result.totals.datagrams, result.totals.samples);
}

// Runs a command with output captured; returns the exit status.
int RunCommand(const std::string& command, std::string& output) {
  output.clear();
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char buffer[4096];
  size_t n = 0;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) output.append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::string kProgram = DTL_BINARY_DIR "/bin/hft-sim";

TEST(HftSimProgram, HelpUsageErrorsAndARealSend) {
  ASSERT_EQ(access(kProgram.c_str(), X_OK), 0) << kProgram << " is not built";
  std::string output;
  EXPECT_EQ(RunCommand(kProgram + " --help", output), 0);
  EXPECT_NE(output.find("--loss-every"), std::string::npos);
  EXPECT_NE(output.find("value = (i + 1) * 1000003 + k * 7919 + (k << 40)"), std::string::npos);

  EXPECT_EQ(RunCommand(kProgram + " --rate nope", output), 2);
  EXPECT_NE(output.find("--rate"), std::string::npos);
  EXPECT_EQ(RunCommand(kProgram + " -t no-such-host.invalid:4739 -s 1", output), 1);

  LoopbackReceiver receiver;
  const std::string args = " -t " + receiver.target() + " -i 3 --counters-per-template 8 -s 50 --rate 5000";
  ASSERT_EQ(RunCommand(kProgram + args, output), 0) << output;
  // 18 counters in 3 templates: 3 datagrams per sample plus the announcement.
  SimConfig config;
  config.interface_count = 3;
  config.counters_per_template = 8;
  HftSimulator reference(config);
  const uint64_t expected = reference.Generate(50, nullptr).datagrams;
  EXPECT_EQ(receiver.Receive(expected).size(), expected);
  EXPECT_NE(output.find("sent 50 samples"), std::string::npos) << output;
  EXPECT_NE(output.find(std::to_string(expected) + " datagrams"), std::string::npos) << output;
}

}  // namespace
}  // namespace dtl::hftsim

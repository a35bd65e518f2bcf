// The simulated switch, decoded by the test's own minimal collector: its
// wire format, its loss injection, and that each exporter behaviour the
// end-to-end tests ask for is really produced (they would pass without it).
#include "tools/hft_sim/hft_simulator.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "tests/tools/hft_sim_decoder.h"

namespace dtl::hftsim {
namespace {

using namespace test_support;
using Fields = std::vector<std::pair<uint16_t, uint16_t>>;
using Labels = std::vector<std::pair<std::string, std::string>>;

TEST(HftSimulator, WireFormat) {
  const SimConfig config = SmallConfig();
  HftSimulator simulator(config);
  Decoder decoder;
  const Announcement a = DecodeAnnouncement(simulator, 0, decoder);
  const auto fields_of = [&](uint16_t id) {
    Fields fields;
    for (const auto& f : a.templates.at(id).fields) {
      EXPECT_FALSE(f.enterprise_bit);
      fields.emplace_back(f.element_id, f.length);
    }
    return fields;
  };
  ASSERT_EQ(a.templates.size(), 7u);
  EXPECT_EQ(fields_of(256), (Fields{{3, 65535}}));
  EXPECT_EQ(fields_of(257), (Fields{{5, 2}, {4, 65535}, {7, 4}}));
  EXPECT_EQ(fields_of(258), (Fields{{8, 8}, {9, 65535}, {10, 65535}, {7, 4}}));
  EXPECT_EQ(fields_of(259), (Fields{{6, 2}, {8, 8}, {7, 4}}));
  ASSERT_EQ(a.records[0].size(), 1u);
  EXPECT_EQ(Text(a.records[0][0], 3), "hft-sim");
  std::map<uint16_t, std::string> names;  // element ID → counter name
  for (const Record& r : a.records[1]) {
    EXPECT_EQ(U32(Field(r, 7).data()), HftSimulator::kRevision);
    EXPECT_TRUE(names.emplace(U16(Field(r, 5).data()), Text(r, 4)).second) << "element named twice";
  }
  std::map<uint64_t, Labels> definitions;  // counter ID → its labels
  for (const Record& r : a.records[2]) definitions[U64(Field(r, 8).data())].emplace_back(Text(r, 9), Text(r, 10));
  std::map<uint16_t, std::vector<uint64_t>> mappings;  // template → counter IDs in field order
  for (const Record& r : a.records[3]) mappings[U16(Field(r, 6).data())].push_back(U64(Field(r, 8).data()));

  // The k-th counter field: 8 bytes, element 1000 + k, named and labelled
  // by interface, then counter name, then traffic class.
  size_t k = 0;
  for (uint16_t id = 300; id <= 302; ++id) {
    const Fields fields = fields_of(id);
    const size_t first = id == 300 ? 2 : 0;  // the sample time leads the first fragment
    ASSERT_EQ(mappings[id].size(), fields.size() - first) << "template " << id;
    for (size_t i = first; i < fields.size(); ++i, ++k) {
      EXPECT_EQ(fields[i], (std::pair<uint16_t, uint16_t>(static_cast<uint16_t>(1000 + k), 8)));
      EXPECT_EQ(names[fields[i].first], config.counter_names[(k / 2) % 4]);
      EXPECT_EQ(definitions[mappings[id][i - first]],
                (Labels{{"interface", config.interfaces[k / 8]}, {"traffic_class", config.traffic_classes[k % 2]}}))
          << "template " << id << " field " << i;
    }
  }
  EXPECT_EQ(k, 24u);

  // One fragment per datagram; the sequence number counts the data records
  // sent so far (97 in the announcement).
  uint32_t sent = 0;
  for (uint64_t sample : {0ull, 1ull, 4000000ull}) {
    const std::vector<Datagram> datagrams = simulator.BuildSample(0, sample);
    ASSERT_EQ(datagrams.size(), 3u);
    const uint64_t time_ns = kStartNs + sample * 100'000;
    const size_t sizes[] = {10, 10, 4};
    for (size_t f = 0; f < 3; ++f) {
      const Message m = decoder.Decode(datagrams[f]);
      EXPECT_EQ(m.header.observation_domain_id, config.observation_domain);
      EXPECT_EQ(m.header.export_time, time_ns / 1'000'000'000ull);
      EXPECT_EQ(m.header.sequence_number, 97u + sent++);
      ASSERT_EQ(m.data_sets.size(), 1u);
      ExpectCounterRecord(m.data_sets[0], static_cast<uint16_t>(300 + f), sample, f * 10, sizes[f], time_ns);
    }
  }
}

// The end-to-end tests recompute the lost fragments from the seed.
TEST(HftSimulator, RandomLossIsNearItsProbabilityAndRepeatableBySeed) {
  const auto run = [](uint64_t seed) {
    SimConfig random = SmallConfig();
    random.loss_probability = 0.25;
    random.seed = seed;
    HftSimulator simulator(random);
    std::vector<Datagram> datagrams;
    const SimTotals totals = simulator.Generate(1000, [&](uint32_t, const Datagram& d) { datagrams.push_back(d); });
    EXPECT_EQ(totals.fragments_dropped + totals.fragments_sent, 3000u);
    return std::make_pair(totals.fragments_dropped, datagrams);
  };
  const auto a = run(7);
  EXPECT_GT(a.first, 600u);
  EXPECT_LT(a.first, 900u);
  EXPECT_EQ(run(7), a);
  EXPECT_NE(run(8).second, a.second);
}

TEST(HftSimulator, ExporterBehavioursAreProduced) {
  for (const SequenceMode mode : {SequenceMode::kRecords, SequenceMode::kMessages, SequenceMode::kConstant}) {
    SCOPED_TRACE(static_cast<int>(mode));
    SimConfig config = SmallConfig();
    config.sequence_mode = mode;
    config.interleave_descriptive = true;
    config.fragments_per_message = 2;
    config.withdraw_at_sample = 5;
    HftSimulator simulator(config);
    Decoder decoder;
    uint32_t records = 0, messages = 0;
    bool withdrawn = false, packed = false, interleaved = false;
    simulator.Generate(12, [&](uint32_t, const Datagram& datagram) {
      const Message m = decoder.Decode(datagram);
      const uint32_t expected = mode == SequenceMode::kRecords    ? records
                                : mode == SequenceMode::kMessages ? messages
                                                                  : SimConfig::kConstantSequence;
      EXPECT_EQ(m.header.sequence_number, expected) << "message " << messages;
      size_t counter_sets = 0;
      for (const DataSet& set : m.data_sets) {
        records += static_cast<uint32_t>(set.records.size());
        counter_sets += set.set_id >= 300;
      }
      ++messages;
      packed = packed || counter_sets == 2;
      interleaved = interleaved || (counter_sets > 0 && counter_sets < m.data_sets.size());
      for (const ParsedTemplate& t : m.templates) withdrawn = withdrawn || (t.template_id == 302 && t.fields.empty());
    });
    EXPECT_TRUE(withdrawn);
    EXPECT_TRUE(packed);
    EXPECT_TRUE(interleaved);
  }

  // Reordering swaps neighbouring fragments of a sample.
  SimConfig config = SmallConfig();
  config.reorder_probability = 1;
  HftSimulator reordered(config);
  Decoder decoder;
  std::vector<uint16_t> order;
  reordered.Generate(2, [&](uint32_t, const Datagram& datagram) {
    for (const DataSet& set : decoder.Decode(datagram).data_sets)
      if (set.set_id >= 300) order.push_back(set.set_id);
  });
  EXPECT_EQ(order, (std::vector<uint16_t>{301, 300, 302, 301, 300, 302}));
  EXPECT_EQ(reordered.fragment_swaps(), 2u);
}

}  // namespace
}  // namespace dtl::hftsim

// Exporter behaviours of the simulated switch beyond the defaults: what the
// sequence number counts, descriptive records interleaved with samples,
// fragments packed across sample boundaries, and a template withdrawal.
// Everything is decoded with the collector's own message parser.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/tools/hft_sim_decoder.h"
#include "tools/hft_sim/hft_simulator.h"

namespace dtl::hftsim {
namespace {

using namespace test_support;

// 1 switch name + 24 counter names + 48 definitions + 24 mappings.
constexpr uint32_t kAnnouncedRecords = 97;

size_t DataRecords(const Message& m) {
  size_t n = 0;
  for (const DataSet& set : m.data_sets) n += set.records.size();
  return n;
}

std::vector<uint16_t> SetIds(const Message& m) {
  std::vector<uint16_t> ids;
  if (!m.templates.empty()) ids.push_back(MessageParser::kTemplateSetId);
  for (const DataSet& set : m.data_sets) ids.push_back(set.set_id);
  return ids;
}

// The counter set of a sample's fragment, checked against the formula.
void ExpectFragment(const DataSet& set, uint64_t sample) {
  const size_t index = set.set_id - 300u;
  ExpectCounterRecord(set, set.set_id, sample, index * 10, index == 2 ? 4 : 10, kStartNs + sample * 100'000);
}

TEST(HftSimulatorBehaviours, SequenceNumbersCountRecordsMessagesOrStayConstant) {
  for (const SequenceMode mode : {SequenceMode::kRecords, SequenceMode::kMessages, SequenceMode::kConstant}) {
    SCOPED_TRACE(static_cast<int>(mode));
    // Every kind of message: announcement, packed fragments with inline and
    // own descriptive records, and a withdrawal.
    SimConfig config = SmallConfig();
    config.sequence_mode = mode;
    config.interleave_descriptive = true;
    config.fragments_per_message = 2;
    config.withdraw_at_sample = 5;
    HftSimulator simulator(config);
    Decoder decoder;
    uint32_t records = 0;
    uint32_t messages = 0;
    bool withdrawal_seen = false;
    simulator.Generate(12, [&](uint32_t, const Datagram& datagram) {
      const Message m = decoder.Decode(datagram);
      const uint32_t expected = mode == SequenceMode::kRecords    ? records
                                : mode == SequenceMode::kMessages ? messages
                                                                  : SimConfig::kConstantSequence;
      EXPECT_EQ(m.header.sequence_number, expected) << "message " << messages;
      records += static_cast<uint32_t>(DataRecords(m));
      ++messages;
      for (const ParsedTemplate& t : m.templates) withdrawal_seen = withdrawal_seen || t.fields.empty();
    });
    EXPECT_TRUE(withdrawal_seen);
    EXPECT_GT(messages, 20u);
  }
}

TEST(HftSimulatorBehaviours, InterleavedRecordsRepeatTheAnnouncementInsideAndBetweenFragments) {
  SimConfig config = SmallConfig();
  config.interleave_descriptive = true;
  HftSimulator simulator(config);
  Decoder decoder;
  const Announcement a = DecodeAnnouncement(simulator, 0, decoder);
  const auto announced = [&](size_t set, uint16_t element, uint64_t value) {
    std::vector<Record> out;
    for (const Record& r : a.records[set - 256]) {
      const std::vector<uint8_t>& bytes = Field(r, element);
      if ((bytes.size() == 2 ? U16(bytes.data()) : U64(bytes.data())) == value) out.push_back(r);
    }
    return out;
  };

  for (uint64_t s = 0; s < 8; ++s) {
    SCOPED_TRACE(s);
    std::vector<std::vector<uint16_t>> layout;
    std::vector<Record> descriptive[4];
    for (const Datagram& datagram : simulator.BuildSample(0, s)) {
      const Message m = decoder.Decode(datagram);
      layout.push_back(SetIds(m));
      for (const DataSet& set : m.data_sets) {
        if (set.set_id >= 300) {
          ExpectFragment(set, s);
        } else {
          descriptive[set.set_id - 256].insert(descriptive[set.set_id - 256].end(), set.records.begin(),
                                               set.records.end());
        }
      }
    }
    if (s % 4 == 1) {
      // In the first fragment's message: the switch name and one counter's definitions.
      EXPECT_EQ(layout, (std::vector<std::vector<uint16_t>>{{300, 256, 258}, {301}, {302}}));
      EXPECT_EQ(descriptive[0], a.records[0]);
      EXPECT_EQ(descriptive[2], announced(258, 8, s / 4 + 1));
    } else if (s % 4 == 3) {
      // Messages of their own between the first two fragments: one counter
      // template's definitions and all its mappings in field order.
      ASSERT_GT(layout.size(), 3u);
      EXPECT_EQ(layout.front(), std::vector<uint16_t>{300});
      EXPECT_EQ(layout[layout.size() - 2], std::vector<uint16_t>{301});
      EXPECT_EQ(layout.back(), std::vector<uint16_t>{302});
      const uint16_t template_id = static_cast<uint16_t>(300 + (s / 4) % 3);
      const std::vector<Record> mappings = announced(259, 6, template_id);
      EXPECT_EQ(descriptive[3], mappings);
      std::vector<Record> definitions;
      for (const Record& mapping : mappings) {
        for (const Record& d : announced(258, 8, U64(Field(mapping, 8).data()))) definitions.push_back(d);
      }
      EXPECT_EQ(descriptive[2], definitions);
    } else {
      EXPECT_EQ(layout, (std::vector<std::vector<uint16_t>>{{300}, {301}, {302}}));
    }
  }
}

TEST(HftSimulatorBehaviours, PackedFragmentsCrossSamplesAndALostFragmentTakesItsMessage) {
  SimConfig config = SmallConfig();
  config.fragments_per_message = 2;
  config.loss_every = 4;  // stream positions 3, 7, 11: messages 1, 3 and 5 are lost
  HftSimulator simulator(config);
  Decoder decoder;
  DecodeAnnouncement(simulator, 0, decoder);
  std::vector<Message> messages;
  for (uint64_t s = 0; s < 5; ++s) {
    for (const Datagram& d : simulator.BuildSample(0, s)) messages.push_back(decoder.Decode(d));
  }
  std::vector<Datagram> rest;
  simulator.Finish(0, rest);
  for (const Datagram& d : rest) messages.push_back(decoder.Decode(d));

  // (sample, template) per message: messages 0, 2, 4, 6 and the last, half-full one.
  const std::vector<std::vector<std::pair<uint64_t, uint16_t>>> expected = {
      {{0, 300}, {0, 301}}, {{1, 301}, {1, 302}}, {{2, 302}, {3, 300}}, {{4, 300}, {4, 301}}, {{4, 302}}};
  const std::vector<uint32_t> sequences = {0, 4, 8, 12, 14};
  ASSERT_EQ(messages.size(), expected.size());
  for (size_t i = 0; i < messages.size(); ++i) {
    EXPECT_EQ(messages[i].header.sequence_number, kAnnouncedRecords + sequences[i]);
    ASSERT_EQ(messages[i].data_sets.size(), expected[i].size()) << "message " << i;
    for (size_t k = 0; k < expected[i].size(); ++k) {
      EXPECT_EQ(messages[i].data_sets[k].set_id, expected[i][k].second);
      ExpectFragment(messages[i].data_sets[k], expected[i][k].first);
    }
  }
  EXPECT_EQ(simulator.fragments_dropped(), 6u);

  // Reordering swaps a message ending inside a sample with the next one, as
  // the network would: the numbers stay with their messages.
  config.loss_every = 0;
  config.reorder_probability = 1;
  HftSimulator reordered(config);
  std::vector<std::vector<uint16_t>> layout;
  std::vector<uint32_t> numbers;
  for (uint64_t s = 0; s < 2; ++s) {
    for (const Datagram& d : reordered.BuildSample(0, s)) {
      const Message m = decoder.Decode(d);
      layout.push_back(SetIds(m));
      numbers.push_back(m.header.sequence_number);  // no announcement before
    }
  }
  EXPECT_EQ(layout, (std::vector<std::vector<uint16_t>>{{302, 300}, {300, 301}, {301, 302}}));
  EXPECT_EQ(numbers, (std::vector<uint32_t>{2, 0, 4}));
  EXPECT_EQ(reordered.fragment_swaps(), 1u);
}

TEST(HftSimulatorBehaviours, WithdrawalPrecedesItsSampleAndLaterSamplesAndAnnouncementsLeaveTheTemplateOut) {
  SimConfig config = SmallConfig();
  config.withdraw_at_sample = 2;
  HftSimulator simulator(config);
  Decoder decoder;
  DecodeAnnouncement(simulator, 0, decoder);
  for (uint64_t s = 0; s < 4; ++s) {
    SCOPED_TRACE(s);
    std::vector<Message> messages;
    for (const Datagram& d : simulator.BuildSample(0, s)) messages.push_back(decoder.Decode(d));
    if (s == 2) {
      ASSERT_FALSE(messages.empty());
      ASSERT_EQ(messages[0].templates.size(), 1u);
      EXPECT_EQ(messages[0].templates[0].template_id, 302);
      EXPECT_TRUE(messages[0].templates[0].fields.empty());
      EXPECT_TRUE(messages[0].data_sets.empty());
      EXPECT_EQ(messages[0].header.sequence_number, kAnnouncedRecords + 6);
      messages.erase(messages.begin());
    }
    ASSERT_EQ(messages.size(), s < 2 ? 3u : 2u);
    for (const Message& m : messages) {
      ASSERT_EQ(m.data_sets.size(), 1u);
      ExpectFragment(m.data_sets[0], s);
    }
  }
  EXPECT_EQ(simulator.ActiveTemplates(0), 2u);

  Decoder again;
  const Announcement a = DecodeAnnouncement(simulator, 0, again);
  EXPECT_EQ(a.templates.count(302), 0u);
  EXPECT_EQ(a.templates.count(301), 1u);
  EXPECT_EQ(a.records[1].size(), 20u);  // names of the 20 remaining counters
  EXPECT_EQ(a.records[3].size(), 20u);  // their mappings
}

}  // namespace
}  // namespace dtl::hftsim

// A session's descriptive records over repeated, re-announced and partly
// lost announcements: the labels each stored counter gets, the schema
// updates the sink sees, and what the session keeps and logs meanwhile.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "dtl_logger.h"
#include "ipfix/ipfix_session.h"
#include "ipfix/message_parser.h"
#include "ipfix/recording_sink.h"
#include "support/log_capture.h"
#include "tools/hft_sim/ipfix_message_builder.h"

namespace {

using dtl::hftsim::FieldSpec;
using dtl::hftsim::IpfixMessageBuilder;
using dtl::ipfix::IpfixSession;
using dtl::ipfix::MessageParser;
using dtl::ipfix::MetadataPairs;
using dtl_test::LogCapture;

constexpr uint16_t kVar = 65535;

using Definition = std::tuple<uint64_t, std::string, std::string>;
using Mapping = std::pair<uint16_t, uint64_t>;

// One data set of a message: its set ID and body.
struct Set {
  uint16_t id;
  std::vector<uint8_t> body;
};
using Message = std::vector<Set>;

Set DefinitionSet(const std::vector<Definition>& definitions) {
  IpfixMessageBuilder b;
  for (const auto& [id, key, value] : definitions) {
    b.PutU64(id);
    b.PutVarLength(key);
    b.PutVarLength(value);
    b.PutU32(1);
  }
  return {258, b.bytes()};
}

Set MappingSet(const std::vector<Mapping>& mappings) {
  IpfixMessageBuilder b;
  for (const auto& [template_ref, id] : mappings) {
    b.PutU16(template_ref);
    b.PutU64(id);
    b.PutU32(1);
  }
  return {259, b.bytes()};
}

Set SwitchNameSet(const std::string& name) {
  IpfixMessageBuilder b;
  b.PutVarLength(name);
  return {256, b.bytes()};
}

Set CounterNameSet(const std::vector<std::pair<uint16_t, std::string>>& names) {
  IpfixMessageBuilder b;
  for (const auto& [element, name] : names) {
    b.PutU16(element);
    b.PutVarLength(name);
    b.PutU32(1);
  }
  return {257, b.bytes()};
}

std::vector<FieldSpec> Counters(uint16_t first, size_t n, bool with_time) {
  std::vector<FieldSpec> fields;
  if (with_time) fields = {{1, 4}, {2, 4}};
  for (size_t i = 0; i < n; ++i) fields.push_back({static_cast<uint16_t>(first + i), 8});
  return fields;
}

const MetadataPairs kSwp1 = {{"interface", "swp1"}, {"traffic_class", "0"}};
const MetadataPairs kSwp2 = {{"interface", "swp2"}};
const MetadataPairs kSwp3 = {{"interface", "swp3"}};

// Template 300 has three counters, 301 two; the exporter maps them to
// definitions 1, 2, 3 and 2, 1.
const std::vector<Definition> kDefinitions = {
    {1, "interface", "swp1"}, {1, "traffic_class", "0"}, {2, "interface", "swp2"}, {3, "interface", "swp3"}};
const std::vector<Mapping> kMappings = {{300, 1}, {300, 2}, {300, 3}, {301, 2}, {301, 1}};
const std::vector<MetadataPairs> kLabels = {kSwp1, kSwp2, kSwp3, kSwp2, kSwp1};

class SessionMetadataTest : public ::testing::Test {
 protected:
  SessionMetadataTest() { Fresh(); }

  // A new session (and sink) for the next case of a table.
  void Fresh() {
    session_.reset();
    sink_ = std::make_unique<RecordingSink>();
    session_ = std::make_unique<IpfixSession>(std::string("\x12\x83\x01\x00\x00\x00\xc0\x00\x02\x01", 10), 0,
                                              sink_.get());
    LogCapture::Clear();
  }
  IpfixSession& session() { return *session_; }
  RecordingSink& sink() { return *sink_; }

  void AnnounceTemplates(const std::vector<std::pair<uint16_t, std::vector<FieldSpec>>>& templates) {
    IpfixMessageBuilder b;
    b.AddTemplate(256, {{3, kVar}});
    b.AddTemplate(257, {{5, 2}, {4, kVar}, {7, 4}});
    b.AddTemplate(258, {{8, 8}, {9, kVar}, {10, kVar}, {7, 4}});
    b.AddTemplate(259, {{6, 2}, {8, 8}, {7, 4}});
    for (const auto& [id, fields] : templates) b.AddTemplate(id, fields);
    session().UpdateTemplates(MessageParser::ParseTemplateSet(b.bytes().data(), b.size()));
  }

  void Deliver(const Message& message) {
    session().BeginMessage(sequence_);
    for (const Set& set : message) {
      session().ProcessDataSet(set.id, set.body.data(), set.body.size(), 0, sequence_);
      sequence_ += static_cast<uint32_t>(set.body.size());  // any increasing numbering will do
    }
  }
  // Names and definitions in one message, then the mappings in messages
  // cut after the given numbers of mappings.
  static std::vector<Message> Announcement(const std::vector<Mapping>& mappings, std::vector<size_t> cuts,
                                           const std::vector<Definition>& definitions = kDefinitions) {
    std::vector<Message> messages = {{SwitchNameSet("leaf1"), CounterNameSet({{100, "rx"}, {200, "tx"}}),
                                      DefinitionSet(definitions)}};
    cuts.push_back(mappings.size());
    size_t begin = 0;
    for (size_t end : cuts) {
      messages.push_back({MappingSet({mappings.begin() + begin, mappings.begin() + end})});
      begin = end;
    }
    return messages;
  }
  // lost: indices of the mapping messages that do not arrive.
  void Deliver(const std::vector<Message>& messages, const std::vector<size_t>& lost = {}) {
    Deliver(messages[0]);
    for (size_t i = 1; i < messages.size(); ++i)
      if (std::find(lost.begin(), lost.end(), i - 1) == lost.end()) Deliver(messages[i]);
  }

  static std::vector<MetadataPairs> Labels(const dtl::ipfix::SchemaSnapshot& snapshot) {
    std::vector<MetadataPairs> labels;
    for (const auto& field : snapshot.flat_fields) labels.push_back(field.metadata);
    return labels;
  }

  const std::vector<std::pair<uint16_t, std::vector<FieldSpec>>> two_templates_ = {
      {300, Counters(100, 3, true)}, {301, Counters(200, 2, false)}};
  LogCapture log_;
  std::unique_ptr<RecordingSink> sink_;
  std::unique_ptr<IpfixSession> session_;
  uint32_t sequence_ = 1000;
};

TEST_F(SessionMetadataTest, RepeatedDefinitionsGiveEachLabelOnce) {
  AnnounceTemplates(two_templates_);
  const auto announcement = Announcement(kMappings, {2});
  // The definitions twice in the first announcement: in a message of their
  // own and again with the names.
  Deliver(Message{DefinitionSet(kDefinitions)});
  Deliver(announcement);
  ASSERT_TRUE(session().IsComplete());
  ASSERT_EQ(sink().schema_updates().size(), 1u);
  EXPECT_EQ(Labels(sink().schema_updates()[0].snapshot), kLabels);
  EXPECT_EQ(session().GetSchemaSnapshot().metadata_definitions.at(1), kSwp1);

  // Re-announcing what is held changes nothing and says nothing: whole
  // announcements, and one template's definitions and mappings at a time
  // (starting with any template) between other descriptive records.
  const size_t lines = LogCapture::Snapshot().size();
  for (int i = 0; i < 3; ++i) Deliver(announcement);
  Deliver(Message{DefinitionSet({{1, "interface", "swp1"}}), DefinitionSet(kDefinitions)});
  for (int i = 0; i < 2; ++i) {
    Deliver(Message{DefinitionSet({kDefinitions[0], kDefinitions[2]}), MappingSet({kMappings.begin() + 3, kMappings.end()})});
    Deliver(Message{SwitchNameSet("leaf1"), DefinitionSet({kDefinitions[1]})});
    Deliver(Message{DefinitionSet(kDefinitions), MappingSet({kMappings.begin(), kMappings.begin() + 3})});
  }
  EXPECT_EQ(LogCapture::Snapshot().size(), lines);
  EXPECT_EQ(sink().schema_updates().size(), 1u);
  EXPECT_EQ(session().pending_mapping_count(), 0u);
  const auto snapshot = session().GetSchemaSnapshot();
  EXPECT_EQ(snapshot.metadata_mappings, kMappings);
  EXPECT_EQ(snapshot.metadata_definitions.size(), 3u);
  EXPECT_EQ(Labels(snapshot), kLabels);
}

TEST_F(SessionMetadataTest, LaterDefinitionReplacesTheEarlierValueInPlace) {
  AnnounceTemplates(two_templates_);
  Deliver(Announcement(kMappings, {}));
  ASSERT_TRUE(session().IsComplete());

  Deliver(Message{DefinitionSet({{1, "interface", "swp9"}})});
  const MetadataPairs swp9 = {{"interface", "swp9"}, {"traffic_class", "0"}};
  ASSERT_EQ(sink().schema_updates().size(), 2u);
  EXPECT_EQ(Labels(sink().schema_updates()[1].snapshot),
            (std::vector<MetadataPairs>{swp9, kSwp2, kSwp3, kSwp2, swp9}));
  Deliver(Message{DefinitionSet({{1, "interface", "swp9"}})});
  EXPECT_EQ(sink().schema_updates().size(), 2u);

  // A renamed counter: a schema change, but its line is no news any more.
  Deliver(Message{CounterNameSet({{100, "rx_bytes"}})});
  EXPECT_EQ(sink().schema_updates().size(), 3u);
  EXPECT_EQ(LogCapture::LevelOf("counter name IE 100 = 'rx'"), DTL_LOG_LEVEL_INFO);
  EXPECT_EQ(LogCapture::LevelOf("counter name IE 100 = 'rx_bytes'"), DTL_LOG_LEVEL_DEBUG);
}

// A mapping datagram lost from an announcement: nothing is published until
// a whole announcement has arrived, and then with the right labels; once
// the labels are right, a partial announcement leaves them alone.
TEST_F(SessionMetadataTest, ReannouncementAfterALostMappingDatagramGivesTheRightLabels) {
  const std::vector<std::pair<uint16_t, std::vector<FieldSpec>>> one_template = {{300, Counters(100, 4, true)}};
  const std::vector<Mapping> four = {{300, 3}, {300, 2}, {300, 1}, {300, 1}};
  const std::vector<MetadataPairs> four_labels = {kSwp3, kSwp2, kSwp1, kSwp1};
  struct Case {
    const char* what;
    bool one_template;
    std::vector<size_t> cuts;
    std::vector<size_t> lost;
  } cases[] = {
      {"first of two, a template split", false, {2}, {0}},
      {"second of two, a template split", false, {2}, {1}},
      {"second of two, at a template's end", false, {3}, {1}},
      {"middle of three", false, {1, 4}, {1}},
      {"first and last of three", false, {1, 4}, {0, 2}},
      {"one template, first of two", true, {2}, {0}},
      {"one template, second of two", true, {2}, {1}},
      {"one template, middle of three", true, {1, 3}, {1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Fresh();
    AnnounceTemplates(c.one_template ? one_template : two_templates_);
    const auto& mappings = c.one_template ? four : kMappings;
    const auto& labels = c.one_template ? four_labels : kLabels;
    const auto announcement = Announcement(mappings, c.cuts);

    Deliver(announcement, c.lost);
    EXPECT_FALSE(session().IsComplete());
    Deliver(announcement);
    ASSERT_TRUE(session().IsComplete());
    EXPECT_EQ(Labels(session().GetSchemaSnapshot()), labels);
    Deliver(announcement, c.lost);
    Deliver(announcement);
    EXPECT_TRUE(session().IsComplete());
    // Every schema the sink ever saw had the right labels.
    const auto updates = sink().schema_updates();
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_EQ(Labels(updates[0].snapshot), labels);
    EXPECT_EQ(updates[0].snapshot.metadata_mappings, mappings);
  }
}

// However often an exporter repeats an announcement that leaves the session
// incomplete, the session keeps one copy and says it once.
TEST_F(SessionMetadataTest, ReannouncementsWhileIncompleteNeitherGrowNorLog) {
  struct Case {
    const char* what;
    bool templates;
    std::vector<Definition> definitions;
    std::vector<size_t> lost;
  } cases[] = {
      {"a mapped definition never sent", true, {kDefinitions.begin(), kDefinitions.end() - 1}, {}},
      {"a mapping datagram always lost", true, kDefinitions, {1}},
      {"no counter templates", false, kDefinitions, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Fresh();
    AnnounceTemplates(c.templates ? two_templates_ : decltype(two_templates_){});
    const auto announcement = Announcement(kMappings, {2}, c.definitions);
    Deliver(announcement, c.lost);
    const size_t lines = LogCapture::Snapshot().size();
    const auto held = session().GetSchemaSnapshot();
    const size_t pending = session().pending_mapping_count();
    EXPECT_LE(pending, kMappings.size());

    for (int i = 0; i < 200; ++i) Deliver(announcement, c.lost);
    EXPECT_FALSE(session().IsComplete());
    EXPECT_EQ(LogCapture::Snapshot().size(), lines);
    // Said at info level once; the first announcement's other datagrams say it at debug level.
    EXPECT_EQ(LogCapture::Count("6 [IPFIX session] NotifySchemaChange: session=192.0.2.1:4739/domain_1 NOT complete"),
              1u);
    EXPECT_EQ(session().pending_mapping_count(), pending);
    const auto now = session().GetSchemaSnapshot();
    EXPECT_EQ(now.metadata_definitions, held.metadata_definitions);
    EXPECT_EQ(now.metadata_mappings, held.metadata_mappings);
    for (const auto& [id, pairs] : now.metadata_definitions) EXPECT_LE(pairs.size(), 2u) << id;
    EXPECT_TRUE(sink().schema_updates().empty());
  }
}

// New counter templates make the held mappings partial: the session waits
// for an announcement that maps the new layout.
TEST_F(SessionMetadataTest, ChangedTemplateWaitsForMatchingMappings) {
  AnnounceTemplates(two_templates_);
  Deliver(Announcement(kMappings, {2}));
  ASSERT_TRUE(session().IsComplete());

  AnnounceTemplates({{300, Counters(100, 3, true)}, {301, Counters(200, 3, false)}});
  EXPECT_FALSE(session().IsComplete());
  Deliver(Announcement(kMappings, {2}));
  EXPECT_FALSE(session().IsComplete());
  std::vector<Mapping> six = kMappings;
  six.emplace_back(301, 3);
  Deliver(Announcement(six, {3}));
  ASSERT_TRUE(session().IsComplete());
  std::vector<MetadataPairs> labels = kLabels;
  labels.push_back(kSwp3);
  EXPECT_EQ(Labels(sink().schema_updates().back().snapshot), labels);
}

}  // namespace

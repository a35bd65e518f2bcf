// Exporter sessions: their keys, and one session fed set by set with
// templates, descriptive records over repeated, changed and partly lost
// announcements, and counter records assembled into samples under every way
// of numbering messages.
#include "ipfix/ipfix_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ipfix/ipfix_receiver.h"
#include "ipfix/message_parser.h"
#include "recording_sink.h"
#include "recv_test_support.h"
#include "tools/hft_sim/ipfix_message_builder.h"

namespace {

using dtl::hftsim::FieldSpec;
using dtl::hftsim::IpfixMessageBuilder;
using dtl::ipfix::IpfixReceiver;
using dtl::ipfix::IpfixSession;
using dtl::ipfix::MetadataPairs;
using dtl::ipfix::SessionKey;
using recv_test::LogCapture;

constexpr uint16_t kVar = 65535;
using Templates = std::vector<std::pair<uint16_t, std::vector<FieldSpec>>>;
using Counters = std::vector<std::pair<uint64_t, size_t>>;  // (value, width); width kVar: "label"
using Definition = std::tuple<uint64_t, std::string, std::string>;
using Mapping = std::pair<uint16_t, uint64_t>;
using Values = std::vector<uint64_t>;

// One data set of a message: its set ID and body.
struct Set { uint16_t id; std::vector<uint8_t> body; };
using Message = std::vector<Set>;

Set Record(uint16_t id, const Counters& fields) {
  IpfixMessageBuilder b;
  for (const auto& [value, width] : fields) width == kVar ? b.PutVarLength("label") : b.PutUint(value, width);
  return {id, b.bytes()};
}
Set SwitchNameSet(const std::string& name) {
  IpfixMessageBuilder b;
  b.PutVarLength(name);
  return {256, b.bytes()};
}
Set CounterNameSet(const std::vector<std::pair<uint16_t, std::string>>& names) {
  IpfixMessageBuilder b;
  for (const auto& [element, name] : names) b.PutU16(element), b.PutVarLength(name), b.PutU32(1);
  return {257, b.bytes()};
}
Set DefinitionSet(const std::vector<Definition>& definitions) {
  IpfixMessageBuilder b;
  for (const auto& [id, k, v] : definitions) b.PutU64(id), b.PutVarLength(k), b.PutVarLength(v), b.PutU32(1);
  return {258, b.bytes()};
}
Set MappingSet(const std::vector<Mapping>& mappings) {
  IpfixMessageBuilder b;
  for (const auto& [template_id, id] : mappings) b.PutU16(template_id), b.PutU64(id), b.PutU32(1);
  return {259, b.bytes()};
}

std::vector<FieldSpec> CounterFields(uint16_t first, size_t n, bool with_time) {
  std::vector<FieldSpec> fields;
  if (with_time) fields = {{1, 4}, {2, 4}};
  for (size_t i = 0; i < n; ++i) fields.push_back({static_cast<uint16_t>(first + i), 8});
  return fields;
}
// The first record of a sample: its time, then n counters from base on.
Counters Opening(uint32_t sec, uint32_t nsec, uint64_t base, size_t n) {
  Counters c = {{sec, 4}, {nsec, 4}};
  for (size_t i = 0; i < n; ++i) c.push_back({base + i, 8});
  return c;
}
Values ValuesOf(const RecordingSink::Commit& commit) {
  Values v(commit.values.size() / 8);
  std::memcpy(v.data(), commit.values.data(), v.size() * 8);
  return v;
}
std::vector<MetadataPairs> Labels(const dtl::ipfix::SchemaSnapshot& snapshot) {
  std::vector<MetadataPairs> labels;
  for (const auto& field : snapshot.flat_fields) labels.push_back(field.metadata);
  return labels;
}

SessionKey Key(const char* address, uint16_t port, uint32_t domain) {
  return IpfixReceiver::MakeSessionKey(recv_test::From(address, port), domain);
}
const std::string kKey = Key("::ffff:192.0.2.1", 4739, 1).ToKeyString();

class SessionTest : public ::testing::Test {
 protected:
  SessionTest() { Fresh(); }

  // A new session (and sink), for the next row of a table.
  void Fresh() {
    session_.reset();
    sink_ = std::make_unique<RecordingSink>();
    session_ = std::make_unique<IpfixSession>(kKey, 3, sink_.get());
    LogCapture::Clear();
  }
  // One template set; with_descriptive adds the templates of the four
  // descriptive records (256-259).
  void Announce(const Templates& templates, bool with_descriptive = true) {
    IpfixMessageBuilder b;
    if (with_descriptive) {
      b.AddTemplate(256, {{3, kVar}});
      b.AddTemplate(257, {{5, 2}, {4, kVar}, {7, 4}});
      b.AddTemplate(258, {{8, 8}, {9, kVar}, {10, kVar}, {7, 4}});
      b.AddTemplate(259, {{6, 2}, {8, 8}, {7, 4}});
    }
    for (const auto& [id, fields] : templates) b.AddTemplate(id, fields);
    session_->UpdateTemplates(dtl::ipfix::MessageParser::ParseTemplateSet(b.bytes().data(), b.size()));
  }
  void Deliver(const Message& message, uint32_t sequence = 1) {
    session_->BeginMessage(sequence);
    for (const Set& set : message) session_->ProcessDataSet(set.id, set.body.data(), set.body.size(), 0, sequence);
  }
  // lost: indices of the messages after the first that do not arrive.
  void DeliverAll(const std::vector<Message>& messages, const std::vector<size_t>& lost = {}) {
    for (size_t i = 0; i < messages.size(); ++i)
      if (i == 0 || std::find(lost.begin(), lost.end(), i - 1) == lost.end()) Deliver(messages[i]);
  }
  // Announces the counter templates given and completes the schema: switch
  // name, counter names and definition 1, to which every counter (neither
  // a time field nor of variable length) is mapped.
  void SetUpSchema(const Templates& templates) {
    Announce(templates);
    std::vector<Mapping> mappings;
    for (const auto& [id, fields] : templates)
      for (const FieldSpec& field : fields)
        if (field.element_id > 2 && field.length != kVar) mappings.emplace_back(id, 1);
    Deliver({SwitchNameSet("leaf1"), CounterNameSet({{100, "rx_bytes"}}), DefinitionSet({{1, "unit", "bytes"}}),
             MappingSet(mappings)});
    ASSERT_TRUE(session_->IsComplete());
  }

  LogCapture log_;
  std::unique_ptr<RecordingSink> sink_;
  std::unique_ptr<IpfixSession> session_;
};

// The key string names the session towards storage: its bytes are fixed.
// Address family, address, port and domain make the identity; bytes past
// the significant length take no part in it.
TEST(SessionKeyTest, KeyBytesAndIdentity) {
  uint8_t expected[10] = {0x12, 0x83, 0, 0, 0, 0, 192, 0, 2, 7};
  const uint32_t domain = 0x01020304;
  std::memcpy(expected + 2, &domain, 4);  // host order
  const SessionKey v4 = Key("::ffff:192.0.2.7", 4739, domain), v6 = Key("::1", 4739, domain);
  EXPECT_EQ(v4.ToKeyString(), std::string(reinterpret_cast<const char*>(expected), 10));
  EXPECT_EQ(v6.length, SessionKey::kIpv6Length);
  EXPECT_EQ(IpfixReceiver::SessionKeyIpString(v6), "::1");
  EXPECT_FALSE(v4 == Key("::ffff:192.0.2.7", 4740, domain));
  EXPECT_FALSE(v4 == Key("::ffff:192.0.2.7", 4739, 2));
  EXPECT_TRUE(v4 == Key("::ffff:192.0.2.7", 4739, domain));
  // Only ::ffff:a.b.c.d is IPv4; the deprecated ::a.b.c.d form stays IPv6.
  EXPECT_EQ(Key("::192.0.2.7", 4739, domain).length, SessionKey::kIpv6Length);

  SessionKey dirty = v4, longer = v4;
  dirty.bytes[15] = 0xAA;
  EXPECT_TRUE(v4 == dirty);
  EXPECT_EQ(dtl::ipfix::SessionKeyHash{}(v4), dtl::ipfix::SessionKeyHash{}(dirty));
  longer.length = SessionKey::kIpv6Length;  // same leading bytes, other length
  EXPECT_FALSE(v4 == longer);
}

TEST_F(SessionTest, TemplatesAndSetsOutsideTheProtocolAreSkipped) {
  // A descriptive template whose records take no bytes: its sets must end.
  Announce({{299, {}}, {260, {{1, 4}}}, {332, {{1, 4}}}, {400, {{1, 4}}}, {256, {{3, 0}}}}, false);
  const auto cached = session_->templates();
  ASSERT_EQ(cached.size(), 1u);
  EXPECT_EQ(cached.count(256), 1u);
  for (uint16_t id : {256, 258, 260, 270, 305, 332}) Deliver({{id, std::vector<uint8_t>(16, 'x')}});
  EXPECT_TRUE(session_->switch_name().empty());
  EXPECT_EQ(session_->data_sets_processed(), 6u);
  EXPECT_TRUE(sink_->schema_updates().empty());
}

// The schema goes to the sink once the switch name, the counter names and a
// defined mapping of every counter are known, and then only on a change.
// The time fields are not counters; a counter without a name is named by
// its element.
TEST_F(SessionTest, SchemaIsPublishedOnceCompleteAndThenOnlyOnAChange) {
  Announce({{301, {{7, 8}}}, {300, {{1, 4}, {2, 4}, {100, 8}, {42, 8}}}});
  Deliver({CounterNameSet({{0x8000 | 100, "rx_bytes"}, {101, ""}}),
           DefinitionSet({{11, "unit", "bytes"}, {12, "unit", "packets"}}), MappingSet({{301, 12}, {300, 11}})});
  EXPECT_FALSE(session_->IsComplete()) << "two mappings for three counters";
  Deliver({MappingSet({{300, 13}})});
  EXPECT_FALSE(session_->IsComplete()) << "metadata ID 13 undefined";
  Deliver({DefinitionSet({{13, "unit", "packets"}})});
  Deliver({Record(300, Opening(1, 2, 10, 2))});
  EXPECT_TRUE(sink_->schema_updates().empty());
  EXPECT_EQ(sink_->slot_requests(), 0u);

  const std::string name(300, 's');  // a length above 254 takes the three-byte form
  Deliver({SwitchNameSet(name)});
  Deliver({SwitchNameSet(name)});  // the same name again: no change
  ASSERT_TRUE(session_->IsComplete());
  const auto updates = sink_->schema_updates();
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].worker_id, 3u);
  EXPECT_EQ(updates[0].key, kKey);
  const auto& snapshot = updates[0].snapshot;
  EXPECT_EQ(snapshot.display_name, "192.0.2.1:4739/domain_1");
  EXPECT_EQ(snapshot.observation_domain_id, 1u);
  EXPECT_EQ(snapshot.switch_name, name);
  EXPECT_EQ(snapshot.exporter_port, 4739);
  EXPECT_EQ(snapshot.counter_names, (std::map<uint16_t, std::string>{{100, "rx_bytes"}}));
  const std::vector<dtl::ipfix::FlatFieldInfo> expected = {
      {300, 100, "rx_bytes", 11, {{"unit", "bytes"}}, 8},
      {300, 42, "ie_42", 13, {{"unit", "packets"}}, 8},
      {301, 7, "ie_7", 12, {{"unit", "packets"}}, 8},
  };
  EXPECT_EQ(snapshot.flat_fields, expected);
}

// Template 300 has three counters, 301 two; the exporter maps them to
// definitions 1, 2, 3 and 2, 1.
const MetadataPairs kSwp1 = {{"interface", "swp1"}, {"traffic_class", "0"}};
const MetadataPairs kSwp2 = {{"interface", "swp2"}}, kSwp3 = {{"interface", "swp3"}};
const std::vector<Definition> kDefinitions = {
    {1, "interface", "swp1"}, {1, "traffic_class", "0"}, {2, "interface", "swp2"}, {3, "interface", "swp3"}};
const std::vector<Mapping> kMappings = {{300, 1}, {300, 2}, {300, 3}, {301, 2}, {301, 1}};
const std::vector<MetadataPairs> kLabels = {kSwp1, kSwp2, kSwp3, kSwp2, kSwp1};
const Templates kTwoTemplates = {{300, CounterFields(100, 3, true)}, {301, CounterFields(200, 2, false)}};

// Names and definitions in one message, then the mappings in messages cut
// after the given numbers of mappings.
std::vector<Message> Announcement(const std::vector<Mapping>& mappings, std::vector<size_t> cuts,
                                  const std::vector<Definition>& definitions = kDefinitions) {
  std::vector<Message> messages = {
      {SwitchNameSet("leaf1"), CounterNameSet({{100, "rx"}, {200, "tx"}}), DefinitionSet(definitions)}};
  cuts.push_back(mappings.size());
  for (size_t begin = 0, i = 0; i < cuts.size(); begin = cuts[i++])
    messages.push_back({MappingSet({mappings.begin() + begin, mappings.begin() + cuts[i]})});
  return messages;
}

TEST_F(SessionTest, LabelsChangeOnlyWithTheAnnouncedMetadata) {
  Announce(kTwoTemplates);
  const auto announcement = Announcement(kMappings, {2});
  // The definitions twice in the first announcement: in a message of their
  // own and again with the names.
  Deliver({DefinitionSet(kDefinitions)});
  DeliverAll(announcement);
  ASSERT_EQ(sink_->schema_updates().size(), 1u);
  EXPECT_EQ(Labels(sink_->schema_updates()[0].snapshot), kLabels);

  // Re-announcing what is held changes nothing and says nothing: whole
  // announcements, and one template's definitions and mappings at a time
  // (starting with any template) between other descriptive records.
  const size_t lines = LogCapture::Snapshot().size();
  for (int i = 0; i < 3; ++i) DeliverAll(announcement);
  Deliver({DefinitionSet({{1, "interface", "swp1"}}), DefinitionSet(kDefinitions)});
  for (int i = 0; i < 2; ++i) {
    Deliver({DefinitionSet({kDefinitions[0], kDefinitions[2]}), MappingSet({kMappings.begin() + 3, kMappings.end()})});
    Deliver({SwitchNameSet("leaf1"), DefinitionSet({kDefinitions[1]})});
    Deliver({DefinitionSet(kDefinitions), MappingSet({kMappings.begin(), kMappings.begin() + 3})});
  }
  EXPECT_EQ(LogCapture::Snapshot().size(), lines);
  EXPECT_EQ(sink_->schema_updates().size(), 1u);
  EXPECT_EQ(session_->pending_mapping_count(), 0u);
  EXPECT_EQ(Labels(session_->GetSchemaSnapshot()), kLabels);

  // A later value of a key replaces the earlier one in place, once.
  for (int i = 0; i < 2; ++i) Deliver({DefinitionSet({{1, "interface", "swp9"}})});
  const MetadataPairs swp9 = {{"interface", "swp9"}, {"traffic_class", "0"}};
  ASSERT_EQ(sink_->schema_updates().size(), 2u);
  EXPECT_EQ(Labels(sink_->schema_updates()[1].snapshot), (std::vector<MetadataPairs>{swp9, kSwp2, kSwp3, kSwp2, swp9}));
  Deliver({CounterNameSet({{100, "rx_bytes"}})});  // a renamed counter
  EXPECT_EQ(sink_->schema_updates().size(), 3u);

  // New counter templates make the held mappings partial: the session waits
  // for an announcement that maps the new layout.
  Announce({{300, CounterFields(100, 3, true)}, {301, CounterFields(200, 3, false)}});
  EXPECT_FALSE(session_->IsComplete());
  DeliverAll(announcement);
  EXPECT_FALSE(session_->IsComplete());
  std::vector<Mapping> six = kMappings;
  six.emplace_back(301, 3);
  DeliverAll(Announcement(six, {3}));
  ASSERT_TRUE(session_->IsComplete());
  EXPECT_EQ(Labels(sink_->schema_updates().back().snapshot),
            (std::vector<MetadataPairs>{kSwp1, kSwp2, kSwp3, kSwp2, kSwp1, kSwp3}));
}

// Announcements repeated while a mapping datagram is lost, or while the
// session cannot complete at all: it keeps one copy of what it holds, logs
// nothing more and publishes nothing. Once a whole announcement has arrived
// it publishes the right labels, and a partial one later leaves them alone.
TEST_F(SessionTest, AnnouncementsWithLostMappingDatagrams) {
  const Templates one_template = {{300, CounterFields(100, 4, true)}}, none;
  const std::vector<Mapping> four = {{300, 3}, {300, 2}, {300, 1}, {300, 1}};
  const std::vector<MetadataPairs> four_labels = {kSwp3, kSwp2, kSwp1, kSwp1}, never = {};
  const std::vector<Definition> missing_one = {kDefinitions.begin(), kDefinitions.end() - 1};
  const struct {
    const char* what;
    const Templates& templates;
    const std::vector<Mapping>& mappings;
    std::vector<size_t> cuts, lost;
    const std::vector<Definition>& definitions;
    const std::vector<MetadataPairs>& labels;  // empty: never complete
  } cases[] = {
      {"first of two, a template split", kTwoTemplates, kMappings, {2}, {0}, kDefinitions, kLabels},
      {"second of two, a template split", kTwoTemplates, kMappings, {2}, {1}, kDefinitions, kLabels},
      {"second of two, at a template's end", kTwoTemplates, kMappings, {3}, {1}, kDefinitions, kLabels},
      {"middle of three", kTwoTemplates, kMappings, {1, 4}, {1}, kDefinitions, kLabels},
      {"first and last of three", kTwoTemplates, kMappings, {1, 4}, {0, 2}, kDefinitions, kLabels},
      {"one template, first of two", one_template, four, {2}, {0}, kDefinitions, four_labels},
      {"one template, second of two", one_template, four, {2}, {1}, kDefinitions, four_labels},
      {"one template, middle of three", one_template, four, {1, 3}, {1}, kDefinitions, four_labels},
      {"a mapped definition never sent", kTwoTemplates, kMappings, {2}, {}, missing_one, never},
      {"no counter templates", none, kMappings, {2}, {}, kDefinitions, never},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Fresh();
    Announce(c.templates);
    const auto announcement = Announcement(c.mappings, c.cuts, c.definitions);
    DeliverAll(announcement, c.lost);
    const size_t lines = LogCapture::Snapshot().size(), pending = session_->pending_mapping_count();
    const auto held = session_->GetSchemaSnapshot();
    for (int i = 0; i < 100; ++i) DeliverAll(announcement, c.lost);
    EXPECT_FALSE(session_->IsComplete());
    EXPECT_EQ(LogCapture::Snapshot().size(), lines);
    EXPECT_EQ(session_->pending_mapping_count(), pending);
    EXPECT_LE(pending, c.mappings.size());
    EXPECT_EQ(session_->GetSchemaSnapshot().metadata_definitions, held.metadata_definitions);
    EXPECT_EQ(session_->GetSchemaSnapshot().metadata_mappings, held.metadata_mappings);
    EXPECT_TRUE(sink_->schema_updates().empty());

    DeliverAll(announcement);
    EXPECT_EQ(session_->IsComplete(), !c.labels.empty());
    DeliverAll(announcement, c.lost);
    DeliverAll(announcement);
    // Every schema the sink ever saw had the right labels.
    const auto updates = sink_->schema_updates();
    ASSERT_EQ(updates.size(), c.labels.empty() ? 0u : 1u);
    if (c.labels.empty()) continue;
    EXPECT_EQ(Labels(updates[0].snapshot), c.labels);
    EXPECT_EQ(updates[0].snapshot.metadata_mappings, c.mappings);
  }
}

// Template 300 has the sample time and two counters, 301 one counter.
const Templates kSmallLayout = {{300, CounterFields(100, 2, true)}, {301, CounterFields(200, 1, false)}};

// Templates re-announced mid-sample: unchanged ones keep the pending sample,
// a changed one drops it (its layout is gone) and publishes a new schema,
// a withdrawn one leaves the layout.
TEST_F(SessionTest, TemplatesChangedOrWithdrawnMidStream) {
  SetUpSchema(kSmallLayout);
  Deliver({Record(300, Opening(1, 2, 10, 2))});
  Announce({{300, CounterFields(100, 2, true)}}, false);
  Deliver({Record(301, {{12, 8}})});
  ASSERT_EQ(sink_->commits().size(), 1u);
  EXPECT_EQ(ValuesOf(sink_->commits()[0]), (Values{10, 11, 12}));

  Deliver({Record(300, Opening(1, 2, 10, 2))});
  Announce({{300, {{1, 4}, {2, 4}, {100, 4}, {101, 8}}}}, false);
  EXPECT_EQ(sink_->schema_updates().size(), 2u);
  Deliver({Record(301, {{5, 8}})});
  EXPECT_EQ(sink_->commits().size(), 1u) << "the pending sample went with the old layout";

  Announce({{301, {}}}, false);
  EXPECT_EQ(sink_->schema_updates().size(), 3u);
  Deliver({Record(300, {{1, 4}, {0, 4}, {20, 4}, {21, 8}})});
  ASSERT_EQ(sink_->commits().size(), 2u);
  EXPECT_EQ(ValuesOf(sink_->commits()[1]), (Values{20, 21}));
}

// A sample's first record cut before its time opens no sample (it would be
// stored at time 0).
TEST_F(SessionTest, FirstRecordWithoutItsTimeOpensNoSample) {
  SetUpSchema(kSmallLayout);
  Set cut = Record(300, Opening(1, 0, 10, 2));
  cut.body.resize(3);
  Deliver({cut});
  Deliver({Record(301, {{1, 8}})});
  EXPECT_EQ(sink_->slot_requests(), 0u);
  EXPECT_TRUE(sink_->commits().empty());
}

// One counter template of any shape: the values stored and the sample time.
TEST_F(SessionTest, SingleRecordSamplesOfEveryShape) {
  // cut: bytes cut off the end of the record.
  const struct { const char* what; std::vector<FieldSpec> fields; Counters record; size_t cut; Values values;
                 uint32_t sec, nsec; } cases[] = {
      {"narrow counters", {{1, 4}, {2, 4}, {100, 8}, {101, 4}, {102, 3}, {103, 2}, {104, 1}},
       {{9, 4}, {8, 4}, {7, 8}, {0x102, 4}, {0xabcdef, 3}, {0x1234, 2}, {0xfe, 1}}, 0, {7, 258, 0, 0x1234, 0xfe}, 9, 8},
      {"short record keeps what fits", CounterFields(100, 3, true), Opening(1, 2, 5, 3), 1, {5, 6, 0}, 1, 2},
      {"no time fields", CounterFields(100, 2, false), {{11, 8}, {12, 8}}, 0, {11, 12}, 0, 0},
      {"time between counters", {{100, 8}, {1, 4}, {101, 8}, {2, 4}}, {{11, 8}, {77, 4}, {12, 8}, {88, 4}}, 0,
       {11, 12}, 77, 88},
      {"variable-length field", {{1, 4}, {2, 4}, {100, 8}, {500, kVar}, {101, 8}},
       {{5, 4}, {6, 4}, {11, 8}, {0, kVar}, {12, 8}}, 0, {11, 12}, 5, 6},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Fresh();
    SetUpSchema({{300, c.fields}});
    // The published description has one entry per stored value.
    EXPECT_EQ(sink_->schema_updates().back().snapshot.flat_fields.size(), c.values.size());
    Set record = Record(300, c.record);
    record.body.resize(record.body.size() - c.cut);
    Deliver({record});
    ASSERT_EQ(sink_->commits().size(), 1u);
    EXPECT_EQ(ValuesOf(sink_->commits()[0]), c.values);
    EXPECT_EQ(sink_->commits()[0].time_sec, c.sec);
    EXPECT_EQ(sink_->commits()[0].time_nsec, c.nsec);
  }
}

// Exporters number their messages in different legal ways. Each case
// streams whole samples (so the session learns the numbering), then loses
// the last fragment of sample A and the first of sample B: B's later
// fragments must not complete A when the numbers tell the loss, and every
// whole sample, however its records were packed or ordered, is stored.
TEST_F(SessionTest, WholeSamplesAreStoredAndALossIsNotFilledFromTheNextSample) {
  enum Numbering { kPerRecord, kPerMessage, kConstant };
  const struct {
    const char* what;
    Numbering numbering;
    bool whole_sample_per_message;  // else one record per message
    bool interleave;                // a descriptive record between fragments
    bool swap;                      // 300 and 301 of some samples swapped (separate messages only:
                                    // the network reorders datagrams, not records)
    bool loss_told;                 // the numbers show the loss: A is not stored
  } cases[] = {
      {"per record", kPerRecord, false, false, false, true},
      {"per record, interleaved", kPerRecord, false, true, false, true},
      {"per record, swapped", kPerRecord, false, false, true, true},
      // Records lost from inside a message (the network loses whole
      // datagrams) leave the numbers unable to tell.
      {"per record, whole samples", kPerRecord, true, true, false, false},
      {"per message", kPerMessage, false, false, false, true},
      {"per message, whole samples", kPerMessage, true, false, false, false},
      {"constant", kConstant, false, true, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Fresh();
    SetUpSchema({{300, CounterFields(100, 1, true)}, {301, CounterFields(200, 1, false)},
                 {302, CounterFields(300, 1, false)}});
    uint32_t next_record = 1000, next_message = 500;
    // Sends the records of sample n; skip lists the templates lost on the way.
    const auto sample = [&](uint32_t n, std::vector<uint16_t> skip = {}) {
      std::vector<Set> records = {Record(300, Opening(n, 0, n * 10, 1)), Record(301, {{n * 10 + 1, 8}}),
                                  Record(302, {{n * 10 + 2, 8}})};
      if (c.interleave) records.insert(records.begin() + 2, SwitchNameSet("leaf1"));
      // Numbers are given in sending order; swapping changes arrival only.
      std::vector<uint32_t> numbers;
      for (size_t i = 0; i < records.size(); ++i) numbers.push_back(next_record++);
      // Every third sample once the numbering is learnt, A among them.
      if (c.swap && n % 3 == 1 && n > 3) {
        std::swap(records[0], records[1]);
        std::swap(numbers[0], numbers[1]);
      }
      Message whole;
      for (size_t i = 0; i < records.size(); ++i) {
        const bool lost = std::find(skip.begin(), skip.end(), records[i].id) != skip.end();
        if (c.whole_sample_per_message) {
          if (!lost) whole.push_back(records[i]);
          continue;
        }
        const uint32_t message = next_message++;
        if (lost) continue;
        Deliver({records[i]}, c.numbering == kPerRecord ? numbers[i] : c.numbering == kPerMessage ? message : 7);
      }
      if (c.whole_sample_per_message) Deliver(whole, c.numbering == kPerRecord ? numbers[0] : next_message++);
    };
    for (uint32_t n = 1; n <= 12; ++n) sample(n);
    // Numbers that say nothing cannot place a fragment that comes before its
    // sample's first record: such a sample (4, 7 and 10 here) is lost.
    const size_t unplaceable = c.numbering == kConstant && c.swap ? 3 : 0;
    ASSERT_EQ(sink_->commits().size(), 12u - unplaceable) << "every whole sample is stored";
    sample(13, {302});       // A: its last fragment is lost
    sample(14, {300, 301});  // B: its first fragments are lost, its 302 arrives
    sample(15);
    const auto commits = sink_->commits();
    EXPECT_EQ(ValuesOf(commits.back()), (Values{150, 151, 152}));
    const auto a = std::find_if(commits.begin(), commits.end(), [](const auto& x) { return ValuesOf(x)[0] == 130; });
    if (c.loss_told) {
      EXPECT_TRUE(a == commits.end()) << "sample A completed with sample B's fragment";
      EXPECT_EQ(commits.size(), 13u - unplaceable);
    }
    for (const auto& commit : commits) {
      const auto v = ValuesOf(commit);
      if (v[0] != 130) {
        EXPECT_EQ(v, (Values{v[0], v[0] + 1, v[0] + 2}));
      }
    }
  }
}

}  // namespace

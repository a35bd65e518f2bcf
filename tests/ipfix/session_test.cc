#include "ipfix/ipfix_session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "dtl_logger.h"
#include "ipfix/message_parser.h"
#include "ipfix/recording_sink.h"
#include "tools/hft_sim/ipfix_message_builder.h"

namespace {

using dtl::hftsim::FieldSpec;
using dtl::hftsim::IpfixMessageBuilder;
using dtl::ipfix::FlatFieldInfo;
using dtl::ipfix::IpfixSession;
using dtl::ipfix::MessageParser;
using dtl::ipfix::ParsedTemplate;
using dtl::ipfix::SchemaSnapshot;

constexpr uint16_t kVar = 65535;
std::vector<std::pair<int, std::string>> g_lines;

void CaptureLog(int level, const char* fmt, ...) {
  char buf[2048];
  va_list args;
  va_start(args, fmt);
  vsnprintf(buf, sizeof(buf), fmt, args);
  va_end(args);
  g_lines.emplace_back(level, buf);
}

size_t CountLines(const std::string& text, int level = -1) {
  size_t n = 0;
  for (const auto& [l, line] : g_lines)
    if (line.find(text) != std::string::npos && (level == -1 || l == level)) ++n;
  return n;
}

std::string Ipv4Key(const char* address, uint16_t port, uint32_t domain) {
  uint8_t bytes[10];
  const uint16_t port_be = htons(port);
  std::memcpy(bytes, &port_be, 2);
  std::memcpy(bytes + 2, &domain, 4);
  inet_pton(AF_INET, address, bytes + 6);
  return std::string(reinterpret_cast<char*>(bytes), sizeof(bytes));
}

// Builds one set and hands out its body (the bytes after the set header).
struct SetBody {
  explicit SetBody(uint16_t set_id) {
    b.Begin(0, 0, 1);
    b.BeginSet(set_id);
  }
  std::vector<uint8_t> Body() {
    const auto& m = b.Finish();
    return {m.begin() + 20, m.end()};
  }
  IpfixMessageBuilder b;
};

using Counters = std::vector<std::pair<uint64_t, size_t>>;  // (value, width)

std::vector<uint8_t> Record(uint16_t id, const Counters& fields) {
  SetBody s(id);
  for (const auto& [v, w] : fields) s.b.PutUint(v, w);
  return s.Body();
}

std::vector<FieldSpec> EightByteCounters(uint16_t first, size_t n, bool with_time) {
  std::vector<FieldSpec> f;
  if (with_time) f = {{1, 4}, {2, 4}};
  for (size_t i = 0; i < n; ++i) f.push_back({static_cast<uint16_t>(first + i), 8});
  return f;
}

class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines.clear();
    dtl_set_log_func(&CaptureLog, DTL_LOG_LEVEL_DEBUG);
  }

  void Announce(const std::vector<std::pair<uint16_t, std::vector<FieldSpec>>>& templates) {
    SetBody s(2);
    for (const auto& [id, fields] : templates) s.b.AddTemplate(id, fields);
    const auto body = s.Body();
    session.UpdateTemplates(MessageParser::ParseTemplateSet(body.data(), body.size()));
  }
  // One message with one set.
  void Send(uint16_t id, const std::vector<uint8_t>& body, uint32_t seq = 1) {
    session.BeginMessage(seq);
    session.ProcessDataSet(id, body.data(), body.size(), 0, seq);
  }
  void AnnounceMeta() {
    Announce({{256, {{3, kVar}}},
              {257, {{5, 2}, {4, kVar}, {7, 4}}},
              {258, {{8, 8}, {9, kVar}, {10, kVar}, {7, 4}}},
              {259, {{6, 2}, {8, 8}, {7, 4}}}});
  }
  void SendSwitchName(const std::string& name) {
    SetBody s(256);
    s.b.PutVarLength(name);
    Send(256, s.Body());
  }
  void SendNames(const std::vector<std::pair<uint16_t, std::string>>& names) {
    SetBody s(257);
    for (const auto& [ie, name] : names) {
      s.b.PutU16(ie);
      s.b.PutVarLength(name);
      s.b.PutU32(3);
    }
    Send(257, s.Body());
  }
  void SendDefinitions(const std::vector<std::tuple<uint64_t, std::string, std::string>>& defs, uint32_t seq) {
    SetBody s(258);
    for (const auto& [id, k, v] : defs) {
      s.b.PutU64(id);
      s.b.PutVarLength(k);
      s.b.PutVarLength(v);
      s.b.PutU32(1);
    }
    Send(258, s.Body(), seq);
  }
  void SendMappings(const std::vector<std::pair<uint16_t, uint64_t>>& maps, uint32_t seq) {
    SetBody s(259);
    for (const auto& [t, id] : maps) {
      s.b.PutU16(t);
      s.b.PutU64(id);
      s.b.PutU32(1);
    }
    Send(259, s.Body(), seq);
  }
  // Names, definition 1 and one mapping per counter field to it.
  void CompleteMetadata(const std::vector<uint16_t>& templates_with_counts, const std::vector<size_t>& counts) {
    SendNames({{100, "rx_bytes"}});
    SendDefinitions({{1, "unit", "bytes"}}, 1);
    std::vector<std::pair<uint16_t, uint64_t>> maps;
    for (size_t t = 0; t < templates_with_counts.size(); ++t)
      for (size_t i = 0; i < counts[t]; ++i) maps.emplace_back(templates_with_counts[t], 1);
    SendMappings(maps, 1);
  }
  // Complete schema with templates 300 (time + 10 counters) and 301 (6).
  void SetUpTwoFragments() {
    AnnounceMeta();
    Announce({{300, EightByteCounters(100, 10, true)}, {301, EightByteCounters(200, 6, false)}});
    SendSwitchName("leaf1");
    CompleteMetadata({300, 301}, {10, 6});
    ASSERT_TRUE(session.IsComplete());
  }
  std::vector<uint64_t> Values(const RecordingSink::Commit& c) {
    std::vector<uint64_t> v(c.values.size() / 8);
    std::memcpy(v.data(), c.values.data(), v.size() * 8);
    return v;
  }
  Counters Opening(uint32_t sec, uint32_t nsec, uint64_t base, size_t n) {
    Counters c = {{sec, 4}, {nsec, 4}};
    for (size_t i = 0; i < n; ++i) c.push_back({base + i, 8});
    return c;
  }

  RecordingSink sink;
  std::string key = Ipv4Key("192.0.2.1", 4739, 1);
  IpfixSession session{key, 3, &sink};
};

// ---- Templates and dispatch ----

TEST_F(SessionTest, DisplayNameFromKey) {
  EXPECT_EQ(session.display_name(), "192.0.2.1:4739/domain_1");
  uint8_t v6[22] = {0x12, 0x83, 7, 0, 0, 0, 0x20, 0x01, 0x0d, 0xb8};
  v6[21] = 1;
  EXPECT_EQ(IpfixSession(std::string(reinterpret_cast<char*>(v6), 22), 0, nullptr).display_name(),
            "2001:db8::1:4739/domain_7");
  EXPECT_EQ(IpfixSession("abcde", 0, nullptr).display_name(), "<invalid:size=5>");
  EXPECT_EQ(IpfixSession(std::string(12, 'x'), 0, nullptr).display_name(), "<invalid:ip_len=6>");
}

TEST_F(SessionTest, UnknownTemplateIdsAreSkipped) {
  Announce({{299, {}}, {260, {}}, {400, {{1, 4}}}, {256, {{3, kVar}}}});
  EXPECT_EQ(CountLines("unknown template ID 299 — skipping", DTL_LOG_LEVEL_DEBUG), 1u);
  EXPECT_EQ(CountLines("unknown template ID 260"), 1u);
  EXPECT_EQ(CountLines("400"), 0u);
  const auto cached = session.templates();
  ASSERT_EQ(cached.size(), 1u);
  EXPECT_EQ(cached.count(256), 1u);
  EXPECT_EQ(session.template_sets_processed(), 1u);
}

TEST_F(SessionTest, DataSetRouting) {
  const std::vector<uint8_t> body = {0, 4, 'n', 'a', 'm', 'e'};
  Send(258, body);
  Send(270, body);
  Send(332, body);
  Send(305, body);
  EXPECT_EQ(CountLines("no template for meta set ID 258, skipping"), 1u);
  EXPECT_EQ(CountLines("unknown data set ID 270"), 1u);
  EXPECT_EQ(CountLines("no template for counter set ID 332, skipping"), 1u);
  EXPECT_EQ(CountLines("no template for counter set ID 305, skipping"), 1u);
  EXPECT_EQ(session.data_sets_processed(), 4u);
}

TEST_F(SessionTest, ReadFieldPointerVariableAndFixedLengths) {
  const dtl::ipfix::ParsedFieldSpecifier var{9, kVar, false, 0}, fixed4{9, 4, false, 0};
  const uint8_t* p = nullptr;
  size_t n = 0;
  const uint8_t empty[] = {0};
  EXPECT_EQ(session.ReadFieldPointer(var, empty, 1, 0, &p, &n), 1u);
  EXPECT_EQ(n, 0u);
  std::vector<uint8_t> longform = {255, 0x01, 0x2c};
  longform.resize(3 + 300, 'x');
  EXPECT_EQ(session.ReadFieldPointer(var, longform.data(), longform.size(), 0, &p, &n), 303u);
  EXPECT_EQ(n, 300u);
  EXPECT_EQ(p, longform.data() + 3);
  EXPECT_EQ(session.ReadFieldPointer(var, longform.data(), 302, 0, &p, &n), 0u);  // content cut
  EXPECT_EQ(session.ReadFieldPointer(var, longform.data(), 2, 0, &p, &n), 0u);    // u16 length cut
  EXPECT_EQ(session.ReadFieldPointer(var, longform.data(), 3, 3, &p, &n), 0u);    // nothing left
  EXPECT_EQ(session.ReadFieldPointer(fixed4, longform.data(), 6, 2, &p, &n), 4u);
  EXPECT_EQ(session.ReadFieldPointer(fixed4, longform.data(), 6, 3, &p, &n), 0u);
}

TEST_F(SessionTest, ReadRecordKeepsFieldsBeforeATruncation) {
  ParsedTemplate t{258, {{8, 2, false, 0}, {9, 0, false, 0}, {10, kVar, false, 0}}};
  const uint8_t ok[] = {0, 7, 2, 'a', 'b'};
  size_t offset = 0;
  ASSERT_TRUE(session.ReadRecord(t, ok, sizeof(ok), offset));
  EXPECT_EQ(offset, 5u);
  ASSERT_EQ(session.record_fields().size(), 3u);
  EXPECT_EQ(session.record_fields()[1].length, 0u);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(session.record_fields()[2].data), 2), "ab");
  const uint8_t cut[] = {0, 7, 255, 0};
  offset = 0;
  EXPECT_FALSE(session.ReadRecord(t, cut, sizeof(cut), offset));
  EXPECT_EQ(session.record_fields().size(), 2u);
}

TEST_F(SessionTest, MetaTemplateConsumingNothingEndsTheSet) {
  Announce({{256, {{3, 0}}}, {257, {}}});
  const std::vector<uint8_t> body(16, 'x');
  Send(256, body);  // must return: the records never advance
  Send(257, body);
  EXPECT_TRUE(session.switch_name().empty());
  EXPECT_TRUE(session.counter_names().empty());
  EXPECT_EQ(session.data_sets_processed(), 2u);
}

TEST_F(SessionTest, UnchangedReannouncementKeepsPendingSample) {
  SetUpTwoFragments();
  Send(300, Record(300, Opening(1, 2, 10, 10)));
  g_lines.clear();
  Announce({{300, EightByteCounters(100, 10, true)}});
  EXPECT_TRUE(g_lines.empty());
  Send(301, Record(301, Opening(0, 0, 0, 0)));  // wrong shape does not matter: counted as a fragment
  EXPECT_EQ(sink.commits().size(), 1u);
}

TEST_F(SessionTest, ChangedCounterTemplateDropsPendingAndRepublishes) {
  SetUpTwoFragments();
  const size_t published = sink.schema_updates().size();
  Send(300, Record(300, Opening(1, 2, 10, 10)));
  auto changed = EightByteCounters(100, 10, true);
  changed[2].length = 4;
  g_lines.clear();
  Announce({{300, changed}});
  EXPECT_EQ(CountLines("cached counter template ID 300 with 12 fields", DTL_LOG_LEVEL_INFO), 1u);
  EXPECT_EQ(sink.schema_updates().size(), published + 1);
  EXPECT_EQ(session.total_value_bytes(), 128u);
  Send(301, Record(301, {{5, 8}}));
  EXPECT_TRUE(sink.commits().empty()) << "the pending sample went with the old layout";
}

// ---- Names, metadata and completeness ----

TEST_F(SessionTest, NothingReachesTheSinkUntilTheSwitchNameArrives) {
  AnnounceMeta();
  Announce({{300, EightByteCounters(100, 2, true)}});
  CompleteMetadata({300}, {2});
  EXPECT_GE(CountLines("NOT complete (switch='' names=1 meta_complete=1 expected_fields=2 mappings=2"), 1u);
  Send(300, Record(300, Opening(1, 2, 10, 2)));
  EXPECT_TRUE(sink.schema_updates().empty());
  EXPECT_TRUE(sink.slot_requests().empty());

  SendSwitchName("spine-7");
  EXPECT_EQ(CountLines("switch name = 'spine-7'"), 1u);
  const auto updates = sink.schema_updates();
  ASSERT_EQ(updates.size(), 1u);
  EXPECT_EQ(updates[0].worker_id, 3u);
  EXPECT_EQ(updates[0].key, key);
  EXPECT_EQ(updates[0].display_name, "192.0.2.1:4739/domain_1");
  EXPECT_EQ(updates[0].domain_id, 1u);
  EXPECT_EQ(updates[0].snapshot.switch_name, "spine-7");
  EXPECT_EQ(updates[0].snapshot.exporter_port, 4739);
  SendSwitchName("spine-7");  // same name: no change
  EXPECT_EQ(sink.schema_updates().size(), 1u);
}

TEST_F(SessionTest, RepeatedCounterNameChangesNothing) {
  AnnounceMeta();
  SendNames({{0x8000 | 100, "rx"}});
  SendNames({{100, "rx"}});
  EXPECT_EQ(CountLines("counter name IE 100 = 'rx' (revision 3)"), 1u);
  SendNames({{100, ""}});  // empty names are skipped
  EXPECT_EQ(session.counter_names().at(100), "rx");
}

TEST_F(SessionTest, CompletenessNeedsAMappingPerFieldAndEveryDefinition) {
  AnnounceMeta();
  Announce({{300, EightByteCounters(100, 3, true)}});
  SendSwitchName("s");
  SendNames({{100, "a"}});
  SendDefinitions({{1, "k", "v"}}, 1);
  SendMappings({{300, 1}, {300, 1}}, 1);
  EXPECT_FALSE(session.IsComplete());  // 2 mappings < 3 fields
  SendMappings({{300, 2}}, 2);
  EXPECT_FALSE(session.IsComplete());  // metadata ID 2 undefined
  EXPECT_TRUE(sink.schema_updates().empty());
  SendDefinitions({{2, "k", "w"}}, 2);
  EXPECT_TRUE(session.IsComplete());
  ASSERT_EQ(sink.schema_updates().size(), 1u);

  // A later definition of a key replaces the earlier one; mappings of an
  // unknown template change nothing.
  SendDefinitions({{2, "k", "changed"}}, 2);
  SendMappings({{301, 9}}, 3);
  const auto snap = session.GetSchemaSnapshot();
  EXPECT_EQ(snap.metadata_definitions.at(2), (dtl::ipfix::MetadataPairs{{"k", "changed"}}));
  EXPECT_EQ(snap.metadata_mappings.size(), 3u);
  EXPECT_EQ(sink.schema_updates().size(), 2u);
}

TEST_F(SessionTest, SnapshotFlatFieldsDropTimeFieldsAndFollowMappings) {
  AnnounceMeta();
  Announce({{301, {{7, 8}}}, {300, {{1, 4}, {2, 4}, {100, 8}, {42, 8}}}});
  SendSwitchName("s");
  SendNames({{100, "rx_bytes"}});
  SendDefinitions({{11, "unit", "bytes"}, {12, "unit", "packets"}}, 1);
  SendMappings({{300, 11}, {301, 12}, {300, 12}}, 1);
  ASSERT_EQ(sink.schema_updates().size(), 1u);
  const SchemaSnapshot snap = sink.schema_updates()[0].snapshot;
  const std::vector<FlatFieldInfo> expected = {
      {300, 100, "rx_bytes", 11, {{"unit", "bytes"}}, 8},
      {300, 42, "ie_42", 12, {{"unit", "packets"}}, 8},
      {301, 7, "ie_7", 12, {{"unit", "packets"}}, 8},
  };
  EXPECT_EQ(snap.flat_fields, expected);
}

TEST_F(SessionTest, SinkWithoutRootOrNoSinkGetsNothing) {
  RecordingSink rootless("");
  for (dtl::ipfix::IpfixSessionSink* s : {static_cast<dtl::ipfix::IpfixSessionSink*>(&rootless),
                                         static_cast<dtl::ipfix::IpfixSessionSink*>(nullptr)}) {
    IpfixSession other(key, 0, s);
    SetBody t(2);
    t.b.AddTemplate(300, EightByteCounters(100, 1, true));
    const auto body = t.Body();
    other.UpdateTemplates(MessageParser::ParseTemplateSet(body.data(), body.size()));
    const auto rec = Record(300, Opening(1, 2, 3, 1));
    other.ProcessDataSet(300, rec.data(), rec.size(), 0, 0);
    EXPECT_EQ(other.records_written(), 0u);
  }
  EXPECT_TRUE(rootless.schema_updates().empty());
  EXPECT_TRUE(rootless.slot_requests().empty());
  EXPECT_EQ(CountLines("NOT complete"), 0u);
}

// ---- Sample assembly ----

TEST_F(SessionTest, TwoFragmentSampleIsCommittedAfterBoth) {
  SetUpTwoFragments();
  EXPECT_EQ(session.value_offsets(0), 0u);
  EXPECT_EQ(session.value_offsets(1), 80u);
  EXPECT_EQ(session.total_value_bytes(), 128u);
  EXPECT_EQ(session.fragment_count(), 2u);
  EXPECT_EQ(session.expected_fields(), 16u);

  Send(300, Record(300, Opening(1700000000, 500, 0x0102030405060708, 10)));
  ASSERT_EQ(sink.slot_requests().size(), 1u);
  const auto req = sink.slot_requests()[0];
  EXPECT_EQ(req.worker_id, 3u);
  EXPECT_EQ(req.time_sec, 1700000000u);
  EXPECT_EQ(req.time_nsec, 500u);
  EXPECT_EQ(req.values_size, 128u);
  EXPECT_TRUE(sink.commits().empty());

  Counters c301;
  for (uint64_t i = 0; i < 6; ++i) c301.push_back({1000 + i, 8});
  Send(301, Record(301, c301));
  const auto commits = sink.commits();
  ASSERT_EQ(commits.size(), 1u);
  const auto v = Values(commits[0]);
  ASSERT_EQ(v.size(), 16u);
  EXPECT_EQ(v[0], 0x0102030405060708u);
  EXPECT_EQ(v[9], 0x0102030405060708u + 9);
  EXPECT_EQ(v[10], 1000u);
  EXPECT_EQ(v[15], 1005u);
  EXPECT_EQ(session.records_written(), 1u);
  EXPECT_EQ(CountLines("ProcessCounterDataRecords: session=192.0.2.1:4739/domain_1 records_written=1"), 1u);
}

// A fragment placed by its template: the order of a sample's fragments does
// not matter, and one that comes before its sample's first record waits.
// Without sequence numbers that can place it (here every message has the
// same number), a fragment that comes before its sample's first record
// cannot be told from a leftover and is not kept; a sample that never
// completes is dropped when the next one opens.
TEST_F(SessionTest, WithoutNumbersOnlyFragmentsAfterTheFirstRecordCount) {
  SetUpTwoFragments();
  const Counters six = {{1, 8}, {2, 8}, {3, 8}, {4, 8}, {5, 8}, {6, 8}};
  Send(301, Record(301, six));
  Send(300, Record(300, Opening(1, 0, 10, 10)));
  EXPECT_TRUE(sink.commits().empty());
  Send(300, Record(300, Opening(2, 0, 20, 10)));
  EXPECT_EQ(CountLines("discarding incomplete sample (1 of 2 fragments)"), 1u);
  Send(301, Record(301, six));
  ASSERT_EQ(sink.commits().size(), 1u);
  EXPECT_EQ(Values(sink.commits()[0]),
            (std::vector<uint64_t>{20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 1, 2, 3, 4, 5, 6}));
}

// Exporters number their messages in different legal ways. Each case
// streams whole samples (so the session learns the numbering), then loses
// the last fragment of sample A and the first of sample B: B's later
// fragments must not complete A when the numbers tell the loss, and every
// whole sample, however its records were packed or ordered, is stored.
struct NumberingCase {
  const char* name;
  enum Mode { kPerRecord, kPerMessage, kConstant } mode;
  bool whole_sample_per_message;  // else one record per message
  bool interleave;                // a descriptive record between fragments
  bool swap;                      // 300 and 301 of some samples swapped (separate messages only:
                                  // the network reorders datagrams, not records)
  bool loss_told;                 // the numbers show the loss: A is not stored
};

class SequenceNumbering : public SessionTest, public ::testing::WithParamInterface<NumberingCase> {
 protected:
  void SetUp() override {
    SessionTest::SetUp();
    AnnounceMeta();
    Announce({{300, EightByteCounters(100, 1, true)},
              {301, EightByteCounters(200, 1, false)},
              {302, EightByteCounters(300, 1, false)}});
    SendSwitchName("leaf1");
    CompleteMetadata({300, 301, 302}, {1, 1, 1});
    ASSERT_TRUE(session.IsComplete());
  }
  // Sends the records of one sample; skip lists the templates lost on the way.
  void Sample(uint32_t n, std::vector<uint16_t> skip = {}) {
    const NumberingCase& c = GetParam();
    std::vector<std::pair<uint16_t, std::vector<uint8_t>>> records = {
        {300, Record(300, Opening(n, 0, n * 10, 1))},
        {301, Record(301, {{n * 10 + 1, 8}})},
        {302, Record(302, {{n * 10 + 2, 8}})}};
    if (c.interleave) {
      SetBody name(256);
      name.b.PutVarLength("leaf1");
      records.insert(records.begin() + 2, {256, name.Body()});
    }
    // Numbers are given in sending order; swapping changes arrival only.
    std::vector<uint32_t> numbers;
    for (size_t i = 0; i < records.size(); ++i) numbers.push_back(record_ + static_cast<uint32_t>(i));
    record_ += static_cast<uint32_t>(records.size());
    // Every third sample once the numbering is learnt, A among them.
    if (c.swap && n % 3 == 1 && n > 3) {
      std::swap(records[0], records[1]);
      std::swap(numbers[0], numbers[1]);
    }
    const uint32_t message_number = message_;
    for (size_t i = 0; i < records.size(); ++i) {
      const bool lost = std::find(skip.begin(), skip.end(), records[i].first) != skip.end();
      const uint32_t seq = c.mode == NumberingCase::kPerRecord    ? numbers[i]
                           : c.mode == NumberingCase::kPerMessage ? message_
                                                                  : 7;
      if (!c.whole_sample_per_message) {
        ++message_;
        if (lost) continue;
        Send(records[i].first, records[i].second, seq);
      } else {
        if (i == 0) session.BeginMessage(c.mode == NumberingCase::kPerRecord ? numbers[0] : message_number);
        if (!lost)
          session.ProcessDataSet(records[i].first, records[i].second.data(), records[i].second.size(), 0, 0);
      }
    }
    if (c.whole_sample_per_message) ++message_;
  }
  uint32_t record_ = 1000;
  uint32_t message_ = 500;
};

TEST_P(SequenceNumbering, WholeSamplesAreStoredAndALossIsNotFilledFromTheNextSample) {
  const NumberingCase& c = GetParam();
  for (uint32_t n = 1; n <= 12; ++n) Sample(n);
  // Numbers that say nothing cannot place a fragment that comes before its
  // sample's first record: such a sample (4, 7 and 10 here) is lost.
  const size_t unplaceable = c.mode == NumberingCase::kConstant && c.swap ? 3 : 0;
  ASSERT_EQ(sink.commits().size(), 12u - unplaceable) << "every whole sample is stored";
  Sample(13, {302});       // A: its last fragment is lost
  Sample(14, {300, 301});  // B: its first fragments are lost, its 302 arrives
  Sample(15);
  const auto commits = sink.commits();
  ASSERT_FALSE(commits.empty());
  EXPECT_EQ(Values(commits.back()), (std::vector<uint64_t>{150, 151, 152}));
  const bool a_stored = std::any_of(commits.begin(), commits.end(),
                                    [&](const auto& commit) { return Values(commit)[0] == 130; });
  if (c.loss_told) {
    EXPECT_FALSE(a_stored) << "sample A completed with sample B's fragment";
    EXPECT_EQ(commits.size(), 13u - unplaceable);
  }
  for (const auto& commit : commits) {
    const auto v = Values(commit);
    if (v[0] != 130) {
      EXPECT_EQ(v, (std::vector<uint64_t>{v[0], v[0] + 1, v[0] + 2}));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Exporters, SequenceNumbering,
    ::testing::Values(NumberingCase{"PerRecord", NumberingCase::kPerRecord, false, false, false, true},
                      NumberingCase{"PerRecordInterleaved", NumberingCase::kPerRecord, false, true, false, true},
                      NumberingCase{"PerRecordSwapped", NumberingCase::kPerRecord, false, false, true, true},
                      // Records lost from inside a message (the network loses whole
                      // datagrams) leave the numbers unable to tell.
                      NumberingCase{"PerRecordWholeSamples", NumberingCase::kPerRecord, true, true, false, false},
                      NumberingCase{"PerMessage", NumberingCase::kPerMessage, false, false, false, true},
                      NumberingCase{"PerMessageWholeSamples", NumberingCase::kPerMessage, true, false, false, false},
                      NumberingCase{"Constant", NumberingCase::kConstant, false, true, true, false}),
    [](const ::testing::TestParamInfo<NumberingCase>& info) { return info.param.name; });

TEST_F(SessionTest, DroppedSlotSkipsTheWholeSample) {
  SetUpTwoFragments();
  sink.set_drop_samples(true);
  Send(300, Record(300, Opening(1, 0, 0, 10)));
  Send(301, Record(301, {{1, 8}}));
  EXPECT_TRUE(sink.commits().empty());
}

// The first record of a sample must carry the sample's time: one cut
// before it opens nothing (it would be stored at time 0).
TEST_F(SessionTest, FirstRecordWithoutItsTimeOpensNoSample) {
  SetUpTwoFragments();
  auto cut = Record(300, Opening(1, 0, 10, 10));
  cut.resize(3);
  Send(300, cut);
  Send(301, Record(301, Opening(0, 0, 1, 4)));
  EXPECT_TRUE(sink.slot_requests().empty());
  EXPECT_TRUE(sink.commits().empty());
}

// A withdrawn counter template leaves the sample layout: later samples
// complete without it, under a new schema.
TEST_F(SessionTest, WithdrawnTemplateLeavesTheLayout) {
  SetUpTwoFragments();
  const size_t published = sink.schema_updates().size();
  Announce({{301, {}}});
  EXPECT_EQ(sink.schema_updates().size(), published + 1);
  EXPECT_EQ(session.fragment_count(), 1u);
  Send(300, Record(300, Opening(1, 0, 10, 10)));
  ASSERT_EQ(sink.commits().size(), 1u);
  EXPECT_EQ(Values(sink.commits()[0]).size(), 10u);
}

// A single-fragment schema with the given counter template 300.
class SingleFragmentTest : public SessionTest {
 protected:
  void Use(const std::vector<FieldSpec>& fields, size_t counters) {
    AnnounceMeta();
    Announce({{300, fields}});
    SendSwitchName("s");
    CompleteMetadata({300}, {counters});
    ASSERT_TRUE(session.IsComplete());
  }
  std::vector<uint64_t> CommitOne(const Counters& record, size_t cut = 0) {
    auto body = Record(300, record);
    body.resize(body.size() - cut);
    Send(300, body);
    const auto commits = sink.commits();
    return commits.empty() ? std::vector<uint64_t>{} : Values(commits.back());
  }
};

TEST_F(SingleFragmentTest, NarrowCountersTakeTheStepwisePath) {
  Use({{1, 4}, {2, 4}, {100, 8}, {101, 4}, {102, 3}, {103, 2}, {104, 1}}, 5);
  EXPECT_EQ(CommitOne({{9, 4}, {8, 4}, {7, 8}, {0x102, 4}, {0xabcdef, 3}, {0x1234, 2}, {0xfe, 1}}),
            (std::vector<uint64_t>{7, 258, 0, 0x1234, 0xfe}));
}

TEST_F(SingleFragmentTest, ShortRecordKeepsTheValuesThatFitAndStillCommits) {
  Use(EightByteCounters(100, 3, true), 3);
  EXPECT_EQ(CommitOne(Opening(1, 2, 5, 3), 1), (std::vector<uint64_t>{5, 6, 0}));
}

TEST_F(SingleFragmentTest, MissingTimeFieldsGiveTimeZero) {
  Use(EightByteCounters(100, 2, false), 2);
  EXPECT_EQ(CommitOne({{11, 8}, {12, 8}}), (std::vector<uint64_t>{11, 12}));
  EXPECT_EQ(sink.slot_requests()[0].time_sec, 0u);
  EXPECT_EQ(sink.slot_requests()[0].time_nsec, 0u);
}

TEST_F(SingleFragmentTest, TimeFieldBetweenCounters) {
  Use({{100, 8}, {1, 4}, {101, 8}, {2, 4}}, 2);
  EXPECT_EQ(CommitOne({{11, 8}, {77, 4}, {12, 8}, {88, 4}}), (std::vector<uint64_t>{11, 12}));
  EXPECT_EQ(sink.slot_requests()[0].time_sec, 77u);
  EXPECT_EQ(sink.slot_requests()[0].time_nsec, 88u);
}

TEST_F(SingleFragmentTest, VariableLengthFieldIsReadFieldByField) {
  Use({{1, 4}, {2, 4}, {100, 8}, {500, kVar}, {101, 8}}, 2);
  SetBody s(300);
  s.b.PutU32(5);
  s.b.PutU32(6);
  s.b.PutU64(11);
  s.b.PutVarLength("label");
  s.b.PutU64(12);
  Send(300, s.Body());
  ASSERT_EQ(sink.commits().size(), 1u);
  EXPECT_EQ(Values(sink.commits()[0]), (std::vector<uint64_t>{11, 12}));
  EXPECT_EQ(sink.slot_requests()[0].time_sec, 5u);
  // The published description has one entry per stored value.
  const auto updates = sink.schema_updates();
  ASSERT_FALSE(updates.empty());
  const auto& flat = updates.back().snapshot.flat_fields;
  ASSERT_EQ(flat.size(), 2u);
  EXPECT_EQ(flat[0].element_id, 100);
  EXPECT_EQ(flat[1].element_id, 101);
}

// Minimal sink for long runs: one reusable slot, commits only counted.
class CountingSink : public RecordingSink {
 public:
  uint8_t* AcquireRecordValueSlot(size_t, const std::string&, uint32_t, uint32_t, uint64_t) override {
    return slot;
  }
  void CommitRecord(size_t, const std::string&, uint64_t) override { ++commits; }
  uint8_t slot[8] = {};
  uint64_t commits = 0;
};

TEST_F(SessionTest, RecordsWrittenLineIsRateLimited) {
  CountingSink counting;
  IpfixSession s(key, 0, &counting);
  SetBody t(2);
  t.b.AddTemplate(256, {{3, kVar}});
  t.b.AddTemplate(257, {{5, 2}, {4, kVar}});
  t.b.AddTemplate(258, {{8, 8}, {9, kVar}});
  t.b.AddTemplate(259, {{6, 2}, {8, 8}});
  t.b.AddTemplate(300, {{1, 4}, {2, 4}, {100, 8}});
  const auto tb = t.Body();
  s.UpdateTemplates(MessageParser::ParseTemplateSet(tb.data(), tb.size()));
  const std::vector<std::pair<uint16_t, std::vector<uint8_t>>> meta = {
      {256, {1, 's'}}, {257, {0, 100, 1, 'n'}}, {258, {0, 0, 0, 0, 0, 0, 0, 1, 1, 'k'}}, {259, {1, 44, 0, 0, 0, 0, 0, 0, 0, 1}}};
  for (const auto& [id, body] : meta) s.ProcessDataSet(id, body.data(), body.size(), 0, 1);
  ASSERT_TRUE(s.IsComplete());
  const auto rec = Record(300, {{1, 4}, {0, 4}, {42, 8}});
  for (int i = 0; i < 1048577; ++i) s.ProcessDataSet(300, rec.data(), rec.size(), 0, 0);
  EXPECT_EQ(counting.commits, 1048577u);
  EXPECT_EQ(CountLines("records_written="), 3u);
  EXPECT_EQ(CountLines("records_written=524289"), 1u);
  EXPECT_EQ(CountLines("records_written=1048577"), 1u);
  uint64_t v;
  std::memcpy(&v, counting.slot, 8);
  EXPECT_EQ(v, 42u);
}

}  // namespace

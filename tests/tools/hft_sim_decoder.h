// A minimal IPFIX decoder for checking what the simulated switch produces,
// built on the collector's own message parser, and the small configuration
// the simulator's unit tests share.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "ipfix/message_parser.h"
#include "tools/hft_sim/hft_simulator.h"

namespace dtl::hftsim::test_support {

using ipfix::MessageParser;
using ipfix::ParsedHeader;
using ipfix::ParsedTemplate;
inline constexpr uint64_t kStartNs = 1'700'000'000'123'456'789ull;

inline uint16_t U16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t U32(const uint8_t* p) { return (uint32_t{U16(p)} << 16) | U16(p + 2); }
inline uint64_t U64(const uint8_t* p) { return (uint64_t{U32(p)} << 32) | U32(p + 4); }

// One decoded data record: element ID → field bytes, in wire order.
using Record = std::vector<std::pair<uint16_t, std::vector<uint8_t>>>;
struct DataSet {
  uint16_t set_id = 0;
  std::vector<Record> records;
};
struct Message {
  ParsedHeader header;
  std::vector<ParsedTemplate> templates;
  std::vector<DataSet> data_sets;
};

// A minimal collector: learns templates from template sets and cuts data
// records with them; any framing error fails the test.
class Decoder {
 public:
  Message Decode(const Datagram& datagram) {
    Message message;
    message.header = MessageParser::ParseHeader(datagram.data(), datagram.size());
    EXPECT_TRUE(message.header.valid);
    EXPECT_EQ(message.header.length, datagram.size());
    for (size_t offset = MessageParser::kHeaderSize; offset < datagram.size();) {
      const uint16_t set_id = offset + 4 <= datagram.size() ? U16(&datagram[offset]) : 0;
      const uint16_t set_length = offset + 4 <= datagram.size() ? U16(&datagram[offset + 2]) : 0;
      EXPECT_GE(set_length, 4) << "set at offset " << offset;
      EXPECT_LE(offset + set_length, datagram.size()) << "set at offset " << offset;
      if (set_length < 4 || offset + set_length > datagram.size()) break;
      const uint8_t* body = &datagram[offset + 4];
      if (set_id == MessageParser::kTemplateSetId) {
        for (ParsedTemplate& t : MessageParser::ParseTemplateSet(body, set_length - 4u)) {
          templates_[t.template_id] = t;
          message.templates.push_back(std::move(t));
        }
      } else {
        message.data_sets.push_back(DecodeDataSet(set_id, body, set_length - 4u));
      }
      offset += set_length;
    }
    return message;
  }

  const std::map<uint16_t, ParsedTemplate>& templates() const { return templates_; }

 private:
  DataSet DecodeDataSet(uint16_t set_id, const uint8_t* body, size_t length) {
    DataSet set{set_id, {}};
    const auto found = templates_.find(set_id);
    EXPECT_NE(found, templates_.end()) << "data set " << set_id << " before its template";
    for (size_t offset = 0; found != templates_.end() && offset < length;) {
      Record record;
      for (const auto& field : found->second.fields) {
        size_t size = field.length;
        if (size == ipfix::kVariableLength && offset < length) {
          size = body[offset++];
          if (size == 255) size = U16(body + offset), offset += 2;
        }
        EXPECT_LE(offset + size, length) << "record of set " << set_id << " overruns its set";
        if (offset + size > length) return set;
        record.emplace_back(field.element_id, std::vector<uint8_t>(body + offset, body + offset + size));
        offset += size;
      }
      set.records.push_back(std::move(record));
    }
    return set;
  }

  std::map<uint16_t, ParsedTemplate> templates_;
};

inline const std::vector<uint8_t>& Field(const Record& record, uint16_t element) {
  for (const auto& [id, bytes] : record)
    if (id == element) return bytes;
  static const std::vector<uint8_t> kNone;
  ADD_FAILURE() << "record without element " << element;
  return kNone;
}
inline std::string Text(const Record& record, uint16_t element) {
  const std::vector<uint8_t>& bytes = Field(record, element);
  return std::string(bytes.begin(), bytes.end());
}
inline SimConfig SmallConfig() {
  SimConfig config;
  config.interfaces = {"Ethernet1/1", "Ethernet1/2", "Ethernet2/1"};
  config.counter_names = {"in-octets", "out-octets", "in-packets", "out-discards"};
  config.traffic_classes = {"tc0", "tc1"};
  config.counters_per_template = 10;  // 24 counters: templates 300, 301 (10 each), 302 (4)
  config.start_time_ns = static_cast<int64_t>(kStartNs);
  config.announce_period_sec = 0;
  return config;
}

// Decodes the announcement of exporter 0 with everything it carries.
struct Announcement {
  std::vector<Message> messages;
  std::map<uint16_t, ParsedTemplate> templates;
  std::vector<Record> records[4];  // sets 256..259, in arrival order
};

inline Announcement DecodeAnnouncement(HftSimulator& simulator, uint32_t exporter, Decoder& decoder) {
  Announcement result;
  for (const Datagram& datagram : simulator.BuildAnnouncement(exporter)) {
    result.messages.push_back(decoder.Decode(datagram));
    for (const DataSet& set : result.messages.back().data_sets) {
      EXPECT_TRUE(set.set_id >= 256 && set.set_id <= 259) << "set " << set.set_id;
      if (set.set_id < 256 || set.set_id > 259) continue;
      auto& records = result.records[set.set_id - 256];
      records.insert(records.end(), set.records.begin(), set.records.end());
    }
  }
  result.templates = decoder.templates();
  return result;
}

// Checks one counter record against the layout and the value formula.
inline void ExpectCounterRecord(const DataSet& set, uint16_t template_id, uint64_t sample, uint64_t first_field,
                                size_t counters, uint64_t sample_time_ns) {
  ASSERT_EQ(set.set_id, template_id);
  ASSERT_EQ(set.records.size(), 1u);
  const Record& record = set.records[0];
  size_t i = 0;
  if (template_id == 300) {
    ASSERT_GE(record.size(), 2u);
    EXPECT_TRUE(record[0].first == 1 && record[1].first == 2);
    EXPECT_EQ(U32(record[0].second.data()), sample_time_ns / 1'000'000'000ull);
    EXPECT_EQ(U32(record[1].second.data()), sample_time_ns % 1'000'000'000ull);
    i = 2;
  }
  ASSERT_EQ(record.size() - i, counters);
  for (size_t c = 0; c < counters; ++c, ++i) {
    ASSERT_EQ(record[i].second.size(), 8u);
    EXPECT_EQ(U64(record[i].second.data()), CounterValue(sample, first_field + c))
        << "sample " << sample << " field " << first_field + c;
  }
}

}  // namespace dtl::hftsim::test_support

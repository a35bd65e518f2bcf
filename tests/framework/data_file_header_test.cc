#include "dtl_data_file_header.h"

#include <stddef.h>
#include <stdio.h>

#include <functional>

#include "framework/test_util.h"

namespace {

// Storage and retention tell files and blocks apart by the magic's type.
TEST(DataFileHeader, MagicDefaultBytesAndValidation) {
  char lower[4];
  dtl_magic_value_fill_lower(lower, 'F');
  EXPECT_TRUE(dtl_magic_value_match_type("DTLF", 'F'));
  EXPECT_FALSE(dtl_magic_value_match_type("DTLF", 'D') || dtl_magic_value_match_type(lower, 'f'));

  std::unique_ptr<dtl_data_file_header_t, decltype(&dtl_destroy_data_file_header)> fresh(
      dtl_create_data_file_header(), dtl_destroy_data_file_header);
  ASSERT_NE(fresh, nullptr);
  unsigned char expected[DTL_DATA_FILE_HEADER_SIZE] = {'D', 'T', 'L', 'F', 1, 7, 0, 0, 0, 1};
  memcpy(expected + 252, "dtlf", 4);  // file size 256, little-endian, at byte 8
  EXPECT_EQ(memcmp(fresh.get(), expected, sizeof expected), 0);

  // Readers of 1.7 take 1.x up to 1.7, whatever the patch.
  using H = dtl_data_file_header_t;
  const struct {
    std::function<void(H&)> change;
    std::string log;  // empty for a valid header
  } rows[] = {
      {[](H& h) { h.version.minor = 3, h.version.patch = 4; }, ""},
      {[](H& h) { memset(h.magic_end, 0, 4), h.byte_order = 1; }, ""},  // only the leading magic counts
      {[](H& h) { h.file_size = 255; }, "3 Wrong data file size 255 is less then file header size 256"},
      {[](H& h) { h.version.minor = 8; }, "3 Version of data page 1.8.0 is incompatible with Dartel version 1.26.5"},
      {[](H& h) { h.version = {2, 0, 0}; }, "3 Version of data page 2.0.0 is incompatible with Dartel version 1.26.5"},
      {[](H& h) { h.version = {0, 7, 0}; }, "3 Version of data page 0.7.0 is incompatible with Dartel version 1.26.5"},
      {[](H& h) { dtl_magic_value_fill_lower(h.magic, 'F'), h.version.major = 9, h.file_size = 0; },
       "3 Wrong data page magic number."},  // reported alone
  };
  for (const auto& row : rows) {
    dtl_test::LogCapture log;
    H h = *fresh;
    row.change(h);
    EXPECT_EQ(dtl_data_file_header_is_valid(&h), row.log.empty()) << row.log;
    EXPECT_EQ(log.Snapshot(), row.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{row.log});
  }
}

TEST(DataFileHeader, BuiltHeaderDumpAndTruncatedTexts) {
  unsigned char counters[16], events[7][16];
  for (int i = 0; i < 16; ++i) counters[i] = static_cast<unsigned char>(i);
  for (int k = 0; k < 7; ++k) memset(events[k], 0x10 * (k + 1), 16);
  std::vector<unsigned char> full(300, 0xEE), part(100, 0xEE);
  for (auto* buffer : {&full, &part})
    ASSERT_TRUE(dtl_data_file_header_build("sw01", "ipfix", 1700000000000000ull, 1048, counters,
                                           &events[0][0], buffer->data(), buffer->size()));
  // At most the header is written, as far as the buffer goes.
  EXPECT_EQ(memcmp(full.data(), part.data(), 100), 0);
  EXPECT_EQ(full[256] + full[299], 2 * 0xEE);
  const auto* h = reinterpret_cast<const dtl_data_file_header_t*>(full.data());
  EXPECT_EQ(dtl_data_file_header_get_schema_id_str(h, 7), nullptr);

  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  dtl_data_file_header_print(stream, h);
  fclose(stream);
  EXPECT_EQ(dtl_test::TakeText(text),
            "Data file header\n"
            " magic number         = DTLF\n"
            " version              = 1.7.0\n"
            " file size            = 256\n"
            " source id            = sw01\n"
            " source tag           = ipfix\n"
            " first timestamp      = 1700000000000000\n"
            " last timestamp       = 0\n"
            " data block size      = 1048\n"
            " counters schema id   = 000102030405060708090a0b0c0d0e0f\n"
            " schema id[0]         = 10101010101010101010101010101010\n"
            " schema id[1]         = 20202020202020202020202020202020\n"
            " schema id[2]         = 30303030303030303030303030303030\n"
            " schema id[3]         = 40404040404040404040404040404040\n"
            " schema id[4]         = 50505050505050505050505050505050\n"
            " schema id[5]         = 60606060606060606060606060606060\n"
            " schema id[6]         = 70707070707070707070707070707070\n"
            " byte order           = 0 (LE)\n"
            " end magic number     = dtlf\n");

  // Over-long texts are cut and zero-filled; unset identifiers stay zero.
  std::string long_id(100, 'a'), long_tag(20, 't');
  ASSERT_TRUE(dtl_data_file_header_build(long_id.c_str(), long_tag.c_str(), 0, 0, nullptr, nullptr,
                                         full.data(), full.size()));
  EXPECT_EQ(std::string(h->source_id), std::string(63, 'a'));
  EXPECT_EQ(std::string(h->source_tag), std::string(15, 't'));
  const auto ids = full.begin() + offsetof(dtl_data_file_header_t, counters_schema_id);
  EXPECT_EQ(std::vector<unsigned char>(ids, ids + 8 * 16), std::vector<unsigned char>(8 * 16, 0));
}

}  // namespace

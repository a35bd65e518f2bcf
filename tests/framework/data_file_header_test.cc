#include "dtl_data_file_header.h"

#include <gtest/gtest.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "dtl_logger.h"

namespace {

std::vector<std::string> g_lines;

void capture_line(int, const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  g_lines.emplace_back(buffer);
}

// Routes the framework log into g_lines for the lifetime of the test.
class LogCapture : public ::testing::Test {
 protected:
  void SetUp() override {
    g_lines.clear();
    dtl_set_log_func(capture_line, DTL_LOG_LEVEL_DEBUG);
  }
  void TearDown() override { dtl_set_log_func(nullptr, 0); }
};

struct HeaderDeleter {
  void operator()(dtl_data_file_header_t* h) const { dtl_destroy_data_file_header(h); }
};
using HeaderPtr = std::unique_ptr<dtl_data_file_header_t, HeaderDeleter>;

HeaderPtr make_header() {
  HeaderPtr h(dtl_create_data_file_header());
  EXPECT_NE(h, nullptr);
  return h;
}

std::string capture_print(const dtl_data_file_header_t* h) {
  char* text = nullptr;
  size_t size = 0;
  FILE* stream = open_memstream(&text, &size);
  dtl_data_file_header_print(stream, h);
  fclose(stream);
  std::string result(text, size);
  free(text);
  return result;
}

// Built header: source "sw01", tag "ipfix", counters id 00 01 .. 0f, event
// schema id k filled with the byte 0x10 * (k + 1).
std::vector<unsigned char> build_sample(size_t length = DTL_DATA_FILE_HEADER_SIZE) {
  unsigned char counters[16];
  for (int i = 0; i < 16; ++i) counters[i] = static_cast<unsigned char>(i);
  unsigned char events[7][16];
  for (int k = 0; k < 7; ++k) memset(events[k], 0x10 * (k + 1), 16);
  std::vector<unsigned char> buffer(length, 0xEE);
  EXPECT_TRUE(dtl_data_file_header_build("sw01", "ipfix", 1700000000000000ull, 1048, counters,
                                         &events[0][0], buffer.data(), buffer.size()));
  return buffer;
}

}  // namespace

TEST(MagicValue, FillAndMatch) {
  char magic[4];
  dtl_magic_value_fill(magic, 'F');
  EXPECT_EQ(memcmp(magic, "DTLF", 4), 0);
  EXPECT_TRUE(dtl_magic_value_match_type(magic, 'F'));
  EXPECT_FALSE(dtl_magic_value_match_type(magic, 'D'));

  char lower[4];
  dtl_magic_value_fill_lower(lower, 'F');
  EXPECT_EQ(memcmp(lower, "dtlf", 4), 0);
  EXPECT_FALSE(dtl_magic_value_match_type(lower, 'f'));  // "dtl" is not "DTL"
  EXPECT_FALSE(dtl_magic_value_match(magic, lower));

  // A zero byte ends the text comparison of the first three bytes.
  EXPECT_TRUE(dtl_magic_value_match("D\0xF", "D\0yF"));
  EXPECT_FALSE(dtl_magic_value_match("DTLF", "DTLD"));
}

TEST(Version, TextForms) {
  EXPECT_EQ(dtl_version(), 334337u);
  EXPECT_STREQ(dtl_version_to_string(dtl_version()), "1.26.5");
  EXPECT_STREQ(dtl_version_to_string(0x701), "1.7.0");
  EXPECT_EQ(dtl_version_from_string("1.26.5"), 334337u);
  EXPECT_EQ(dtl_version_from_string("1.26 .5"), 334337u);
  EXPECT_EQ(dtl_version_from_string("1.7"), 0x701u);
  EXPECT_EQ(dtl_version_from_string("1"), 0u);
}

TEST(Version, CompatibilityIgnoresPatch) {
  const uint16_t reader = 0x0701;  // 1.7
  EXPECT_TRUE(dtl_versions_are_compatible(0x0701, reader));
  EXPECT_TRUE(dtl_versions_are_compatible(0x00090301, reader));  // 1.3.9
  EXPECT_FALSE(dtl_versions_are_compatible(0x0801, reader));     // 1.8
  EXPECT_FALSE(dtl_versions_are_compatible(0x0002, reader));     // 2.0
  EXPECT_FALSE(dtl_versions_are_compatible(0x0700, reader));     // 0.7

  EXPECT_EQ(dtl_version_compare(0x0002, 0x0901), 1);
  EXPECT_EQ(dtl_version_compare(0x0301, 0x0701), -4);

  EXPECT_TRUE(dtl_version_strings_are_compatible("1.3.2", "1.7"));
  EXPECT_FALSE(dtl_version_strings_are_compatible("1.8.0", "1.7.0"));
  EXPECT_FALSE(dtl_version_strings_are_compatible("1", "1.7"));
}

TEST(DataFileHeader, DefaultHeaderBytes) {
  HeaderPtr h = make_header();
  const auto* bytes = reinterpret_cast<const unsigned char*>(h.get());
  unsigned char expected[DTL_DATA_FILE_HEADER_SIZE] = {};
  memcpy(expected, "DTLF", 4);
  expected[4] = 1;
  expected[5] = 7;
  expected[9] = 1;  // file_size 256, little-endian
  memcpy(expected + 252, "dtlf", 4);
  EXPECT_EQ(memcmp(bytes, expected, sizeof expected), 0);
  EXPECT_EQ(h->file_size, 256u);
}

class DataFileHeaderValidation : public LogCapture {};

TEST_F(DataFileHeaderValidation, AcceptsOlderMinorAndBareHeader) {
  HeaderPtr h = make_header();
  EXPECT_TRUE(dtl_data_file_header_is_valid(h.get()));
  h->version.minor = 3;
  h->version.patch = 4;
  EXPECT_TRUE(dtl_data_file_header_is_valid(h.get()));
  // Only the leading magic is checked; the end magic and byte order are not.
  memset(h->magic_end, 0, 4);
  h->byte_order = 1;
  EXPECT_TRUE(dtl_data_file_header_is_valid(h.get()));
  EXPECT_TRUE(g_lines.empty());
}

TEST_F(DataFileHeaderValidation, RejectsNewerVersions) {
  HeaderPtr h = make_header();
  h->version.minor = 8;
  EXPECT_FALSE(dtl_data_file_header_is_valid(h.get()));
  h->version = {2, 0, 0};
  EXPECT_FALSE(dtl_data_file_header_is_valid(h.get()));
  EXPECT_EQ(g_lines, (std::vector<std::string>{
                         "Version of data page 1.8.0 is incompatible with Dartel version 1.26.5",
                         "Version of data page 2.0.0 is incompatible with Dartel version 1.26.5"}));
}

TEST_F(DataFileHeaderValidation, RejectsLowerCaseMagicFirst) {
  HeaderPtr h = make_header();
  dtl_magic_value_fill_lower(h->magic, 'F');
  h->version.major = 9;  // also wrong, but the magic is reported alone
  h->file_size = 0;
  EXPECT_FALSE(dtl_data_file_header_is_valid(h.get()));
  EXPECT_EQ(g_lines, std::vector<std::string>{"Wrong data page magic number."});
}

TEST_F(DataFileHeaderValidation, FileSizeBoundary) {
  HeaderPtr h = make_header();
  h->file_size = 255;
  EXPECT_FALSE(dtl_data_file_header_is_valid(h.get()));
  EXPECT_EQ(g_lines,
            std::vector<std::string>{"Wrong data file size 255 is less then file header size 256"});
  h->file_size = 256;
  EXPECT_TRUE(dtl_data_file_header_is_valid(h.get()));
}

// Every field of a built header is checked through the dump below.
TEST(DataFileHeaderBuild, CopiesAtMostTheHeader) {
  std::vector<unsigned char> full = build_sample(300);
  std::vector<unsigned char> part = build_sample(100);
  EXPECT_EQ(memcmp(full.data(), part.data(), 100), 0);
  EXPECT_EQ(full[256], 0xEE);
  EXPECT_EQ(full[299], 0xEE);
}

TEST(DataFileHeaderBuild, TruncatesLongTextsWithZeroFill) {
  std::string long_id(100, 'a');
  std::string long_tag(20, 't');
  std::vector<unsigned char> buffer(DTL_DATA_FILE_HEADER_SIZE, 0xEE);
  ASSERT_TRUE(dtl_data_file_header_build(long_id.c_str(), long_tag.c_str(), 0, 0, nullptr,
                                         nullptr, buffer.data(), buffer.size()));
  dtl_data_file_header_t h;
  memcpy(&h, buffer.data(), sizeof h);
  EXPECT_EQ(std::string(h.source_id), std::string(63, 'a'));
  EXPECT_EQ(std::string(h.source_tag), std::string(15, 't'));
  EXPECT_EQ(h.source_tag[15], 0);
  // Unset schema identifiers stay zero.
  unsigned char zero[16] = {};
  EXPECT_EQ(memcmp(h.counters_schema_id, zero, 16), 0);
  EXPECT_EQ(memcmp(h.event_schema_ids[3], zero, 16), 0);
}

TEST(DataFileHeader, EventSchemaIdText) {
  std::vector<unsigned char> buffer = build_sample();
  const auto* h = reinterpret_cast<const dtl_data_file_header_t*>(buffer.data());
  std::unique_ptr<char, decltype(&free)> first(dtl_data_file_header_get_schema_id_str(h, 0), free);
  std::unique_ptr<char, decltype(&free)> last(dtl_data_file_header_get_schema_id_str(h, 6), free);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(last, nullptr);
  EXPECT_STREQ(first.get(), "10101010101010101010101010101010");
  EXPECT_STREQ(last.get(), "70707070707070707070707070707070");
  EXPECT_EQ(dtl_data_file_header_get_schema_id_str(h, 7), nullptr);
}

TEST(DataFileHeader, PrintDump) {
  std::vector<unsigned char> buffer = build_sample();
  const auto* h = reinterpret_cast<const dtl_data_file_header_t*>(buffer.data());
  const std::string expected =
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
      " end magic number     = dtlf\n";
  EXPECT_EQ(capture_print(h), expected);
}

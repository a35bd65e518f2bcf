// One session's rotating data file on real files and a real io_uring writer:
// paths, rotation, continuing a file left behind, what a failed write leaves.
#include "storage/async_data_file.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <set>
#include <tuple>

#include "storage/io_uring_writer.h"
#include "support/wait_for.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::AsyncDataFile;
using dtl::ipfix::SanitizePathComponent;

constexpr uint64_t kT0 = 1714530645123456ull;  // 2024-05-01 02:30:45.123456 UTC
constexpr uint64_t kSecond = 1000000;

dtl_data_file_header_t ReadHeader(const std::string& path) {
  dtl_data_file_header_t header{};
  std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof header);
  return header;
}

class AsyncDataFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/async_data_file_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    ASSERT_TRUE(writer_.Start());
    ASSERT_EQ(posix_memalign(reinterpret_cast<void**>(&page_), 4096, kPage), 0);
  }
  void TearDown() override {
    writer_.Stop();
    free(page_);
    boost::system::error_code ec;
    fs::remove_all(root_, ec);
  }
  // A file of 256-byte blocks, opened for first_ts (not yet when 0).
  std::unique_ptr<AsyncDataFile> Open(uint64_t first_ts, const std::string& source = "leaf1",
                                      const std::string& tag = "ipfix", const std::string& path_template = "") {
    dtl_client_id_t client{};
    strcpy(client.host_name, "ipfix-receiver");
    client.port = 4739;
    auto file = std::make_unique<AsyncDataFile>(client, source, tag, &writer_);
    file->setDataRoot(root_);
    file->setDataPathTemplate(path_template);
    file->setBlockSize(256);
    if (first_ts) file->Rotate(first_ts, nullptr);
    return file;
  }
  // Writes len bytes at the file's end and waits for the writer: the header
  // while the file has no bytes, then blocks one µs apart, the last at
  // last_ts; past max_blocks blocks only zero padding.
  void WritePage(AsyncDataFile& file, uint64_t last_ts, size_t len = 4096, size_t max_blocks = SIZE_MAX) {
    memset(page_, 0, len);
    const size_t start = file.written_bytes == 0 ? 256 : 0;
    if (start) file.FillFileHeader(page_, 256);
    const size_t n = std::min((len - start) / 256, max_blocks);
    for (size_t i = 0; i < n; ++i) {
      uint8_t* block = page_ + start + i * 256;
      memset(block + 16, 0x11, 240);
      dtl_magic_value_fill(block, 'D');
      const uint64_t ts = last_ts - (n - 1 - i);
      memcpy(block + 8, &ts, 8);
    }
    std::atomic<bool> in_flight{true};
    const uint64_t offset = file.written_bytes;
    file.WriteAt(page_, offset, len, offset + start + n * 256, last_ts, &in_flight, -1);
    ASSERT_TRUE(dtl_test::WaitFor([&] { return !in_flight.load(); }));
  }

  static constexpr size_t kPage = 65536;
  std::string root_;
  dtl::ipfix::IoUringWriter writer_;
  uint8_t* page_ = nullptr;
};

TEST(SanitizePathComponentTest, ConfinesHostileNamesToOneComponent) {
  const std::pair<std::string, std::string> rows[] = {
      {"leaf1", "leaf1"}, {"spine.dc-1", "spine.dc-1"}, {"../../etc", ".._.._etc"}, {"a\\b/c", "a_b_c"},
      {std::string("x\ny\0z\x7f", 6), "x_y_z_"}, {"sw%D%Y", "sw_D_Y"}, {"", "_"}, {".", "_"}, {"..", "__"}};
  for (const auto& [name, component] : rows) EXPECT_EQ(SanitizePathComponent(name), component) << name;
}

// A switch name longer than a file name may be is cut to a readable prefix
// of whole UTF-8 characters, '~' and 16 hex digits of a hash: distinct long
// names stay distinct, and the same name always gives the same component.
TEST(SanitizePathComponentTest, LongNamesAreShortenedAndStayDistinct) {
  const size_t limit = dtl::ipfix::kMaxPathComponent;
  EXPECT_EQ(SanitizePathComponent(std::string(limit, 'a')), std::string(limit, 'a'));
  std::string accented;
  while (accented.size() < 300) accented += "\xc3\xa9";  // é, two bytes each
  const std::string base(290, 's');
  const std::vector<std::string> names = {std::string(limit + 1, 'a'), std::string(300, 'x'), base + "-leaf1/a",
                                          base + "-leaf1/b", base + "-leaf1_a", accented, accented + "x"};
  std::set<std::string> made;
  for (const std::string& name : names) {
    const std::string component = SanitizePathComponent(name);
    const size_t tilde = component.rfind('~');
    ASSERT_NE(tilde, std::string::npos) << component;
    EXPECT_LE(component.size(), limit) << component;
    EXPECT_GE(tilde, limit - 17 - 3) << component;
    EXPECT_EQ(component.size() - tilde, 17u) << component;
    EXPECT_EQ(component.find_first_not_of("0123456789abcdef", tilde + 1), std::string::npos) << component;
    EXPECT_EQ(SanitizePathComponent(name.substr(0, tilde)), component.substr(0, tilde)) << component;
    EXPECT_TRUE(name[0] != accented[0] || tilde % 2 == 0) << component;
    EXPECT_EQ(SanitizePathComponent(name), component);
    EXPECT_TRUE(made.insert(component).second) << component;
  }
}

// Paths from the default and other templates. A hostile switch name stays
// one directory under the root's date directories.
TEST_F(AsyncDataFileTest, PathTemplates) {
  const std::string t0 = std::to_string(kT0), date = "2024/0501/";
  const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
      {"leaf1", "ipfix", "", date + "leaf1/ipfix_" + t0 + ".bin"},
      {"leaf1", "", "", date + "leaf1/" + t0 + ".bin"},
      {"leaf1", "ipfix", "{{node}}-{{port}}/{{hour}}{{minute}}{{second}}/{{timestamp}}_{{unknown}}.%f",
       "ipfix-receiver-4739/023045/" + t0 + "_{{unknown}}.123000"},
      {"abc", "ipfix", "{{source}}/{{hash4}}/{{tag}}{{id}}.bin", "abc/2/ipfix_" + t0 + ".bin"},
      {"0x1f", "ipfix", "{{source}}/{{hash4}}/{{id}}.bin", "0x1f/3/" + t0 + ".bin"},
      {"0xzz", "", "{{hash1000}}.bin", std::to_string('0' + 'x' + 'z' + 'z') + ".bin"},  // not a number
      {"abc", "", "{{source}}/{{hashx}}/{{id}}.bin", "abc/{{hashx}}/" + t0 + ".bin"},
      {"../../escape", "ipfix", "", date + ".._.._escape/ipfix_" + t0 + ".bin"},
      {"/abs/olute", "ipfix", "", date + "_abs_olute/ipfix_" + t0 + ".bin"},
      {"leaf1", "ipfix", "{{tag}}/{{source}}/{{id}}.bin", "ipfix/leaf1/" + t0 + ".bin"},
      {"leaf_", "ipfix", "", date + "leaf_/ipfix_" + t0 + ".bin"},
      {".", "ipfix", "", date + "_/ipfix_" + t0 + ".bin"},
      {"..", "ipfix", "", date + "__/ipfix_" + t0 + ".bin"},
      {"", "ipfix", "", ""}, {"x%D%Hy\n", "ipfix", "", ""}};
  for (const auto& [source, tag, path_template, path] : rows) {
    auto file = Open(kT0, source, tag, path_template);
    EXPECT_TRUE(fs::is_regular_file(file->data_file_name())) << source;
    if (!path.empty()) {
      EXPECT_EQ(file->data_file_name(), root_ + "/" + path) << source;
    } else {
      const fs::path under = fs::relative(file->data_file_name(), root_ + "/" + date);
      EXPECT_EQ(under.filename(), "ipfix_" + t0 + ".bin") << under;
      for (const fs::path& part : under) EXPECT_NE(part, "..") << under;
    }
  }
}

// A page whose samples span first..current needs a new file past the time
// limit (15 minutes), the size limit, or before the file's first time.
TEST_F(AsyncDataFileTest, RotationPolicy) {
  EXPECT_TRUE(Open(0)->NeedRotation(kT0, kT0)) << "no file yet";
  auto file = Open(0);
  file->setSizeLimit(8192);
  file->Rotate(kT0, nullptr);
  WritePage(*file, kT0);
  const std::tuple<uint64_t, uint64_t, bool, const char*> rows[] = {
      {kT0 + 1, kT0 + 1, false, "inside the limits"}, {kT0 + 899 * kSecond, kT0 + 899 * kSecond, false, "899 s"},
      {kT0 + 900 * kSecond, kT0 + 900 * kSecond, true, "time limit"}, {kT0 - 5, kT0 - 5, true, "older than the file"},
      {kT0, kT0 + 2000 * kSecond, false, "the same first time never rotates"}};
  for (const auto& [first, current, rotate, what] : rows) EXPECT_EQ(file->NeedRotation(first, current), rotate) << what;
  WritePage(*file, kT0 + 1);  // 8192 bytes: at the size limit
  EXPECT_TRUE(file->NeedRotation(kT0 + 2, kT0 + 2)) << "size limit";
}

// A file of the same name left by an earlier run is continued right after
// its last whole block: a collector that died before its close left zero
// padding behind it. Blocks of another size (or schema) go to a new file.
TEST_F(AsyncDataFileTest, ExistingFileIsContinuedAfterItsLastWholeBlock) {
  auto first = Open(kT0);
  WritePage(*first, kT0 + 2, 4096, 3);
  const std::string path = first->data_file_name();
  EXPECT_EQ(fs::file_size(path), 4096u) << "padding on disk while open";
  first.reset();
  EXPECT_EQ(fs::file_size(path), 1024u) << "the close cuts the padding";
  ASSERT_EQ(truncate(path.c_str(), 4096), 0);  // as if the close never ran
  auto again = Open(kT0);
  ASSERT_EQ(again->data_file_name(), path);
  EXPECT_EQ(again->written_bytes, 1024);
  EXPECT_EQ(again->last_timestamp(), kT0 + 2);
  again.reset();
  EXPECT_EQ(fs::file_size(path), 1024u);
  EXPECT_EQ(ReadHeader(path).file_size, 1024u);
  EXPECT_EQ(ReadHeader(path).last_timestamp, kT0 + 2);

  auto resized = Open(0);
  resized->setBlockSize(4096);
  resized->Rotate(kT0, nullptr);
  EXPECT_EQ(resized->data_file_name(), root_ + "/2024/0501/leaf1/ipfix_" + std::to_string(kT0) + "-2.bin");
}

// Where every file gets the same name, a rotation still starts a new file:
// continuing the one just closed would grow it past every limit and hand
// retention a file that is still being written.
TEST_F(AsyncDataFileTest, RotationNeverContinuesAFileClosedInThisRun) {
  auto file = Open(kT0, "leaf1", "ipfix", "{{source}}/data.bin");
  WritePage(*file, kT0);
  const std::string first = file->data_file_name();
  long closed_size = 0;
  EXPECT_EQ(file->Rotate(kT0 + kSecond, &closed_size), first);
  EXPECT_EQ(closed_size, 4096);
  EXPECT_EQ(file->data_file_name(), root_ + "/leaf1/data-2.bin");
  EXPECT_EQ(file->written_bytes, 0);
  WritePage(*file, kT0 + kSecond);
  file->Rotate(kT0 + 2 * kSecond, nullptr);
  EXPECT_EQ(file->data_file_name(), root_ + "/leaf1/data-3.bin");
  EXPECT_EQ(fs::file_size(first), 4096u) << "the closed file is left as it was";
}

// A write cut short (at the file size limit here, as on a full disk) reaches
// the file through its completion; closing the damaged file keeps exactly
// the whole blocks on disk, with a header that describes them.
TEST_F(AsyncDataFileTest, ShortWriteKeepsTheWholeBlocksBeforeIt) {
  auto file = Open(0);
  file->setUseDirectIO(false);
  file->Rotate(kT0, nullptr);
  WritePage(*file, kT0 + 14);  // the header and blocks 0..14
  const sighandler_t old_handler = signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  const rlimit lowered{4096 + 2 * kPage + 1000, old.rlim_max};  // inside block 3 of the third page
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lowered), 0);
  uint64_t last = kT0 + 14;
  for (int i = 0; i < 3; ++i) WritePage(*file, last += 256, kPage);
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, old_handler);
  EXPECT_TRUE(file->TakeWriteError());
  const std::string path = file->data_file_name();
  uint64_t kept = 0;
  EXPECT_EQ(file->CloseDamaged(AsyncDataFile::DiskState::kWriteFailed, &kept), path);
  EXPECT_EQ(kept, 4096 + 2 * kPage + 3 * 256);
  EXPECT_EQ(fs::file_size(path), kept);
  const dtl_data_file_header_t header = ReadHeader(path);
  EXPECT_TRUE(dtl_data_file_header_is_valid(&header));
  EXPECT_EQ(header.file_size, kept);
  EXPECT_EQ(header.last_timestamp, kT0 + (kept - 256) / 256 - 1) << "time of the last block kept";
  EXPECT_FALSE(file->has_file());
}

}  // namespace

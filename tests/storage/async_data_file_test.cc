#include "storage/async_data_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <unistd.h>
#include <sys/mount.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "dtl_data_file_header.h"
#include "storage/io_uring_writer.h"
#include "ipfix/recv_test_support.h"

namespace {

namespace fs = boost::filesystem;
using dtl::ipfix::AsyncDataFile;
using dtl::ipfix::IoUringWriter;
using dtl::ipfix::SanitizePathComponent;
using recv_test::LogCapture;

// 2024-05-01 02:30:45.123456 UTC in microseconds.
constexpr uint64_t kT0 = 1714530645123456ull;
constexpr uint64_t kSecond = 1000000;

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
using AlignedPage = std::unique_ptr<uint8_t, FreeDeleter>;

AlignedPage MakePage(size_t size, uint8_t fill) {
  void* p = nullptr;
  if (posix_memalign(&p, 4096, size) != 0) return nullptr;
  memset(p, fill, size);
  return AlignedPage(static_cast<uint8_t*>(p));
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

dtl_data_file_header_t ReadHeader(const std::string& path) {
  dtl_data_file_header_t header{};
  std::string bytes = ReadFile(path);
  if (bytes.size() >= sizeof header) memcpy(&header, bytes.data(), sizeof header);
  return header;
}

class AsyncDataFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/async_data_file_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    ASSERT_TRUE(writer_.Start());
  }
  void TearDown() override {
    writer_.Stop();
    boost::system::error_code ec;
    fs::remove_all(root_, ec);
  }

  std::unique_ptr<AsyncDataFile> Make(const std::string& source = "leaf1",
                                      const std::string& tag = "ipfix",
                                      const std::string& path_template = "") {
    dtl_client_id_t client{};
    strcpy(client.host_name, "ipfix-receiver");
    client.port = 4739;
    auto file = std::make_unique<AsyncDataFile>(client, source, tag, &writer_);
    file->setDataRoot(root_);
    file->setDataPathTemplate(path_template);
    file->setBlockSize(256);
    return file;
  }

  // Writes a 4 KiB page asynchronously and waits until the writer is done:
  // the file's header and 15 blocks of 256 bytes whose times run up to
  // last_ts (the page is a continuation, without header, when the file has
  // bytes already).
  void WriteHeaderPage(AsyncDataFile& file, uint64_t last_ts) {
    AlignedPage page = MakePage(4096, 0);
    const bool first = file.written_bytes == 0;
    if (first) file.FillFileHeader(page.get(), 256);
    FillBlocks(page.get() + (first ? 256 : 0), first ? 15 : 16, last_ts);
    std::atomic<bool> in_flight{true};
    file.Write(page.get(), 4096, file.first_timestamp(), last_ts, &in_flight, -1);
    ASSERT_TRUE(recv_test::WaitFor([&] { return !in_flight.load(); }));
  }

  // n blocks of 256 bytes, the last one at time last_ts, one µs apart.
  static void FillBlocks(uint8_t* at, size_t n, uint64_t last_ts) {
    for (size_t i = 0; i < n; ++i) {
      uint8_t* block = at + i * 256;
      memset(block, 0x11, 256);
      dtl_magic_value_fill(block, 'D');
      memset(block + 4, 0, 4);
      const uint64_t ts = last_ts - (n - 1 - i);
      memcpy(block + 8, &ts, 8);
    }
  }

  std::string root_;
  IoUringWriter writer_;
  LogCapture log_;
};

TEST(SanitizePathComponentTest, ConfinesHostileNamesToOneComponent) {
  EXPECT_EQ(SanitizePathComponent("leaf1"), "leaf1");
  EXPECT_EQ(SanitizePathComponent("spine.dc-1"), "spine.dc-1");
  EXPECT_EQ(SanitizePathComponent("../../etc"), ".._.._etc");
  EXPECT_EQ(SanitizePathComponent("a\\b/c"), "a_b_c");
  EXPECT_EQ(SanitizePathComponent(std::string("x\ny\0z\x7f", 6)), "x_y_z_");
  EXPECT_EQ(SanitizePathComponent("sw%D%Y"), "sw_D_Y");
  EXPECT_EQ(SanitizePathComponent(""), "_");
  EXPECT_EQ(SanitizePathComponent("."), "_");
  EXPECT_EQ(SanitizePathComponent(".."), "__");
}

// A switch name longer than a file name may be must still give a directory
// that can be created, and distinct long names distinct directories.
TEST(SanitizePathComponentTest, LongNamesAreShortenedAndStayDistinct) {
  const std::string limit(dtl::ipfix::kMaxPathComponent, 'a');
  EXPECT_EQ(SanitizePathComponent(limit), limit);

  std::string accented;
  while (accented.size() < 300) accented += "\xc3\xa9";  // é, two bytes each
  const std::string base(290, 's');
  const std::vector<std::string> names = {
      limit + "a", std::string(300, 'x'), base + "-leaf1/a", base + "-leaf1/b", base + "-leaf1_a",
      accented, accented + "x"};

  const fs::path root = fs::temp_directory_path() / fs::unique_path("sanitize-%%%%%%%%");
  ASSERT_TRUE(fs::create_directory(root));
  std::vector<std::string> made;
  for (const std::string& name : names) {
    const std::string component = SanitizePathComponent(name);
    SCOPED_TRACE(component);
    EXPECT_LE(component.size(), dtl::ipfix::kMaxPathComponent);
    EXPECT_EQ(component.find('/'), std::string::npos);
    // The readable prefix and then '~' and 16 hex digits.
    const size_t tilde = component.rfind('~');
    ASSERT_NE(tilde, std::string::npos);
    EXPECT_EQ(component.size() - tilde, 17u);
    EXPECT_EQ(component.find_first_not_of("0123456789abcdef", tilde + 1), std::string::npos);
    EXPECT_EQ(SanitizePathComponent(name.substr(0, tilde)), component.substr(0, tilde));
    EXPECT_GE(tilde, dtl::ipfix::kMaxPathComponent - 17 - 3);
    // Whole UTF-8 characters only: the prefix never ends inside one.
    if (name.compare(0, accented.size(), accented) == 0) {
      EXPECT_EQ(tilde % 2, 0u);
    }
    EXPECT_EQ(SanitizePathComponent(name), component) << "the same name always gives the same component";
    EXPECT_TRUE(fs::create_directory(root / component));
    made.push_back(component);
  }
  std::sort(made.begin(), made.end());
  EXPECT_EQ(std::unique(made.begin(), made.end()), made.end());
  fs::remove_all(root);
}

TEST_F(AsyncDataFileTest, DefaultsAndSetterRules) {
  dtl_client_id_t client{};
  AsyncDataFile file(client, "s", "t", &writer_);
  EXPECT_EQ(file.block_size(), 65536u);
  EXPECT_EQ(file.size_limit(), 26214400u);
  EXPECT_EQ(file.time_limit(), 900000000u);
  EXPECT_TRUE(file.use_direct_io());
  EXPECT_EQ(file.data_root(), ".");
  EXPECT_EQ(file.data_path_template(), "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}{{id}}.bin");

  file.setDataRoot(root_);
  file.Rotate(kT0, nullptr);
  ASSERT_TRUE(file.has_file());
  file.setSizeLimit(0);
  file.setTimeLimit(0);
  file.setDataRoot("");
  file.setDataPathTemplate("");
  file.setDataRoot(root_);
  file.setBlockSize(65536);
  EXPECT_TRUE(file.has_file()) << "zero, empty or unchanged values must not rotate";
  EXPECT_EQ(file.size_limit(), 26214400u);

  file.defer_rotation = true;
  file.setSizeLimit(1000);
  EXPECT_TRUE(file.has_file());
  EXPECT_TRUE(file.rotation_pending);
  file.defer_rotation = false;
  file.setBlockSize(512);
  EXPECT_FALSE(file.has_file());
  EXPECT_EQ(log_.Count("ForceRotation: closing"), 1u);
}

TEST_F(AsyncDataFileTest, NeedRotationPolicy) {
  auto file = Make();
  EXPECT_TRUE(file->NeedRotation(kT0, kT0)) << "no file yet";
  file->setSizeLimit(8192);
  file->Rotate(kT0, nullptr);
  WriteHeaderPage(*file, kT0);
  EXPECT_FALSE(file->NeedRotation(kT0 + 1, kT0 + 1));
  EXPECT_TRUE(file->NeedRotation(kT0 + 900 * kSecond, kT0 + 900 * kSecond)) << "time limit";
  EXPECT_FALSE(file->NeedRotation(kT0 + 899 * kSecond, kT0 + 899 * kSecond));

  EXPECT_TRUE(file->NeedRotation(kT0 - 5, kT0 - 5)) << "older than the file";
  EXPECT_EQ(log_.Count("first_timestamp " + std::to_string(kT0) + " > current"), 1u);

  WriteHeaderPage(*file, kT0 + 1);  // 8192 bytes: at the size limit
  EXPECT_TRUE(file->NeedRotation(kT0 + 2, kT0 + 2)) << "size limit";
  EXPECT_FALSE(file->NeedRotation(kT0, kT0 + 2000 * kSecond))
      << "same first timestamp never rotates";
}

// Damage from outside is seen by the look at the file on disk; closing
// keeps exactly the whole blocks left and never touches a deleted path.
TEST_F(AsyncDataFileTest, OutsideDeletionAndTruncationAreNoticed) {
  struct Case {
    const char* name;
    long cut_to;  // -1: delete the file
    AsyncDataFile::DiskState seen;
    uint64_t kept;  // bytes kept on close
  };
  const Case cases[] = {
      {"deleted", -1, AsyncDataFile::DiskState::kDeleted, 0},
      {"cut to nothing", 0, AsyncDataFile::DiskState::kTruncated, 0},
      {"cut inside block 5", 256 + 5 * 256 + 100, AsyncDataFile::DiskState::kTruncated, 256 + 5 * 256},
  };
  uint64_t t = kT0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto file = Make();
    file->Rotate(t, nullptr);
    WriteHeaderPage(*file, t + 20);
    WriteHeaderPage(*file, t + 40);
    EXPECT_EQ(file->CheckOnDisk(), AsyncDataFile::DiskState::kOk);
    const std::string path = file->data_file_name();
    if (c.cut_to < 0)
      ASSERT_TRUE(fs::remove(path));
    else
      ASSERT_EQ(truncate(path.c_str(), c.cut_to), 0);
    EXPECT_EQ(file->CheckOnDisk(), c.seen);
    uint64_t kept = 99;
    const std::string closed = file->CloseDamaged(c.seen, &kept);
    EXPECT_EQ(kept, c.kept);
    EXPECT_FALSE(file->has_file());
    if (c.kept > 0) {
      EXPECT_EQ(closed, path);
      EXPECT_EQ(fs::file_size(path), c.kept);
      const dtl_data_file_header_t header = ReadHeader(path);
      EXPECT_EQ(header.file_size, c.kept);
      EXPECT_EQ(header.last_timestamp, t + 20 - 15 + 5) << "time of the last block kept";
    } else {
      EXPECT_EQ(closed, "");
      EXPECT_FALSE(fs::exists(path)) << "nothing readable is left behind";
    }
    file->Rotate(t + kSecond, nullptr);
    EXPECT_TRUE(fs::exists(file->data_file_name()));
    t += 10 * kSecond;
  }
}

TEST_F(AsyncDataFileTest, PathFromDefaultTemplate) {
  auto file = Make();
  long closed_size = -1;
  EXPECT_EQ(file->Rotate(kT0, &closed_size), "");
  EXPECT_EQ(closed_size, 0);
  EXPECT_EQ(file->data_file_name(),
            root_ + "/2024/0501/leaf1/ipfix_" + std::to_string(kT0) + ".bin");
  EXPECT_TRUE(fs::is_regular_file(file->data_file_name()));
  EXPECT_EQ(file->written_bytes, 0);

  auto untagged = Make("leaf1", "");
  untagged->Rotate(kT0 + 1, nullptr);
  EXPECT_EQ(untagged->data_file_name(),
            root_ + "/2024/0501/leaf1/" + std::to_string(kT0 + 1) + ".bin");
}

TEST_F(AsyncDataFileTest, PathTemplateKeys) {
  auto file = Make("leaf1", "ipfix",
                   "{{node}}-{{port}}/{{hour}}{{minute}}{{second}}/{{timestamp}}_{{unknown}}.%f");
  file->Rotate(kT0, nullptr);
  EXPECT_EQ(file->data_file_name(),
            root_ + "/ipfix-receiver-4739/023045/" + std::to_string(kT0) + "_{{unknown}}.123000");

  auto hashed = Make("abc", "ipfix", "{{source}}/{{hash4}}/{{tag}}{{id}}.bin");
  hashed->Rotate(kT0, nullptr);
  EXPECT_EQ(hashed->data_file_name(), root_ + "/abc/2/ipfix_" + std::to_string(kT0) + ".bin");
  auto guid = Make("0x1f", "ipfix", "{{source}}/{{hash4}}/{{id}}.bin");
  guid->Rotate(kT0, nullptr);
  EXPECT_EQ(guid->data_file_name(), root_ + "/0x1f/3/" + std::to_string(kT0) + ".bin");

  auto bad_guid = Make("0xzz", "", "{{hash1000}}.bin");
  bad_guid->Rotate(kT0, nullptr);
  EXPECT_EQ(bad_guid->data_file_name(),
            root_ + "/" + std::to_string('0' + 'x' + 'z' + 'z') + ".bin");
  EXPECT_EQ(log_.Count("Failed to read 0xzz as guid"), 1u);

  auto no_number = Make("abc", "", "{{source}}/{{hashx}}/{{id}}.bin");
  no_number->Rotate(kT0, nullptr);
  EXPECT_EQ(no_number->data_file_name(), root_ + "/abc/{{hashx}}/" + std::to_string(kT0) + ".bin");
  EXPECT_EQ(log_.Count("path_template expects {{hash[num]}}, received {{hashx}}"), 1u);
}

TEST_F(AsyncDataFileTest, HostileSourceStaysOneComponentUnderRoot) {
  for (const std::string source : {"../../escape", "/abs/olute", "..", "", "x%D%Hy", "a\\b\nc"}) {
    auto file = Make(source);
    file->Rotate(kT0, nullptr);
    ASSERT_TRUE(file->has_file()) << source;
    const fs::path relative =
        fs::relative(fs::canonical(file->data_file_name()), fs::canonical(root_));
    EXPECT_FALSE(relative.empty()) << source;
    EXPECT_NE(relative.begin()->string(), "..") << source;
    EXPECT_LE(std::distance(relative.begin(), relative.end()), 4) << file->data_file_name();
    WriteHeaderPage(*file, kT0);
    file.reset();
  }
  // The header carries the name as the switch sent it.
  auto file = Make("../up");
  file->Rotate(kT0, nullptr);
  EXPECT_NE(file->data_file_name().find("/.._up/"), std::string::npos);
  char header[256];
  file->FillFileHeader(header, sizeof header);
  EXPECT_STREQ(reinterpret_cast<dtl_data_file_header_t*>(header)->source_id, "../up");
}

TEST_F(AsyncDataFileTest, ExistingFileIsContinued) {
  auto first = Make();
  first->Rotate(kT0, nullptr);
  WriteHeaderPage(*first, kT0 + 7);
  const std::string path = first->data_file_name();
  first.reset();

  auto again = Make();
  again->Rotate(kT0, nullptr);
  ASSERT_EQ(again->data_file_name(), path);
  EXPECT_EQ(again->written_bytes, 4096);
  EXPECT_EQ(log_.Count("appending to existing file"), 1u);
  EXPECT_EQ(ReadHeader(path).last_timestamp, kT0 + 7) << "header untouched at open";

  // A second live session building the same path must not share the file.
  auto twin = Make();
  twin->Rotate(kT0, nullptr);
  EXPECT_EQ(twin->data_file_name(),
            root_ + "/2024/0501/leaf1/ipfix_" + std::to_string(kT0) + "-2.bin");
  EXPECT_EQ(twin->written_bytes, 0);
  auto third = Make();
  third->Rotate(kT0, nullptr);
  EXPECT_EQ(third->data_file_name(),
            root_ + "/2024/0501/leaf1/ipfix_" + std::to_string(kT0) + "-3.bin");
  // Once the holder closes, its name is free again and is continued.
  again.reset();
  third->ForceRotation();
  third->Rotate(kT0, nullptr);
  EXPECT_EQ(third->data_file_name(), path);
  EXPECT_EQ(third->written_bytes, 4096);
  third.reset();
  twin.reset();

  // Blocks of another size (or schema) never go behind that file's header.
  auto resized = Make();
  resized->setBlockSize(4096);
  resized->Rotate(kT0, nullptr);
  EXPECT_EQ(resized->data_file_name(),
            root_ + "/2024/0501/leaf1/ipfix_" + std::to_string(kT0) + "-2.bin");
  EXPECT_EQ(ReadHeader(path).last_timestamp, kT0 + 7);
}

// With a template that gives every file the same name, a rotation must
// still start a new file: continuing the one just closed would grow it past
// every limit and hand retention a file that is still being written.
TEST_F(AsyncDataFileTest, RotationNeverContinuesAFileClosedInThisRun) {
  auto file = Make("leaf1", "ipfix", "{{source}}/data.bin");
  file->Rotate(kT0, nullptr);
  WriteHeaderPage(*file, kT0);
  const std::string first = file->data_file_name();
  long closed_size = 0;
  EXPECT_EQ(file->Rotate(kT0 + kSecond, &closed_size), first);
  EXPECT_EQ(closed_size, 4096);
  EXPECT_EQ(file->data_file_name(), root_ + "/leaf1/data-2.bin");
  EXPECT_EQ(file->written_bytes, 0);
  WriteHeaderPage(*file, kT0 + kSecond);
  file->Rotate(kT0 + 2 * kSecond, nullptr);
  EXPECT_EQ(file->data_file_name(), root_ + "/leaf1/data-3.bin");
  EXPECT_EQ(fs::file_size(first), 4096u) << "the closed file is left as it was";
}

// A collector that died after writing a partial page padded to 4 KiB left
// zeros behind the last block: the file continues right after that block.
TEST_F(AsyncDataFileTest, ContinuedFileResumesAfterItsLastWholeBlock) {
  auto first = Make();
  first->Rotate(kT0, nullptr);
  AlignedPage page = MakePage(4096, 0);
  first->FillFileHeader(page.get(), 256);
  FillBlocks(page.get() + 256, 3, kT0 + 2);
  std::atomic<bool> in_flight{true};
  first->WriteAt(page.get(), 0, 4096, 256 + 3 * 256, kT0 + 2, &in_flight, -1);
  ASSERT_TRUE(recv_test::WaitFor([&] { return !in_flight.load(); }));
  const std::string path = first->data_file_name();
  EXPECT_EQ(fs::file_size(path), 4096u) << "padding on disk while open";
  first.reset();
  EXPECT_EQ(fs::file_size(path), 1024u) << "the close cuts the padding";

  ASSERT_EQ(truncate(path.c_str(), 4096), 0);  // as if the close never ran
  auto again = Make();
  again->Rotate(kT0, nullptr);
  ASSERT_EQ(again->data_file_name(), path);
  EXPECT_EQ(again->written_bytes, 1024);
  EXPECT_EQ(again->last_timestamp(), kT0 + 2);
  again.reset();
  EXPECT_EQ(fs::file_size(path), 1024u);
  EXPECT_EQ(ReadHeader(path).file_size, 1024u);
}

TEST_F(AsyncDataFileTest, DirectWritesLandAtOffsetsAndHeaderIsRewritten) {
  auto file = Make("leaf1", "ipfix");
  unsigned char schema_id[16];
  for (int i = 0; i < 16; ++i) schema_id[i] = static_cast<unsigned char>(i + 1);
  file->setCounterSchemaId(schema_id);
  file->setBlockSize(256);
  file->Rotate(kT0, nullptr);
  WriteHeaderPage(*file, kT0);

  // Second page from a registered buffer (fixed write), third unregistered.
  AlignedPage registered = MakePage(8192, 0x11);
  AlignedPage plain = MakePage(4096, 0x22);
  iovec iov{registered.get(), 8192};
  ASSERT_TRUE(writer_.RegisterBuffers(&iov, 1));
  std::atomic<bool> a{true}, b{true};
  file->Write(registered.get(), 8192, kT0, kT0 + 5, &a, 0);
  file->Write(plain.get(), 4096, kT0, kT0 + 9, &b, -1);
  ASSERT_TRUE(recv_test::WaitFor([&] { return !a.load() && !b.load(); }));
  EXPECT_EQ(file->written_bytes, 4096 + 8192 + 4096);
  EXPECT_EQ(log_.Count("CQE error"), 0u);

  const std::string path = file->data_file_name();
  long closed_size = 0;
  EXPECT_EQ(file->Rotate(kT0 + 1000 * kSecond, &closed_size), path);
  EXPECT_EQ(closed_size, 16384);

  const std::string bytes = ReadFile(path);
  ASSERT_EQ(bytes.size(), 16384u);
  EXPECT_EQ(bytes.substr(256, 4), "DTLD");
  EXPECT_EQ(bytes.substr(4096, 8192), std::string(8192, '\x11'));
  EXPECT_EQ(bytes.substr(12288), std::string(4096, '\x22'));
  const dtl_data_file_header_t header = ReadHeader(path);
  EXPECT_TRUE(dtl_data_file_header_is_valid(&header));
  EXPECT_EQ(header.file_size, 16384u);
  EXPECT_EQ(header.first_timestamp, kT0);
  EXPECT_EQ(header.last_timestamp, kT0 + 9);
  EXPECT_EQ(header.block_size, 256u);
  EXPECT_STREQ(header.source_id, "leaf1");
  EXPECT_STREQ(header.source_tag, "ipfix");
  EXPECT_EQ(memcmp(header.counters_schema_id, schema_id, 16), 0);
}

TEST_F(AsyncDataFileTest, WriteWithoutFileDropsAndClearsFlag) {
  auto file = Make();
  std::atomic<bool> in_flight{true};
  char page[16] = {};
  file->Write(page, sizeof page, kT0, kT0, &in_flight, -1);
  EXPECT_FALSE(in_flight.load());
  EXPECT_EQ(log_.Count("Write: data_file_name_ empty, dropping 16 bytes (source=leaf1 stat=1)"),
            1u);

  // A data root that is a file: the path cannot be created, reported once.
  const std::string blocker = root_ + "/blocker";
  std::ofstream(blocker) << "x";
  file->setDataRoot(blocker);
  file->Rotate(kT0, nullptr);
  file->Rotate(kT0 + 1, nullptr);
  EXPECT_FALSE(file->has_file());
  EXPECT_EQ(log_.Count("Failed to create path for"), 1u);
}

TEST_F(AsyncDataFileTest, WriteSyncAppendsAndRotatesOnFailure) {
  auto file = Make();
  file->setUseDirectIO(false);
  file->Rotate(kT0, nullptr);
  char header[256];
  file->FillFileHeader(header, sizeof header);
  file->WriteSync(header, sizeof header, kT0, kT0);
  file->WriteSync("abc", 3, kT0, kT0 + 3);
  EXPECT_EQ(file->written_bytes, 259);
  EXPECT_EQ(ReadFile(file->data_file_name()).substr(256), "abc");

  const std::string path = file->data_file_name();
  ASSERT_TRUE(fs::remove(path));
  file->WriteSync("def", 3, kT0, kT0 + 4);
  EXPECT_FALSE(file->has_file());
  EXPECT_EQ(log_.Count("WriteSync open(" + path + ") failed"), 1u);
}

TEST_F(AsyncDataFileTest, InvalidHeaderIsLeftUnchanged) {
  auto file = Make();
  file->setUseDirectIO(false);
  file->Rotate(kT0, nullptr);
  const std::string junk(300, 'j');
  file->WriteSync(junk.data(), junk.size(), kT0, kT0);
  EXPECT_FALSE(file->UpdateFileHeader());
  EXPECT_EQ(log_.Count("invalid header magic"), 1u);
  EXPECT_EQ(ReadFile(file->data_file_name()), junk);
}

// A 1 MiB tmpfs fills up: the failed write reaches the file through its
// completion, and closing the damaged file keeps exactly the whole blocks
// that are on disk, with a header that describes them.
TEST_F(AsyncDataFileTest, FailedWriteKeepsTheWholeBlocksBeforeIt) {
  ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "a private mount namespace is needed: " << strerror(errno);
  ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
  const std::string mount_point = root_ + "/small";
  fs::create_directory(mount_point);
  ASSERT_EQ(mount("tmpfs", mount_point.c_str(), "tmpfs", 0, "size=1m"), 0)
      << "cannot mount a small tmpfs: " << strerror(errno);
  {
    auto file = Make();
    file->setDataRoot(mount_point);
    file->setUseDirectIO(false);
    file->setSizeLimit(64ull << 20);
    file->Rotate(kT0, nullptr);
    // Block i has time kT0 + i: a header page of 15 blocks, then pages of
    // 256 blocks until the file system is full.
    AlignedPage page = MakePage(65536 + 4096, 0);
    file->FillFileHeader(page.get(), 256);
    FillBlocks(page.get() + 256, 15, kT0 + 14);
    std::atomic<bool> in_flight{true};
    file->Write(page.get(), 4096, kT0, kT0 + 14, &in_flight, -1);
    ASSERT_TRUE(recv_test::WaitFor([&] { return !in_flight.load(); }));
    uint64_t last = kT0 + 14;
    int writes = 0;
    for (; writes < 64 && !file->TakeWriteError(); ++writes) {
      FillBlocks(page.get(), 256, last + 256);
      in_flight = true;
      file->Write(page.get(), 65536, kT0, last + 256, &in_flight, -1);
      ASSERT_TRUE(recv_test::WaitFor([&] { return !in_flight.load(); }));
      last += 256;
    }
    ASSERT_LT(writes, 64) << "the file system never filled up";
    EXPECT_GE(log_.Count("CQE error") + log_.Count("CQE short write"), 1u);
    const std::string path = file->data_file_name();
    uint64_t kept = 0;
    EXPECT_EQ(file->CloseDamaged(AsyncDataFile::DiskState::kWriteFailed, &kept), path);
    ASSERT_GT(kept, 256u);
    EXPECT_EQ((kept - 256) % 256, 0u) << "only whole blocks";
    EXPECT_EQ(fs::file_size(path), kept);
    const dtl_data_file_header_t header = ReadHeader(path);
    EXPECT_EQ(header.file_size, kept);
    EXPECT_EQ(header.last_timestamp, kT0 + (kept - 256) / 256 - 1) << "time of the last block kept";
    EXPECT_LT(header.last_timestamp, last) << "the failed write's blocks are not claimed";
    EXPECT_FALSE(file->has_file());
  }
  EXPECT_EQ(umount(mount_point.c_str()), 0) << strerror(errno);
}

}  // namespace

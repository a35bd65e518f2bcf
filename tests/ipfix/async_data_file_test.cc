#include "ipfix/async_data_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/uio.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "dtl_data_file_header.h"
#include "ipfix/io_uring_writer.h"
#include "recv_test_support.h"

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
    return file;
  }

  // Fills a 4 KiB page with the header of the file's current first timestamp
  // and writes it asynchronously, then waits until the writer is done.
  void WriteHeaderPage(AsyncDataFile& file, uint64_t last_ts) {
    AlignedPage page = MakePage(4096, 0xAB);
    file.FillFileHeader(page.get(), 4096);
    std::atomic<bool> in_flight{true};
    file.Write(page.get(), 4096, file.first_timestamp(), last_ts, &in_flight, -1);
    ASSERT_TRUE(recv_test::WaitFor([&] { return !in_flight.load(); }));
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

TEST_F(AsyncDataFileTest, DeletionFromOutsideIsNoticedEvery16Writes) {
  auto file = Make();
  file->Rotate(kT0, nullptr);
  WriteHeaderPage(*file, kT0);
  ASSERT_TRUE(fs::remove(file->data_file_name()));
  EXPECT_FALSE(file->NeedRotation(kT0, kT0)) << "write counter 1: not checked";
  for (int i = 1; i < 16; ++i) WriteHeaderPage(*file, kT0);
  ASSERT_EQ(file->write_counter(), 16);
  EXPECT_TRUE(file->NeedRotation(kT0, kT0));
  const std::string deleted = file->data_file_name();
  long closed_size = -1;
  EXPECT_EQ(file->Rotate(kT0 + kSecond, &closed_size), deleted);
  EXPECT_EQ(closed_size, 16 * 4096);
  EXPECT_TRUE(fs::exists(file->data_file_name()));
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
  EXPECT_EQ(bytes.substr(256, 3840), std::string(3840, '\xAB'));
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

// A 1 MiB tmpfs fills up: the failed asynchronous write reaches the file
// through on_error, the next write closes it and the next rotation starts a
// new one.
TEST_F(AsyncDataFileTest, FullFileSystemForcesRotation) {
  const std::string mount_point = root_ + "/small";
  fs::create_directory(mount_point);
  if (mount("tmpfs", mount_point.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "cannot mount a small tmpfs here: " << strerror(errno);
  {
    auto file = Make();
    file->setDataRoot(mount_point);
    file->setUseDirectIO(false);
    file->setSizeLimit(64ull << 20);
    file->Rotate(kT0, nullptr);
    AlignedPage page = MakePage(65536, 0x5A);
    file->FillFileHeader(page.get(), 256);
    int writes = 0;
    for (; writes < 64 && log_.Count("Write: error_pending set by io_uring") == 0; ++writes) {
      std::atomic<bool> in_flight{true};
      file->Write(page.get(), 65536, kT0, kT0 + writes, &in_flight, -1);
      ASSERT_TRUE(recv_test::WaitFor([&] { return !in_flight.load(); }));
    }
    EXPECT_LT(writes, 64);
    EXPECT_GE(log_.Count("CQE error") + log_.Count("CQE short write"), 1u);
    EXPECT_EQ(log_.Count("ForceRotation: closing"), 1u);
    EXPECT_FALSE(file->has_file());
    EXPECT_TRUE(file->NeedRotation(kT0 + 1, kT0 + 1));
    file->Rotate(kT0 + 1, nullptr);
    EXPECT_TRUE(file->has_file());
  }
  EXPECT_EQ(umount(mount_point.c_str()), 0) << strerror(errno);
}

}  // namespace

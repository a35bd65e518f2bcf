// Feeds arbitrary bytes to a receive worker as if they had arrived from the
// network: header validation, set walking, template caching, descriptive
// records and sample assembly all run on them.
//
// One input is a sequence of datagrams, each prefixed by a byte choosing the
// sender (IPv4 or IPv6, two ports) and a big-endian u16 length, so that the
// fuzzer can build a template in one datagram and use it in the next.
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ipfix/ipfix_recv_worker.h"
#include "storage/ipfix_session_sink.h"

namespace {

using dtl::ipfix::IpfixRecvWorker;
using dtl::ipfix::IpfixSessionSink;
using dtl::ipfix::SchemaSnapshot;

// Hands out real memory so that the sample path writes somewhere checkable
// by AddressSanitizer; keeps nothing.
class ScratchSink final : public IpfixSessionSink {
 public:
  bool Start() override { return true; }
  void Stop() override {}
  const std::string& root() const override { return root_; }
  void ProcessSchemaUpdate(size_t, const std::string&, const SchemaSnapshot& snapshot) override {
    schema_fields_ = snapshot.flat_fields.size();
  }
  uint8_t* AcquireRecordValueSlot(size_t, const std::string&, uint32_t, uint32_t,
                                  uint64_t values_size) override {
    if (values_size > (1u << 22)) return nullptr;
    block_.assign(values_size, 0);
    return block_.data();
  }
  void CommitRecord(size_t, const std::string&, uint64_t) override {}
  void RemoveSession(size_t, const std::string&) override {}

 private:
  std::string root_ = "/nonexistent-fuzz-root";
  std::vector<uint8_t> block_;
  size_t schema_fields_ = 0;
};

sockaddr_in6 Sender(uint8_t selector) {
  sockaddr_in6 from{};
  from.sin6_family = AF_INET6;
  from.sin6_port = htons(static_cast<uint16_t>(4000 + (selector & 1)));
  if (selector & 2) {
    from.sin6_addr.s6_addr[15] = 1;  // ::1
  } else {
    from.sin6_addr.s6_addr[10] = 0xff;  // ::ffff:127.0.0.1
    from.sin6_addr.s6_addr[11] = 0xff;
    from.sin6_addr.s6_addr[12] = 127;
    from.sin6_addr.s6_addr[15] = 1;
  }
  return from;
}

IpfixRecvWorker& Worker() {
  static ScratchSink sink;
  static std::unique_ptr<IpfixRecvWorker> worker = [] {
    IpfixRecvWorker::Config config{};
    config.max_sessions = 8;
    config.session_timeout_sec = 300;
    return std::make_unique<IpfixRecvWorker>(0, config, &sink);
  }();
  return *worker;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  IpfixRecvWorker& worker = Worker();
  size_t at = 0;
  while (at + 3 <= size) {
    const uint8_t selector = data[at];
    size_t len = static_cast<size_t>((data[at + 1] << 8) | data[at + 2]);
    at += 3;
    if (len > size - at) len = size - at;
    // The copy gives AddressSanitizer exact bounds for the datagram.
    std::vector<uint8_t> datagram(data + at, data + at + len);
    worker.ProcessMessage(datagram.data(), datagram.size(), Sender(selector));
    at += len;
  }
  return 0;
}

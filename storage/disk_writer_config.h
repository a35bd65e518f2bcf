// Settings of the disk writer: where and how decoded samples are stored.
#pragma once

#include <cstdint>
#include <string>

namespace dtl::ipfix {

struct DiskWriterConfig {
  std::string root;               // data root; empty = no disk writer
  std::string counters_template;  // data file path template; empty = default
  uint64_t file_size_limit = 134217728;
  uint32_t file_time_limit_sec = 1800;
  uint64_t max_sessions = 256;
  uint64_t workers = 4;
  bool direct_io = true;
  bool iosqe_async = false;
  uint32_t batch_count = 1000;
  uint64_t data_size_limit = 0;
  uint64_t low_watermark = 0;
  // A session's partial page goes to disk after this long without a new
  // sample (0 = only when full or at stop).
  uint32_t flush_idle_ms = 1000;
};

}  // namespace dtl::ipfix

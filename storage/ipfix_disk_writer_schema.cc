// Schema updates of the disk writer: applying a session's snapshot to its
// state and data file, counter naming, and publication of the counters-schema
// and metadata files, which are checked again, and written again when missing
// or damaged, each time a session starts a data file.
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <boost/system/error_code.hpp>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <unordered_set>

#include "dtl_atomic_file.h"
#include "dtl_counters.h"
#include "dtl_json.h"
#include "dtl_logger.h"
#include "dtl_schema_file.h"
#include "dtl_source.h"
#include "storage/ipfix_disk_writer.h"

namespace dtl::ipfix {

namespace {

// Text from the network is only trusted to be bytes. Both published files
// are JSON, which must be UTF-8, so every byte that does not belong to a
// well-formed sequence becomes U+FFFD; valid text passes unchanged.
std::string ValidUtf8(const std::string& text) {
  static constexpr char kReplacement[] = "\xEF\xBF\xBD";
  std::string out;
  out.reserve(text.size());
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    const unsigned char c = p[i];
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
    if (c < 0x80) {
      length = 1;
    } else if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;   // no overlong forms
      if (c == 0xED) high = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;   // no overlong forms
      if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    }
    bool ok = length != 0 && i + length <= n;
    for (size_t k = 1; ok && k < length; ++k) {
      const unsigned char b = p[i + k];
      ok = k == 1 ? (b >= low && b <= high) : (b >= 0x80 && b <= 0xBF);
    }
    if (ok) {
      out.append(text, i, length);
      i += length;
    } else {
      out.append(kReplacement);
      ++i;
    }
  }
  return out;
}

// The flat fields are compared with their lengths: an exporter that
// redefines a counter template under the same names and metadata changes the
// block layout, which must not be written under the old block size.
bool SameSchema(const SchemaSnapshot& a, const SchemaSnapshot& b) {
  return a.reserved == b.reserved && a.switch_name == b.switch_name &&
         a.exporter_port == b.exporter_port && a.counter_names == b.counter_names &&
         a.metadata_definitions == b.metadata_definitions &&
         a.metadata_mappings == b.metadata_mappings && a.flat_fields == b.flat_fields;
}

std::string MetadataFilePath(const std::string& dir, const unsigned char* schema_id) {
  char* id_text = dtl_schema_id_string(schema_id);
  if (id_text == nullptr) return {};
  std::string path = dir + "/metadata_" + id_text + ".json";
  free(id_text);
  return path;
}

// Reads a whole file; false when it cannot be read.
bool ReadText(const std::string& path, std::string* text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

enum class OnDisk { kSame, kMissing, kDiffers };

// How the file at path compares with text. Cheap when all is well: the size
// from stat decides first and the content is read only when it matches.
OnDisk Inspect(const std::string& path, const std::string& text) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return OnDisk::kMissing;
  if (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) != text.size()) return OnDisk::kDiffers;
  std::string content;
  return ReadText(path, &content) && content == text ? OnDisk::kSame : OnDisk::kDiffers;
}

// Switches that export the same counters share one schema and so one
// metadata file name; their metadata texts differ only in "source". Such a
// file is another session's publication, not damage, and is left alone.
bool SameCountersOfAnotherSource(const std::string& path, const std::string& text) {
  std::string content;
  if (!ReadText(path, &content)) return false;
  const dtl::json::value on_disk = dtl::json::value::parse(content, nullptr, false);
  const dtl::json::value ours = dtl::json::value::parse(text, nullptr, false);
  return on_disk.is_object() && ours.is_object() && on_disk.contains("metadata_content") &&
         ours.contains("metadata_content") && on_disk["metadata_content"] == ours["metadata_content"];
}

enum class Published { kAlreadyThere, kWritten, kFailed };
enum class Kind { kSchema, kMetadata };

// Makes the schema or metadata file at path hold exactly text. A repair is
// the check made when a data file starts: whatever it has to write again is
// logged as a warning. A schema file is named by the digest of its text, so
// a different content is always damage.
Published Publish(Kind what, const std::string& path, const std::string& text, const std::string& src,
                  bool repair) {
  if (path.empty()) return Published::kFailed;
  const bool schema = what == Kind::kSchema;
  const char* kind = schema ? "schema" : "metadata";
  const OnDisk state = Inspect(path, text);
  if (state == OnDisk::kSame) return Published::kAlreadyThere;

  if (state == OnDisk::kMissing) {
    const std::string dir = boost::filesystem::path(path).parent_path().string();
    boost::system::error_code ec;
    boost::filesystem::create_directories(dir, ec);
    if (ec) {
      DTL_LOG_ERROR("[IPFIX disk writer] mkdir %s: %s", dir.c_str(), ec.message().c_str());
      return Published::kFailed;
    }
    if (repair)
      DTL_LOG_WARNING("[IPFIX disk writer] Session %s: %s file %s is missing; writing it again", src.c_str(),
                      kind, path.c_str());
  } else if (schema) {
    DTL_LOG_WARNING("[IPFIX disk writer] Session %s: schema file %s does not match its identifier; writing it "
                    "again",
                    src.c_str(), path.c_str());
  } else if (repair) {
    if (SameCountersOfAnotherSource(path, text)) return Published::kAlreadyThere;
    DTL_LOG_WARNING("[IPFIX disk writer] Session %s: metadata file %s is damaged; writing it again", src.c_str(),
                    path.c_str());
  }

  std::string error;
  if (!dtl::WriteFileAtomically(path, text, &error)) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: could not write %s file %s: %s", src.c_str(), kind,
                  path.c_str(), error.c_str());
    return Published::kFailed;
  }
  return Published::kWritten;
}

}  // namespace

std::vector<IpfixDiskWriter::CounterEntry> IpfixDiskWriter::BuildCounterEntries(
    const std::vector<FlatFieldInfo>& flat_fields) {
  std::vector<CounterEntry> entries;
  entries.reserve(flat_fields.size());
  std::unordered_set<std::string> produced;
  for (size_t i = 0; i < flat_fields.size(); ++i) {
    const FlatFieldInfo& field = flat_fields[i];
    MetadataPairs pairs;
    pairs.reserve(field.metadata.size());
    for (const auto& [key, value] : field.metadata) pairs.emplace_back(ValidUtf8(key), ValidUtf8(value));
    std::sort(pairs.begin(), pairs.end());

    CounterEntry entry;
    std::string prefix;
    for (const auto& [key, value] : pairs) {
      prefix += key + "=" + value + ":";
      entry.keys.push_back(key);
      entry.values.push_back(value);
    }
    std::string field_name = ValidUtf8(field.name);
    entry.name = prefix + field_name;
    if (produced.count(entry.name) != 0) {
      field_name += "_" + std::to_string(i);
      entry.name = prefix + field_name;
    }
    produced.insert(entry.name);
    entry.values.push_back(std::move(field_name));
    entries.push_back(std::move(entry));
  }
  return entries;
}

void IpfixDiskWriter::ProcessSchemaUpdate(size_t worker_id, const std::string& key,
                                          const SchemaSnapshot& snapshot) {
  // Called on a receive thread: a failure ends this update, never the thread.
  try {
    ApplySchemaUpdate(worker_id, key, snapshot);
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[IPFIX disk writer] ProcessSchemaUpdate: session=%s failed: %s",
                  snapshot.display_name.c_str(), e.what());
  }
}

void IpfixDiskWriter::ApplySchemaUpdate(size_t worker_id, const std::string& key,
                                        const SchemaSnapshot& snapshot) {
  if (worker_id >= shards_.size()) {
    DTL_LOG_ERROR("[IPFIX disk writer] ProcessSchemaUpdate: invalid worker_id=%zu (shards=%zu)", worker_id,
                  shards_.size());
    return;
  }
  Shard& shard = shards_[worker_id];
  DTL_LOG_DEBUG(
      "[IPFIX disk writer] ProcessSchemaUpdate: worker=%zu session=%s domain=%u fields=%zu shard_sessions=%zu",
      worker_id, snapshot.display_name.c_str(), snapshot.observation_domain_id, snapshot.flat_fields.size(),
      shard.size() + 1);

  auto [it, created] = shard.try_emplace(key);
  if (created) it->second = std::make_unique<DomainState>();
  DomainState& s = *it->second;
  if (snapshot.account) s.account = snapshot.account;

  // A new state has nothing applied yet, whatever its empty stored snapshot
  // compares equal to. An unchanged schema still gets its files checked.
  if (!created && SameSchema(snapshot, s.schema)) {
    EnsurePublished(s);
    return;
  }

  // Blocks of the old layout go out first, and no write may still be in
  // flight when a setting change below closes the file.
  FlushAll(s);
  WaitForInFlight(s);
  if (snapshot.flat_fields.empty()) return;

  const std::string src = snapshot.switch_name.empty() ? "unknown" : snapshot.switch_name;
  if (src != s.src) {
    if (s.data_file) {
      FlushAll(s);
      WaitForInFlight(s);
      s.data_file.reset();
    }
    s.src = src;
  }

  const uint32_t block_size = static_cast<uint32_t>(snapshot.flat_fields.size() + 2) * 8u;
  if (!s.data_file) CreateDataFile(s);
  s.block_size = block_size;
  s.data_file->setBlockSize(block_size);

  // A publication that fails leaves the texts in the state; EnsurePublished
  // writes them when the session starts its next data file.
  WriteSchemaJson(s, snapshot);
  s.data_file->setCounterSchemaId(s.schema_id);
  AllocateBuffers(s);
  WriteMetadataJson(s, snapshot);
  s.schema = snapshot;
  s.announce = true;
  // A changed block size or schema closed the file: the next samples start
  // a new one with its header unit.
  if (!s.data_file->has_file()) s.header_written = false;
}

void IpfixDiskWriter::CreateDataFile(DomainState& s) {
  dtl_client_id_t client_id{};
  std::strncpy(client_id.host_name, kClientHostName, sizeof(client_id.host_name) - 1);
  client_id.port = 0;
  // The switch name reaches the path only through the data file's
  // path-component sanitizer, so a hostile name cannot leave the root.
  s.data_file = std::make_unique<AsyncDataFile>(client_id, s.src, kDataTag, &writer_);
  AsyncDataFile& file = *s.data_file;
  file.defer_rotation = true;
  file.rotation_pending = false;
  file.setDataRoot(config_.root);
  if (!config_.counters_template.empty()) file.setDataPathTemplate(config_.counters_template);
  file.setSizeLimit(config_.file_size_limit);
  file.setTimeLimit(static_cast<unsigned long>(config_.file_time_limit_sec) * 1000000ul);
  file.setUseDirectIO(config_.direct_io);
  file.defer_rotation = false;
  if (file.rotation_pending) {
    file.rotation_pending = false;
    file.ForceRotation();
  }
}

void IpfixDiskWriter::WriteSchemaJson(DomainState& s, const SchemaSnapshot& snapshot) {
  if (snapshot.flat_fields.empty()) {
    DTL_LOG_DEBUG("[IPFIX disk writer] Session %s: skipping schema write, no flat fields yet", s.src.c_str());
    return;
  }
  dtl_counters_schema_t* schema = dtl_create_counters_schema();
  if (schema == nullptr) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: failed to create counters schema", s.src.c_str());
    return;
  }
  dtl_counter_group_t* group = dtl_create_counter_group_no_provider("ipfix", "ipfix_bin_data_provider");
  if (group == nullptr) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: failed to create counter group", s.src.c_str());
    dtl_destroy_counters_schema(schema);
    return;
  }

  const std::vector<CounterEntry> entries = BuildCounterEntries(snapshot.flat_fields);
  char empty[] = "";
  for (size_t i = 0; i < entries.size(); ++i) {
    dtl_counter_info_t info{};
    info.name = const_cast<char*>(entries[i].name.c_str());
    info.description = empty;
    info.units = empty;
    info.data_type = DTL_DATA_TYPE_UINT64;
    info.counting_type = DTL_COUNTING_TYPE_RUNNING_SUM;
    info.offset = static_cast<uint32_t>(8 * i);
    info.length = 8;
    if (!dtl_add_counter_to_group(group, &info)) {
      DTL_LOG_ERROR("[IPFIX disk writer] dtl_add_counter_to_group failed for '%s'", entries[i].name.c_str());
    }
  }
  if (!dtl_counters_schema_append_group(schema, group)) {
    DTL_LOG_ERROR("[IPFIX disk writer] dtl_counters_schema_append_group failed");
    dtl_destroy_counter_group(group);  // still ours when the schema refused it
  }

  unsigned char id[DTL_SCHEMA_ID_SIZE] = {};
  if (!dtl_calc_counters_schema_id(id, schema)) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: failed to compute counters schema id", s.src.c_str());
    dtl_destroy_counters_schema(schema);
    return;
  }
  std::memcpy(s.schema_id, id, sizeof(id));
  const std::unique_ptr<dtl_json_value_t, void (*)(dtl_json_value_t*)> json(dtl_counters_schema_jsonify(schema),
                                                                            &dtl_json_value_free);
  dtl_destroy_counters_schema(schema);
  s.schema_text.clear();  // the text of the previous identifier no longer applies
  if (json == nullptr) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: failed to jsonify counters schema", s.src.c_str());
    return;
  }
  // The identifier is the digest of exactly this text.
  try {
    s.schema_text = dtl::json::serialize_pretty(json->v);
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[IPFIX disk writer] Session %s: failed to serialize counters schema: %s", s.src.c_str(),
                  e.what());
    return;
  }

  const std::string path = dtl::data_file::get_schema_file_path(SchemaDir(), s.schema_id);
  switch (Publish(Kind::kSchema, path, s.schema_text, s.src, /*repair=*/false)) {
    case Published::kAlreadyThere:
      DTL_LOG_DEBUG("[IPFIX disk writer] Session %s: schema already on disk, not rewriting", s.src.c_str());
      break;
    case Published::kWritten:
      DTL_LOG_DEBUG("[IPFIX disk writer] Session %s: schema updated", s.src.c_str());
      break;
    case Published::kFailed:
      break;
  }
}

void IpfixDiskWriter::WriteMetadataJson(DomainState& s, const SchemaSnapshot& snapshot) {
  dtl::json::value root = dtl::json::value::object();
  root["source"] = ValidUtf8(s.src);

  const std::vector<CounterEntry> entries = BuildCounterEntries(snapshot.flat_fields);
  std::map<std::vector<std::string>, std::vector<size_t>> groups;
  for (size_t i = 0; i < entries.size(); ++i) groups[entries[i].keys].push_back(i);

  dtl::json::value labels = dtl::json::value::array();
  size_t groups_written = 0;
  for (const auto& [keys, members] : groups) {
    if (keys.empty()) continue;  // fields without metadata carry no labels
    std::string pattern = "^";
    for (const std::string& key : keys) pattern += key + "=$MATCH:";
    std::set<std::vector<std::string>> tuples;
    for (size_t index : members) {
      const std::vector<std::string>& values = entries[index].values;
      tuples.emplace(values.begin(), values.end() - 1);
    }
    dtl::json::value matches = dtl::json::value::array();
    for (const auto& tuple : tuples) {
      dtl::json::value match = dtl::json::value::object();
      match["pattern_match"] = tuple;
      matches.push_back(std::move(match));
    }
    dtl::json::value group = dtl::json::value::object();
    group["pattern"] = pattern;
    group["index_names"] = keys;
    group["matches_and_labels"] = std::move(matches);
    labels.push_back(std::move(group));
    ++groups_written;
  }
  root["metadata_content"]["counters"]["name_match_labels"] = std::move(labels);

  // Compact, non-ASCII as UTF-8; names were made valid UTF-8 above, and the
  // replace handler keeps a stray byte from ever throwing here.
  s.metadata_text = root.dump(-1, ' ', false, dtl::json::value::error_handler_t::replace);

  const std::string path = MetadataFilePath(MetadataDir(), s.schema_id);
  if (path.empty()) {
    DTL_LOG_ERROR("[IPFIX disk writer] WriteMetadataJson: dtl_schema_id_string() failed for source %s",
                  s.src.c_str());
    return;
  }
  if (Publish(Kind::kMetadata, path, s.metadata_text, s.src, /*repair=*/false) == Published::kWritten)
    DTL_LOG_DEBUG("[IPFIX disk writer] Session %s: metadata.json updated (%zu fields, %zu shape group(s))",
                 s.src.c_str(), snapshot.flat_fields.size(), groups_written);
}

void IpfixDiskWriter::EnsurePublished(DomainState& s) {
  if (!s.schema_text.empty())
    Publish(Kind::kSchema, dtl::data_file::get_schema_file_path(SchemaDir(), s.schema_id), s.schema_text,
            s.src, /*repair=*/true);
  if (!s.metadata_text.empty())
    Publish(Kind::kMetadata, MetadataFilePath(MetadataDir(), s.schema_id), s.metadata_text, s.src,
            /*repair=*/true);
}

void IpfixDiskWriter::AnnounceSchema(DomainState& s) {
  s.announce = false;
  std::set<std::string> interfaces;
  for (const FlatFieldInfo& field : s.schema.flat_fields)
    for (const auto& [key, value] : field.metadata)
      if (key == "interface") interfaces.insert(value);
  char* id = dtl_schema_id_string(s.schema_id);
  DTL_LOG_INFO("[IPFIX disk writer] Switch %s (%s): storing %zu counters of %zu interface(s), schema %s, in %s",
               s.src.c_str(), s.schema.display_name.c_str(), s.schema.flat_fields.size(), interfaces.size(),
               id != nullptr ? id : "?", s.data_file ? s.data_file->data_file_name().c_str() : "?");
  free(id);
}

}  // namespace dtl::ipfix

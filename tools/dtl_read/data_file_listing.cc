#include "tools/dtl_read/data_file_listing.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "tools/dtl_read/data_file_reader.h"

namespace dtl::read {

namespace fs = std::filesystem;

ListedFile ProbeDataFile(const std::string& path) {
  ListedFile file;
  file.path = path;
  DataFileReader reader;
  if (!reader.Open(path, &file.error)) return file;
  const dtl_data_file_header_t& h = reader.header();
  file.source.assign(h.source_id, strnlen(h.source_id, sizeof h.source_id));
  file.schema_id = reader.SchemaId();
  file.bytes = reader.file_bytes();
  file.samples = reader.DataEnd();
  if (file.samples == 0) return file;
  const uint64_t last = file.samples - 1;
  if (!reader.HasBlockMagic(last)) {
    file.error = "corrupt block " + std::to_string(last) + " (bad block magic)";
    return file;
  }
  if (h.file_size != DTL_DATA_FILE_HEADER_SIZE) {
    file.first_us = h.first_timestamp;
    file.last_us = h.last_timestamp;
  } else if (!reader.TimestampAt(0, &file.first_us, &file.error) ||
             !reader.TimestampAt(last, &file.last_us, &file.error)) {
    return file;
  }
  return file;
}

bool FindDataFiles(const std::string& root, std::vector<std::string>* files, std::vector<ListedFile>* unreadable,
                   std::string* error) {
  std::error_code ec;
  const fs::file_status root_status = fs::status(root, ec);
  if (!fs::is_directory(root_status)) {
    *error = root_status.type() == fs::file_type::not_found ? "no such directory"
             : ec                                           ? ec.message()
                                                            : "not a directory";
    return false;
  }
  std::vector<fs::path> pending = {root};
  while (!pending.empty()) {
    const fs::path dir = pending.back();
    pending.pop_back();
    fs::directory_iterator it(dir, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
      // Linked directories are not followed: a link loop must not trap the walk.
      std::error_code entry_ec;
      if (it->is_directory(entry_ec) && !it->is_symlink(entry_ec)) {
        pending.push_back(it->path());
      } else if (it->path().extension() == ".bin") {
        files->push_back(it->path().string());
      }
    }
    if (ec) {
      ListedFile bad;
      bad.path = dir.string();
      bad.error = "cannot read the directory: " + ec.message();
      unreadable->push_back(std::move(bad));
    }
    ec.clear();
  }
  std::sort(files->begin(), files->end());
  return true;
}

}  // namespace dtl::read

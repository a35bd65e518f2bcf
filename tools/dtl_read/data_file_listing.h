// What a listing of a data root tells about each data file, found without
// reading the samples: the header, the number of whole blocks, and at most
// the first and last block.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace dtl::read {

struct ListedFile {
  std::string path;    // as found (under the root)
  std::string error;   // why the file cannot be listed; the rest is then unset
  std::string source;  // the header's source id
  std::string schema_id;
  uint64_t samples = 0;  // blocks holding data
  uint64_t bytes = 0;
  uint64_t first_us = 0, last_us = 0;  // sample times; meaningful with samples
};

// The header's first and last times when the header is final (its file
// size set at close), else those of the first and last data block; a last
// block without its magic is an error.
ListedFile ProbeDataFile(const std::string& path);

// Every *.bin file below root, in path order. A directory that cannot be
// read is reported in `unreadable` (path and reason) and skipped. False
// with the reason in error when root is no directory.
bool FindDataFiles(const std::string& root, std::vector<std::string>* files,
                   std::vector<ListedFile>* unreadable, std::string* error);

}  // namespace dtl::read

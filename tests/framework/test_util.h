// What the framework tests share: gtest, standard pieces, the log capture, two helpers.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace dtl_test {

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Takes a text the library allocated with malloc; "<null>" for none.
inline std::string TakeText(char* text) {
  const std::unique_ptr<char, decltype(&free)> owned(text, free);
  return owned ? std::string(owned.get()) : std::string("<null>");
}

}  // namespace dtl_test

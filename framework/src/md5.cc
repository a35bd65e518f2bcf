// MD5 digests through OpenSSL's EVP interface (the one-shot MD5() is
// deprecated in OpenSSL 3).
#include <openssl/evp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "dtl_counters.h"
#include "dtl_logger.h"

namespace {

void HexDigest(const unsigned char* digest, char* out) {
  static const char kHex[] = "0123456789abcdef";
  for (int i = 0; i < DTL_MD5_DIGEST_SIZE; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 0xF];
  }
  out[2 * DTL_MD5_DIGEST_SIZE] = '\0';
}

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

}  // namespace

extern "C" {

DTL_EXPORT unsigned char* dtl_MD5(const void* data, size_t length, unsigned char* out) {
  if (out == nullptr) return nullptr;
  // EVP_Digest reads nothing for length 0 but wants a valid pointer.
  static const unsigned char kEmpty = 0;
  if (data == nullptr) data = &kEmpty;
  if (EVP_Digest(data, length, out, nullptr, EVP_md5(), nullptr) != 1) {
    DTL_LOG_ERROR("[schema] MD5 digest failed");
    memset(out, 0, DTL_MD5_DIGEST_SIZE);
  }
  return out;
}

DTL_EXPORT char* dtl_HexMD5(const void* data, size_t length, char* out) {
  if (out == nullptr) return nullptr;
  unsigned char digest[DTL_MD5_DIGEST_SIZE];
  dtl_MD5(data, length, digest);
  HexDigest(digest, out);
  return out;
}

DTL_EXPORT bool dtl_compute_file_md5(const char* path, char* out) {
  if (out == nullptr) return false;
  out[0] = '\0';
  if (path == nullptr) return false;
  std::unique_ptr<FILE, FileCloser> file(fopen(path, "rb"));
  if (!file) {
    DTL_LOG_ERROR("[schema] cannot open %s: %s", path, strerror(errno));
    return false;
  }
  struct stat st;
  if (fstat(fileno(file.get()), &st) != 0 || st.st_size <= 0) {
    DTL_LOG_ERROR("[schema] %s is empty or cannot be examined", path);
    return false;
  }
  const size_t size = static_cast<size_t>(st.st_size);
  std::unique_ptr<unsigned char, FreeDeleter> buffer(static_cast<unsigned char*>(malloc(size)));
  if (!buffer) {
    DTL_LOG_ERROR("[schema] cannot buffer %zu bytes of %s", size, path);
    return false;
  }
  if (fread(buffer.get(), 1, size, file.get()) != size) {
    DTL_LOG_ERROR("[schema] cannot read %s", path);
    return false;
  }
  dtl_HexMD5(buffer.get(), size, out);
  return true;
}

}  // extern "C"

// Replacing a small file's content in one step, so that a reader (or the
// next start after a crash or a full disk) finds either the old content
// whole or the new content whole, never a part of either.
#pragma once

#include <string>
#include <string_view>

namespace dtl {

// Writes text to a uniquely named temporary file beside path, flushes it to
// the disk and renames it over path. Several threads or processes may write
// the same path at once; the last rename wins. On any failure the temporary
// file is removed, path is left as it was, and error (when not null) gets
// the reason (the errno text).
bool WriteFileAtomically(const std::string& path, std::string_view text, std::string* error);

}  // namespace dtl

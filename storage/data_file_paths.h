// Where data files go: names made safe for paths, calendar formatting of a
// file's first time, and the process-wide registries of paths in use and of
// file systems that refuse direct I/O.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace dtl::ipfix {

// Makes a value safe to use as exactly one directory or file name component:
// '/', '\\', '%' (a time-format directive such as %D could expand to a
// separator), control bytes and DEL become '_', and a name that is empty,
// "." or ".." becomes as many '_' (at least one). A result longer than
// kMaxPathComponent bytes is cut to a prefix that ends on a whole UTF-8
// character, followed by '~' and 16 hex digits of a hash of the full name.
// Values from the network, such as a switch name, pass through it before
// they reach a path, so that they can neither leave the data root nor add
// directory levels, and always fit in a file name.
inline constexpr size_t kMaxPathComponent = 200;  // well below NAME_MAX (255)
std::string SanitizePathComponent(std::string const& name);

// The time as UTC calendar time down to the millisecond, printed with format
// (strftime-like directives); throws for times past the year 9999.
std::string FormatUtc(std::string const& format, uint64_t timestamp_us);

// Reserves the first of path, "<stem>-N<extension>" (N from *next_suffix on)
// that no data file holds open, none was closed with retire set, and that
// usable accepts; *next_suffix moves past a suffix taken.
std::string ClaimPath(std::string const& path, std::function<bool(std::string const&)> const& usable,
                      unsigned* next_suffix);
// Gives a claimed path back; retire keeps it from ever being claimed again.
void ReleasePath(std::string const& path, bool retire = false);
// Whether every file of a template gets the same name (no first timestamp in it).
bool TemplateRepeatsNames(std::string const& path_template);

// Whether the file system of device refused O_DIRECT before; remembering it
// returns true the first time, so that the refusal is reported once.
bool DirectIoRefused(dev_t device);
bool RememberDirectIoRefused(dev_t device);

// Whole reads and writes at an offset, retried on EINTR and short counts.
bool ReadAll(int fd, void* data, size_t len, off_t offset);
bool WriteAll(int fd, void const* data, size_t len, off_t offset);

}  // namespace dtl::ipfix

#include "tools/hft_sim/sim_options.h"

#include <getopt.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace dtl::hftsim {

namespace {

enum LongOnly : int {
  kLossEvery = 1000,
  kReorder,
  kSeed,
  kStartTime,
  kMaxDatagram,
  kExportTime,
  kDatagram,
  kAnnounce,
  kTrafficClasses,
  kPerTemplate,
  kIntervalUs,
  kLoss,
  kSourcePort,
  kSequence,
  kInterleave,
  kFragmentsPerMessage,
  kWithdrawAt,
  kValueBase,
  kBurst,
};

const option kOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"target", required_argument, nullptr, 't'},
    {"switch-name", required_argument, nullptr, 'n'},
    {"domain", required_argument, nullptr, 'd'},
    {"exporters", required_argument, nullptr, 'e'},
    {"source-port", required_argument, nullptr, kSourcePort},
    {"interfaces", required_argument, nullptr, 'i'},
    {"counters", required_argument, nullptr, 'c'},
    {"traffic-classes", required_argument, nullptr, kTrafficClasses},
    {"counters-per-template", required_argument, nullptr, kPerTemplate},
    {"interval-us", required_argument, nullptr, kIntervalUs},
    {"rate", required_argument, nullptr, 'r'},
    {"samples", required_argument, nullptr, 's'},
    {"duration", required_argument, nullptr, 'D'},
    {"datagram", required_argument, nullptr, kDatagram},
    {"announce-period", required_argument, nullptr, kAnnounce},
    {"loss", required_argument, nullptr, kLoss},
    {"loss-every", required_argument, nullptr, kLossEvery},
    {"reorder", required_argument, nullptr, kReorder},
    {"seed", required_argument, nullptr, kSeed},
    {"start-time", required_argument, nullptr, kStartTime},
    {"max-datagram", required_argument, nullptr, kMaxDatagram},
    {"export-time", required_argument, nullptr, kExportTime},
    {"sequence", required_argument, nullptr, kSequence},
    {"interleave", no_argument, nullptr, kInterleave},
    {"fragments-per-message", required_argument, nullptr, kFragmentsPerMessage},
    {"withdraw-at", required_argument, nullptr, kWithdrawAt},
    {"value-base", required_argument, nullptr, kValueBase},
    {"burst", required_argument, nullptr, kBurst},
    {nullptr, 0, nullptr, 0},
};

bool ParseUnsigned(const char* text, uint64_t max, uint64_t& out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || value > max) return false;
  out = value;
  return true;
}

bool ParseNonNegative(const char* text, double& out) {
  if (text == nullptr || *text == '\0' || *text == '-') return false;
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (*end != '\0' || !std::isfinite(value) || value < 0) return false;
  out = value;
  return true;
}

// Comma-separated list without empty items.
bool ParseList(const char* text, std::vector<std::string>& out) {
  std::vector<std::string> items;
  std::string current;
  for (const char* p = text;; ++p) {
    if (*p == ',' || *p == '\0') {
      if (current.empty()) return false;
      items.push_back(current);
      current.clear();
      if (*p == '\0') break;
    } else {
      current.push_back(*p);
    }
  }
  out = std::move(items);
  return true;
}

template <typename T>
bool ParseInto(const char* text, T& out) {
  uint64_t value = 0;
  if (!ParseUnsigned(text, std::numeric_limits<T>::max(), value)) return false;
  out = static_cast<T>(value);
  return true;
}

bool Apply(int code, const char* arg, SimConfig& config) {
  switch (code) {
    case 't':
      config.target = arg;
      return true;
    case 'n':
      config.switch_name = arg;
      return true;
    case 'd':
      return ParseInto(arg, config.observation_domain);
    case 'e':
      return ParseInto(arg, config.exporters);
    case kSourcePort:
      return ParseInto(arg, config.source_port);
    case 'i':
      // A plain number is a count of generated names, anything else a list.
      if (*arg >= '0' && *arg <= '9' && ParseInto(arg, config.interface_count)) {
        config.interfaces.clear();
        return true;
      }
      return ParseList(arg, config.interfaces);
    case 'c':
      return ParseList(arg, config.counter_names);
    case kTrafficClasses:
      if (*arg == '\0') {
        config.traffic_classes.clear();
        return true;
      }
      return ParseList(arg, config.traffic_classes);
    case kPerTemplate:
      return ParseInto(arg, config.counters_per_template);
    case kIntervalUs:
      return ParseInto(arg, config.sample_interval_us);
    case kValueBase:
      return ParseInto(arg, config.value_base);
    case kBurst: {
      const char* colon = std::strchr(arg, ':');
      if (colon == nullptr) return false;
      const std::string period(arg, colon);
      return ParseInto(period.c_str(), config.burst_period_us) && ParseInto(colon + 1, config.burst_length_us);
    }
    case 'r':
      return ParseNonNegative(arg, config.rate);
    case 's':
      return ParseInto(arg, config.sample_count);
    case 'D':
      return ParseNonNegative(arg, config.duration_sec);
    case kDatagram:
      if (std::string(arg) == "fragment") {
        config.sample_per_datagram = false;
      } else if (std::string(arg) == "sample") {
        config.sample_per_datagram = true;
      } else {
        return false;
      }
      return true;
    case kAnnounce:
      return ParseNonNegative(arg, config.announce_period_sec);
    case kLoss:
      return ParseNonNegative(arg, config.loss_probability) && config.loss_probability <= 1;
    case kLossEvery:
      return ParseInto(arg, config.loss_every);
    case kReorder:
      return ParseNonNegative(arg, config.reorder_probability) && config.reorder_probability <= 1;
    case kSeed:
      return ParseInto(arg, config.seed);
    case kStartTime: {
      if (std::string(arg) == "now") {
        config.start_time_ns = -1;
        return true;
      }
      double seconds = 0;
      if (!ParseNonNegative(arg, seconds) || seconds > 9.2e9) return false;
      config.start_time_ns = std::llround(seconds * 1e9);
      return true;
    }
    case kMaxDatagram:
      return ParseInto(arg, config.max_datagram_bytes);
    case kExportTime:
      if (std::string(arg) == "sample") {
        config.wall_clock_export_time = false;
      } else if (std::string(arg) == "wall") {
        config.wall_clock_export_time = true;
      } else {
        return false;
      }
      return true;
    case kSequence:
      if (std::string(arg) == "record") {
        config.sequence_mode = SequenceMode::kRecords;
      } else if (std::string(arg) == "message") {
        config.sequence_mode = SequenceMode::kMessages;
      } else if (std::string(arg) == "constant") {
        config.sequence_mode = SequenceMode::kConstant;
      } else {
        return false;
      }
      return true;
    case kInterleave:
      config.interleave_descriptive = true;
      return true;
    case kFragmentsPerMessage:
      return ParseInto(arg, config.fragments_per_message) && config.fragments_per_message > 0;
    case kWithdrawAt: {
      uint64_t sample = 0;
      if (!ParseUnsigned(arg, INT64_MAX, sample)) return false;
      config.withdraw_at_sample = static_cast<int64_t>(sample);
      return true;
    }
    default:
      return false;
  }
}

const char* OptionName(int code) {
  for (const option& entry : kOptions) {
    if (entry.name != nullptr && entry.val == code) return entry.name;
  }
  return "?";
}

}  // namespace

SimOptionsResult ParseSimOptions(int argc, char* argv[], SimConfig& config, std::string& error) {
  // optind 0 makes glibc's getopt start over, so parsing can be repeated.
  optind = 0;
  opterr = 0;
  int code = 0;
  while ((code = getopt_long(argc, argv, "+ht:n:d:e:i:c:r:s:D:", kOptions, nullptr)) != -1) {
    if (code == 'h') return SimOptionsResult::kHelp;
    if (code == '?' || code == ':') {
      const char* given = (optind > 0 && optind <= argc) ? argv[optind - 1] : "?";
      error = optopt != 0 && std::string(given).rfind("--", 0) != 0
                  ? std::string("bad or incomplete option -") + static_cast<char>(optopt)
                  : std::string("bad or incomplete option ") + given;
      return SimOptionsResult::kError;
    }
    if (!Apply(code, optarg, config)) {
      error = std::string("bad value for --") + OptionName(code) + ": '" + (optarg != nullptr ? optarg : "") + "'";
      return SimOptionsResult::kError;
    }
  }
  if (optind < argc) {
    error = std::string("unexpected argument '") + argv[optind] + "'";
    return SimOptionsResult::kError;
  }
  error = config.Validate();
  return error.empty() ? SimOptionsResult::kRun : SimOptionsResult::kError;
}

std::string SimUsageText(const std::string& program) {
  return "Usage: " + program + R"( [options]

Simulates switches that export high-frequency counters as IPFIX over UDP.
Each exporter first announces its templates (256 switch name, 257 counter
names, 258 metadata definitions, 259 metadata mappings, 300.. counters), then
sends one sample per sample interval of sample time: one data record per
counter template, template 300 first with the sample time (seconds and
nanoseconds) before its counters.

Target and identity:
  -t, --target HOST:PORT        collector address, "[v6addr]:port" for IPv6
                                (default 127.0.0.1:4739)
  -n, --switch-name NAME        switch name sent in template 256 (default hft-sim)
  -d, --domain N                observation domain of the first exporter (default 1)
  -e, --exporters N             exporters, each with its own UDP source port and
                                domain = domain + index (default 1)
      --source-port N           UDP source port of the first exporter, the next
                                ones N+1, ... (default: chosen by the kernel); a
                                later run with the same port and domain
                                continues the same session at the collector

Counters:
  -i, --interfaces LIST|N       interface names separated by commas, or a count N
                                giving Ethernet1/1..Ethernet1/N (default 4)
  -c, --counters LIST           counter names separated by commas (default
                                in-octets,out-octets,in-packets,out-packets,
                                in-discards,out-errors)
      --traffic-classes LIST    when given, every counter exists per interface
                                AND per traffic class
      --counters-per-template N counter fields per counter template (default 60);
                                at most 32 counter templates
  Counters are ordered by interface, counter name, traffic class; counter k
  uses element ID 1000+k and metadata definition k+1 ("interface" and, with
  classes, "traffic_class").

Timing:
      --interval-us N           sample interval of the sample time in
                                microseconds (default 100)
      --start-time SEC|now      sample time of sample 0 in seconds since the
                                Unix epoch, fractions allowed (default now)
  -r, --rate N                  samples per second per exporter; 0 sends as fast
                                as possible (default 0)
  -s, --samples N               stop after N samples per exporter (0 = no limit)
  -D, --duration SEC            stop after SEC seconds (0 = no limit); with
                                neither limit, run until SIGINT or SIGTERM
      --announce-period SEC     re-send templates, names and metadata every SEC
                                seconds; 0 sends them once (default 5)
      --export-time sample|wall message export time from the sample time or the
                                wall clock (default sample)

Datagrams:
      --datagram fragment|sample  one counter record per datagram, or a whole
                                sample per datagram (default fragment)
      --max-datagram BYTES      announcement messages are packed up to this
                                size (default 1400)
      --fragments-per-message N pack N counter fragments per message regardless
                                of sample boundaries: a message may end one
                                sample and start the next (default 1)
      --sequence record|message|constant
                                what the message sequence number counts: the
                                data records sent before the message, as IPFIX
                                defines it (default), the messages sent before
                                it, or nothing (always 1000)

Exporter behaviours:
      --interleave              also send descriptive records (switch name,
                                metadata definitions and mappings, unchanged)
                                between the fragments of samples: every 4th
                                sample in the message of its first fragment,
                                every 4th (2 later) in messages of their own
                                right after that message
      --withdraw-at S           before sample S withdraw the highest counter
                                template (a template record with no fields)
                                and export the later samples without it

Fault injection (counter fragments only):
      --loss P                  drop each fragment with probability P (0..1)
      --loss-every N            drop every Nth fragment of each exporter
      --reorder P               swap a fragment with the next one of its sample
                                with probability P (0..1)
      --seed N                  seed of the loss and reorder decisions (default 1)
  A dropped fragment is missing from what is sent; when a message carries
  several fragments, the whole message is lost with it. A swap reorders
  datagrams as the network would, each keeping its sequence number (with
  several fragments per message: the messages of two neighbouring fragments);
  with a whole sample per datagram it reorders the sample's records.

  -h, --help                    show this text

Counter values: counter k (0 = first counter of template 300, counting on
through 301, 302, ...) in sample i (0 = first) holds, modulo 2^64,
    value = (i + 1) * 1000003 + k * 7919 + (k << 40) + B
so a receiver can check every stored value. B is 0 unless given:
      --value-base B            add B to every value, modulo 2^64 (e.g.
                                18446744072709551616, 2^64 - 10^9, makes the
                                first counter wrap after sample 998)
      --burst PERIOD_US:LENGTH_US
                                microbursts: the first LENGTH_US of every
                                PERIOD_US of sample time are burst samples,
                                each adding (k % 4 + 1) * 1000003 more to
                                counter k (k % 4 + 2 times the usual growth);
                                both multiples of the sample interval

Prints a one-line summary of what was sent when done or stopped.
Exit status: 0 ok, 1 runtime error (e.g. the target cannot be resolved),
2 usage error.
)";
}

}  // namespace dtl::hftsim

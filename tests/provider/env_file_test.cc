// The service's environment file, packaging/dtl-host.env: it documents every
// option the provider reads, in the DTL_ form the provider reads it, names
// no variable the provider would ignore, and its defaults are the provider's.
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "dtl_dict.h"
#include "provider/provider_config.h"

namespace {

// ipfix-receiver-port is DTL_IPFIX_RECEIVER_PORT.
std::string Variable(std::string key) {
  for (char& c : key) c = c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return "DTL_" + key;
}

// The file's "#DTL_NAME=default" lines.
std::map<std::string, std::string> DocumentedVariables() {
  std::ifstream file(DTL_SOURCE_DIR "/packaging/dtl-host.env");
  const std::regex form("#(DTL_[A-Z0-9_]+)=(.*)");
  std::map<std::string, std::string> variables;
  std::smatch match;
  for (std::string line; std::getline(file, line);)
    if (std::regex_match(line, match, form)) variables[match[1]] = match[2];
  return variables;
}

TEST(EnvironmentFile, DocumentsEveryOptionAndNoOther) {
  const auto documented = DocumentedVariables();
  ASSERT_FALSE(documented.empty());
  std::vector<std::string> keys = dtl::ipfix::FixedKeys();
  for (const std::string& suffix : dtl::ipfix::SwitchKeySuffixes()) keys.push_back("switch-1-" + suffix);
  for (const std::string& key : keys) EXPECT_EQ(documented.count(Variable(key)), 1u) << key;
  EXPECT_EQ(documented.count("DTL_API_LOG_LEVEL"), 1u);
  for (const auto& [variable, value] : documented) {
    std::string key = variable.substr(4);
    for (char& c : key) c = c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    EXPECT_TRUE(variable == "DTL_API_LOG_LEVEL" || dtl::ipfix::IsKnownKey(key)) << variable;
  }
}

// What the readers make of the options, as text.
std::string Describe(const dtl_custom_options* options) {
  const dtl::ipfix::CollectorConfig c = dtl::ipfix::ReadCollectorConfig(options);
  const dtl::ipfix::SwitchDefaults s = dtl::ipfix::ReadSwitchDefaults(options, c.port);
  const dtl::ipfix::DiskWriterConfig& d = c.disk;
  std::ostringstream text;
  text << c.port << ' ' << c.max_sessions << ' ' << c.recv_buffer_size << ' ' << c.workers << ' ' << c.busy_poll_us
       << ' ' << c.backoff_min_us << ' ' << c.backoff_max_us << " '" << c.bind_device << "' " << c.session_timeout_sec
       << ' ' << c.status_interval_sec << " '" << d.counters_template << "' " << d.file_size_limit << ' '
       << d.file_time_limit_sec << ' ' << d.data_size_limit << ' ' << d.low_watermark << ' ' << d.direct_io << ' '
       << d.iosqe_async << ' ' << d.batch_count << ' ' << d.flush_idle_ms << " | " << s.port << ' ' << s.username
       << ' ' << s.password << ' ' << s.insecure << " '" << s.collector_ip << "' " << s.sample_interval_usec << ' '
       << s.hft_duration_sec << " '" << s.vrf << "' " << s.counters_text << " '" << s.traffic_classes_text << "' '"
       << s.priority_groups_text << "' '" << s.priorities_text << "'";
  return text.str();
}

// The file's values set as they stand change nothing. The data root is the
// service's own (the provider has none), so it is left out.
TEST(EnvironmentFile, DefaultsAreTheProvidersOwn) {
  dtl_custom_options* options = dtl_dict_create();
  const std::string defaults = Describe(options);
  std::vector<std::string> set;
  for (const auto& [variable, value] : DocumentedVariables()) {
    if (value.empty() || variable == "DTL_IPFIX_DATA_PATH" || variable == "DTL_API_LOG_LEVEL") continue;
    setenv(variable.c_str(), value.c_str(), 1);
    set.push_back(variable);
  }
  EXPECT_GT(set.size(), 20u);
  EXPECT_EQ(Describe(options), defaults);
  for (const std::string& variable : set) unsetenv(variable.c_str());
  dtl_dict_delete(options);
}

}  // namespace

// The provider as a host sees it: its options, read strictly; its record,
// loaded from the built plug-in; start and stop against stand-in switches.
// (dtl-host's tests cover the roll-back of a start that fails part-way.)
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dtl_dict.h"
#include "dtl_event_provider.h"
#include "dtl_source.h"
#include "provider/ipfix_provider_context.h"
#include "support/free_udp_port.h"
#include "support/log_capture.h"
#include "support/quil_mock.h"
#include "support/wait_for.h"

namespace {

using dtl_test::LogCapture;
using Strings = std::vector<std::string>;

class Options {
 public:
  Options() : dict_(dtl_dict_create()) {}
  ~Options() { dtl_dict_delete(dict_); }
  Options& Add(const std::string& key, const std::string& value) {
    dtl_dict_add(dict_, key.c_str(), value.c_str());
    return *this;
  }
  const dtl_custom_options* get() const { return dict_; }

 private:
  dtl_custom_options* dict_;
};

// Owns a record and releases it through its own destroy callback.
class Provider {
 public:
  explicit Provider(const Options& options) : record_(construct_event_provider(options.get())) {}
  ~Provider() {
    if (record_ != nullptr) record_->destroy(record_);
  }
  dtl_event_provider_t* get() const { return record_; }
  dtl::ipfix::IpfixProviderContext& context() const {
    return *static_cast<dtl::ipfix::IpfixProviderContext*>(record_->context);
  }
  bool Start() { return record_->start(record_); }
  bool Stop() { return record_->stop(record_); }

 private:
  dtl_event_provider_t* record_;
};

// Sets (nullptr: unsets) environment variables, all unset again at the end
// of the scope.
struct ScopedEnv {
  ~ScopedEnv() {
    for (const std::string& name : names) unsetenv(name.c_str());
  }
  void Set(const std::string& name, const char* value) {
    names.push_back(name);
    value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
  }
  std::vector<std::string> names;
};

std::string Summary(const dtl::ipfix::QuilSwitchConfigurator::Config& c) {
  const auto join = [](const Strings& list) {
    std::string text;
    for (const std::string& item : list) text += (text.empty() ? "" : ",") + item;
    return text;
  };
  return c.host + ":" + std::to_string(c.port) + " " + c.username + "/" + c.password +
         " insecure=" + std::to_string(c.insecure) + " collector=" + c.collector_ip + ":" +
         std::to_string(c.collector_port) + " duration=" + std::to_string(c.hft_duration_sec) +
         " interfaces=" + join(c.interfaces) + " counters=" + join(c.counters) + " classes=" + join(c.traffic_classes);
}

// Each value is read strictly: an accepted one shows in the log lines as
// the value it became; a refused one ends the construction with an error
// naming the key, the value and what the key accepts. Misspelt keys of this
// provider's families are named with the key they were probably meant as.
TEST(ProviderOptions, ValuesAreCheckedAndUnknownKeysNamed) {
  const struct {
    const char *key, *value;
    bool accepted;
    const char* fragment;  // in the log when accepted, else in the error
  } rows[] = {
      {"ipfix-receiver-port", "65535", true, "port=65535 "},
      {"ipfix-receiver-port", "", true, "port=4739 "},
      {"ipfix-receiver-workers", "0", true, "workers=1 "},
      {"ipfix-disk-data-size-limit", "10G", true, "data_size_limit=10737418240 "},
      {"ipfix-disk-data-size-low-watermark", "512KiB", true, "low_watermark=524288 "},
      {"ipfix-disk-data-size-limit", "3b", true, "data_size_limit=3 "},
      {"ipfix-disk-direct-io", "OFF", true, "direct_io=0 "},
      {"ipfix-iouring-iosqe-async", "Yes", true, "iosqe_async=1 "},
      {"switch-1-port", "9443", true, "port=9443 user="},
      {"other-plugin-rate", "x", true, "port=4739 "},  // not this provider's key
      {"ipfix-reciever-port", "1", true,
       "4 [ipfix bin data provider] Unknown option 'ipfix-reciever-port' is ignored; did you "
       "mean 'ipfix-receiver-port'?"},
      {"switch-1-usrname", "x", true, "did you mean 'switch-1-username'?"},
      {"collector-adress", "x", true, "did you mean 'collector-ip'?"},
      {"ipfix-receiver-port", "abc", false, "a whole number from 1 to 65535"},
      {"ipfix-receiver-port", "0", false, "a whole number from 1 to 65535"},
      {"ipfix-receiver-workers", "-1", false, "a whole number from 0 to 1024"},
      {"ipfix-receiver-max-sessions", "12abc", false, "a whole number from 1 to 4294967295"},
      {"ipfix-disk-file-time-limit", "4294967296", false, "from 0 to 4294967295"},
      {"ipfix-disk-data-size-limit", "10X", false, "K, M, G or T (powers of 1024"},
      {"ipfix-disk-data-size-limit", "16777216T", false, "a size in bytes"},
      {"ipfix-disk-direct-io", "maybe", false, "true/false, yes/no, on/off or 1/0"},
      {"switch-port", "8x", false, "a whole number from 1 to 65535"},
      {"switch-1-insecure", "nope", false, "true/false"},
      {"switch-1-hft-duration", "-5", false, "a whole number from 0 to 4294967295"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.key) + "=" + row.value);
    LogCapture log;
    Options options;
    options.Add("switch-1-ip", "10.0.0.1").Add(row.key, row.value);
    Provider provider(options);
    const std::string fragment = row.fragment;
    if (row.accepted) {
      ASSERT_NE(provider.get(), nullptr);
      EXPECT_EQ(LogCapture::Count(fragment), 1u);
    } else {
      EXPECT_EQ(provider.get(), nullptr);
      const std::string error = "3 [ipfix bin data provider] failed to construct ipfix provider: option " +
                                std::string(row.key) + "='" + row.value + "' is not accepted: expected ";
      ASSERT_EQ(LogCapture::Count(error), 1u);
      EXPECT_NE(LogCapture::Matching(error)[0].find(fragment), std::string::npos);
    }
    EXPECT_EQ(LogCapture::Count("Unknown option") > 0, fragment.find("did you mean") != std::string::npos);
  }
}

// The dictionary beats the DTL_ environment variable, which beats the bare
// one. The numbered switch list ends at its first gap and wins over the
// single switch; per-switch keys (and their environment variables)
// override the global ones; names are resolved; the password is never logged.
TEST(ProviderOptions, WhereValuesComeFrom) {
  LogCapture log;
  ScopedEnv env;
  env.Set("DTL_IPFIX_RECEIVER_PORT", "5002");  // the dictionary wins
  env.Set("IPFIX_RECEIVER_PORT", "5003");
  env.Set("DTL_IPFIX_RECEIVER_WORKERS", "3");  // the prefixed variable wins
  env.Set("IPFIX_RECEIVER_WORKERS", "2");
  env.Set("DTL_IPFIX_RECEIVER_BUSY_POLL_US", nullptr);  // only the bare variable
  env.Set("IPFIX_RECEIVER_BUSY_POLL_US", "7");
  env.Set("DTL_AD_HOC_DATA_ROOT", "/data/b");
  env.Set("DTL_SWITCH_2_USERNAME", "second");
  Options options;
  options.Add("ipfix-receiver-port", "5001").Add("ipfix-data-path", "/data/a");
  options.Add("switch-1-ip", "10.0.0.1").Add("switch-2-ip", "localhost").Add("switch-4-ip", "10.0.0.4");
  options.Add("switch-ip", "10.0.0.9");
  options.Add("switch-username", "admin").Add("switch-password", "secret-pw").Add("switch-port", "9443");
  options.Add("collector-ip", "192.168.1.5").Add("switch-hft-duration", "60").Add("switch-traffic-classes", "0,3");
  options.Add("switch-1-counters", ",").Add("switch-1-interfaces", "eth1,,eth2");
  options.Add("switch-2-port", "9444").Add("switch-2-collector-ip", "no-such-host.invalid");
  options.Add("switch-2-traffic-classes", "7").Add("switch-2-insecure", "off");
  Provider provider(options);
  ASSERT_NE(provider.get(), nullptr);
  const auto& config = provider.context().config;
  EXPECT_EQ(config.port, 5001);
  EXPECT_EQ(config.workers, 3u);
  EXPECT_EQ(config.busy_poll_us, 7u);
  EXPECT_EQ(config.disk.root, "/data/a");
  ASSERT_EQ(provider.context().switches.size(), 2u);
  const auto& second = provider.context().switches[1]->config();
  EXPECT_EQ(Summary(provider.context().switches[0]->config()),
            "10.0.0.1:9443 admin/secret-pw insecure=1 collector=192.168.1.5:5001 duration=60 interfaces=eth1,eth2 "
            "counters= classes=0,3");  // a lone comma empties a list
  EXPECT_TRUE(second.host == "127.0.0.1" || second.host == "::1") << second.host;
  EXPECT_EQ(Summary(second), second.host + ":9444 second/secret-pw insecure=0 collector=no-such-host.invalid:5001 "
                                           "duration=60 interfaces= counters=tx-byte,rx-byte classes=7");
  EXPECT_EQ(LogCapture::LevelOf("DNS resolution failed for 'no-such-host.invalid' — using as-is"),
            DTL_LOG_LEVEL_WARNING);
  EXPECT_EQ(LogCapture::Count("secret-pw"), 0u);
  Options ad_hoc;
  ad_hoc.Add("ipfix-data-path", "").Add("ad-hoc-data-root", "/data/c");
  EXPECT_EQ(Provider(ad_hoc).context().config.disk.root, "/data/c");
  Options single;
  single.Add("switch-ip", "10.1.1.1").Add("collector-ip", "10.9.9.9").Add("switch-collector-ip", "10.8.8.8");
  Provider one(single);
  ASSERT_EQ(one.context().switches.size(), 1u);
  EXPECT_EQ(Summary(one.context().switches[0]->config()),
            "10.1.1.1:8765 velmora/velmora insecure=1 collector=10.8.8.8:5002 duration=0 interfaces= "
            "counters=tx-byte,rx-byte classes=");  // the receiver's port from DTL_IPFIX_RECEIVER_PORT
}

// The record's layout is the host's ABI: checked on the built plug-in.
TEST(EventProvider, LoadedPluginRecord) {
  void* handle = dlopen(DTL_BINARY_DIR "/lib/libipfix_bin_data_provider.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto construct = reinterpret_cast<decltype(&construct_event_provider)>(dlsym(handle, "construct_event_provider"));
  auto destroy_sources =
      reinterpret_cast<decltype(&dtl_destroy_source_array)>(dlsym(handle, "dtl_destroy_source_array"));
  ASSERT_TRUE(construct && destroy_sources);
  dtl_event_provider_t* record = construct(nullptr);
  ASSERT_NE(record, nullptr);
  const auto* raw = reinterpret_cast<const unsigned char*>(record);
  uint64_t header;
  memcpy(&header, raw, sizeof(header));
  EXPECT_EQ(header, 1u);
  EXPECT_STREQ(record->name, "ipfix_bin_data_provider");
  for (int slot : {3, 6, 14, 15, 16, 17, 18}) {
    void* value;
    memcpy(&value, raw + 8 * slot, sizeof(value));
    EXPECT_EQ(value, nullptr) << "slot " << slot;
  }
  EXPECT_FALSE(record->aux_query(record, nullptr));
  EXPECT_TRUE(record->initialize(record, nullptr));
  dtl_source_array_t* sources = record->get_sources(record);
  ASSERT_NE(sources, nullptr);
  ASSERT_EQ(sources->count, 1u);
  EXPECT_STREQ(sources->sources[0]->identifier, "ipfix");
  destroy_sources(sources);
  record->destroy(nullptr);  // ignored
  record->destroy(record);
  dlclose(handle);
}

// Switch durations → the auto-stop timeout the host is told; none (the
// field untouched) when some switch has no time limit.
TEST(EventProvider, AutoStopTimeout) {
  const struct {
    Strings durations;
    uint32_t mask, timeout;
  } rows[] = {
      {{}, 13, 0xABABABABu},
      {{"10", "30"}, 29, 35},
      {{"10", "30", ""}, 13, 0xABABABABu},
      {{"4294967294"}, 29, 4294967295u},  // the longest, not a wrapped one
  };
  for (const auto& row : rows) {
    Options options;
    for (size_t i = 0; i < row.durations.size(); ++i) {
      const std::string prefix = "switch-" + std::to_string(i + 1) + "-";
      options.Add(prefix + "ip", "10.0.0.1");
      if (!row.durations[i].empty()) options.Add(prefix + "hft-duration", row.durations[i]);
    }
    Provider provider(options);
    dtl_provider_info_t info;
    memset(&info, 0xAB, sizeof(info));
    ASSERT_TRUE(provider.get()->fill_info(provider.get(), nullptr, &info));
    EXPECT_EQ(info.mask, row.mask);
    EXPECT_EQ(info.value_u16, 256u);
    EXPECT_EQ(info.auto_stop_timeout_sec, row.timeout);
  }
}

// "hft-sim stopped" once the switch's export was enabled and then withdrawn.
std::string LastEvent(const QuilMock& mock) {
  std::string last;
  for (const auto& entry : mock.Journal())
    if (!entry.event.empty()) last = entry.event;
  return last;
}

// A stand-in switch streaming to port, and the options of a provider
// receiving on that port that configures the switch.
std::unique_ptr<QuilMock> StartSwitch(uint16_t port, Options& options) {
  QuilMock::Options mock_options;
  mock_options.ipfix_port = port;
  auto mock = std::make_unique<QuilMock>(mock_options);
  options.Add("ipfix-receiver-port", std::to_string(port)).Add("ipfix-receiver-workers", "1");
  options.Add("collector-ip", "127.0.0.1").Add("switch-interfaces", "Ethernet1/1");
  options.Add("switch-1-ip", "127.0.0.1").Add("switch-1-port", std::to_string(mock->port()));
  return mock;
}

// No switch is asked to export towards a collector that cannot take it.
TEST(SwitchStart, TakenPortFailsTheStartBeforeAnySwitchIsTouched) {
  LogCapture log;
  const uint16_t port = dtl_test::FreeUdpPort();
  Options options;
  auto mock = StartSwitch(port, options);
  ASSERT_TRUE(port != 0 && mock->ok());
  const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  Provider provider(options);
  EXPECT_FALSE(provider.Start());
  close(fd);
  EXPECT_EQ(LogCapture::LevelOf("the IPFIX receiver did not start (UDP port " + std::to_string(port) +
                                " is already in use"),
            DTL_LOG_LEVEL_ERROR);
  EXPECT_TRUE(mock->Journal().empty());
}

// The enabled switch's export reaches the receiver and decodes; the stop
// withdraws it.
TEST(SwitchStart, EnabledSwitchStreamsToTheReceiverUntilTheStop) {
  const uint16_t port = dtl_test::FreeUdpPort();
  Options options;
  auto mock = StartSwitch(port, options);
  ASSERT_TRUE(port != 0 && mock->ok());
  Provider provider(options);
  ASSERT_TRUE(provider.Start()) << mock->LogText();
  EXPECT_TRUE(dtl_test::WaitFor([&] { return provider.context().receiver->GetStats().parsed > 0; },
                                std::chrono::seconds(20)));
  EXPECT_TRUE(provider.Stop());
  EXPECT_EQ(LastEvent(*mock), "hft-sim stopped");
  EXPECT_FALSE(provider.context().receiver->running());
}

}  // namespace

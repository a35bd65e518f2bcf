// Option reading: precedence and conversion, disk root choice, the switch
// list (numbered and single), per-switch overrides, and the text helpers.
#include <gtest/gtest.h>

#include "provider/option_text.h"
#include "provider/provider_config.h"
#include "provider_test_support.h"

using dtl::ipfix::ResolveHostAddress;
using dtl::ipfix::SplitCommaList;
using provider_test::LogCapture;
using provider_test::Options;
using provider_test::Provider;
using provider_test::ScopedEnv;
using Strings = std::vector<std::string>;

TEST(SplitCommaList, DropsEmptyPiecesAndKeepsBlanks) {
  EXPECT_EQ(SplitCommaList(""), Strings{});
  EXPECT_EQ(SplitCommaList(","), Strings{});
  EXPECT_EQ(SplitCommaList("a,,b,"), (Strings{"a", "b"}));
  EXPECT_EQ(SplitCommaList(",a"), (Strings{"a"}));
  EXPECT_EQ(SplitCommaList("a, b, c"), (Strings{"a", " b", " c"}));
  EXPECT_EQ(SplitCommaList("single"), (Strings{"single"}));
}

TEST(ResolveHostAddress, NumericAndEmptyTextStayAsTheyAreWithoutLogging) {
  LogCapture log;
  EXPECT_EQ(ResolveHostAddress(""), "");
  EXPECT_EQ(ResolveHostAddress("10.0.0.1"), "10.0.0.1");
  EXPECT_EQ(ResolveHostAddress("fe80::1"), "fe80::1");
  EXPECT_TRUE(LogCapture::Snapshot().empty());
}

TEST(ResolveHostAddress, HostNameBecomesItsFirstAddress) {
  LogCapture log;
  const std::string address = ResolveHostAddress("localhost");
  EXPECT_TRUE(address == "127.0.0.1" || address == "::1") << address;
  EXPECT_EQ(LogCapture::Count("[ipfix bin data provider] Resolved 'localhost' -> " + address), 1u);
}

TEST(ResolveHostAddress, UnresolvableNameIsKeptAfterErrorAndWarning) {
  LogCapture log;
  EXPECT_EQ(ResolveHostAddress("no-such-host.invalid"), "no-such-host.invalid");
  EXPECT_EQ(LogCapture::LevelOf("[Utils] [dtl_utils_get_host_ip] getaddrinfo() failed: "),
            DTL_LOG_LEVEL_ERROR);
  EXPECT_EQ(LogCapture::LevelOf("[ipfix bin data provider] DNS resolution failed for "
                                "'no-such-host.invalid' — using as-is"),
            DTL_LOG_LEVEL_WARNING);
}

TEST(ProviderConfig, NoOptionsGiveTheDefaults) {
  LogCapture log;
  Provider provider(nullptr);
  ASSERT_NE(provider.get(), nullptr);
  const auto& config = provider.context().config;
  EXPECT_EQ(config.port, 4739);
  EXPECT_EQ(config.max_sessions, 256u);
  EXPECT_EQ(config.recv_buffer_size, 33554432u);
  EXPECT_EQ(config.workers, 4u);
  EXPECT_EQ(config.busy_poll_us, 80u);
  EXPECT_EQ(config.backoff_min_us, 20u);
  EXPECT_EQ(config.backoff_max_us, 100u);
  EXPECT_EQ(config.session_timeout_sec, 300u);
  EXPECT_EQ(config.disk.root, "");
  EXPECT_EQ(config.disk.file_size_limit, 134217728u);
  EXPECT_EQ(config.disk.file_time_limit_sec, 1800u);
  EXPECT_TRUE(config.disk.direct_io);
  EXPECT_FALSE(config.disk.iosqe_async);
  EXPECT_EQ(config.disk.batch_count, 1000u);
  EXPECT_EQ(config.disk.flush_idle_ms, 1000u);
  EXPECT_TRUE(provider.context().switches.empty());
  EXPECT_EQ(LogCapture::Count("[ipfix bin data provider] No disk root configured (neither "
                              "ipfix-data-path nor ad-hoc-data-root) — disk writer disabled"),
            1u);
  EXPECT_EQ(LogCapture::Count(
                "[ipfix bin data provider] Configuration: port=4739 max_sessions=256 workers=4 "
                "recv_buffer=33554432 bind_device='' disk_root='' counters_template='' direct_io=1 "
                "iosqe_async=0 batch_count=1000 flush_idle_ms=1000 data_size_limit=0 low_watermark=0 "
                "session_timeout=300s"),
            1u);
  EXPECT_EQ(LogCapture::Count("switch(es) for HFT IPFIX"), 0u);
}

TEST(ProviderConfig, DictionaryBeatsPrefixedEnvBeatsBareEnvBeatsDefault) {
  ScopedEnv env;
  Options options;
  // Port: all three sources set; the dictionary wins.
  options.Add("ipfix-receiver-port", "5001");
  env.Set("DTL_IPFIX_RECEIVER_PORT", "5002");
  env.Set("IPFIX_RECEIVER_PORT", "5003");
  // Workers: the prefixed variable wins over the bare one.
  env.Set("DTL_IPFIX_RECEIVER_WORKERS", "3");
  env.Set("IPFIX_RECEIVER_WORKERS", "3");
  // Busy poll: only the bare variable.
  env.Set("DTL_IPFIX_RECEIVER_BUSY_POLL_US", std::nullopt);
  env.Set("IPFIX_RECEIVER_BUSY_POLL_US", "7");
  // Session timeout: nothing set.
  env.Set("DTL_IPFIX_RECEIVER_SESSION_TIMEOUT_SEC", std::nullopt);
  env.Set("IPFIX_RECEIVER_SESSION_TIMEOUT_SEC", std::nullopt);

  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  const auto& config = provider.context().config;
  EXPECT_EQ(config.port, 5001);
  EXPECT_EQ(config.workers, 3u);
  EXPECT_EQ(config.disk.workers, 3u);
  EXPECT_EQ(config.busy_poll_us, 7u);
  EXPECT_EQ(config.session_timeout_sec, 300u);
}

// Each value is read strictly: an accepted one shows in the log lines as
// the value it became; a refused one ends the construction with an error
// naming the key, the value and what the key accepts. Misspelt keys of this
// provider's families are named with the key they were probably meant as.
TEST(ProviderConfig, OptionValuesAreCheckedAndUnknownKeysNamed) {
  struct Case {
    const char* key;
    const char* value;
    bool accepted;
    const char* fragment;  // in the log when accepted, else in the error
  };
  const Case cases[] = {
      {"ipfix-receiver-port", "65535", true, "port=65535 "},
      {"ipfix-receiver-port", "", true, "port=4739 "},
      {"ipfix-receiver-workers", "0", true, "workers=1 "},
      {"ipfix-disk-data-size-limit", "10G", true, "data_size_limit=10737418240 "},
      {"ipfix-disk-data-size-low-watermark", "512KiB", true, "low_watermark=524288 "},
      {"ipfix-disk-data-size-limit", "3b", true, "data_size_limit=3 "},
      {"ipfix-disk-direct-io", "no", true, "direct_io=0 "},
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
      {"ipfix-receiver-port", "99999", false, "a whole number from 1 to 65535"},
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
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + "=" + c.value);
    LogCapture log;
    Options options;
    options.Add("switch-1-ip", "10.0.0.1").Add(c.key, c.value);
    Provider provider(options.get());
    const std::string fragment = c.fragment;
    if (c.accepted) {
      ASSERT_NE(provider.get(), nullptr);
      EXPECT_EQ(LogCapture::Count(fragment), 1u);
    } else {
      EXPECT_EQ(provider.get(), nullptr);
      const std::string error = "3 [ipfix bin data provider] failed to construct ipfix provider: "
                                "option " + std::string(c.key) + "='" + c.value +
                                "' is not accepted: expected ";
      ASSERT_EQ(LogCapture::Count(error), 1u);
      EXPECT_NE(LogCapture::Matching(error)[0].find(fragment), std::string::npos);
    }
    EXPECT_EQ(LogCapture::Count("Unknown option") > 0,
              fragment.find("did you mean") != std::string::npos);
  }
}

TEST(ProviderConfig, DiskOptionsAndRootChoice) {
  {
    LogCapture log;
    ScopedEnv env;
    Options options;
    options.Add("ipfix-data-path", "/data/a")
        .Add("ipfix-disk-counters-template", "{{node}}.bin")
        .Add("ipfix-disk-file-size-limit", "4096")
        .Add("ipfix-disk-data-size-limit", "1000000")
        .Add("ipfix-disk-data-size-low-watermark", "500000")
        .Add("ipfix-disk-batch-count", "8");
    env.Set("DTL_AD_HOC_DATA_ROOT", "/data/b");
    Provider provider(options.get());
    ASSERT_NE(provider.get(), nullptr);
    const auto& disk = provider.context().config.disk;
    EXPECT_EQ(disk.root, "/data/a");
    EXPECT_EQ(disk.counters_template, "{{node}}.bin");
    EXPECT_EQ(disk.file_size_limit, 4096u);
    EXPECT_EQ(disk.data_size_limit, 1000000u);
    EXPECT_EQ(disk.low_watermark, 500000u);
    EXPECT_EQ(disk.batch_count, 8u);
    EXPECT_EQ(LogCapture::Count(
                  "[ipfix bin data provider] Disk root '/data/a' taken from ipfix-data-path"),
              1u);
    EXPECT_EQ(LogCapture::Count("ad-hoc-data-root"), 0u);
  }
  {
    LogCapture log;
    Options options;
    options.Add("ipfix-data-path", "").Add("ad-hoc-data-root", "/data/b");
    Provider provider(options.get());
    ASSERT_NE(provider.get(), nullptr);
    EXPECT_EQ(provider.context().config.disk.root, "/data/b");
    EXPECT_EQ(LogCapture::Count(
                  "[ipfix bin data provider] Disk root '/data/b' taken from ad-hoc-data-root"),
              1u);
  }
}

TEST(ProviderSwitches, NumberedListEndsAtTheFirstGapAndWinsOverTheSingleSwitch) {
  LogCapture log;
  Options options;
  options.Add("switch-1-ip", "10.0.0.1")
      .Add("switch-3-ip", "10.0.0.3")
      .Add("switch-ip", "10.0.0.9")
      .Add("ipfix-receiver-port", "4800");
  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  const auto& switches = provider.context().switches;
  ASSERT_EQ(switches.size(), 1u);
  EXPECT_EQ(switches[0]->config().host, "10.0.0.1");
  EXPECT_EQ(switches[0]->config().collector_port, 4800);
  EXPECT_EQ(LogCapture::Count("[ipfix bin data provider] Configured 1 switch(es) for HFT IPFIX"), 1u);
}

TEST(ProviderSwitches, PerSwitchKeysOverrideTheGlobalOnes) {
  LogCapture log;
  ScopedEnv env;
  env.Set("DTL_SWITCH_2_USERNAME", "second");
  Options options;
  options.Add("switch-1-ip", "10.0.0.1")
      .Add("switch-2-ip", "10.0.0.2")
      .Add("switch-username", "admin")
      .Add("switch-password", "secret-pw")
      .Add("switch-port", "9443")
      .Add("switch-insecure", "false")
      .Add("collector-ip", "192.168.1.5")
      .Add("switch-hft-duration", "60")
      .Add("switch-sample-interval-usec", "250")
      .Add("switch-vrf", "mgmt")
      .Add("switch-traffic-classes", "0,3")
      .Add("switch-1-counters", ",")
      .Add("switch-1-interfaces", "eth1,eth2")
      .Add("switch-2-port", "9444")
      .Add("switch-2-collector-ip", "192.168.2.5")
      .Add("switch-2-hft-duration", "30")
      .Add("switch-2-traffic-classes", "7");
  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  const auto& switches = provider.context().switches;
  ASSERT_EQ(switches.size(), 2u);

  const auto& first = switches[0]->config();
  EXPECT_EQ(first.host, "10.0.0.1");
  EXPECT_EQ(first.port, 9443);
  EXPECT_EQ(first.username, "admin");
  EXPECT_EQ(first.password, "secret-pw");
  EXPECT_FALSE(first.insecure);
  EXPECT_EQ(first.collector_ip, "192.168.1.5");
  EXPECT_EQ(first.collector_port, 4739);
  EXPECT_EQ(first.sample_interval_usec, 250u);
  EXPECT_EQ(first.hft_duration_sec, 60u);
  EXPECT_EQ(first.vrf, "mgmt");
  EXPECT_EQ(first.interfaces, (Strings{"eth1", "eth2"}));
  EXPECT_EQ(first.counters, Strings{});  // a lone comma empties the list
  EXPECT_EQ(first.traffic_classes, (Strings{"0", "3"}));
  EXPECT_EQ(first.priorities, Strings{});

  const auto& second = switches[1]->config();
  EXPECT_EQ(second.username, "second");
  EXPECT_EQ(second.port, 9444);
  EXPECT_EQ(second.collector_ip, "192.168.2.5");
  EXPECT_EQ(second.hft_duration_sec, 30u);
  EXPECT_EQ(second.interfaces, Strings{});
  EXPECT_EQ(second.counters, (Strings{"tx-byte", "rx-byte"}));
  EXPECT_EQ(second.traffic_classes, (Strings{"7"}));

  EXPECT_EQ(LogCapture::Count(
                "[ipfix bin data provider] QUIL switch config: ip=10.0.0.1 port=9443 user=admin "
                "collector=192.168.1.5:4739 interfaces=eth1,eth2 counters=, traffic-class=0,3 "
                "priority-group= switch-priority="),
            1u);
  EXPECT_EQ(LogCapture::Count(
                "[ipfix bin data provider] QUIL switch config: ip=10.0.0.2 port=9444 user=second "
                "collector=192.168.2.5:4739 interfaces= counters=tx-byte,rx-byte traffic-class=7 "),
            1u);
  EXPECT_EQ(LogCapture::Count("secret-pw"), 0u);
}

TEST(ProviderSwitches, SingleSwitchReadsTheSwitchPrefixedKeys) {
  Options options;
  options.Add("switch-ip", "10.1.1.1")
      .Add("switch-interfaces", "Ethernet1/1,Ethernet1/2")
      .Add("collector-ip", "10.9.9.9")
      .Add("switch-counters", "rx-pkt")
      .Add("ipfix-receiver-port", "4741");
  {
    Provider provider(options.get());
    ASSERT_NE(provider.get(), nullptr);
    ASSERT_EQ(provider.context().switches.size(), 1u);
    const auto& config = provider.context().switches[0]->config();
    EXPECT_EQ(config.host, "10.1.1.1");
    EXPECT_EQ(config.interfaces, (Strings{"Ethernet1/1", "Ethernet1/2"}));
    EXPECT_EQ(config.collector_ip, "10.9.9.9");
    EXPECT_EQ(config.collector_port, 4741);
    EXPECT_EQ(config.counters, (Strings{"rx-pkt"}));
  }
  options.Add("switch-collector-ip", "10.8.8.8");
  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  EXPECT_EQ(provider.context().switches[0]->config().collector_ip, "10.8.8.8");
}

// The provider record as a host sees it: slots, callbacks, info and sources,
// both linked in and loaded from the built plug-in with dlopen.
#include <dlfcn.h>

#include <cstring>

#include <gtest/gtest.h>

#include "dtl_source.h"
#include "provider_test_support.h"

using provider_test::LogCapture;
using provider_test::FreeUdpPort;
using provider_test::Options;
using provider_test::Provider;

namespace {

void ExpectRecordLayout(const dtl_event_provider_t* record) {
  const auto* raw = reinterpret_cast<const unsigned char*>(record);
  uint64_t slot0;
  memcpy(&slot0, raw, sizeof(slot0));
  EXPECT_EQ(slot0, 1u);
  EXPECT_STREQ(record->name, "ipfix_bin_data_provider");
  EXPECT_STREQ(record->description, "Receiving IPFIX HFT data over UDP");
  EXPECT_NE(record->context, nullptr);
  for (int slot : {3, 6, 14, 15, 16, 17, 18}) {
    void* value;
    memcpy(&value, raw + 8 * slot, sizeof(value));
    EXPECT_EQ(value, nullptr) << "slot " << slot;
  }
  EXPECT_NE(record->initialize, nullptr);
  EXPECT_NE(record->start, nullptr);
  EXPECT_NE(record->stop, nullptr);
  EXPECT_NE(record->destroy, nullptr);
  EXPECT_NE(record->get_sources, nullptr);
  EXPECT_NE(record->fill_info, nullptr);
  ASSERT_NE(record->aux_query, nullptr);
  ASSERT_NE(record->aux_hook, nullptr);
}

dtl_provider_info_t FillInfo(dtl_event_provider_t* record) {
  dtl_provider_info_t info;
  memset(&info, 0xAB, sizeof(info));
  EXPECT_TRUE(record->fill_info(record, nullptr, &info));
  return info;
}

}  // namespace

TEST(EventProvider, RecordSlotsAndTrivialCallbacks) {
  LogCapture log;
  Provider provider(nullptr);
  ASSERT_NE(provider.get(), nullptr);
  ExpectRecordLayout(provider.get());
  EXPECT_FALSE(provider->aux_query(provider.get(), nullptr));
  provider->aux_hook(provider.get(), nullptr);
  EXPECT_TRUE(provider->initialize(provider.get(), nullptr));
  EXPECT_EQ(LogCapture::Count("[ipfix bin data provider] initialize"), 1u);
  EXPECT_FALSE(provider.context().receiver->running());
}

TEST(EventProvider, FillInfoReportsTheAutoStopTimeout) {
  LogCapture log;
  {
    Provider provider(nullptr);  // no switch
    const dtl_provider_info_t info = FillInfo(provider.get());
    EXPECT_EQ(info.mask, 13u);
    EXPECT_EQ(info.value_u32, 0u);
    EXPECT_EQ(info.value_u16, 256u);
    EXPECT_EQ(info.value_u8, 1u);
    EXPECT_EQ(info.auto_stop_timeout_sec, 0xABABABABu);  // untouched
  }
  Options options;
  options.Add("switch-1-ip", "10.0.0.1").Add("switch-1-hft-duration", "10");
  options.Add("switch-2-ip", "10.0.0.2").Add("switch-2-hft-duration", "30");
  {
    Provider provider(options.get());
    ASSERT_EQ(provider.context().switches.size(), 2u);
    const dtl_provider_info_t info = FillInfo(provider.get());
    EXPECT_EQ(info.mask, 29u);
    EXPECT_EQ(info.auto_stop_timeout_sec, 35u);
    EXPECT_EQ(LogCapture::Count("[ipfix bin data provider] Auto-stop timeout: 35s (max switch "
                                "duration 30s + 5s delta)"),
              1u);
  }
  {
    // The longest possible window gives the longest timeout, not a wrapped one.
    Options longest;
    longest.Add("switch-1-ip", "10.0.0.1").Add("switch-1-hft-duration", "4294967294");
    Provider provider(longest.get());
    EXPECT_EQ(FillInfo(provider.get()).auto_stop_timeout_sec, 4294967295u);
  }
  // One switch without a time limit: no timeout at all.
  options.Add("switch-3-ip", "10.0.0.3");
  Provider provider(options.get());
  ASSERT_EQ(provider.context().switches.size(), 3u);
  const dtl_provider_info_t info = FillInfo(provider.get());
  EXPECT_EQ(info.mask, 13u);
  EXPECT_EQ(info.auto_stop_timeout_sec, 0xABABABABu);
}

TEST(EventProvider, GetSourcesGivesOneIpfixSource) {
  Provider provider(nullptr);
  dtl_source_array_t* sources = provider->get_sources(provider.get());
  ASSERT_NE(sources, nullptr);
  ASSERT_EQ(sources->count, 1u);
  EXPECT_STREQ(sources->sources[0]->identifier, "ipfix");
  EXPECT_STREQ(sources->sources[0]->tag, "ipfix");
  dtl_destroy_source_array(sources);
}

TEST(EventProvider, DestroyAcceptsNullAndContextlessRecords) {
  Provider provider(nullptr);
  provider->destroy(nullptr);
  auto* bare = static_cast<dtl_event_provider_t*>(calloc(1, sizeof(dtl_event_provider_t)));
  provider->destroy(bare);  // frees the record only
}

TEST(EventProvider, StartAndStopWithoutSwitchesRunTheReceiver) {
  const uint16_t port = FreeUdpPort();
  ASSERT_NE(port, 0);
  Options options;
  options.Add("ipfix-receiver-port", std::to_string(port)).Add("ipfix-receiver-workers", "1");
  Provider provider(options.get());
  ASSERT_NE(provider.get(), nullptr);
  ASSERT_TRUE(provider->start(provider.get()));
  EXPECT_TRUE(provider.context().receiver->running());
  EXPECT_TRUE(provider->stop(provider.get()));
  EXPECT_FALSE(provider.context().receiver->running());
  // Start again, then destroy while running: the receiver stops itself.
  ASSERT_TRUE(provider->start(provider.get()));
  EXPECT_TRUE(provider.context().receiver->running());
}

TEST(EventProvider, LoadedPluginExposesTheSameRecord) {
  void* handle = dlopen(DTL_BINARY_DIR "/lib/libipfix_bin_data_provider.so", RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto construct =
      reinterpret_cast<dtl_construct_event_provider_fn>(dlsym(handle, "construct_event_provider"));
  auto dict_create = reinterpret_cast<decltype(&dtl_dict_create)>(dlsym(handle, "dtl_dict_create"));
  auto dict_add = reinterpret_cast<decltype(&dtl_dict_add)>(dlsym(handle, "dtl_dict_add"));
  auto dict_delete = reinterpret_cast<decltype(&dtl_dict_delete)>(dlsym(handle, "dtl_dict_delete"));
  auto destroy_sources = reinterpret_cast<decltype(&dtl_destroy_source_array)>(
      dlsym(handle, "dtl_destroy_source_array"));
  ASSERT_TRUE(construct && dict_create && dict_add && dict_delete && destroy_sources);

  dtl_custom_options* options = dict_create();
  ASSERT_NE(options, nullptr);
  ASSERT_TRUE(dict_add(options, "switch-1-ip", "10.0.0.1"));
  ASSERT_TRUE(dict_add(options, "switch-1-hft-duration", "12"));
  dtl_event_provider_t* record = construct(options);
  ASSERT_NE(record, nullptr);
  ExpectRecordLayout(record);
  EXPECT_FALSE(record->aux_query(record, nullptr));
  EXPECT_TRUE(record->initialize(record, nullptr));
  const dtl_provider_info_t info = FillInfo(record);
  EXPECT_EQ(info.mask, 29u);
  EXPECT_EQ(info.auto_stop_timeout_sec, 17u);
  dtl_source_array_t* sources = record->get_sources(record);
  ASSERT_NE(sources, nullptr);
  EXPECT_EQ(sources->count, 1u);
  destroy_sources(sources);
  record->destroy(record);
  dict_delete(options);
  dlclose(handle);
}

// The plug-in entry point and the provider record's callbacks: the C
// boundary towards the host, where every exception ends.
#include <cstdlib>
#include <exception>
#include <memory>

#include "dtl_event_provider.h"
#include "dtl_logger.h"
#include "dtl_source.h"
#include "provider/ipfix_provider_context.h"
#include "provider/provider_config.h"
#include "storage/ipfix_disk_writer.h"

using dtl::ipfix::IpfixProviderContext;

namespace {

constexpr size_t kRecordSize = 152;
static_assert(sizeof(dtl_event_provider_t) == kRecordSize);

IpfixProviderContext* ContextOf(dtl_event_provider_t* provider) {
  return provider == nullptr ? nullptr : static_cast<IpfixProviderContext*>(provider->context);
}

bool ProviderInitialize(dtl_event_provider_t*, void*) {
  DTL_LOG_INFO("[ipfix bin data provider] initialize");
  return true;
}

bool ProviderStart(dtl_event_provider_t* provider) {
  try {
    IpfixProviderContext* context = ContextOf(provider);
    return context != nullptr && context->Start();
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[ipfix bin data provider] failed to start: %s", e.what());
  } catch (...) {
    DTL_LOG_ERROR("[ipfix bin data provider] failed to start: %s", "unknown exception");
  }
  return false;
}

bool ProviderAuxQuery(dtl_event_provider_t*, void*) { return false; }

bool ProviderStop(dtl_event_provider_t* provider) {
  try {
    IpfixProviderContext* context = ContextOf(provider);
    return context != nullptr && context->Stop();
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[ipfix bin data provider] failed to stop: %s", e.what());
  } catch (...) {
    DTL_LOG_ERROR("[ipfix bin data provider] failed to stop: %s", "unknown exception");
  }
  return false;
}

void ProviderDestroy(dtl_event_provider_t* provider) {
  if (provider == nullptr) return;
  delete ContextOf(provider);  // no-op for a record without context
  free(provider);
}

dtl_source_array_t* ProviderGetSources(dtl_event_provider_t*) {
  dtl_source_array_t* array = dtl_create_source_array();
  if (array == nullptr) return nullptr;
  dtl_source_t* source = dtl_create_source("ipfix", "ipfix");
  if (source == nullptr) {
    dtl_destroy_source_array(array);
    return nullptr;
  }
  if (!dtl_source_array_append(array, source)) {
    dtl_destroy_source_array(array);
    dtl_destroy_source(source);
    return nullptr;
  }
  return array;
}

bool ProviderFillInfo(dtl_event_provider_t* provider, void*, dtl_provider_info_t* info) {
  if (info == nullptr) return false;
  info->mask = DTL_PROVIDER_INFO_BASE_MASK;
  info->value_u32 = 0;
  info->value_u16 = 256;
  info->value_u8 = 1;
  IpfixProviderContext* context = ContextOf(provider);
  if (context == nullptr) return true;
  try {
    if (const auto timeout = context->AutoStopTimeoutSec()) {
      info->auto_stop_timeout_sec = *timeout;
      info->mask = DTL_PROVIDER_INFO_BASE_MASK | DTL_PROVIDER_INFO_AUTO_STOP;
    }
  } catch (...) {
    // Only the log line can throw here; the info record stays valid.
  }
  return true;
}

void ProviderAuxHook(dtl_event_provider_t*, void*) {}

// The disk writer the receiver's sessions store through; none without a
// data root.
std::unique_ptr<dtl::ipfix::IpfixSessionSink> MakeStorage(const dtl::ipfix::CollectorConfig& config) {
  if (config.disk.root.empty()) return nullptr;
  // The writer keeps one shard per worker, indexed by the worker number, so
  // it needs at least as many shards as there are workers.
  dtl::ipfix::DiskWriterConfig disk = config.disk;
  const uint64_t workers = config.workers == 0 ? 1 : config.workers;
  if (disk.workers < workers) disk.workers = workers;
  return std::make_unique<dtl::ipfix::IpfixDiskWriter>(disk);
}

std::unique_ptr<IpfixProviderContext> BuildContext(const dtl_custom_options* options) {
  using namespace dtl::ipfix;
  WarnAboutUnknownOptions(options);
  auto context = std::make_unique<IpfixProviderContext>();
  context->config = ReadCollectorConfig(options);
  context->receiver = std::make_unique<IpfixReceiver>(context->config, MakeStorage(context->config));
  // Switch options are read only once the receiver exists.
  context->switches = BuildSwitchConfigurators(options, context->config.port);
  if (!context->switches.empty()) {
    DTL_LOG_INFO("[ipfix bin data provider] Configured %zu switch(es) for HFT IPFIX",
                 context->switches.size());
  }
  return context;
}

}  // namespace

extern "C" DTL_EXPORT dtl_event_provider_t* construct_event_provider(
    const dtl_custom_options* options) {
  try {
    std::unique_ptr<IpfixProviderContext> context = BuildContext(options);
    auto* provider = static_cast<dtl_event_provider_t*>(calloc(1, kRecordSize));
    if (provider == nullptr) return nullptr;  // the context goes with the unwinding
    provider->header = 1;
    provider->name = "ipfix_bin_data_provider";
    provider->description = "Receiving IPFIX HFT data over UDP";
    provider->context = context.release();
    provider->initialize = ProviderInitialize;
    provider->start = ProviderStart;
    provider->aux_query = ProviderAuxQuery;
    provider->stop = ProviderStop;
    provider->destroy = ProviderDestroy;
    provider->get_sources = ProviderGetSources;
    provider->fill_info = ProviderFillInfo;
    provider->aux_hook = ProviderAuxHook;
    return provider;
  } catch (const std::exception& e) {
    DTL_LOG_ERROR("[ipfix bin data provider] failed to construct ipfix provider: %s", e.what());
  } catch (...) {
    DTL_LOG_ERROR("[ipfix bin data provider] failed to construct ipfix provider: %s",
                  "unknown exception");
  }
  return nullptr;
}

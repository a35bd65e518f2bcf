// dtl-host: a small stand-in for the framework's host process. It loads the
// provider plug-in with dlopen, hands it an option dictionary, drives it
// through construct, initialize, start, stop and destroy, and runs until a
// signal, a given duration or the provider's own auto-stop timeout.
// Installed, it runs as a system service (packaging/systemd/dtl-host.service).
#include <dlfcn.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dtl_dict.h"
#include "dtl_event_provider.h"
#include "dtl_source.h"
#include "log_watch.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr const char* kPluginFileName = "libipfix_bin_data_provider.so";
// Where an installation puts the plug-in: the multiarch libdir of the build's
// install prefix (tools/CMakeLists.txt).
#ifndef DTL_INSTALL_LIBDIR
#define DTL_INSTALL_LIBDIR "/usr/lib"
#endif
constexpr const char* kInstalledPluginDir = DTL_INSTALL_LIBDIR;

void PrintHelp(FILE* out) {
  fprintf(out,
          "Usage: dtl-host [--plugin PATH] [-o KEY=VALUE]... [--duration SECONDS]\n"
          "\n"
          "Loads an event-provider plug-in like the collection framework's host does,\n"
          "starts it and keeps it running until SIGINT/SIGTERM/SIGHUP, until --duration\n"
          "has passed, or until the provider's auto-stop timeout (the longest switch HFT\n"
          "duration + 5 s) has passed, whichever comes first; then stops and destroys it.\n"
          "\n"
          "Options:\n"
          "  --plugin PATH        plug-in to load (default: ../lib/%s\n"
          "                       next to this program when it exists, as in the build\n"
          "                       tree, else the installed one:\n"
          "                       %s/%s)\n"
          "  -o, --option K=V     put option K with value V into the provider's option\n"
          "                       dictionary (may be repeated; a later K replaces an earlier)\n"
          "  --duration SECONDS   stop after this many seconds (decimals allowed, > 0)\n"
          "  -h, --help           show this text\n"
          "\n"
          "Frequently used provider options (dictionary keys; each can also be given in\n"
          "the environment as DTL_ + the key in upper case with '-' as '_', e.g.\n"
          "DTL_IPFIX_RECEIVER_PORT=4740; a dictionary entry wins over the environment):\n"
          "  ipfix-receiver-port=N          UDP port for IPFIX (default 4739)\n"
          "  ipfix-receiver-workers=N       receive threads sharing the port (default 4)\n"
          "  ipfix-receiver-bind-device=IF  receive on this network device only\n"
          "  ipfix-data-path=DIR            data root for the data files; without it (or\n"
          "                                 ad-hoc-data-root) nothing is stored\n"
          "  ipfix-disk-data-size-limit=B   keep the stored data under B bytes (0: no limit)\n"
          "  ipfix-status-interval-sec=N    a status line per switch every N s (default 10,\n"
          "                                 0: only the final one at stop)\n"
          "  switch-1-ip=HOST, switch-2-ip=HOST, ...\n"
          "                                 switches to configure for HFT export (the list\n"
          "                                 ends at the first number not given)\n"
          "  switch-ip=HOST                 a single switch, when switch-1-ip is not given\n"
          "  switch-port=N                  switch REST API port (default 8765)\n"
          "  switch-username=U, switch-password=P\n"
          "                                 switch REST API credentials\n"
          "  switch-insecure=true|false     skip TLS verification (default true)\n"
          "  collector-ip=ADDR              address the switches send IPFIX to\n"
          "  switch-hft-duration=SECONDS    HFT export window on the switch (0: unlimited)\n"
          "  switch-sample-interval-usec=N  HFT sample interval (default 100)\n"
          "  switch-counters=a,b,...        counters to export (default tx-byte,rx-byte)\n"
          "  switch-N-interfaces=a,b,...    interfaces of switch N (switch-interfaces for\n"
          "                                 the single switch); any switch-KEY above can be\n"
          "                                 given per switch as switch-N-KEY\n"
          "\n"
          "Logging: DTL_API_LOG_LEVEL=3|4|6|7 (error, warning, info, debug; default 6).\n"
          "\n"
          "Signals: the first SIGINT, SIGTERM or SIGHUP stops the provider. While it runs,\n"
          "that is the whole stop: the switches are restored, the data files closed, the\n"
          "final status printed, and the exit status is 0. While it starts, the switch\n"
          "request in flight is cut short and the switches configured so far are restored\n"
          "(exit status 1). A second signal exits at once, leaving the switches as they\n"
          "are. SIGHUP does not reload: the options are read once, at start.\n"
          "\n"
          "Exit status: 0 after a clean stop, 1 when the plug-in cannot be loaded or the\n"
          "provider fails to construct, initialize, start or stop (a switch that could\n"
          "not be restored included), 2 on a usage error, 128 + the signal number when a\n"
          "second signal ended it.\n",
          kPluginFileName, kInstalledPluginDir, kPluginFileName);
}

struct HostArgs {
  std::string plugin;
  std::vector<std::pair<std::string, std::string>> options;
  std::optional<double> duration_sec;
  bool help = false;
};

// Fills args; on a usage error prints the reason and returns false.
bool ParseArgs(int argc, char** argv, HostArgs& args) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        fprintf(stderr, "dtl-host: %s needs a value\n", name);
        return nullptr;
      }
      return argv[++i];
    };
    if (arg == "-h" || arg == "--help") {
      args.help = true;
    } else if (arg == "--plugin") {
      const char* path = value("--plugin");
      if (path == nullptr) return false;
      args.plugin = path;
    } else if (arg == "-o" || arg == "--option") {
      const char* text = value("-o");
      if (text == nullptr) return false;
      const char* equals = strchr(text, '=');
      if (equals == nullptr || equals == text) {
        fprintf(stderr, "dtl-host: option '%s' is not KEY=VALUE\n", text);
        return false;
      }
      args.options.emplace_back(std::string(text, equals), std::string(equals + 1));
    } else if (arg == "--duration") {
      const char* text = value("--duration");
      if (text == nullptr) return false;
      char* end = nullptr;
      errno = 0;
      const double seconds = strtod(text, &end);
      if (errno != 0 || end == text || *end != '\0' || !std::isfinite(seconds) || seconds <= 0) {
        fprintf(stderr, "dtl-host: --duration '%s' is not a positive number of seconds\n", text);
        return false;
      }
      args.duration_sec = seconds;
    } else {
      fprintf(stderr, "dtl-host: unknown argument '%s'\n", arg.c_str());
      return false;
    }
  }
  return true;
}

// ../lib/<plug-in> relative to this executable when it exists (the build
// tree), else the installed plug-in in the libdir.
std::string DefaultPluginPath() {
  const std::string installed = std::string(kInstalledPluginDir) + "/" + kPluginFileName;
  char exe[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (length <= 0) return installed;
  std::string dir(exe, static_cast<size_t>(length));
  dir.erase(dir.find_last_of('/') == std::string::npos ? 0 : dir.find_last_of('/'));
  const std::string beside = dir + "/../lib/" + kPluginFileName;
  return access(beside.c_str(), F_OK) == 0 ? beside : installed;
}

// The plug-in's functions the host calls, all looked up by name.
struct PluginApi {
  dtl_construct_event_provider_fn construct = nullptr;
  decltype(&dtl_dict_create) dict_create = nullptr;
  decltype(&dtl_dict_add) dict_add = nullptr;
  decltype(&dtl_dict_delete) dict_delete = nullptr;
  decltype(&dtl_source_full_string) source_full_string = nullptr;
  decltype(&dtl_destroy_source_array) destroy_source_array = nullptr;
  // Optional: cuts a start short when a stop signal comes.
  void (*interrupt_switch_enables)() = nullptr;
};

template <typename Fn>
bool Lookup(void* handle, const char* name, Fn& out) {
  out = reinterpret_cast<Fn>(dlsym(handle, name));
  if (out == nullptr) fprintf(stderr, "dtl-host: the plug-in has no symbol %s\n", name);
  return out != nullptr;
}

bool LoadApi(void* handle, PluginApi& api) {
  return Lookup(handle, "construct_event_provider", api.construct) &&
         Lookup(handle, "dtl_dict_create", api.dict_create) &&
         Lookup(handle, "dtl_dict_add", api.dict_add) &&
         Lookup(handle, "dtl_dict_delete", api.dict_delete) &&
         Lookup(handle, "dtl_source_full_string", api.source_full_string) &&
         Lookup(handle, "dtl_destroy_source_array", api.destroy_source_array);
}

class PluginHandle {
 public:
  explicit PluginHandle(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
  ~PluginHandle() {
    if (handle_ != nullptr) dlclose(handle_);
  }
  PluginHandle(const PluginHandle&) = delete;
  PluginHandle& operator=(const PluginHandle&) = delete;
  void* get() const { return handle_; }

 private:
  void* handle_;
};

class OptionDict {
 public:
  explicit OptionDict(const PluginApi& api) : api_(api), dict_(api.dict_create()) {}
  ~OptionDict() {
    if (dict_ != nullptr) api_.dict_delete(dict_);
  }
  OptionDict(const OptionDict&) = delete;
  OptionDict& operator=(const OptionDict&) = delete;
  dtl_custom_options* get() const { return dict_; }

 private:
  const PluginApi& api_;
  dtl_custom_options* dict_;
};

void PrintSources(const PluginApi& api, dtl_event_provider_t* provider) {
  if (provider->get_sources == nullptr) return;
  dtl_source_array_t* sources = provider->get_sources(provider);
  if (sources == nullptr) {
    printf("dtl-host: the provider reports no sources\n");
    return;
  }
  for (uint16_t i = 0; i < sources->count; ++i) {
    char text[DTL_SOURCE_ID_SIZE + DTL_SOURCE_TAG_SIZE + 2];
    if (api.source_full_string(sources->sources[i], text, sizeof(text)))
      printf("dtl-host: source %u: %s\n", static_cast<unsigned>(i), text);
  }
  api.destroy_source_array(sources);
}

std::optional<uint32_t> AutoStopTimeout(dtl_event_provider_t* provider) {
  if (provider->fill_info == nullptr) return std::nullopt;
  dtl_provider_info_t info{};
  if (!provider->fill_info(provider, nullptr, &info)) return std::nullopt;
  if ((info.mask & DTL_PROVIDER_INFO_AUTO_STOP) == 0) return std::nullopt;
  return info.auto_stop_timeout_sec;
}

// What the signal thread tells the main thread: the first stop signal.
class StopSignal {
 public:
  void Raise(int signo) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      signo_ = signo;
    }
    changed_.notify_all();
  }
  int signo() {
    std::lock_guard<std::mutex> lock(mutex_);
    return signo_;
  }
  // Waits for a signal or until limit_sec has passed (no limit: only a
  // signal ends the wait). Describes what ended it.
  std::string Wait(std::optional<double> limit_sec, const char* limit_name) {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto raised = [this] { return signo_ != 0; };
    if (!limit_sec) {
      changed_.wait(lock, raised);
    } else if (!changed_.wait_for(lock, std::chrono::duration<double>(*limit_sec), raised)) {
      return limit_name;
    }
    return std::string("signal ") + strsignal(signo_);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int signo_ = 0;
};

// Runs for the whole life of the process on its own thread, the only one
// that takes SIGINT, SIGTERM and SIGHUP. The first asks for a stop and cuts
// short a switch being configured; the second ends the process at once.
void WatchSignals(sigset_t signals, StopSignal* stop, void (*interrupt_switch_enables)()) {
  for (int count = 0;;) {
    int signo = 0;
    if (sigwait(&signals, &signo) != 0) continue;
    if (++count == 1) {
      if (interrupt_switch_enables != nullptr) interrupt_switch_enables();
      printf("dtl-host: %s received, stopping (a second signal exits at once)\n", strsignal(signo));
      stop->Raise(signo);
      continue;
    }
    fprintf(stderr, "dtl-host: second signal (%s): exiting at once without finishing the stop\n",
            strsignal(signo));
    fflush(stdout);
    _exit(128 + signo);
  }
}

// The collector's final status line without its changes since the last
// report and the count of open sessions: "2814 samples stored; discarded
// 186: 186 fragment lost; 3100 datagrams; kernel drops 0; 1 data file(s)
// written".
std::string Summary(std::string line) {
  for (size_t open = line.find(" ("); open != std::string::npos; open = line.find(" (", open)) {
    const size_t close = line.find(')', open);
    if (close == std::string::npos) break;
    line.erase(open, close - open + 1);
  }
  // "0 session(s) open, 2 seen; ..." becomes "2 session(s); ...".
  const std::string open_text = " session(s) open, ";
  const std::string seen_text = " seen; ";
  const size_t open = line.find(open_text);
  const size_t seen = open == std::string::npos ? open : line.find(seen_text, open);
  if (seen != std::string::npos) {
    const size_t from = open + open_text.size();
    line = line.substr(from, seen - from) + " session(s); " + line.substr(seen + seen_text.size());
  }
  return line;
}

int Run(const HostArgs& args) {
  // The plug-in's threads inherit this mask, so the signals reach only the
  // host's wait below.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  // A closed terminal or ssh session must not leave the switches exporting.
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  // The framework logger reads its level when first used.
  setenv("DTL_API_LOG_LEVEL", "6", 0);

  const std::string path = args.plugin.empty() ? DefaultPluginPath() : args.plugin;
  PluginHandle plugin(path);
  if (plugin.get() == nullptr) {
    fprintf(stderr, "dtl-host: cannot load %s: %s\n", path.c_str(), dlerror());
    return kExitFailed;
  }
  PluginApi api;
  if (!LoadApi(plugin.get(), api)) return kExitFailed;
  api.interrupt_switch_enables =
      reinterpret_cast<void (*)()>(dlsym(plugin.get(), "dtl_ipfix_interrupt_switch_enables"));
  printf("dtl-host: loaded %s\n", path.c_str());
  if (!dtl_host::WatchPluginLog(plugin.get()))
    fprintf(stderr, "dtl-host: the plug-in's logger cannot be watched; no totals at exit\n");

  // Neither joined nor freed: the thread may be waiting for a signal, and
  // using the object, until the process exits.
  static StopSignal* const signal_state = new StopSignal;
  StopSignal& stop = *signal_state;
  std::thread(WatchSignals, signals, signal_state, api.interrupt_switch_enables).detach();

  OptionDict options(api);
  if (options.get() == nullptr) {
    fprintf(stderr, "dtl-host: cannot create the option dictionary\n");
    return kExitFailed;
  }
  for (const auto& [key, value] : args.options) {
    if (!api.dict_add(options.get(), key.c_str(), value.c_str())) {
      fprintf(stderr, "dtl-host: cannot add option %s\n", key.c_str());
      return kExitFailed;
    }
  }

  dtl_event_provider_t* provider = api.construct(options.get());
  if (provider == nullptr) {
    fprintf(stderr, "dtl-host: the provider could not be constructed\n");
    return kExitFailed;
  }
  printf("dtl-host: provider %s (%s)\n", provider->name ? provider->name : "?",
         provider->description ? provider->description : "");

  int status = kExitOk;
  std::string failure;
  if (provider->initialize != nullptr && !provider->initialize(provider, nullptr)) {
    failure = "the provider failed to initialize";
    fprintf(stderr, "dtl-host: %s\n", failure.c_str());
    status = kExitFailed;
  } else {
    PrintSources(api, provider);
    const std::optional<uint32_t> auto_stop = AutoStopTimeout(provider);
    if (auto_stop)
      printf("dtl-host: auto-stop timeout %u s\n", *auto_stop);
    else
      printf("dtl-host: no auto-stop timeout\n");

    if (!provider->start(provider)) {
      failure = std::string("the provider failed to start") + (stop.signo() != 0 ? " (interrupted)" : "");
      fprintf(stderr, "dtl-host: %s\n", failure.c_str());
      status = kExitFailed;
    } else {
      std::optional<double> limit = args.duration_sec;
      const char* limit_name = "duration elapsed";
      if (auto_stop && (!limit || *auto_stop < *limit)) {
        limit = *auto_stop;
        limit_name = "auto-stop timeout reached";
      }
      printf("dtl-host: running; stop with Ctrl-C\n");
      const std::string reason = stop.Wait(limit, limit_name);
      printf("dtl-host: stopping (%s)\n", reason.c_str());
      if (!provider->stop(provider)) {
        failure = "the provider failed to stop (a switch refused; see above)";
        fprintf(stderr, "dtl-host: %s\n", failure.c_str());
        status = kExitFailed;
      }
    }
  }
  provider->destroy(provider);
  const std::string totals = Summary(dtl_host::FinalCollectorStatus());
  if (status != kExitOk) {
    printf("dtl-host: FAILED: %s%s%s (exit status %d)\n", failure.c_str(), totals.empty() ? "" : "; ",
           totals.c_str(), status);
  } else {
    printf("dtl-host: done%s%s\n", totals.empty() ? "" : ": ", totals.c_str());
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  HostArgs args;
  if (!ParseArgs(argc, argv, args)) {
    fprintf(stderr, "Try 'dtl-host --help'.\n");
    return kExitUsage;
  }
  if (args.help) {
    PrintHelp(stdout);
    return kExitOk;
  }
  return Run(args);
}

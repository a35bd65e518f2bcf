#include "switchcfg/quil_switch_configurator.h"

#include <curl/curl.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>

#include "dtl_export.h"
#include "dtl_logger.h"
#include "switchcfg/hft_bodies.h"
#include "switchcfg/switch_answers.h"

namespace dtl::ipfix {

namespace {

constexpr int kExportStatePolls = 40;
std::atomic<int64_t> g_poll_interval_ms{250};
// Set by a stop request; read by the transfer callback of every request.
std::atomic<bool> g_enables_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// Called by libcurl at least once a second during a transfer (connecting
// included); a non-zero answer aborts it.
int AbortWhenInterrupted(void* enabling, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return *static_cast<const bool*>(enabling) && g_enables_interrupted.load() ? 1 : 0;
}

void EnsureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t AppendToBody(char* data, size_t size, size_t count, void* userdata) {
  static_cast<std::string*>(userdata)->append(data, size * count);
  return size * count;
}

bool IsSuccess(int64_t status) { return status >= 200 && status <= 299; }

// Sleeps the whole interval even when signals interrupt the sleep.
void SleepFor(int64_t ms) {
  timespec remaining{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {
  }
}

// The easy handle and header list of one request.
struct CurlRequest {
  CURL* handle = nullptr;
  curl_slist* headers = nullptr;
  ~CurlRequest() {
    if (headers != nullptr) curl_slist_free_all(headers);
    if (handle != nullptr) curl_easy_cleanup(handle);
  }
};

template <typename T>
bool SetOption(CURL* handle, CURLoption option, T arg) {
  const CURLcode rc = curl_easy_setopt(handle, option, arg);
  if (rc == CURLE_OK) return true;
  DTL_LOG_ERROR("[quil switch configurator] curl_easy_setopt(%d): %s", static_cast<int>(option),
                curl_easy_strerror(rc));
  return false;
}

}  // namespace

QuilSwitchConfigurator::QuilSwitchConfigurator(const Config& config) : config_(config) {}

QuilSwitchConfigurator::~QuilSwitchConfigurator() = default;

void QuilSwitchConfigurator::InterruptEnables() { g_enables_interrupted.store(true); }

void QuilSwitchConfigurator::ResumeEnables() { g_enables_interrupted.store(false); }

bool QuilSwitchConfigurator::Interrupted() const { return enabling_ && g_enables_interrupted.load(); }

void QuilSwitchConfigurator::SetPollIntervalForTesting(std::chrono::milliseconds interval) {
  g_poll_interval_ms.store(interval.count());
}

std::string QuilSwitchConfigurator::BaseUrl() const {
  // A numeric IPv6 address must be bracketed in a URL, otherwise its colons
  // would be read as the port separator.
  const bool ipv6 = config_.host.find(':') != std::string::npos && config_.host.front() != '[';
  const std::string host = ipv6 ? "[" + config_.host + "]" : config_.host;
  return "https://" + host + ":" + std::to_string(config_.port) + "/quil_v1";
}

HttpResponse QuilSwitchConfigurator::DoRequest(const std::string& method, const std::string& url,
                                               const std::string& body) {
  HttpResponse response;
  EnsureCurlGlobalInit();
  CurlRequest request;
  request.handle = curl_easy_init();
  if (request.handle == nullptr) {
    last_error_ = "Failed to init curl";
    DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
    return response;
  }
  CURL* h = request.handle;
  // The credentials go only through CURLOPT_USERPWD (never into the URL),
  // so that no log line, which prints the URL, can carry the password.
  const std::string userpwd = config_.username + ":" + config_.password;
  if (!SetOption(h, CURLOPT_URL, url.c_str()) || !SetOption(h, CURLOPT_CUSTOMREQUEST, method.c_str()) ||
      !SetOption(h, CURLOPT_WRITEFUNCTION, &AppendToBody) ||
      !SetOption(h, CURLOPT_WRITEDATA, static_cast<void*>(&response.body)) ||
      !SetOption(h, CURLOPT_TIMEOUT, 30L) || !SetOption(h, CURLOPT_CONNECTTIMEOUT, 10L) ||
      !SetOption(h, CURLOPT_USERPWD, userpwd.c_str()) ||
      !SetOption(h, CURLOPT_XFERINFOFUNCTION, &AbortWhenInterrupted) ||
      !SetOption(h, CURLOPT_XFERINFODATA, static_cast<void*>(&enabling_)) ||
      !SetOption(h, CURLOPT_NOPROGRESS, 0L)) {
    return response;
  }
  if (config_.insecure &&
      (!SetOption(h, CURLOPT_SSL_VERIFYPEER, 0L) || !SetOption(h, CURLOPT_SSL_VERIFYHOST, 0L))) {
    return response;
  }
  request.headers = curl_slist_append(nullptr, "Content-Type: application/json");
  if (request.headers == nullptr) {
    DTL_LOG_ERROR("[quil switch configurator] curl_slist_append failed");
    return response;
  }
  if (!body.empty() && (!SetOption(h, CURLOPT_POSTFIELDS, body.c_str()) ||
                        !SetOption(h, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size())))) {
    return response;
  }
  if (!SetOption(h, CURLOPT_HTTPHEADER, request.headers)) return response;

  const CURLcode rc = curl_easy_perform(h);
  if (rc != CURLE_OK) {
    last_error_ = std::string("curl error: ") + curl_easy_strerror(rc);
    DTL_LOG_ERROR("[quil switch configurator] %s %s: %s", method.c_str(), url.c_str(), last_error_.c_str());
    return response;
  }
  long status = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  response.status = status;
  DTL_LOG_DEBUG("[quil switch configurator] %s %s → %ld", method.c_str(), url.c_str(), status);
  return response;
}

std::string QuilSwitchConfigurator::CreateRevision() {
  const HttpResponse response = DoRequest("POST", BaseUrl() + "/revision", "{}");
  if (!IsSuccess(response.status)) {
    last_error_ = "Failed to create revision: HTTP " + std::to_string(response.status) + " " + response.body;
    DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
    return "";
  }
  const dtl::json::value answer = ParseSwitchAnswer(response.body);
  if (answer.is_discarded()) {
    last_error_ = "Failed to parse revision response";
    DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
    return "";
  }
  const std::string revision = RevisionOf(answer);
  if (revision.empty()) {
    last_error_ = "No revision ID in response";
    DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
    return "";
  }
  DTL_LOG_INFO("[quil switch configurator] Created revision: %s", revision.c_str());
  return revision;
}

bool QuilSwitchConfigurator::PatchConfig(const std::string& revision, const std::string& path,
                                         const std::string& body) {
  const HttpResponse response = DoRequest("PATCH", BaseUrl() + path + "?rev=" + revision, body);
  if (IsSuccess(response.status)) return true;
  last_error_ = "PATCH " + path + " failed: HTTP " + std::to_string(response.status) + " " + response.body;
  DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
  return false;
}

std::string QuilSwitchConfigurator::GetConfig(const std::string& path) {
  HttpResponse response = DoRequest("GET", BaseUrl() + path, "");
  if (IsSuccess(response.status)) return std::move(response.body);
  DTL_LOG_WARNING("[quil switch configurator] GET %s failed: HTTP %ld %s", path.c_str(),
                  static_cast<long>(response.status), response.body.c_str());
  return "";
}

bool QuilSwitchConfigurator::ApplyRevision(const std::string& revision) {
  const HttpResponse response =
      DoRequest("PATCH", BaseUrl() + "/revision/" + revision, std::string(kApplyRevisionBody));
  if (IsSuccess(response.status)) {
    DTL_LOG_INFO("[quil switch configurator] Applied revision: %s", revision.c_str());
    return true;
  }
  last_error_ = "Apply revision failed: HTTP " + std::to_string(response.status) + " " + response.body;
  DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
  return false;
}

bool QuilSwitchConfigurator::WaitForHftExportState(const std::string& expected) {
  for (int attempt = 0; attempt < kExportStatePolls; ++attempt) {
    const std::string body = GetConfig("/system/telemetry/hft?rev=applied");
    if (!body.empty()) {
      if (ExportStateIs(ParseSwitchAnswer(body), expected)) {
        DTL_LOG_INFO("[quil switch configurator] HFT export.state reached '%s' on switch %s",
                     expected.c_str(), config_.host.c_str());
        return true;
      }
    }
    if (Interrupted()) break;
    SleepFor(g_poll_interval_ms.load());
  }
  if (Interrupted()) return false;
  last_error_ = "Timed out waiting for HFT export.state=" + expected + " on switch " + config_.host;
  DTL_LOG_ERROR("[quil switch configurator] %s", last_error_.c_str());
  return false;
}

std::vector<std::string> QuilSwitchConfigurator::FetchAppliedKeys(const std::string& path) {
  const std::string body = GetConfig(path + "?rev=applied");
  if (body.empty()) return {};
  return MemberNames(ParseSwitchAnswer(body));
}

}  // namespace dtl::ipfix

extern "C" DTL_EXPORT void dtl_ipfix_interrupt_switch_enables(void) {
  dtl::ipfix::QuilSwitchConfigurator::InterruptEnables();
}

// The stand-in switch API is driven over real HTTPS with libcurl: revisions
// and merging, authentication and TLS, injected faults, the request journal,
// and the hft-sim it runs while the IPFIX export is enabled.
#include "support/quil_mock.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

struct Reply {
  long status = 0;
  std::string body;
  std::string headers;
};

size_t Append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

struct RequestOptions {
  std::string userpwd = "velmora:velmora";  // empty: no credentials
  std::string ca_file;                      // empty: no TLS verification
};

Reply Request(const std::string& method, const std::string& url, const std::string& body = "",
              const RequestOptions& options = {}) {
  Reply reply;
  CURL* curl = curl_easy_init();
  if (curl == nullptr) return reply;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, Append);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &reply.headers);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
  if (!options.userpwd.empty()) curl_easy_setopt(curl, CURLOPT_USERPWD, options.userpwd.c_str());
  if (options.ca_file.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  } else {
    curl_easy_setopt(curl, CURLOPT_CAINFO, options.ca_file.c_str());
  }
  if (!body.empty()) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  }
  if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
  curl_easy_cleanup(curl);
  return reply;
}

// The revision id is the name of the answer's first member.
std::string CreateRevision(const QuilMock& mock) {
  Reply reply = Request("POST", mock.url() + "/revision", "{}");
  json answer = json::parse(reply.body, nullptr, false);
  if (reply.status < 200 || reply.status > 299 || !answer.is_object() || answer.empty()) return "";
  return answer.begin().key();
}

long Apply(const QuilMock& mock, const std::string& rev) {
  return Request("PATCH", mock.url() + "/revision/" + rev,
                 R"({"state": "apply", "auto-prompt": {"ays": "ays_yes"}})")
      .status;
}

json GetJson(const QuilMock& mock, const std::string& path_and_query) {
  Reply reply = Request("GET", mock.url() + path_and_query);
  if (reply.status != 200) return json();
  return json::parse(reply.body, nullptr, false);
}

int CountEvents(const QuilMock& mock, const std::string& event) {
  auto journal = mock.Journal();
  return static_cast<int>(std::count_if(journal.begin(), journal.end(),
                                        [&](const auto& e) { return e.event == event; }));
}

TEST(QuilMockTest, RevisionsMergePatchesIntoAppliedTreeOnApply) {
  QuilMock mock({});
  ASSERT_TRUE(mock.ok());

  const std::string r1 = CreateRevision(mock);
  const std::string r2 = CreateRevision(mock);
  ASSERT_FALSE(r1.empty());
  EXPECT_NE(r1, r2);

  EXPECT_EQ(GetJson(mock, "/system/telemetry/hft?rev=applied"),
            json::parse(R"({"export": {"state": "disabled"}})"));
  EXPECT_EQ(GetJson(mock, "/interface").size(), 4u);

  // Two patches in one revision, the second on the root: null removes a key,
  // {} creates one, objects merge, dotted keys are plain names.
  EXPECT_EQ(Request("PATCH", mock.url() + "/system/telemetry/hft?rev=" + r1,
                    R"({"export": {"state": "enabled"}, "counter": {"tx-byte": {}, "rx-byte": {}}})")
                .status,
            200);
  EXPECT_EQ(Request("PATCH", mock.url() + "/?rev=" + r1,
                    R"({"system": {"telemetry": {"hft": {"counter": {"rx-byte": null}}}},
                        "interface": {"Ethernet1_1": null, "eth9": {}, "a.b": {}}})")
                .status,
            200);
  // Pending until applied; the revision's own view shows the merge already.
  EXPECT_EQ(GetJson(mock, "/system/telemetry/hft?rev=applied")["export"]["state"], "disabled");
  EXPECT_EQ(GetJson(mock, "/system/telemetry/hft/counter?rev=" + r1), json::parse(R"({"tx-byte": {}})"));

  EXPECT_EQ(Apply(mock, r1), 200);
  EXPECT_EQ(GetJson(mock, "/system/telemetry/hft?rev=applied"),
            json::parse(R"({"export": {"state": "enabled"}, "counter": {"tx-byte": {}}})"));
  json interfaces = GetJson(mock, "/interface");
  EXPECT_FALSE(interfaces.contains("Ethernet1_1"));
  EXPECT_EQ(interfaces["eth9"], json::object());
  EXPECT_TRUE(interfaces.contains("a.b"));

  // Applying twice, an unknown revision; configuration not set reads as
  // empty, a path below a plain value does not exist.
  EXPECT_EQ(Apply(mock, r1), 409);
  EXPECT_EQ(Apply(mock, "rev-999"), 404);
  EXPECT_EQ(Request("PATCH", mock.url() + "/x?rev=rev-999", "{}").status, 404);
  EXPECT_EQ(GetJson(mock, "/system/telemetry/export/ipfix?rev=applied"), json::object());
  EXPECT_EQ(Request("GET", mock.url() + "/system/telemetry/hft/export/state/x").status, 404);

  // The unapplied second revision changes nothing; SIGTERM ends the mock cleanly.
  EXPECT_EQ(Request("PATCH", mock.url() + "/interface?rev=" + r2, R"({"Ethernet1_2": null})").status, 200);
  EXPECT_TRUE(GetJson(mock, "/interface").contains("Ethernet1_2"));
  EXPECT_EQ(mock.Stop(), 0);
}

TEST(QuilMockTest, AuthenticationTlsAndJournal) {
  QuilMock::Options options;
  options.password = "pw-never-logged";
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());

  Reply anonymous = Request("GET", mock.url() + "/interface", "", {"", ""});
  EXPECT_EQ(anonymous.status, 401);
  EXPECT_NE(anonymous.headers.find("WWW-Authenticate: Basic"), std::string::npos);
  EXPECT_EQ(Request("GET", mock.url() + "/interface", "", {"velmora:wrong", ""}).status, 401);

  // The certificate verifies for 127.0.0.1 with full peer and host checks.
  Reply verified = Request("GET", mock.url() + "/interface?x=1", "",
                           {"velmora:pw-never-logged", mock.cert_path()});
  EXPECT_EQ(verified.status, 200);
  EXPECT_NE(verified.headers.find("Content-Length: " + std::to_string(verified.body.size())),
            std::string::npos);

  RequestOptions good{"velmora:pw-never-logged", ""};
  Reply created = Request("POST", mock.url() + "/revision", "{}", good);
  EXPECT_EQ(created.status, 201);

  auto journal = mock.Journal();
  ASSERT_EQ(journal.size(), 4u);
  EXPECT_EQ(journal[0].status, 401);
  EXPECT_EQ(journal[0].user, "");
  EXPECT_EQ(journal[1].user, "velmora");
  EXPECT_EQ(journal[2].method, "GET");
  EXPECT_EQ(journal[2].path, "/quil_v1/interface");
  EXPECT_EQ(journal[2].query, "x=1");
  EXPECT_EQ(journal[2].body, "");
  EXPECT_EQ(journal[3].method, "POST");
  EXPECT_EQ(journal[3].path, "/quil_v1/revision");
  EXPECT_EQ(journal[3].body, "{}");
  EXPECT_EQ(journal[3].status, 201);

  mock.Stop();
  std::ifstream raw(mock.journal_path());
  std::string text((std::istreambuf_iterator<char>(raw)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text.find("pw-never-logged"), std::string::npos);
  EXPECT_EQ(mock.LogText().find("pw-never-logged"), std::string::npos);
}

TEST(QuilMockTest, InjectedFaultsAndStates) {
  QuilMock::Options options;
  options.faults = {"PATCH ^/quil_v1/revision/ 500 boom", "2:GET ^/quil_v1/interface$ 503",
                    "POST revision\\?drop close"};
  options.extra_args = {"--not-json", "^/quil_v1/system/telemetry/export"};
  options.export_never_disabled = true;
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());

  const std::string rev = CreateRevision(mock);
  ASSERT_FALSE(rev.empty());
  for (int i = 0; i < 2; ++i) {
    Reply applied = Request("PATCH", mock.url() + "/revision/" + rev, R"({"state": "apply"})");
    EXPECT_EQ(applied.status, 500);
    EXPECT_EQ(applied.body, "boom");
  }
  // Only the second matching GET fails.
  EXPECT_EQ(Request("GET", mock.url() + "/interface").status, 200);
  EXPECT_EQ(Request("GET", mock.url() + "/interface").status, 503);
  EXPECT_EQ(Request("GET", mock.url() + "/interface").status, 200);
  // A dropped connection answers nothing at all.
  EXPECT_EQ(Request("POST", mock.url() + "/revision?drop", "{}").status, 0);

  Reply not_json = Request("GET", mock.url() + "/system/telemetry/export/ipfix?rev=applied");
  EXPECT_EQ(not_json.status, 200);
  EXPECT_TRUE(json::parse(not_json.body, nullptr, false).is_discarded());

  EXPECT_EQ(GetJson(mock, "/system/telemetry/hft?rev=applied")["export"]["state"], "enabled");

  std::vector<int> statuses;
  for (const auto& entry : mock.Journal()) statuses.push_back(entry.status);
  EXPECT_EQ(statuses, (std::vector<int>{201, 500, 500, 200, 503, 200, 0, 200, 200}));
}

// A UDP socket on an ephemeral loopback port, standing in for the collector.
class UdpSink {
 public:
  UdpSink() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      return;
    port_ = ntohs(address.sin_port);
  }
  ~UdpSink() {
    if (fd_ >= 0) close(fd_);
  }
  int port() const { return port_; }
  // Size of the next datagram within the time limit, -1 on none.
  ssize_t Receive(int timeout_ms, std::vector<uint8_t>& data) {
    pollfd pfd{fd_, POLLIN, 0};
    if (poll(&pfd, 1, timeout_ms) != 1) return -1;
    data.resize(65536);
    ssize_t n = recv(fd_, data.data(), data.size(), 0);
    data.resize(n > 0 ? n : 0);
    return n;
  }
  void Drain() {
    std::vector<uint8_t> data;
    while (Receive(0, data) >= 0) {
    }
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

TEST(QuilMockTest, EnabledExportRunsHftSimUntilDisabled) {
  UdpSink sink;
  ASSERT_GT(sink.port(), 0);
  QuilMock::Options options;
  options.ipfix_port = sink.port();
  QuilMock mock(options);
  ASSERT_TRUE(mock.ok());

  const std::string rev = CreateRevision(mock);
  ASSERT_FALSE(rev.empty());
  ASSERT_EQ(Request("PATCH", mock.url() + "/system/telemetry/export/ipfix?rev=" + rev,
                    R"({"state": "enabled", "destination": "127.0.0.1"})")
                .status,
            200);
  ASSERT_EQ(Request("PATCH", mock.url() + "/system/telemetry/hft?rev=" + rev,
                    R"({"export": {"state": "enabled"}, "export-type": "ipfix",
                        "sample-interval-usec": 250, "duration": 0,
                        "counter": {"tx-byte": {}, "rx-byte": {}}})")
                .status,
            200);
  ASSERT_EQ(Request("PATCH", mock.url() + "/interface?rev=" + rev,
                    R"({"eth1": {"telemetry": {"hft": {"state": "enabled"}}}})")
                .status,
            200);
  ASSERT_EQ(Apply(mock, rev), 200);
  ASSERT_EQ(CountEvents(mock, "hft-sim started"), 1) << mock.LogText();

  // The simulator's command line follows the applied configuration.
  std::ifstream raw(mock.journal_path());
  std::vector<std::string> args;
  for (std::string line; std::getline(raw, line);) {
    json entry = json::parse(line, nullptr, false);
    if (entry.is_object() && entry.value("event", "") == "hft-sim started")
      args = entry["args"].get<std::vector<std::string>>();
  }
  auto after = [&](const std::string& flag) {
    auto it = std::find(args.begin(), args.end(), flag);
    return it != args.end() && it + 1 != args.end() ? *(it + 1) : std::string();
  };
  EXPECT_EQ(after("--target"), "127.0.0.1:" + std::to_string(sink.port()));
  EXPECT_EQ(after("--counters"), "tx-byte,rx-byte");
  EXPECT_EQ(after("--interfaces"), "eth1");
  EXPECT_EQ(after("--interval-us"), "250");

  std::vector<uint8_t> datagram;
  ASSERT_GE(sink.Receive(10000, datagram), 16) << mock.LogText();
  EXPECT_EQ(datagram[0], 0);
  EXPECT_EQ(datagram[1], 10);  // IPFIX version

  // Disabling stops the simulator before the apply is answered.
  const std::string off = CreateRevision(mock);
  ASSERT_EQ(Request("PATCH", mock.url() + "/system/telemetry/hft?rev=" + off,
                    R"({"export": {"state": "disabled"}})")
                .status,
            200);
  ASSERT_EQ(Apply(mock, off), 200);
  EXPECT_EQ(CountEvents(mock, "hft-sim stopped"), 1);
  sink.Drain();
  EXPECT_LT(sink.Receive(300, datagram), 0);
  EXPECT_EQ(mock.Stop(), 0);
  EXPECT_EQ(CountEvents(mock, "hft-sim stopped"), 1);
}

}  // namespace

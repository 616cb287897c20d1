// The real agent in a sandbox, with the stand-in relay (mpa_relay::Relay) in
// the test's own thread listening on the sandbox's 127.0.0.1:9002.
//
//   zel::e2e::AgentHarness h;                 // sandbox, Ubuntu stand-ins, config
//   ASSERT_TRUE(h.Listen());
//   h.StartAgent();
//   ASSERT_TRUE(h.WaitForRegistrations(1, 20s)) << h.Report();
//   auto a = h.Ask("message_type: MT_GET_RSA_KEY operation_id: \"k\"");
//   ASSERT_TRUE(a) << h.Report();
//
// The host it shows the agent is an Ubuntu host: uname and lsb_release are
// the fakes of tests/fakes/hosts/ubuntu, dpkg-query is a stand-in (kInstalledPackages is what dpkg-query lists), as
// are the account commands (id, useradd, usermod, groupadd, userdel,
// groupdel, openssl) and two services under /etc/init.d ("zelsvc" succeeds,
// "brokensvc" fails). Every stand-in records its call in the sandbox's
// calls.log. The host certificate and the SSH key are sandbox files.
//
// Threads: one test thread owns the harness; the relay only moves while the
// test waits in one of the calls below (they poll it).
#ifndef ZEL_TESTS_E2E_AGENT_HARNESS_H_
#define ZEL_TESTS_E2E_AGENT_HARNESS_H_

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "e2e/sandbox.h"
#include "mpa_relay/relay.h"

namespace zel {
namespace e2e {

// Package lines as dpkg-query's format prints them, before the agent's grep.
extern const char kInstalledPackages[];
extern const char kHostCertificate[];
extern const char kSshRsaKey[];

struct AgentHarnessOptions {
  // Contents of dornConfig.ini.
  std::string config =
      "[CommunicationHandler]\nackTimeout=300\n"
      "[Monitoring]\nupdateCheckFrequency=3600\nmonitoringStartDelay=3600\n";
  // Extra environment of the agent (ZEL_LOG_LEVEL...).
  std::map<std::string, std::string> agent_env;
  bool keep_history = true;
};

// Header values of a request; the defaults are the relay's.
struct AskOptions {
  std::optional<std::string> correlation_id = std::string("e2e-correlation");
  std::optional<std::string> reply_to = std::string("e2e-replies");
  bool expect_answer = true;
};

class AgentHarness {
 public:
  explicit AgentHarness(AgentHarnessOptions options = {});
  AgentHarness(const AgentHarness&) = delete;
  AgentHarness& operator=(const AgentHarness&) = delete;
  ~AgentHarness();

  Sandbox& sandbox() { return *sandbox_; }
  mpa_relay::Relay& relay() { return *relay_; }

  // The relay listens on 127.0.0.1:9002 inside the sandbox.
  bool Listen();
  // Starts the agent (once).
  Process& StartAgent();
  Process& agent() { return *agent_; }

  // Polls the relay until `n` registrations in all have come.
  bool WaitForRegistrations(size_t n, Millis timeout);
  // Polls the relay until `done` or the time-out.
  bool PollUntil(const std::function<bool()>& done, Millis timeout);
  // Polls the relay until a log line matches `pattern`, from line `from`.
  bool WaitForLogPolling(const std::string& pattern, Millis timeout, size_t from = 0);

  // A request in text format, as the relay sends it. Waits for a current
  // connection first (at most `timeout`). Returns the sequence or 0.
  uint64_t Send(const std::string& text, const AskOptions& ask = {}, Millis timeout = Millis(20000));
  // The answer to request `seq`, waiting at most `timeout`.
  std::optional<mpa_relay::Answer> AnswerTo(uint64_t seq, Millis timeout = Millis(20000));
  // Send, then AnswerTo.
  std::optional<mpa_relay::Answer> Request(const std::string& text, const AskOptions& ask = {},
                                           Millis timeout = Millis(20000));

  // Like Request, but sends again when the connection it went out on closes
  // before the answer (the agent reconnects after damaged input), until
  // `timeout`.
  std::optional<mpa_relay::Answer> RequestAcrossReconnects(const std::string& text,
                                                           const AskOptions& ask = {},
                                                           Millis timeout = Millis(30000));

  // Sanitizer reports in the agent's standard error ("" when none).
  std::string SanitizerReport() const;

  // The sandbox's report and the relay's problems, for failure messages.
  std::string Report() const;

 private:
  int MakeListener();

  std::unique_ptr<Sandbox> sandbox_;
  std::unique_ptr<mpa_relay::Relay> relay_;
  AgentHarnessOptions options_;
  Process* agent_ = nullptr;
};

}  // namespace e2e
}  // namespace zel

#endif  // ZEL_TESTS_E2E_AGENT_HARNESS_H_

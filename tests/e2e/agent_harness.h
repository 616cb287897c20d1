// The real agent in a sandbox, with the stand-in relay (mpa_relay::Relay) in
// the test's own thread listening on the sandbox's 127.0.0.1:9002.
//
//   zel::e2e::AgentHarness h;                 // sandbox, stand-ins, config
//   ASSERT_TRUE(h.Listen());
//   h.StartAgent();
//   ASSERT_TRUE(h.WaitForRegistrations(1, 20s)) << h.Report();
//   auto a = h.Request("message_type: MT_GET_RSA_KEY operation_id: \"k\"");
//
// By default the host is an Ubuntu host (the fakes of tests/fakes/hosts/
// ubuntu) with stand-ins for dpkg-query (it lists kInstalledPackages), openssl
// and the account commands (usermod fails for the account "refused"), two
// init scripts ("zelsvc" succeeds, "brokensvc" fails), the host certificate
// and SSH key. Every stand-in records its call in the sandbox's calls.log.
//
// Threads: one test thread owns the harness; the relay moves only while the
// test waits in one of the calls below.
#ifndef ZEL_TESTS_E2E_AGENT_HARNESS_H_
#define ZEL_TESTS_E2E_AGENT_HARNESS_H_

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mpa_relay/relay.h"
#include "sandbox/sandbox.h"

namespace zel {
namespace e2e {

using sandbox::Millis;

extern const char kInstalledPackages[];
extern const char kHostCertificate[];
extern const char kSshRsaKey[];

// A stand-in script that records "<name> <args>" and then runs `body`.
std::string Standin(const std::string& name, const std::string& body);

// The first line that contains `needle`, from index `from`, or nullopt.
std::optional<std::string> FindLine(const std::vector<std::string>& lines,
                                    const std::string& needle, size_t from = 0);

struct AgentHarnessOptions {
  std::string config =
      "[CommunicationHandler]\nackTimeout=300\n"
      "[Monitoring]\nupdateCheckFrequency=3600\nmonitoringStartDelay=3600\n";
  std::map<std::string, std::string> agent_env;
  // Host files first on the PATH inside: the host type's fakes.
  std::vector<std::string> host = {ZEL_FAKE_HOSTS_DIR "/ubuntu/uname",
                                   ZEL_FAKE_HOSTS_DIR "/ubuntu/lsb_release"};
  // Stand-ins for dpkg-query, openssl and the account commands; without
  // them the machine's own run against the sandbox's /etc.
  bool host_standins = true;
};

// Header values of a request.
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

  sandbox::Sandbox& sandbox() { return *sandbox_; }
  mpa_relay::Relay& relay() { return *relay_; }

  // The relay listens on 127.0.0.1:9002 inside the sandbox.
  bool Listen();
  // Starts the agent (once).
  sandbox::Process& StartAgent();
  sandbox::Process& agent() { return *agent_; }

  // Moves the relay until `done` or the time-out.
  bool PollUntil(const std::function<bool()>& done, Millis timeout);
  bool WaitForRegistrations(size_t n, Millis timeout);
  // Moves the relay until a log line from index `from` contains `needle`.
  bool WaitForLog(const std::string& needle, Millis timeout, size_t from = 0);

  // Sends a request in text format once there is a connection (waiting at
  // most `timeout`). Returns its sequence number, or 0.
  uint64_t Send(const std::string& text, const AskOptions& ask = {}, Millis timeout = Millis(20000));
  std::optional<mpa_relay::Answer> AnswerTo(uint64_t seq, Millis timeout = Millis(20000));
  std::optional<mpa_relay::Answer> Request(const std::string& text, const AskOptions& ask = {},
                                           Millis timeout = Millis(20000));
  // Like Request, but sends again when the connection closes before the
  // answer (the agent reconnects after damaged input).
  std::optional<mpa_relay::Answer> RequestAcrossReconnects(const std::string& text,
                                                           Millis timeout = Millis(30000));

  // Sanitizer reports in the agent's standard error ("" when none).
  std::string SanitizerReport() const;
  // The relay's state and the sandbox's report, for failure messages.
  std::string Report();

 private:
  std::unique_ptr<sandbox::Sandbox> sandbox_;
  std::unique_ptr<mpa_relay::Relay> relay_;
  AgentHarnessOptions options_;
  sandbox::Process* agent_ = nullptr;
};

// Sanitizer reports in `stderr_text` ("" when none).
std::string SanitizerReport(const std::string& stderr_text);

// How an error tag (ZelMpa::tag::...) reads in a log line.
std::string LoggedTag(const char* tag);

}  // namespace e2e
}  // namespace zel

#endif  // ZEL_TESTS_E2E_AGENT_HARNESS_H_

#include "e2e/agent_harness.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "mpa_relay/relay_script.h"

namespace zel {
namespace e2e {

const char kInstalledPackages[] =
    "install ok installed bash 5.2.15-2\n"
    "install ok installed oldpkg 1.0\n"
    "deinstall ok config-files gonepkg 0.9\n";

const char kHostCertificate[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBszCCAVmgAwIBAgIUe2VlZTJlc2FuZGJveGNlcnRpZmljYXRlMAoGCCqGSM49\n"
    "-----END CERTIFICATE-----\n";

const char kSshRsaKey[] =
    "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAAAgQDe2eSandboxKeyOnlyForTests root@e2e\n";

std::string Standin(const std::string& name, const std::string& body) {
  return "#!/bin/sh\nprintf '%s\\n' \"" + name + "${*:+ $*}\" >> \"$ZEL_SANDBOX_DIR/calls.log\"\n" + body;
}

std::optional<std::string> FindLine(const std::vector<std::string>& lines, const std::string& needle,
                                    size_t from) {
  for (size_t i = from; i < lines.size(); ++i) {
    if (lines[i].find(needle) != std::string::npos) return lines[i];
  }
  return std::nullopt;
}

std::string SanitizerReport(const std::string& err) {
  for (const char* mark : {"Sanitizer", "runtime error:"}) {
    const size_t at = err.find(mark);
    if (at != std::string::npos) return err.substr(err.rfind('\n', at) + 1, 2000);
  }
  return "";
}

std::string LoggedTag(const char* tag) {
  const std::string text = tag;
  return "errorCode=\"" + text.substr(text.find(':') + 1) + "\"";
}

AgentHarness::AgentHarness(AgentHarnessOptions options) : options_(std::move(options)) {
  sandbox_ = std::make_unique<sandbox::Sandbox>(options_.host);
  sandbox::Sandbox& sb = *sandbox_;
  sb.WriteFile("/etc/orvane/zel-dorn/dornConfig.ini", options_.config);
  sb.WriteFile("/etc/orvane/zel/host-cert.pem", kHostCertificate);
  sb.WriteFile("/etc/ssh/ssh_host_rsa_key.pub", kSshRsaKey);
  sb.WriteFile("/opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid",
               Standin("get_mpa_node_uuid", "echo 6f1c2b8e-3d4a-4e5f-9a0b-1c2d3e4f5a6b\n"), 0755);
  sb.WriteFile("/etc/init.d/zelsvc", Standin("zelsvc", "exit 0\n"), 0755);
  sb.WriteFile("/etc/init.d/brokensvc", Standin("brokensvc", "echo \"brokensvc: cannot $1\" >&2\nexit 1\n"),
               0755);
  if (options_.host_standins) {
    sb.AddStandin("dpkg-query", Standin("dpkg-query", std::string("printf '%s' '") + kInstalledPackages + "'\n"));
    sb.AddStandin("openssl", Standin("openssl", "echo 'xxcryptedxx'\n"));
    sb.AddStandin("id", Standin("id", "exit 1\n"));  // no account exists yet
    for (const char* name : {"groupadd", "useradd", "userdel", "groupdel"}) {
      sb.AddStandin(name, Standin(name, "exit 0\n"));
    }
    // usermod fails for the account "refused", as a locked group file would.
    sb.AddStandin("usermod", Standin("usermod", "for a; do last=$a; done\n[ \"$last\" != refused ]\n"));
  }

  mpa_relay::RelayOptions relay_options;
  relay_options.make_listener = [this]() {
    const int fd = sandbox_->SocketInside(AF_INET, SOCK_STREAM);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(9002);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
      close(fd);
      return -1;
    }
    return fd;
  };
  relay_ = std::make_unique<mpa_relay::Relay>(relay_options);
}

AgentHarness::~AgentHarness() {
  relay_.reset();
  sandbox_->Shutdown();
}

bool AgentHarness::Listen() {
  std::string error;
  return relay_->Listen(&error);
}

sandbox::Process& AgentHarness::StartAgent() {
  if (agent_ == nullptr) {
    sandbox::SpawnOptions opts;
    opts.name = "dorn-host-agent";
    opts.env = options_.agent_env;
    agent_ = &sandbox_->Spawn({DORN_AGENT_BINARY}, opts);
  }
  return *agent_;
}

bool AgentHarness::PollUntil(const std::function<bool()>& done, Millis timeout) {
  return relay_->RunUntil(done, mpa_relay::Clock::now() + timeout);
}

bool AgentHarness::WaitForRegistrations(size_t n, Millis timeout) {
  return PollUntil([&] { return relay_->registrations().size() >= n; }, timeout);
}

bool AgentHarness::WaitForLog(const std::string& needle, Millis timeout, size_t from) {
  return PollUntil([&] { return FindLine(sandbox_->LogLines(), needle, from).has_value(); }, timeout);
}

uint64_t AgentHarness::Send(const std::string& text, const AskOptions& ask, Millis timeout) {
  mpa_relay::Step step;
  std::string error;
  if (!mpa_relay::ParseRequest(text, &step, &error)) return 0;
  if (!PollUntil([&] { return relay_->current_connection() != 0; }, timeout)) return 0;
  mpa_relay::Request r;
  r.payload = step.payload;
  r.correlation_id = ask.correlation_id;
  r.reply_to = ask.reply_to;
  r.expect_answer = ask.expect_answer;
  return relay_->Send(r);
}

std::optional<mpa_relay::Answer> AgentHarness::AnswerTo(uint64_t seq, Millis timeout) {
  std::optional<mpa_relay::Answer> found;
  PollUntil(
      [&] {
        for (const auto& a : relay_->answers()) {
          if (seq != 0 && a.request == seq) found = a;
        }
        return found.has_value();
      },
      timeout);
  return found;
}

std::optional<mpa_relay::Answer> AgentHarness::Request(const std::string& text, const AskOptions& ask,
                                                       Millis timeout) {
  return AnswerTo(Send(text, ask, timeout), timeout);
}

std::optional<mpa_relay::Answer> AgentHarness::RequestAcrossReconnects(const std::string& text,
                                                                       Millis timeout) {
  const auto deadline = mpa_relay::Clock::now() + timeout;
  while (mpa_relay::Clock::now() < deadline) {
    const uint64_t seq = Send(text);
    const int connection = relay_->current_connection();
    std::optional<mpa_relay::Answer> found;
    relay_->RunUntil(
        [&] {
          for (const auto& a : relay_->answers()) {
            if (seq != 0 && a.request == seq) found = a;
          }
          return found || !relay_->IsOpen(connection) || relay_->current_connection() != connection;
        },
        deadline);
    if (found) return found;
  }
  return std::nullopt;
}

std::string AgentHarness::SanitizerReport() const {
  return agent_ == nullptr ? "" : e2e::SanitizerReport(agent_->Stderr());
}

std::string AgentHarness::Report() {
  std::ostringstream out;
  out << "relay: " << relay_->registrations().size() << " registrations, " << relay_->answers().size()
      << " answers, " << relay_->outstanding() << " outstanding\n";
  for (const auto& p : relay_->problems()) out << "relay problem: " << p << "\n";
  out << sandbox_->DebugReport(40);
  return out.str();
}

}  // namespace e2e
}  // namespace zel

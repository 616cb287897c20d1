// zel-sandbox: runs a command in an end-to-end sandbox (see sandbox.h), for
// scripts such as scripts/run.sh.
//
//   zel-sandbox [--file SANDBOX_PATH=HOST_FILE]... [--standin HOST_FILE]...
//               [--log-copy HOST_FILE] [--timeout SECONDS] -- COMMAND [ARG...]
//
// COMMAND runs with this terminal's stdio. Exit code: COMMAND's; 128+N when
// signal N ended it; 124 after --timeout; 125 when the sandbox cannot be
// made; 2 for bad usage.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/sandbox.h"

namespace {

volatile std::sig_atomic_t g_signal = 0;
void OnSignal(int sig) { g_signal = sig; }

int Usage(const std::string& why) {
  if (!why.empty()) std::fprintf(stderr, "zel-sandbox: %s\n", why.c_str());
  std::fprintf(stderr,
               "usage: zel-sandbox [options] -- COMMAND [ARG...]\n"
               "  --file SANDBOX_PATH=HOST_FILE  copy a host file into the sandbox (mode kept)\n"
               "  --standin HOST_FILE            put an executable first on the PATH inside\n"
               "  --log-copy HOST_FILE           write the collected syslog records here\n"
               "  --timeout SECONDS              kill COMMAND after SECONDS (exit code 124)\n"
               "Runs as root; COMMAND gets this terminal's stdio and its exit code is returned.\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::pair<std::string, std::string>> files;
  std::vector<std::string> standins, command;
  std::string log_copy;
  long timeout_s = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      command.assign(argv + i + 1, argv + argc);
      break;
    }
    if (arg == "-h" || arg == "--help") {
      Usage("");
      return 0;
    }
    if (i + 1 >= argc) return Usage("unknown option or missing value: " + arg);
    const std::string value = argv[++i];
    const size_t eq = value.find('=');
    if (arg == "--file" && eq != std::string::npos) {
      files.emplace_back(value.substr(0, eq), value.substr(eq + 1));
    } else if (arg == "--standin") {
      standins.push_back(value);
    } else if (arg == "--log-copy") {
      log_copy = value;
    } else if (arg == "--timeout") {
      timeout_s = std::strtol(value.c_str(), nullptr, 10);
      if (timeout_s <= 0) return Usage("--timeout wants a number of seconds");
    } else {
      return Usage("bad option " + arg + " " + value);
    }
  }
  if (command.empty()) return Usage("no command after --");

  // ^C on the terminal reaches COMMAND directly; other stop requests are
  // passed on to it.
  signal(SIGINT, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);

  try {
    zel::sandbox::Sandbox sandbox(standins);
    for (const auto& [inside, host] : files) {
      std::ifstream in(host, std::ios::binary);
      std::stringstream text;
      text << in.rdbuf();
      struct stat st {};
      if (!in || stat(host.c_str(), &st) != 0) throw zel::sandbox::SandboxError("cannot read " + host);
      sandbox.WriteFile(inside, text.str(), st.st_mode & 07777);
    }
    zel::sandbox::SpawnOptions options;
    options.inherit_stdio = true;
    zel::sandbox::Process& fg = sandbox.Spawn(command, options);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
    bool timed_out = false;
    std::optional<zel::sandbox::ExitStatus> status;
    while (!(status = fg.WaitExit(zel::sandbox::Millis(50)))) {
      if (g_signal != 0) fg.Signal(g_signal);
      g_signal = 0;
      sandbox.LogLines();  // collect as it comes, so that nothing overflows
      if (timeout_s > 0 && !timed_out && std::chrono::steady_clock::now() >= deadline) {
        std::fprintf(stderr, "zel-sandbox: %s timed out after %ld s\n", command[0].c_str(), timeout_s);
        timed_out = fg.Signal(SIGKILL);
      }
    }
    if (!log_copy.empty()) {
      std::ofstream out(log_copy, std::ios::trunc);
      for (const std::string& line : sandbox.LogLines()) out << line << "\n";
    }
    if (timed_out) return 124;
    return status->exited ? status->code : 128 + status->signal;
  } catch (const zel::sandbox::SandboxError& e) {
    std::fprintf(stderr, "zel-sandbox: %s\n", e.what());
    return 125;
  }
}

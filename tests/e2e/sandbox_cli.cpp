// zel-sandbox: runs a command inside an end-to-end sandbox (see
// e2e/sandbox.h for what the sandbox is and for the options).
//
//   zel-sandbox [--file SANDBOX_PATH=HOST_FILE]... [--standin HOST_FILE]...
//               [--env NAME=VALUE]... [--bg 'SHELL COMMAND']... [--follow-log]
//               [--log-copy HOST_FILE] [--no-logs] [--timeout SECONDS] [--keep]
//               -- COMMAND [ARG...]
//
// Exit code: that of COMMAND; 128+N if a signal N ended it; 124 if --timeout
// ended it; 125 if the sandbox could not be made; 2 for bad usage.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "e2e/sandbox.h"

namespace {

using zel::e2e::Millis;

volatile std::sig_atomic_t g_pending_signal = 0;

void OnSignal(int sig) { g_pending_signal = sig; }

void InstallForwarding(int sig) {
  struct sigaction sa;
  std::memset(&sa, 0, sizeof(sa));
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(sig, &sa, nullptr);  // no SA_RESTART: waits return early to forward
}

int Usage(const char* why) {
  if (why != nullptr) std::fprintf(stderr, "zel-sandbox: %s\n", why);
  std::fprintf(stderr,
               "usage: zel-sandbox [options] -- COMMAND [ARG...]\n"
               "  --file SANDBOX_PATH=HOST_FILE  copy a host file into the sandbox (mode kept)\n"
               "  --standin HOST_FILE            add an executable to the stand-in directory\n"
               "  --env NAME=VALUE               environment of every command (not PATH)\n"
               "  --bg 'SHELL COMMAND'           start in the background first; repeatable\n"
               "  --follow-log                   print collected log lines to stderr as they come\n"
               "  --log-copy HOST_FILE           copy the collected log to HOST_FILE at the end\n"
               "  --no-logs                      do not collect logs\n"
               "  --timeout SECONDS              kill COMMAND after SECONDS (exit code 124)\n"
               "  --keep                         keep the scratch directory and print its path\n"
               "Runs as root. COMMAND gets this terminal's stdio and the exit code is COMMAND's.\n");
  return 2;
}

bool SplitPair(const std::string& text, std::string* key, std::string* value) {
  const size_t eq = text.find('=');
  if (eq == std::string::npos || eq == 0) return false;
  *key = text.substr(0, eq);
  *value = text.substr(eq + 1);
  return true;
}

int ExitCodeOf(const zel::e2e::ExitStatus& st) {
  if (st.exited) return st.code;
  if (st.signal != 0) return 128 + st.signal;
  return 125;
}

}  // namespace

int main(int argc, char** argv) {
  zel::e2e::SandboxOptions options;
  std::vector<std::pair<std::string, std::string>> files;
  std::vector<std::string> background;
  std::map<std::string, std::string> env;
  bool follow_log = false;
  std::string log_copy;
  long timeout_s = 0;
  std::vector<std::string> command;

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](const char* what) -> std::string {
      if (i + 1 >= argc) {
        std::exit(Usage((std::string(what) + " needs a value").c_str()));
      }
      return argv[++i];
    };
    if (arg == "--") {
      command.assign(argv + i + 1, argv + argc);
      break;
    } else if (arg == "--file") {
      std::string dest, src;
      if (!SplitPair(value("--file"), &dest, &src)) return Usage("--file wants SANDBOX_PATH=HOST_FILE");
      files.emplace_back(dest, src);
    } else if (arg == "--standin") {
      options.extra_standins.push_back(value("--standin"));
    } else if (arg == "--env") {
      std::string k, v;
      if (!SplitPair(value("--env"), &k, &v)) return Usage("--env wants NAME=VALUE");
      env[k] = v;
    } else if (arg == "--bg") {
      background.push_back(value("--bg"));
    } else if (arg == "--follow-log") {
      follow_log = true;
    } else if (arg == "--log-copy") {
      log_copy = value("--log-copy");
    } else if (arg == "--no-logs") {
      options.collect_logs = false;
    } else if (arg == "--timeout") {
      timeout_s = std::strtol(value("--timeout").c_str(), nullptr, 10);
      if (timeout_s <= 0) return Usage("--timeout wants a positive number of seconds");
    } else if (arg == "--keep") {
      options.keep_scratch = true;
    } else if (arg == "-h" || arg == "--help") {
      Usage(nullptr);
      return 0;
    } else {
      return Usage(("unknown option " + arg).c_str());
    }
  }
  if (command.empty()) return Usage("no command after --");
  if ((follow_log || !log_copy.empty()) && !options.collect_logs) {
    return Usage("--follow-log and --log-copy need the log collector");
  }

  // On a terminal the command shares our process group, so ^C reaches it
  // straight from the terminal and we only stand aside; otherwise we forward.
  const bool on_terminal = isatty(STDIN_FILENO) != 0;
  if (on_terminal) {
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
  } else {
    InstallForwarding(SIGINT);
    InstallForwarding(SIGQUIT);
  }
  InstallForwarding(SIGTERM);
  InstallForwarding(SIGHUP);

  try {
    zel::e2e::Sandbox sandbox(options);
    for (const auto& [dest, src] : files) {
      std::ifstream in(src, std::ios::binary);
      struct stat st;
      if (!in || stat(src.c_str(), &st) != 0) {
        std::fprintf(stderr, "zel-sandbox: cannot read %s\n", src.c_str());
        return 125;
      }
      std::stringstream text;
      text << in.rdbuf();
      sandbox.WriteFile(dest, text.str(), st.st_mode & 07777);
    }

    zel::e2e::SpawnOptions spawn;
    spawn.env = env;
    spawn.inherit_stdio = true;
    std::vector<zel::e2e::Process*> started;
    for (size_t i = 0; i < background.size(); ++i) {
      spawn.name = "bg" + std::to_string(i);
      started.push_back(&sandbox.Spawn({"sh", "-c", background[i]}, spawn));
    }
    spawn.name = "";
    spawn.new_process_group = !on_terminal;
    zel::e2e::Process& fg = sandbox.Spawn(command, spawn);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
    size_t printed = 0;
    auto print_log = [&] {
      if (!follow_log) return;
      const auto lines = sandbox.LogLines();
      for (; printed < lines.size(); ++printed) std::fprintf(stderr, "[log] %s\n", lines[printed].c_str());
    };
    bool timed_out = false;
    std::optional<zel::e2e::ExitStatus> status;
    while (!(status = fg.WaitExit(Millis(50)))) {
      if (g_pending_signal != 0) {
        fg.Signal(g_pending_signal);
        g_pending_signal = 0;
      }
      print_log();
      if (timeout_s > 0 && std::chrono::steady_clock::now() >= deadline) {
        std::fprintf(stderr, "zel-sandbox: %s timed out after %ld s\n", command[0].c_str(), timeout_s);
        fg.Signal(SIGKILL);
        timed_out = true;
      }
    }
    for (auto* p : started) p->Signal(SIGTERM);
    for (auto* p : started) p->WaitExit(Millis(5000));
    print_log();
    if (!log_copy.empty()) {
      std::ifstream in(sandbox.log_path(), std::ios::binary);
      std::ofstream out(log_copy, std::ios::binary | std::ios::trunc);
      out << in.rdbuf();
    }
    sandbox.Shutdown();
    return timed_out ? 124 : ExitCodeOf(*status);
  } catch (const zel::e2e::SandboxError& e) {
    std::fprintf(stderr, "zel-sandbox: %s\n", e.what());
    return 125;
  }
}

// zel-metrics-collector: a stand-in for the metrics collector service. Serves
// MetricsCollector and prints each report it receives.
//
//   zel-metrics-collector [--listen URL] [--json] [--count N] [--end-calls-with CODE] [--ready-file PATH]
//
// --listen   the endpoint (default unix:///var/run/orvane/zel/metrics-collector.sock)
// --json     one JSON object per report and line (for scripts/plot_metrics.py)
// --count N  exit after N reports (default: serve until SIGINT or SIGTERM)
// --end-calls-with CODE  end every call at once with this status code
// --ready-file PATH  write "ready" to PATH once listening
//
// Exit code: 0; 1 when it cannot listen; 2 for bad usage.
#include <signal.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "metrics_collector/collector.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
  std::string endpoint = "unix:///var/run/orvane/zel/metrics-collector.sock";
  std::string readyFile;
  bool json = false;
  long count = 0;
  int endCallsWith = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--listen" && hasValue) {
      endpoint = argv[++i];
    } else if (arg == "--json") {
      json = true;
    } else if (arg == "--count" && hasValue) {
      count = std::atol(argv[++i]);
    } else if (arg == "--end-calls-with" && hasValue) {
      endCallsWith = std::atoi(argv[++i]);
    } else if (arg == "--ready-file" && hasValue) {
      readyFile = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: zel-metrics-collector [--listen URL] [--json] [--count N] [--end-calls-with CODE]\n"
                   "                             [--ready-file PATH]\n");
      return arg == "-h" || arg == "--help" ? 0 : 2;
    }
  }
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  zel::tools::MetricsCollector collector(std::cout, json);
  collector.EndCallsWith(endCallsWith);
  if (const auto ec = collector.Listen(endpoint)) {
    std::fprintf(stderr, "zel-metrics-collector: cannot listen on %s: %s\n", endpoint.c_str(),
                 ec.message().c_str());
    return 1;
  }
  std::fprintf(stderr, "zel-metrics-collector: listening on %s\n", endpoint.c_str());
  if (!readyFile.empty()) std::ofstream(readyFile) << "ready\n";
  while (!g_stop) {
    if (count > 0 && collector.WaitForReports(static_cast<std::size_t>(count), std::chrono::milliseconds(100))) break;
    if (count <= 0) collector.WaitForReports(SIZE_MAX, std::chrono::milliseconds(100));
  }
  return 0;
}

// zel-metrics-soak: a bounded run of the metrics pipeline, for looking at
// metrics rather than reading them. An RPC provider reports every second to
// a collector (an "rpc" publisher) and into rotating text files (a "text"
// publisher), with the process, system and file-system monitors, while a
// work loop on its dispatcher burns a varying amount of CPU and memory and
// records how long each step took.
//
//   zel-metrics-soak --collector URL --text-dir DIR [--seconds N]
//
// Ends by itself after N seconds (default 60); exit code 0, 2 for bad usage.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/rpc/asio_zel_provider.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"
#include "cpp/lib/timer/timer.h"
#include "cpp/lib/timer/timer_factory.h"

int main(int argc, char** argv) {
  std::string collector, textDir;
  int seconds = 60;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--collector") {
      collector = argv[i + 1];
    } else if (arg == "--text-dir") {
      textDir = argv[i + 1];
    } else if (arg == "--seconds") {
      seconds = std::max(1, std::atoi(argv[i + 1]));
    }
  }
  if (collector.empty() || textDir.empty()) {
    std::fprintf(stderr, "usage: zel-metrics-soak --collector URL --text-dir DIR [--seconds N]\n");
    return 2;
  }

  boost::property_tree::ptree config;
  config.put("metrics.report_interval_sec", 1);
  config.put("metrics.use_aligned_timers", false);
  config.put("metrics.publishers.rpc.endpoint", collector);
  config.put("metrics.publishers.text.file.filename", textDir + "/metrics.txt");
  config.put("metrics.publishers.text.file.rotation_policy.max_size", "256 KiB");
  config.put("metrics.publishers.text.store.max_files", "20");
  config.add_child("metrics.monitors.system-info", {});
  config.put("metrics.monitors.file-system.path", textDir);
  auto provider = zel::rpc::AsioZelRpcProvider::Create(config);

  using zel::metrics::Metric;
  zel::metrics::MetricRegistry& registry = provider->base()->GetMetricRegistry();
  Metric<zel::metrics::LatencyCounter> step(registry.root()->subkey("soak/step_time"));
  Metric<zel::metrics::UnitCounter> held(registry.root()->subkey("soak/held_bytes"), "B");
  std::vector<std::vector<char>> blocks;
  int tick = 0;
  // Every 50 ms: work that swells and shrinks over a 20-second wave.
  zel::TimerPtr work = provider->GetTimers()->CreatePeriodicTimer(
      std::chrono::milliseconds(50),
      [&] {
        const auto start = std::chrono::steady_clock::now();
        const double wave = 0.5 + 0.5 * std::sin(++tick * 2 * M_PI / 400);
        volatile double sink = 0;
        for (int i = 0; i < static_cast<int>(20000 * wave) + 1000; ++i) sink += std::sqrt(i);
        blocks.resize(static_cast<std::size_t>(64 * wave));
        for (auto& b : blocks) b.resize(64 << 10, 'x');
        held->set(blocks.size() * (64 << 10));
        step->record(std::chrono::steady_clock::now() - start);
      },
      false);
  provider->Run(1, false);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));  // the soak itself
  work->Cancel();
  // The last report goes when the provider does.
  provider.reset();
  return 0;
}

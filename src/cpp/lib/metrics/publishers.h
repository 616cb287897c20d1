// The plain publishers of a MetricRegistry:
//
//   LogPublisher   each report through the logger at a chosen level: one line
//                  per key with its values ("METRICS report for 'rss' { ... }")
//                  or, with multiline, one line per value
//   TextPublisher  each value as a line "[<UTC time>] METRICS <path> = <text>"
//                  in a RotatingFile whose finished files a FileStore keeps
//                  within its limits; all lines of one report carry one time
//   NoopPublisher  nothing
//
// Options come from the nodes "log" and "text" of the "publishers" subtree
// (see MetricRegistryBuilder::Configure).
//
// Threads: as Publisher (publisher.h).
#ifndef ZEL_METRICS_PUBLISHERS_H_
#define ZEL_METRICS_PUBLISHERS_H_

#include <memory>
#include <string>

#include <boost/property_tree/ptree_fwd.hpp>

#include "cpp/lib/common/filesystem/file_store.h"
#include "cpp/lib/common/filesystem/rotating_file.h"
#include "cpp/lib/metrics/publisher.h"

namespace zel {
namespace metrics {

struct LogPublisherOptions {
  static constexpr int kDefaultLevel = 4;

  int level = kDefaultLevel;  // 1 (CRIT) to 6 (DEBUG); 0: no output
  bool multiline = false;

  // "level" above 6 or below 0 keeps the default, with the warning "Metrics:
  // invalid level %i for log publisher - using default %i"; level 0 warns
  // "Metrics: log publisher level is set to NONE". "multiline" takes what a
  // property-tree bool takes, and also "yes"/"no" and "on"/"off".
  static LogPublisherOptions FromTree(const boost::property_tree::ptree& tree);
};

class LogPublisher : public Publisher {
 public:
  explicit LogPublisher(LogPublisherOptions options = {}) : options_(options) {}

  // Publisher
  std::string name() const override { return "log"; }
  void Start() override {}
  std::unique_ptr<Reporter> GetReporter() override;

 private:
  const LogPublisherOptions options_;
};

struct TextPublisherOptions {
  filesystem::FileStoreOptions store;
  filesystem::RotatingFileOptions file;

  // "{ store: %s, file: %s }".
  std::string ToString() const;
  // Reads the nodes "store" and "file". A store without a path is the
  // directory of the file.
  static TextPublisherOptions FromTree(const boost::property_tree::ptree& tree);
};

class TextPublisher : public Publisher {
 public:
  // `fs` and `clock` stand in for the file system and the wall clock.
  TextPublisher(TextPublisherOptions options, std::shared_ptr<filesystem::FileSystem> fs = nullptr,
                std::function<time_t()> clock = nullptr);
  ~TextPublisher() override;

  // Publisher
  std::string name() const override { return "text"; }
  // Scans and trims the store, and opens the file for appending.
  void Start() override;
  std::unique_ptr<Reporter> GetReporter() override;

  const TextPublisherOptions& options() const { return options_; }

 private:
  struct State;

  const TextPublisherOptions options_;
  const std::shared_ptr<State> state_;
};

class NoopPublisher : public Publisher {
 public:
  std::string name() const override { return "noop"; }
  void Start() override {}
  std::unique_ptr<Reporter> GetReporter() override;
};

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_PUBLISHERS_H_

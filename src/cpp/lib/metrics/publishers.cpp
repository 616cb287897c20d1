#include "cpp/lib/metrics/publishers.h"

#include <ctime>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace metrics {

namespace {

// "path = text" or "path[instance] = text".
std::string ValueText(const std::string& path, const BasicSerializer& values) {
  const std::string instance = values.instance();
  return instance.empty() ? path + " = " + values.value().value
                          : path + "[" + instance + "] = " + values.value().value;
}

bool LevelEnabled(int level) { return level > 0 && level <= g_logLevel; }

class MultiLineReporter : public Reporter {
 public:
  explicit MultiLineReporter(int level) : level_(level) {}
  std::unique_ptr<Reporter> subkey(const std::string&) override { return std::make_unique<MultiLineReporter>(level_); }
  void report(const std::string& path, const MetricKey&, const BasicSerializer& values) override {
    if (values.value().set && LevelEnabled(level_)) {
      ZEL_METRICS_LOG(level_).format("METRICS %s", ValueText(path, values).c_str());
    }
  }
  void done() override {}

 private:
  const int level_;
};

// One line per level of the walk: the key and the values reported with it.
class SingleLineReporter : public Reporter {
 public:
  explicit SingleLineReporter(int level) : level_(level) {}
  std::unique_ptr<Reporter> subkey(const std::string&) override {
    return std::make_unique<SingleLineReporter>(level_);
  }
  void report(const std::string& path, const MetricKey& key, const BasicSerializer& values) override {
    if (keyName_.empty()) keyName_ = key.name();
    if (!values.value().set) return;
    if (line_.empty()) line_ = "METRICS report for '" + keyName_ + "' {";
    line_ += " " + ValueText(path, values);
  }
  void done() override {
    if (line_.empty()) return;
    line_ += " }";
    if (LevelEnabled(level_)) ZEL_METRICS_LOG(level_).format("%s", line_.c_str());
    line_.clear();
  }

 private:
  const int level_;
  std::string keyName_;
  std::string line_;
};

class NoopReporter : public Reporter {
 public:
  std::unique_ptr<Reporter> subkey(const std::string&) override { return std::make_unique<NoopReporter>(); }
  void report(const std::string&, const MetricKey&, const BasicSerializer&) override {}
  void done() override {}
};

bool ParseFlag(const std::string& text, bool* out) {
  static const std::pair<const char*, bool> kForms[] = {{"true", true}, {"1", true},   {"yes", true},
                                                        {"on", true},   {"false", false}, {"0", false},
                                                        {"no", false},  {"off", false}};
  for (const auto& form : kForms) {
    if (text == form.first) {
      *out = form.second;
      return true;
    }
  }
  return false;
}

}  // namespace

// --- log -------------------------------------------------------------------------

LogPublisherOptions LogPublisherOptions::FromTree(const boost::property_tree::ptree& tree) {
  LogPublisherOptions o;
  if (const auto level = tree.get_optional<int>("level")) {
    if (*level < 0 || *level > 6) {
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: invalid level %i for log publisher - using default %i", *level,
                                       kDefaultLevel);
    } else {
      o.level = *level;
    }
  } else if (const auto text = tree.get_optional<std::string>("level")) {
    ZEL_METRICS_LOG(kLogWarn).format("Metrics: invalid level '%s' for log publisher - using default %i",
                                     text->c_str(), kDefaultLevel);
  }
  if (o.level == 0) ZEL_METRICS_LOG(kLogWarn).format("Metrics: log publisher level is set to NONE");
  if (const auto text = tree.get_optional<std::string>("multiline")) {
    if (!ParseFlag(*text, &o.multiline)) {
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: invalid multiline '%s' for log publisher - using false",
                                       text->c_str());
    }
  }
  return o;
}

std::unique_ptr<Reporter> LogPublisher::GetReporter() {
  if (options_.multiline) return std::make_unique<MultiLineReporter>(options_.level);
  return std::make_unique<SingleLineReporter>(options_.level);
}

// --- text ------------------------------------------------------------------------

std::string TextPublisherOptions::ToString() const {
  return "{ store: " + store.ToString() + ", file: " + file.ToString() + " }";
}

TextPublisherOptions TextPublisherOptions::FromTree(const boost::property_tree::ptree& tree) {
  TextPublisherOptions o;
  o.store = filesystem::FileStoreOptions::FromTree(tree.get_child("store", {}));
  o.file = filesystem::RotatingFileOptions::FromTree(tree.get_child("file", {}));
  if (o.store.path.empty()) o.store.path = o.file.filename.parent_path();
  // The store keeps the rotated files of this publisher, nothing else.
  o.store.prefix = o.file.filename.stem().string() + "_";
  o.store.suffix = o.file.filename.extension().string();
  return o;
}

struct TextPublisher::State {
  std::shared_ptr<filesystem::FileStore> store;
  std::unique_ptr<filesystem::RotatingFile> file;
  std::function<time_t()> clock;
  // The time of the report being written.
  std::string time;
};

namespace {

class TextReporter : public Reporter {
 public:
  TextReporter(std::shared_ptr<void> owner, filesystem::RotatingFile* file, std::function<time_t()>* clock,
               std::string* time, bool top)
      : owner_(std::move(owner)), file_(file), clock_(clock), time_(time), top_(top) {}

  std::unique_ptr<Reporter> subkey(const std::string&) override {
    return std::make_unique<TextReporter>(owner_, file_, clock_, time_, false);
  }
  void report(const std::string& path, const MetricKey&, const BasicSerializer& values) override {
    if (path.empty()) {
      const time_t now = (*clock_)();
      struct tm parts;
      char text[64];
      *time_ = gmtime_r(&now, &parts) && std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts)
                   ? text
                   : "<INVALID-TIME>";
    }
    if (!values.value().set) return;
    const std::string line = "[" + *time_ + "] METRICS " + ValueText(path, values) + "\n";
    filesystem::error_code ignored;
    file_->Write(filesystem::cbyte_array_view(line), ignored);
  }
  void done() override {
    if (!top_) return;
    filesystem::error_code ignored;
    file_->Flush(ignored);
  }

 private:
  const std::shared_ptr<void> owner_;  // keeps the file alive
  filesystem::RotatingFile* const file_;
  std::function<time_t()>* const clock_;
  std::string* const time_;
  const bool top_;
};

}  // namespace

TextPublisher::TextPublisher(TextPublisherOptions options, std::shared_ptr<filesystem::FileSystem> fs,
                             std::function<time_t()> clock)
    : options_(std::move(options)), state_(std::make_shared<State>()) {
  if (!fs) fs = filesystem::MakeFileSystem();
  state_->clock = clock ? std::move(clock) : std::function<time_t()>([] { return time(nullptr); });
  state_->store = std::make_shared<filesystem::FileStore>(fs, options_.store);
  state_->file = std::make_unique<filesystem::RotatingFile>(fs, state_->store, options_.file, state_->clock);
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: text publisher %s", options_.ToString().c_str());
}

TextPublisher::~TextPublisher() {
  filesystem::error_code ignored;
  state_->file->Close(ignored);
}

void TextPublisher::Start() {
  state_->store->Scan();
  state_->store->Trim();
  filesystem::error_code ignored;
  state_->file->Open(std::ios_base::app, ignored);
}

std::unique_ptr<Reporter> TextPublisher::GetReporter() {
  return std::make_unique<TextReporter>(state_, state_->file.get(), &state_->clock, &state_->time, true);
}

// --- noop ------------------------------------------------------------------------

std::unique_ptr<Reporter> NoopPublisher::GetReporter() { return std::make_unique<NoopReporter>(); }

}  // namespace metrics
}  // namespace zel

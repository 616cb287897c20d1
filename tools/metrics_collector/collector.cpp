#include "metrics_collector/collector.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <sstream>

#include <boost/property_tree/ptree.hpp>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/reflection.h>

#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"
#include "orvane/zel/metrics/zel_metrics.zelrpc.pb.h"

namespace zel {
namespace tools {

using orvane::zel::metrics::MetricKeyMsg;
using orvane::zel::metrics::MetricsReportMsg;
using orvane::zel::metrics::MetricValueMsg;

namespace {

std::string JsonString(const std::string& s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\u%04x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

bool IsInstance(const MetricKeyMsg& key) {
  for (const auto& tag : key.value().tag()) {
    if (tag.key() == "instance") return true;
  }
  return false;
}

// Calls `fn(path, value)` for every key with a value, depth first. An
// instance's value (tagged "instance") is shown as "<parent path>[<instance>]",
// as the other publishers print it.
void Walk(const MetricKeyMsg& key, const std::string& path,
          const std::function<void(const std::string&, const MetricValueMsg&)>& fn) {
  const std::string here = key.name() == "/" ? path : path + "/" + key.name();
  if (key.has_value()) fn(here, key.value());
  for (const MetricKeyMsg& child : key.subkey()) {
    if (IsInstance(child)) {
      fn(here + "[" + child.name() + "]", child.value());
    } else {
      Walk(child, here, fn);
    }
  }
}

}  // namespace

class MetricsCollector::Service : public orvane::zel::metrics::MetricsCollector::Service {
 public:
  explicit Service(tools::MetricsCollector* owner) : owner_(owner) {}

  rpc::CallObserverPtr<MetricsReportMsg> Report(const rpc::ServerContext&,
                                                const rpc::StreamWriterPtr<orvane::zel::VoidMsg>& writer) override {
    int endWith = 0;
    {
      std::lock_guard<std::mutex> lock(owner_->mutex_);
      ++owner_->calls_;
      endWith = owner_->endCallsWith_;
      owner_->changed_.notify_all();
    }
    if (endWith != 0) {
      writer->Done(rpc::RpcStatus(static_cast<rpc::StatusCode>(endWith)));
      return std::make_shared<rpc::CallObserver<MetricsReportMsg>>();
    }
    struct Observer : rpc::CallObserver<MetricsReportMsg> {
      tools::MetricsCollector* owner;
      rpc::StreamWriterPtr<orvane::zel::VoidMsg> writer;
      void Next(const MetricsReportMsg& report) override { owner->Received(report); }
      void RemoteStatus(const rpc::RpcStatus&) override { writer->Done(rpc::RpcStatus::Success()); }
    };
    auto observer = std::make_shared<Observer>();
    observer->owner = owner_;
    observer->writer = writer;
    return observer;
  }

 private:
  tools::MetricsCollector* const owner_;
};

MetricsCollector::MetricsCollector(std::ostream& out, bool json)
    : out_(out), json_(json), provider_(rpc::AsioZelRpcProvider::Create(boost::property_tree::ptree())) {
  provider_->GetRegistry()->RegisterService(std::make_shared<Service>(this));
  provider_->Run(1, false);
}

MetricsCollector::~MetricsCollector() { provider_.reset(); }

boost::system::error_code MetricsCollector::Listen(const std::string& endpoint) {
  return provider_->GetTransport()->Listen(endpoint, rpc::ConnectionOptions(), nullptr);
}

void MetricsCollector::Received(const MetricsReportMsg& report) {
  const std::string text = json_ ? Json(report) + "\n" : Text(report);
  std::lock_guard<std::mutex> lock(mutex_);
  out_ << text << std::flush;
  reports_.push_back(report);
  changed_.notify_all();
}

void MetricsCollector::EndCallsWith(int code) {
  std::lock_guard<std::mutex> lock(mutex_);
  endCallsWith_ = code;
}

std::vector<MetricsReportMsg> MetricsCollector::Reports() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reports_;
}

bool MetricsCollector::WaitForCalls(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return calls_ >= count; });
}

bool MetricsCollector::WaitForReports(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return reports_.size() >= count; });
}

std::size_t MetricsCollector::Calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::string MetricsCollector::Text(const MetricsReportMsg& report) {
  std::ostringstream out;
  out << "report";
  for (const auto& tag : report.tag()) out << " " << tag.key() << "=" << tag.value();
  out << "\n";
  Walk(report.root(), "", [&out](const std::string& path, const MetricValueMsg& v) {
    out << "  " << path << " = " << v.value() << "\n";
  });
  return out.str();
}

std::string MetricsCollector::Json(const MetricsReportMsg& report) {
  std::ostringstream out;
  out.precision(17);
  out << "{\"tags\":{";
  for (int i = 0; i < report.tag_size(); ++i) {
    out << (i ? "," : "") << JsonString(report.tag(i).key()) << ":" << JsonString(report.tag(i).value());
  }
  out << "},\"values\":{";
  bool first = true;
  Walk(report.root(), "", [&](const std::string& path, const MetricValueMsg& v) {
    out << (first ? "" : ",") << JsonString(path) << ":{\"timestamp\":" << v.timestamp()
        << ",\"units\":" << JsonString(v.units()) << ",\"text\":" << JsonString(v.value());
    first = false;
    // Every numeric aggregate that is set, by its field name.
    const google::protobuf::Reflection* r = v.GetReflection();
    std::vector<const google::protobuf::FieldDescriptor*> fields;
    r->ListFields(v, &fields);
    for (const auto* f : fields) {
      if (f->number() < 10) continue;
      const double x = f->cpp_type() == google::protobuf::FieldDescriptor::CPPTYPE_UINT64
                           ? static_cast<double>(r->GetUInt64(v, f))
                           : r->GetDouble(v, f);
      if (std::isfinite(x)) out << "," << JsonString(f->name()) << ":" << x;
    }
    out << "}";
  });
  out << "}}";
  return out.str();
}

}  // namespace tools
}  // namespace zel

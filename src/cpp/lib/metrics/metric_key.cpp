#include "cpp/lib/metrics/metric_key.h"

#include <stdexcept>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/error_tags.h"
#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace metrics {

std::string InstanceName(const std::vector<std::pair<std::string, std::string>>& tags) {
  std::string name;
  for (const auto& tag : tags) {
    if (!name.empty()) name += ',';
    name += tag.first;
    name += '=';
    name += tag.second;
  }
  return name;
}

MetricKey::MetricKey(KeyKind kind, std::string name, MetricKey* parent)
    : kind_(kind), name_(std::move(name)), parent_(parent) {}

MetricKey::~MetricKey() {
  try {
    // Whatever is left in the map has a count of 0: a referenced child would
    // hold a reference on this key.
    for (auto& entry : subkeys_) delete entry.second;
    subkeys_.clear();
    value_.reset();
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_METRICS_LOG, kTagMxLib9999, "MetricKey::~MetricKey");
  }
}

void MetricKey::add_ref() const {
  if (refs_.fetch_add(1, std::memory_order_acq_rel) == 0 && parent_ != nullptr) {
    parent_->add_ref();
  }
}

void MetricKey::release() const {
  // A sweep may delete this key as soon as the count reads 0, so nothing of
  // it is touched after the decrement.
  MetricKey* const parent = parent_;
  int32_t old = refs_.load(std::memory_order_acquire);
  do {
    if (old == 0) return;
  } while (!refs_.compare_exchange_weak(old, old - 1, std::memory_order_acq_rel));
  if (old != 1) return;
  if (parent != nullptr) {
    parent->release();
  } else {
    delete this;
  }
}

MetricKeyPtr MetricKey::Child_(KeyKind kind, const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = subkeys_.find(name);
  if (it == subkeys_.end()) {
    it = subkeys_.emplace(name, new MetricKey(kind, name, this)).first;
  } else if (it->second->kind_ != kind) {
    throw std::invalid_argument("MetricKey: '" + name + "' under '" + path() +
                                "' exists as a key of another kind");
  }
  // Counted under the mutex, so that a sweep cannot take it meanwhile.
  return MetricKeyPtr(it->second);
}

MetricKeyPtr MetricKey::subkey(const std::string& path) {
  MetricKeyPtr key(this);
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    if (end > begin) key = key->Child_(KeyKind::kPath, path.substr(begin, end - begin));
    begin = end + 1;
  }
  return key;
}

MetricKeyPtr MetricKey::instance(const std::string& name) {
  std::string escaped = name;
  for (char& c : escaped) {
    if (c == '/') c = '\\';
  }
  return Child_(KeyKind::kInstance, escaped);
}

void MetricKey::set_value(MetricValuePtr value) {
  MetricValuePtr old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    old = std::move(value_);
    value_ = std::move(value);
    if (old && value_ && old->type() != value_->type()) {
      ZEL_METRICS_LOG(kLogWarn).format("%s: changing value type!", log_name().c_str());
    }
  }
  // `old` may be the last reference: let it go outside the mutex.
}

MetricValuePtr MetricKey::get_value() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return value_;
}

MetricValuePtr MetricKey::get_or_set_value(const std::function<MetricValuePtr()>& make) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!value_) value_ = make();
  return value_;
}

bool MetricKey::collect() {
  MetricValuePtr value = get_value();
  if (!value) return false;
  value->rollover();
  return true;
}

bool MetricKey::report(Serializer& out, bool current) {
  MetricValuePtr value = get_value();
  if (!value) return false;
  out.type(value->type());
  out.name(name_);
  if (kind_ == KeyKind::kInstance) out.tag("instance", name_);
  value->serialize(out, current);
  return true;
}

void MetricKey::sweep_released_subkeys() {
  ZEL_METRICS_LOG(kLogDebug).format("%s: sweep_released_subkeys", log_name().c_str());
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = subkeys_.begin(); it != subkeys_.end();) {
    MetricKey* child = it->second;
    child->sweep_released_subkeys();
    // A count of 0 cannot rise again here: a new reference to a child is
    // only made under this mutex.
    if (child->refs_.load(std::memory_order_acquire) == 0) {
      it = subkeys_.erase(it);
      delete child;
    } else {
      ++it;
    }
  }
}

std::vector<MetricKeyPtr> MetricKey::subkeys() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<MetricKeyPtr> out;
  out.reserve(subkeys_.size());
  for (const auto& entry : subkeys_) out.emplace_back(entry.second);
  return out;
}

MetricKeyPtr MetricKey::find_subkey(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = subkeys_.find(name);
  return it == subkeys_.end() ? MetricKeyPtr() : MetricKeyPtr(it->second);
}

std::string MetricKey::path() const {
  if (parent_ == nullptr) return name_;
  std::string up = parent_->path();
  if (up.empty() || up.back() != '/') up += '/';
  return up + name_;
}

std::string MetricKey::log_name() const {
  return "MKey[" + name_ + " " + std::to_string(ref_count()) + "]";
}

namespace impl {

RootKey::RootKey() : MetricKey(KeyKind::kRoot, "/", nullptr) {}
RootKey::~RootKey() = default;

MetricKeyPtr RootKey::MakeRoot() { return MetricKeyPtr(new RootKey()); }

}  // namespace impl

}  // namespace metrics
}  // namespace zel

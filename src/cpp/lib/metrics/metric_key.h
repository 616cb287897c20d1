// MetricKey: a node of the metric key tree.
//
// A key has a kind, a name, a parent, subkeys by name and at most one value.
// Keys are made by walking down from a root: subkey("a/b/c") adds or finds one
// node per "/"-separated component, instance(name) adds one node for one
// member of a family (a connection, an endpoint) with each "/" of the name
// replaced by a backslash, so that a URI stays one node.
//
// Lifetime. Keys are reference counted by hand and held by
// boost::intrusive_ptr (MetricKeyPtr); never keep one by a bare pointer. A
// referenced key keeps its parent referenced, so a parent lives while any
// child is held. When the last reference to a key goes, the key stays in its
// parent's map, with its value, until sweep_released_subkeys() deletes it:
// that gives a closed connection one last report. A root, having no parent,
// deletes itself, and with it the whole tree.
//
// Threads: all operations may be called from any thread. Each key has a
// mutex over its subkey map and its value reference; a sweep holds a key's
// mutex while it goes down to the children, so locks are always taken
// parent before child. Reference counts are atomic.
#ifndef ZEL_METRICS_METRIC_KEY_H_
#define ZEL_METRICS_METRIC_KEY_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "cpp/lib/metrics/metric_value.h"

namespace zel {
namespace metrics {

class Serializer;
class MetricKey;

using MetricKeyPtr = boost::intrusive_ptr<MetricKey>;

enum class KeyKind : int {
  kRoot = 1,
  kPath = 2,      // made by subkey(): a plain path component
  kInstance = 3,  // made by instance(): hidden from a report's path, shown as the tag "instance"
};

// The instance name of a set of labels: "key=value" pairs joined by ",", in
// the order given; "" for no labels.
std::string InstanceName(const std::vector<std::pair<std::string, std::string>>& tags);

class MetricKey {
 public:
  MetricKey(const MetricKey&) = delete;
  MetricKey& operator=(const MetricKey&) = delete;

  // The key at `path` below this one, made where missing. Empty components
  // are skipped, so "a//b" and "/a/b" are "a/b", and "" is this key.
  // Throws std::invalid_argument if a component exists as an instance key.
  MetricKeyPtr subkey(const std::string& path);
  // The instance key `name` below this one, made if missing, with every "/"
  // of the name replaced by "\". Throws std::invalid_argument if a path key
  // of that name exists.
  MetricKeyPtr instance(const std::string& name);

  void add_ref() const;
  // Drops one reference; a count of 0 stays 0. See the lifetime rules above.
  void release() const;

  // Binds `value` to the key, replacing any other. Replacing a value of
  // another type logs a warning.
  void set_value(MetricValuePtr value);
  MetricValuePtr get_value() const;
  // The key's value; if it has none, the one that `make` returns is bound
  // first. `make` runs under the key's mutex.
  MetricValuePtr get_or_set_value(const std::function<MetricValuePtr()>& make);

  // Rolls the value over. False when the key has no value.
  bool collect();
  // Writes the type, the name, the tag "instance" for an instance key and the
  // value (see MetricValue::serialize) into `out`. False, writing nothing,
  // when the key has no value.
  bool report(Serializer& out, bool current);
  // Depth first: sweeps each child, then deletes each child that nobody
  // references any more.
  void sweep_released_subkeys();

  // Counted references to the subkeys, in name order; the walk of a report
  // goes on with these after the mutex is released.
  std::vector<MetricKeyPtr> subkeys() const;
  MetricKeyPtr find_subkey(const std::string& name) const;

  KeyKind kind() const { return kind_; }
  const std::string& name() const { return name_; }
  // The parent, null at the root. Valid while this key is referenced.
  MetricKey* parent() const { return parent_; }
  // Names from the root down, joined by "/": "/zel/work_group/queue/length".
  std::string path() const;
  int32_t ref_count() const { return refs_.load(std::memory_order_relaxed); }
  // "MKey[<name> <count>]", for log lines.
  std::string log_name() const;

 protected:
  MetricKey(KeyKind kind, std::string name, MetricKey* parent);
  virtual ~MetricKey();

 private:
  MetricKeyPtr Child_(KeyKind kind, const std::string& name);

  const KeyKind kind_;
  const std::string name_;
  // Referenced through this key's own count: while the count is above 0, the
  // parent holds one reference for it.
  MetricKey* const parent_;
  mutable std::mutex mutex_;
  // Children, owned by this key, including those with a count of 0.
  std::map<std::string, MetricKey*> subkeys_;  // guarded by mutex_
  MetricValuePtr value_;                       // guarded by mutex_
  mutable std::atomic<int32_t> refs_{0};
};

inline void intrusive_ptr_add_ref(const MetricKey* key) { key->add_ref(); }
inline void intrusive_ptr_release(const MetricKey* key) { key->release(); }

namespace impl {

// The root of a tree, named "/". Make it with MakeRoot().
class RootKey : public MetricKey {
 public:
  static MetricKeyPtr MakeRoot();

 private:
  RootKey();
  ~RootKey() override;
};

}  // namespace impl

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_METRIC_KEY_H_

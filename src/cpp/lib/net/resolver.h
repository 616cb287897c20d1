// Resolver<Key, Value, KeyEqual, ResolverPolicy>: a table of names whose
// answers may not be known yet. A request for a key with no answer waits in
// the key's entry until the answer arrives (AddMapping), the key fails
// (Fail) or is cancelled (Cancel). The host name resolver keeps its lookups
// in one; the RPC layer keeps endpoint ids and service names in others.
//
//   Resolver<std::string, AddressList> table("NetNameResolver[0]",
//       [](const std::string& host) { StartLookup(host); });   // runs unlocked
//   table.Resolve("mp.example", handler);   // waits; starts the lookup
//   table.AddMapping("mp.example", {"10.0.0.5"});   // handler gets the list
//
// Entry states: INIT, RESOLVING (requests wait), RESOLVED, CANCELLED, FAILED.
// Entering one of the last three fulfils every waiting request. With the
// caching policy DO_NOT_STORE an answer is handed to the requests of the
// moment and the entry then goes, so the next request asks again; with STORE
// (2) entries keep their answer until removed (no ageing).
//
// Keys and values are printed in the log lines through ResolverText(), which
// this header defines for strings and string lists; other types add an
// overload in their own namespace.
//
// Threads: every operation may be called from any thread; one lock guards the
// table. Handlers, and the query function, run after the lock is released,
// on the calling thread unless Deliver is overridden.
#ifndef ZEL_NET_RESOLVER_H_
#define ZEL_NET_RESOLVER_H_

#include <cerrno>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/system/error_code.hpp>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/mutex.h"
#include "cpp/lib/net/net_error.h"

namespace zel {
namespace policy {
namespace caching {
enum Policy {
  // Answers go to the requests of the moment; nothing is kept.
  DO_NOT_STORE = 0,
  // Answers are kept until they are removed.
  STORE = 2,
};
}  // namespace caching
namespace threading {
// One lock over the whole table.
struct Locked {};
}  // namespace threading
}  // namespace policy

template <class Threading, policy::caching::Policy Caching>
struct ResolverPolicy {
  static constexpr policy::caching::Policy kCaching = Caching;
};

inline std::string ResolverText(const std::string& s) { return s; }
inline std::string ResolverText(const std::vector<std::string>& list) {
  std::string out;
  for (const std::string& s : list) out += (out.empty() ? "" : ",") + s;
  return out;
}

template <class Key, class Value, class KeyEqual = std::equal_to<Key>,
          class Policy = ResolverPolicy<policy::threading::Locked, policy::caching::DO_NOT_STORE>>
class Resolver {
 public:
  using Handler = std::function<void(const boost::system::error_code&, const Value&)>;
  // Asked to find the answer for a key that a request now waits for.
  using Query = std::function<void(const Key&)>;

  enum class State { INIT = 0, RESOLVING, RESOLVED, CANCELLED, FAILED };

  // `name` prefixes every log line; `logTag` and `ceiling` pick the
  // library's log component ("zel-net" with g_netLogCeiling, ...).
  Resolver(std::string name, Query query = Query(), const char* logTag = "zel-net",
           const int* ceiling = &g_netLogCeiling)
      : name_(std::move(name)), query_(std::move(query)), tag_(logTag), ceiling_(ceiling) {}
  virtual ~Resolver() = default;
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  void Resolve(const Key& key, Handler handler);
  std::optional<Value> Get(const Key& key);
  void AddMapping(const Key& key, const Value& value);
  void RemoveMapping(const Key& key, const Value& value);
  void SetDefault(const Value& value);
  void ResetDefault();
  void Fail(const Key& key, const boost::system::error_code& error);
  void Cancel(const Key& key, const boost::system::error_code& error = Canceled());
  void CancelAll(const boost::system::error_code& error = Canceled());
  // Waiting requests are dropped without an answer.
  void RemoveRequests(const Key& key);
  void RemoveAll();
  // Waiting requests fail with "Shut down", and so does every later one.
  void Shutdown();

  const std::string& name() const { return name_; }

 protected:
  // Hands one answer to one request; runs with no lock held.
  virtual void Deliver(const Handler& handler, const boost::system::error_code& status,
                       const Value& value) {
    handler(status, value);
  }
  // What a request gets once the table is shut down.
  virtual boost::system::error_code ShutDownError() const {
    return net::error::make_error_code(net::error::shut_down);
  }

 private:
  struct Entry {
    Key key;
    State state = State::INIT;
    std::optional<Value> value;
    boost::system::error_code error;
    std::vector<Handler> requests;
  };
  struct Delivery {
    Handler handler;
    boost::system::error_code status;
    Value value;
  };
  // What to do once the lock is released.
  struct Outbox {
    std::vector<Delivery> deliveries;
    std::vector<Key> queries;
  };
  using Map = std::unordered_map<Key, Entry, std::hash<Key>, KeyEqual>;

  static constexpr bool kStore = Policy::kCaching != policy::caching::DO_NOT_STORE;
  static boost::system::error_code Canceled() {
    return boost::system::error_code(ECANCELED, boost::system::system_category());
  }
  static bool IsFinal(State s) {
    return s == State::RESOLVED || s == State::CANCELLED || s == State::FAILED;
  }

  template <class... Args>
  void Log(int level, const char* format, Args... args) const {
    ZEL_LIB_LOG(*ceiling_, tag_, level).format(format, name_.c_str(), args...);
  }

  typename Map::iterator Make_(const Key& key) REQUIRES(mutex_);
  void Erase_(typename Map::iterator it) REQUIRES(mutex_);
  void SetState_(Entry& entry, State state) REQUIRES(mutex_);
  // Moves the entry to a final state and hands its requests to the outbox;
  // without storage the entry goes afterwards.
  void Finish_(typename Map::iterator it, State state, const boost::system::error_code& status,
               Outbox& out) REQUIRES(mutex_);
  void AddRequest_(Entry& entry, Handler handler, Outbox& out) REQUIRES(mutex_);
  void CancelEntry_(typename Map::iterator it, const boost::system::error_code& error, Outbox& out)
      REQUIRES(mutex_);
  void Send_(Outbox& out) EXCLUDES(mutex_);

  const std::string name_;
  const Query query_;
  const char* const tag_;
  const int* const ceiling_;

  Mutex mutex_;
  Map entries_ GUARDED_BY(mutex_);
  std::optional<Value> default_ GUARDED_BY(mutex_);
  bool active_ GUARDED_BY(mutex_) = true;
};

template <class State>
const char* ResolverStateText(State state) {
  static const char* const kNames[] = {"INIT", "RESOLVING", "RESOLVED", "CANCELLED", "FAILED"};
  const int i = static_cast<int>(state);
  return i >= 0 && i < 5 ? kNames[i] : "<Resolver::Entry::State::INVALID>";
}

// ---------------------------------------------------------------------------

template <class K, class V, class E, class P>
typename Resolver<K, V, E, P>::Map::iterator Resolver<K, V, E, P>::Make_(const K& key) {
  auto it = entries_.emplace(key, Entry{key, State::INIT, std::nullopt, {}, {}}).first;
  Log(kLogDebug, "%s Entry[%s] created", ResolverText(key).c_str());
  return it;
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Erase_(typename Map::iterator it) {
  Log(kLogDebug, "%s Entry[%s] destroyed", ResolverText(it->first).c_str());
  entries_.erase(it);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::SetState_(Entry& entry, State state) {
  const std::string key = ResolverText(entry.key);
  if (entry.state == state) {
    Log(kLogDebug, "%s Entry[%s] won't change state to %s - already there", key.c_str(),
        ResolverStateText(state));
    return;
  }
  Log(kLogVerbose, "%s Entry[%s] changing state %s to %s", key.c_str(),
      ResolverStateText(entry.state), ResolverStateText(state));
  Log(kLogVerbose, "%s Entry[%s] exiting %s state", key.c_str(), ResolverStateText(entry.state));
  entry.state = state;
  Log(kLogVerbose, "%s Entry[%s] entering %s state", key.c_str(), ResolverStateText(state));
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Finish_(typename Map::iterator it, State state,
                                   const boost::system::error_code& status, Outbox& out) {
  Entry& entry = it->second;
  SetState_(entry, state);
  entry.error = status;
  const std::string key = ResolverText(entry.key);
  if (state == State::RESOLVED) {
    Log(kLogVerbose, "%s Resolved from '%s' to '%s'", key.c_str(),
        ResolverText(*entry.value).c_str());
  } else if (state == State::FAILED) {
    Log(kLogWarn, "%s Failed to resolve '%s' with error  %i-%s", key.c_str(), status.value(),
        status.message().c_str());
  } else {
    Log(kLogDebug, "%s Canceled resolution of '%s' with error %i-%s", key.c_str(), status.value(),
        status.message().c_str());
  }
  Log(kLogDebug, "%s Fulfill %zu request(s) for '%s' with status %i-%s", entry.requests.size(),
      key.c_str(), status.value(), status.message().c_str());
  const V value = entry.value.value_or(V());
  for (Handler& h : entry.requests) out.deliveries.push_back({std::move(h), status, value});
  entry.requests.clear();
  if (!kStore) Erase_(it);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::AddRequest_(Entry& entry, Handler handler, Outbox& out) {
  const std::string key = ResolverText(entry.key);
  switch (entry.state) {
    case State::RESOLVED:
      Log(kLogDebug, "%s Request for '%s' is already resolved to '%s' - delivering", key.c_str(),
          ResolverText(*entry.value).c_str());
      out.deliveries.push_back({std::move(handler), {}, *entry.value});
      return;
    case State::CANCELLED:
      Log(kLogDebug, "%s Request for '%s' is already cancelled - delivering", key.c_str());
      out.deliveries.push_back({std::move(handler), entry.error, V()});
      return;
    case State::FAILED:
      Log(kLogDebug, "%s Request for '%s' is already failed with error %i-%s - delivering",
          key.c_str(), entry.error.value(), entry.error.message().c_str());
      out.deliveries.push_back({std::move(handler), entry.error, V()});
      return;
    default:
      Log(kLogDebug, "%s Saving request for '%s' resolution", key.c_str());
      entry.requests.push_back(std::move(handler));
      // The first waiting request starts the query.
      if (entry.state == State::INIT) {
        SetState_(entry, State::RESOLVING);
        if (query_) out.queries.push_back(entry.key);
      }
      return;
  }
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Send_(Outbox& out) {
  for (const K& key : out.queries) query_(key);
  for (Delivery& d : out.deliveries) Deliver(d.handler, d.status, d.value);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Resolve(const K& key, Handler handler) {
  Outbox out;
  {
    MutexLock lock(mutex_);
    const std::string text = ResolverText(key);
    Log(kLogVerbose, "%s Trying to resolve '%s'", text.c_str());
    auto it = entries_.find(key);
    if (!active_) {
      Log(kLogWarn, "%s Inactive - failing request for '%s'", text.c_str());
      out.deliveries.push_back(
          {std::move(handler), ShutDownError(), V()});
    } else if (default_ && (it == entries_.end() || it->second.state == State::INIT ||
                            it->second.state == State::RESOLVING)) {
      // Every name without an answer of its own goes to the default.
      out.deliveries.push_back({std::move(handler), {}, *default_});
    } else {
      if (it == entries_.end()) it = Make_(key);
      AddRequest_(it->second, std::move(handler), out);
    }
  }
  Send_(out);
}

template <class K, class V, class E, class P>
std::optional<V> Resolver<K, V, E, P>::Get(const K& key) {
  MutexLock lock(mutex_);
  const std::string text = ResolverText(key);
  Log(kLogDebug, "%s Trying to get '%s'", text.c_str());
  if (!active_) {
    Log(kLogDebug, "%s Inactive - failing lookup for '%s'", text.c_str());
    return std::nullopt;
  }
  auto it = entries_.find(key);
  if (it != entries_.end()) {
    if (it->second.state == State::RESOLVED) {
      Log(kLogDebug, "%s Returning '%s' for '%s'", ResolverText(*it->second.value).c_str(),
          text.c_str());
      return it->second.value;
    }
    Log(kLogDebug, "%s Returning <none> - entry for '%s' is not resolved", text.c_str());
    return std::nullopt;
  }
  if (default_) {
    Log(kLogDebug, "%s Returning default value '%s' for '%s'", ResolverText(*default_).c_str(),
        text.c_str());
    return default_;
  }
  Log(kLogDebug, "%s Returning <none> - entry for '%s' is not found", text.c_str());
  return std::nullopt;
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::AddMapping(const K& key, const V& value) {
  Outbox out;
  {
    MutexLock lock(mutex_);
    const std::string from = ResolverText(key);
    const std::string to = ResolverText(value);
    if (!active_) {
      Log(kLogDebug, "%s Inactive - ignoring mapping update from '%s' to '%s'", from.c_str(),
          to.c_str());
      return;
    }
    Log(kLogVerbose, "%s Adding mapping from '%s' to '%s'", from.c_str(), to.c_str());
    auto it = entries_.find(key);
    if (it == entries_.end()) {
      if (!kStore) {
        Log(kLogDebug, "%s Not adding mapping update from '%s' to '%s' due to caching policy",
            from.c_str(), to.c_str());
        return;
      }
      it = Make_(key);
    }
    Entry& entry = it->second;
    if (entry.state == State::CANCELLED || entry.state == State::FAILED) {
      Log(kLogDebug, "%s Cannot resolve request for '%s' - already in %s state", from.c_str(),
          ResolverStateText(entry.state));
      return;
    }
    if (!kStore && entry.requests.empty()) {
      Log(kLogDebug, "%s Ignoring resolve update for '%s' in %s state for DO_NOT_STORE policy",
          from.c_str(), ResolverStateText(entry.state));
      Erase_(it);
      return;
    }
    Log(kLogDebug, "%s Updating mapping from '%s' to '%s' (prev: '%s')", from.c_str(), to.c_str(),
        entry.value ? ResolverText(*entry.value).c_str() : "");
    entry.value = value;
    Finish_(it, State::RESOLVED, {}, out);
  }
  Send_(out);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::RemoveMapping(const K& key, const V& value) {
  MutexLock lock(mutex_);
  const std::string from = ResolverText(key);
  const std::string to = ResolverText(value);
  auto it = entries_.find(key);
  if (it == entries_.end()) {
    Log(kLogDebug, "%s No entry '%s'", from.c_str());
    return;
  }
  Entry& entry = it->second;
  if (entry.state == State::CANCELLED || entry.state == State::FAILED) {
    Log(kLogDebug, "%s Cannot remove mapping for '%s' - already in %s state", from.c_str(),
        ResolverStateText(entry.state));
    return;
  }
  if (!entry.value || !(ResolverText(*entry.value) == to)) {
    Log(kLogDebug, "%s Couldn't find mapping from '%s' to '%s'", from.c_str(), to.c_str());
    return;
  }
  Log(kLogVerbose, "%s Removing mapping from '%s' to '%s'", from.c_str(), to.c_str());
  entry.value.reset();
  SetState_(entry, State::INIT);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::SetDefault(const V& value) {
  Outbox out;
  {
    MutexLock lock(mutex_);
    if (!active_) {
      Log(kLogDebug, "%s Inactive - ignoring default mapping update to '%s'",
          ResolverText(value).c_str());
      return;
    }
    Log(kLogVerbose, "%s Adding default mapping to '%s'", ResolverText(value).c_str());
    default_ = value;
    // Requests waiting for a name of no answer take the default now.
    for (auto& entry : entries_) {
      if (entry.second.state != State::RESOLVING) continue;
      for (Handler& h : entry.second.requests) out.deliveries.push_back({std::move(h), {}, value});
      entry.second.requests.clear();
      SetState_(entry.second, State::INIT);
    }
  }
  Send_(out);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::ResetDefault() {
  MutexLock lock(mutex_);
  if (!active_) {
    Log(kLogDebug, "%s Inactive - ignoring default mapping update");
    return;
  }
  Log(kLogVerbose, "%s Removing default mapping");
  default_.reset();
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Fail(const K& key, const boost::system::error_code& error) {
  Outbox out;
  {
    MutexLock lock(mutex_);
    const std::string text = ResolverText(key);
    Log(kLogDebug, "%s Failing requests for '%s'", text.c_str());
    auto it = entries_.find(key);
    if (it == entries_.end()) {
      Log(kLogDebug, "%s No entry '%s'", text.c_str());
      return;
    }
    const State state = it->second.state;
    if (state == State::RESOLVED) {
      Log(kLogDebug, "%s Already resolved '%s' to '%s' - ignoring failure", text.c_str(),
          ResolverText(*it->second.value).c_str());
      return;
    }
    if (IsFinal(state)) {
      Log(kLogDebug, "%s Cannot resolve request for '%s' - already in %s state", text.c_str(),
          ResolverStateText(state));
      return;
    }
    Finish_(it, State::FAILED, error, out);
  }
  Send_(out);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::CancelEntry_(typename Map::iterator it,
                                        const boost::system::error_code& error, Outbox& out) {
  const State state = it->second.state;
  if (IsFinal(state)) {
    Log(kLogDebug, "%s Cannot cancel request for '%s' (with error %i-%s) - already in %s state",
        ResolverText(it->first).c_str(), error.value(), error.message().c_str(),
        ResolverStateText(state));
    return;
  }
  Finish_(it, State::CANCELLED, error, out);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Cancel(const K& key, const boost::system::error_code& error) {
  Outbox out;
  {
    MutexLock lock(mutex_);
    Log(kLogDebug, "%s Canceling requests for '%s'", ResolverText(key).c_str());
    auto it = entries_.find(key);
    if (it == entries_.end()) {
      Log(kLogDebug, "%s No entry '%s'", ResolverText(key).c_str());
      return;
    }
    CancelEntry_(it, error, out);
  }
  Send_(out);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::CancelAll(const boost::system::error_code& error) {
  Outbox out;
  {
    MutexLock lock(mutex_);
    Log(kLogDebug, "%s Canceling all requests");
    for (auto it = entries_.begin(); it != entries_.end();) {
      auto next = std::next(it);
      if (!IsFinal(it->second.state)) CancelEntry_(it, error, out);
      it = next;
    }
  }
  Send_(out);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::RemoveRequests(const K& key) {
  MutexLock lock(mutex_);
  Log(kLogDebug, "%s Removing requests for '%s'", ResolverText(key).c_str());
  auto it = entries_.find(key);
  if (it == entries_.end()) {
    Log(kLogDebug, "%s No entry '%s'", ResolverText(key).c_str());
    return;
  }
  it->second.requests.clear();
  if (it->second.state == State::RESOLVING) SetState_(it->second, State::INIT);
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::RemoveAll() {
  MutexLock lock(mutex_);
  Log(kLogDebug, "%s Removing all requests");
  for (auto& entry : entries_) {
    entry.second.requests.clear();
    if (entry.second.state == State::RESOLVING) SetState_(entry.second, State::INIT);
  }
}

template <class K, class V, class E, class P>
void Resolver<K, V, E, P>::Shutdown() {
  Outbox out;
  {
    MutexLock lock(mutex_);
    if (!active_) {
      Log(kLogDebug, "%s Already shutdown");
      return;
    }
    Log(kLogInfo, "%s Shutting down - removing all requests");
    active_ = false;
    const boost::system::error_code down = ShutDownError();
    while (!entries_.empty()) {
      auto it = entries_.begin();
      for (Handler& h : it->second.requests) out.deliveries.push_back({std::move(h), down, V()});
      Erase_(it);
    }
  }
  Send_(out);
}

}  // namespace zel

#endif  // ZEL_NET_RESOLVER_H_

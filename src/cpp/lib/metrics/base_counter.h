// BaseCounter<T, Policy, Aggregators>: the one implementation of MetricValue.
//
// A counter keeps two slots of the same layout. Updates go to the active
// slot; rollover() finishes it (averages, rates, frequencies, percentiles),
// freezes it for the report and starts the other one as the new active slot,
// carrying the running "v~" figures over. A report reads the frozen slot
// while updates go on in the active one, so an update never waits for a
// report to be written.
//
// Threads: every operation may be called from any thread. Updates, rollover,
// reset and the copy of a slot for output each take the counter's one-word
// spin lock and nothing else; an update allocates nothing, except that a
// counter with percentiles appends the sample to its store. Formatting of
// to_string and serialize runs on a copy, after the lock is released.
#ifndef ZEL_METRICS_BASE_COUNTER_H_
#define ZEL_METRICS_BASE_COUNTER_H_

#include <cstdint>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "cpp/lib/common/spin_lock.h"
#include "cpp/lib/metrics/aggregators.h"
#include "cpp/lib/metrics/clock.h"
#include "cpp/lib/metrics/impl/text.h"
#include "cpp/lib/metrics/metric_value.h"
#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace metrics {

template <typename T, typename Policy, typename Aggregators>
class BaseCounter : public MetricValue {
  static_assert(std::is_unsigned<T>::value, "counters count in unsigned integers");

 public:
  using value_type = T;
  using policy_type = Policy;
  using aggregators_type = Aggregators;
  static constexpr uint64_t kType = Aggregators::kMask;

  // MetricValue
  std::string to_string(bool current) override { return Print_(Snapshot_(current)); }
  void reset() override;
  void rollover() override;
  void serialize(Serializer& out, bool current) override;

 protected:
  explicit BaseCounter(std::string units);

  // Value counters: the level becomes op(level), and the aggregators see the
  // new level.
  template <typename Op>
  void UpdateLevel_(Op op) {
    static_assert(Policy::kHasLast && Policy::kRunning, "only value counters have a level");
    const int64_t now = Aggregators::kNeedsClock ? Clock::SteadyNow() : 0;
    std::lock_guard<SpinLock> guard(lock_);
    Slot& slot = slots_[active_];
    slot.last = op(slot.last);
    Aggregators::Update(slot.aggs, aggregation::UpdateContext<T>{slot.last, now, Store_()});
  }

  // Samples, marks and amounts: the aggregators see `amount`, and a
  // sample_last policy keeps it as the last sample.
  void Sample_(T amount) {
    const int64_t now = Aggregators::kNeedsClock ? Clock::SteadyNow() : 0;
    std::lock_guard<SpinLock> guard(lock_);
    Slot& slot = slots_[active_];
    if constexpr (Policy::kHasLast) slot.last = amount;
    Aggregators::Update(slot.aggs, aggregation::UpdateContext<T>{amount, now, Store_()});
  }

 private:
  struct Slot {
    T last{};
    typename Aggregators::template Fields<T> aggs{};
    int64_t startSystemNs = 0;
    int64_t startSteadyNs = 0;
  };
  struct NoStore {};
  using Store = std::conditional_t<Aggregators::kNeedsStore, std::vector<uint64_t>, NoStore>;

  std::vector<uint64_t>* Store_() {
    if constexpr (Aggregators::kNeedsStore) {
      return &store_;
    } else {
      return nullptr;
    }
  }

  static int64_t ElapsedMs(const Slot& slot, int64_t nowNs) {
    return nowNs > slot.startSteadyNs ? (nowNs - slot.startSteadyNs) / 1000000 : 0;
  }

  // Makes `next` the slot of a period starting now after `finished`.
  static void BeginPeriod_(Slot& next, const Slot& finished, int64_t systemNs, int64_t steadyNs) {
    next.last = Policy::kRunning ? finished.last : T{};
    Aggregators::BeginPeriod(next.aggs, finished.aggs, steadyNs);
    next.startSystemNs = systemNs;
    next.startSteadyNs = steadyNs;
  }

  // A copy of the slot to report: the active one with its period figures
  // computed up to now, or the frozen one.
  Slot Snapshot_(bool current);
  std::string Print_(const Slot& slot) const;

  Slot slots_[2];
  uint8_t active_ = 0;
  uint8_t frozen_ = 1;
  SpinLock lock_;
  Store store_;
};

template <typename T, typename P, typename A>
BaseCounter<T, P, A>::BaseCounter(std::string units) : MetricValue(kType, std::move(units)) {
  const int64_t system = Clock::SystemNow();
  const int64_t steady = Clock::SteadyNow();
  const Slot empty{};
  BeginPeriod_(slots_[0], empty, system, steady);
  BeginPeriod_(slots_[1], empty, system, steady);
  SetPeriodStart(system, steady);
}

template <typename T, typename P, typename A>
void BaseCounter<T, P, A>::reset() {
  const int64_t system = Clock::SystemNow();
  const int64_t steady = Clock::SteadyNow();
  const Slot empty{};
  std::lock_guard<SpinLock> guard(lock_);
  BeginPeriod_(slots_[active_], empty, system, steady);
  if constexpr (A::kNeedsStore) store_.clear();
  SetPeriodStart(system, steady);
}

template <typename T, typename P, typename A>
void BaseCounter<T, P, A>::rollover() {
  const int64_t system = Clock::SystemNow();
  const int64_t steady = Clock::SteadyNow();
  std::lock_guard<SpinLock> guard(lock_);
  Slot& finished = slots_[active_];
  A::Finish(finished.aggs,
            aggregation::FinishContext{steady, ElapsedMs(finished, steady), Store_(), true});
  BeginPeriod_(slots_[frozen_], finished, system, steady);
  std::swap(active_, frozen_);
  SetPeriodStart(system, steady);
}

template <typename T, typename P, typename A>
void BaseCounter<T, P, A>::serialize(Serializer& out, bool current) {
  const Slot slot = Snapshot_(current);
  out.timestamp(static_cast<uint64_t>(slot.startSystemNs / 1000000));
  if (!units().empty()) out.units(units());
  out.value(Print_(slot));
  if constexpr (P::kHasLast) P::Serialize(out, static_cast<double>(slot.last));
  A::Serialize(out, slot.aggs);
}

template <typename T, typename P, typename A>
typename BaseCounter<T, P, A>::Slot BaseCounter<T, P, A>::Snapshot_(bool current) {
  const int64_t steady = current ? Clock::SteadyNow() : 0;
  std::lock_guard<SpinLock> guard(lock_);
  if (!current) return slots_[frozen_];
  Slot slot = slots_[active_];
  A::Finish(slot.aggs, aggregation::FinishContext{steady, ElapsedMs(slot, steady), Store_(), false});
  return slot;
}

template <typename T, typename P, typename A>
std::string BaseCounter<T, P, A>::Print_(const Slot& slot) const {
  impl::ValueText text;
  if (!units().empty()) {
    text.Part("units: ");
    text.Literal(units().c_str());
  }
  if constexpr (P::kHasLast) {
    text.Part(P::kLabel);
    text.Unsigned(static_cast<uint64_t>(slot.last));
  }
  A::Print(text, slot.aggs);
  return text.Take();
}

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_BASE_COUNTER_H_

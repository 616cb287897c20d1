// The building blocks of counters: the policy for the last value and the
// aggregators that a counter keeps beside it.
//
// Each aggregator owns a few fields of a counter slot and answers to four
// events: an update (the new level of a value counter, a latency sample, 1
// for a frequency mark, or the bytes added to a rate), the end of a period
// (Finish: compute averages, rates, frequencies, percentiles), the start of
// the next period (BeginPeriod: running "v~" figures carry over, "s~"
// figures of the period start from zero) and output (Print, Serialize).
// Each sets one bit of the counter's type mask, the field number of its
// first wire field; a min-max pair sets the bit of its minimum.
//
// A set<...> lists the aggregators of a counter in printing order.
//
// Elapsed time E of a period is in whole milliseconds; with E = 0 rates,
// frequencies and time-weighted averages are 0.
#ifndef ZEL_METRICS_AGGREGATORS_H_
#define ZEL_METRICS_AGGREGATORS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "cpp/lib/metrics/impl/text.h"
#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace metrics {
namespace aggregation {

constexpr uint64_t FieldBit(int field) { return uint64_t{1} << field; }

template <typename T>
struct UpdateContext {
  T amount;
  int64_t nowNs;                 // steady time; 0 unless the set needs a clock
  std::vector<uint64_t>* store;  // the sample store; null unless the set keeps one
};

struct FinishContext {
  int64_t nowNs;
  int64_t elapsedMs;
  std::vector<uint64_t>* store;
  bool endOfPeriod;  // rollover: the store is emptied after use
};

// The p-th percentile (0 < p < 1) of `sorted`, ascending: r = p * (n + 1),
// k = r cut to an integer; the first sample for k = 0, the last for k >= n,
// else the interpolation between samples k and k + 1 counted from 1. 0 for
// no samples.
double Percentile(const std::vector<uint64_t>& sorted, double p);

// --- Policies of the last value -------------------------------------------

// The level of a value counter, "v~last"; it survives rollover.
struct value_last {
  static constexpr bool kHasLast = true;
  static constexpr bool kRunning = true;
  static constexpr const char* kLabel = "v~last: ";
  static void Serialize(Serializer& out, double v) { out.value_last(v); }
};

// The last sample of the period, "s~last".
struct sample_last {
  static constexpr bool kHasLast = true;
  static constexpr bool kRunning = false;
  static constexpr const char* kLabel = "s~last: ";
  static void Serialize(Serializer& out, double v) { out.sample_last(v); }
};

// No last value: frequencies and rates.
struct no_value {
  static constexpr bool kHasLast = false;
  static constexpr bool kRunning = false;
  static constexpr const char* kLabel = "";
  static void Serialize(Serializer&, double) {}
};

// --- Aggregators -----------------------------------------------------------

// Default hooks: no clock, no store, nothing to finish, a figure of the
// period. An aggregator hides the hooks it needs.
struct aggregator {
  static constexpr uint64_t kMask = 0;
  static constexpr bool kNeedsClock = false;
  static constexpr bool kNeedsStore = false;
  template <typename F>
  static void Finish(F&, const FinishContext&) {}
  template <typename F>
  static void BeginPeriod(F& next, const F& /*finished*/, int64_t /*nowNs*/) {
    next = F{};
  }
};

// A running figure, carried over into the next period.
struct running_aggregator : aggregator {
  template <typename F>
  static void BeginPeriod(F& next, const F& finished, int64_t /*nowNs*/) {
    next = finished;
  }
};

// Where a count, a min-max pair or a sum belongs: a running "v~" figure that
// survives rollover, or an "s~" figure of the period. The scope names the
// labels and wire fields; the aggregators below hold the logic once for both.
struct running_scope : running_aggregator {
  static constexpr int kNumField = 11;
  static constexpr int kMinMaxField = 12;
  static constexpr int kSumField = 15;
  static constexpr const char* kNumLabel = "v~num: ";
  static constexpr const char* kMinLabel = "v~min: ";
  static constexpr const char* kMaxLabel = ", v~max: ";
  static constexpr const char* kSumLabel = "v~sum: ";
  static void WriteNum(Serializer& out, uint64_t num) { out.value_num(num); }
  static void WriteMinMax(Serializer& out, double min, double max) { out.value_min_max(min, max); }
  static void WriteSum(Serializer& out, double sum) { out.value_sum(sum); }
};

struct period_scope : aggregator {
  static constexpr int kNumField = 31;
  static constexpr int kMinMaxField = 32;
  static constexpr int kSumField = 35;
  static constexpr const char* kNumLabel = "s~num: ";
  static constexpr const char* kMinLabel = "s~min: ";
  static constexpr const char* kMaxLabel = ", s~max: ";
  static constexpr const char* kSumLabel = "s~sum: ";
  static void WriteNum(Serializer& out, uint64_t num) { out.sample_num(num); }
  static void WriteMinMax(Serializer& out, double min, double max) { out.sample_min_max(min, max); }
  static void WriteSum(Serializer& out, double sum) { out.sample_sum(sum); }
};

// The number of updates.
template <typename Scope>
struct num_of : Scope {
  static constexpr uint64_t kMask = FieldBit(Scope::kNumField);
  template <typename T>
  struct Fields {
    uint64_t num = 0;
  };
  template <typename T>
  static void Update(Fields<T>& f, const UpdateContext<T>&) { ++f.num; }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part(Scope::kNumLabel);
    text.Unsigned(f.num);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) { Scope::WriteNum(out, f.num); }
};

// Lowest and highest amount, set by the first update of the scope: the first
// ever for a running pair, the first of the period otherwise.
template <typename Scope>
struct min_max_of : Scope {
  static constexpr uint64_t kMask = FieldBit(Scope::kMinMaxField);
  template <typename T>
  struct Fields {
    T min{};
    T max{};
    bool seen = false;
  };
  template <typename T>
  static void Update(Fields<T>& f, const UpdateContext<T>& c) {
    if (!f.seen || c.amount < f.min) f.min = c.amount;
    if (!f.seen || c.amount > f.max) f.max = c.amount;
    f.seen = true;
  }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part(Scope::kMinLabel);
    text.Unsigned(f.min);
    text.Literal(Scope::kMaxLabel);
    text.Unsigned(f.max);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) {
    Scope::WriteMinMax(out, static_cast<double>(f.min), static_cast<double>(f.max));
  }
};

// The sum of the amounts, kept as a double.
template <typename Scope>
struct sum_of : Scope {
  static constexpr uint64_t kMask = FieldBit(Scope::kSumField);
  template <typename T>
  struct Fields {
    double sum = 0;
  };
  template <typename T>
  static void Update(Fields<T>& f, const UpdateContext<T>& c) {
    f.sum += static_cast<double>(c.amount);
  }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part(Scope::kSumLabel);
    text.Double(f.sum);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) { Scope::WriteSum(out, f.sum); }
};

using value_num = num_of<running_scope>;
using value_min_max = min_max_of<running_scope>;
using value_sum = sum_of<running_scope>;
using sample_num = num_of<period_scope>;
using sample_min_max = min_max_of<period_scope>;
using sample_sum = sum_of<period_scope>;

// sum / num of the period; 0 with no samples.
struct sample_avg : aggregator {
  static constexpr uint64_t kMask = FieldBit(34);
  template <typename T>
  struct Fields {
    double sum = 0;
    uint64_t num = 0;
    double avg = 0;
  };
  template <typename T>
  static void Update(Fields<T>& f, const UpdateContext<T>& c) {
    f.sum += static_cast<double>(c.amount);
    ++f.num;
  }
  template <typename T>
  static void Finish(Fields<T>& f, const FinishContext&) {
    f.avg = f.num == 0 ? 0.0 : f.sum / static_cast<double>(f.num);
  }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part("s~avg: ");
    text.Double(f.avg);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) { out.sample_avg(f.avg); }
};

// Per second over the period: 1000 * total / E, where each update adds its
// amount to the total of a rate and one to the total of a frequency.
template <typename Kind>
struct per_second : aggregator {
  static constexpr uint64_t kMask = FieldBit(Kind::kField);
  template <typename T>
  struct Fields {
    double total = 0;
    double perSecond = 0;
  };
  template <typename T>
  static void Update(Fields<T>& f, const UpdateContext<T>& c) {
    f.total += Kind::Weight(c.amount);
  }
  template <typename T>
  static void Finish(Fields<T>& f, const FinishContext& c) {
    f.perSecond =
        c.elapsedMs == 0 ? 0.0 : 1000.0 * f.total / static_cast<double>(c.elapsedMs);
  }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part(Kind::kLabel);
    text.Double(f.perSecond);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) { Kind::Write(out, f.perSecond); }
};

struct rate_kind {
  static constexpr int kField = 36;
  static constexpr const char* kLabel = "s~rate: ";
  template <typename T>
  static double Weight(T amount) { return static_cast<double>(amount); }
  static void Write(Serializer& out, double v) { out.sample_rate(v); }
};

struct frequency_kind {
  static constexpr int kField = 37;
  static constexpr const char* kLabel = "s~freq: ";
  template <typename T>
  static double Weight(T) { return 1.0; }
  static void Write(Serializer& out, double v) { out.sample_freq(v); }
};

using sample_rate = per_second<rate_kind>;
using sample_freq = per_second<frequency_kind>;

// Time-weighted average level over the period: the sum of level times the
// milliseconds it was held, divided by E. The level carries over; the weight
// starts anew with each period.
struct sample_twa : aggregator {
  static constexpr uint64_t kMask = FieldBit(38);
  static constexpr bool kNeedsClock = true;
  template <typename T>
  struct Fields {
    double level = 0;
    int64_t sinceNs = 0;
    double weightedMs = 0;
    double twa = 0;
  };
  template <typename T>
  static void Update(Fields<T>& f, const UpdateContext<T>& c) {
    f.weightedMs += f.level * HeldMs(f.sinceNs, c.nowNs);
    f.level = static_cast<double>(c.amount);
    f.sinceNs = c.nowNs;
  }
  template <typename T>
  static void Finish(Fields<T>& f, const FinishContext& c) {
    f.twa = c.elapsedMs == 0
                ? 0.0
                : (f.weightedMs + f.level * HeldMs(f.sinceNs, c.nowNs)) /
                      static_cast<double>(c.elapsedMs);
  }
  template <typename T>
  static void BeginPeriod(Fields<T>& next, const Fields<T>& finished, int64_t nowNs) {
    next = Fields<T>{};
    next.level = finished.level;
    next.sinceNs = nowNs;
  }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part("s~twa: ");
    text.Double(f.twa);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) { out.sample_twa(f.twa); }

 private:
  static double HeldMs(int64_t sinceNs, int64_t nowNs) {
    return nowNs > sinceNs ? static_cast<double>(nowNs - sinceNs) / 1e6 : 0.0;
  }
};

// p95 and p99 over every sample of the period, kept in the counter's store.
struct sample_percentiles : aggregator {
  static constexpr uint64_t kMask = FieldBit(43) | FieldBit(44);
  static constexpr bool kNeedsStore = true;
  template <typename T>
  struct Fields {
    double p95 = 0;
    double p99 = 0;
  };
  template <typename T>
  static void Update(Fields<T>&, const UpdateContext<T>& c) {
    c.store->push_back(static_cast<uint64_t>(c.amount));
  }
  template <typename T>
  static void Finish(Fields<T>& f, const FinishContext& c) {
    std::sort(c.store->begin(), c.store->end());
    f.p95 = Percentile(*c.store, 0.95);
    f.p99 = Percentile(*c.store, 0.99);
    if (c.endOfPeriod) c.store->clear();  // keeps the capacity
  }
  template <typename T>
  static void Print(impl::ValueText& text, const Fields<T>& f) {
    text.Part("s~p95");
    text.Literal(": ");
    text.Double(f.p95);
    text.Part("s~p99");
    text.Literal(": ");
    text.Double(f.p99);
  }
  template <typename T>
  static void Serialize(Serializer& out, const Fields<T>& f) {
    out.sample_p95(f.p95);
    out.sample_p99(f.p99);
  }
};

// --- Sets ------------------------------------------------------------------

template <typename... A>
struct set {
  static constexpr uint64_t kMask = (uint64_t{0} | ... | A::kMask);
  static constexpr bool kNeedsClock = (false || ... || A::kNeedsClock);
  static constexpr bool kNeedsStore = (false || ... || A::kNeedsStore);

  template <typename T>
  using Fields = std::tuple<typename A::template Fields<T>...>;

  // Tuple is Fields<T> of the counter's T; it is taken as it stands because
  // T cannot be deduced through the alias.
  template <typename Tuple, typename T>
  static void Update(Tuple& f, const UpdateContext<T>& c) {
    Update_(f, c, std::index_sequence_for<A...>{});
  }
  template <typename Tuple>
  static void Finish(Tuple& f, const FinishContext& c) {
    Finish_(f, c, std::index_sequence_for<A...>{});
  }
  template <typename Tuple>
  static void BeginPeriod(Tuple& next, const Tuple& finished, int64_t nowNs) {
    BeginPeriod_(next, finished, nowNs, std::index_sequence_for<A...>{});
  }
  template <typename Tuple>
  static void Print(impl::ValueText& text, const Tuple& f) {
    Print_(text, f, std::index_sequence_for<A...>{});
  }
  template <typename Tuple>
  static void Serialize(Serializer& out, const Tuple& f) {
    Serialize_(out, f, std::index_sequence_for<A...>{});
  }

 private:
  template <typename Tuple, typename T, size_t... I>
  static void Update_([[maybe_unused]] Tuple& f, [[maybe_unused]] const UpdateContext<T>& c, std::index_sequence<I...>) {
    (A::Update(std::get<I>(f), c), ...);
  }
  template <typename Tuple, size_t... I>
  static void Finish_([[maybe_unused]] Tuple& f, [[maybe_unused]] const FinishContext& c, std::index_sequence<I...>) {
    (A::Finish(std::get<I>(f), c), ...);
  }
  template <typename Tuple, size_t... I>
  static void BeginPeriod_([[maybe_unused]] Tuple& next,
                           [[maybe_unused]] const Tuple& finished,
                           [[maybe_unused]] int64_t nowNs,
                           std::index_sequence<I...>) {
    (A::BeginPeriod(std::get<I>(next), std::get<I>(finished), nowNs), ...);
  }
  template <typename Tuple, size_t... I>
  static void Print_([[maybe_unused]] impl::ValueText& text, const Tuple& f, std::index_sequence<I...>) {
    (A::Print(text, std::get<I>(f)), ...);
  }
  template <typename Tuple, size_t... I>
  static void Serialize_([[maybe_unused]] Serializer& out, const Tuple& f, std::index_sequence<I...>) {
    (A::Serialize(out, std::get<I>(f)), ...);
  }
};

using empty_set = set<>;
using unit_aggregators = set<sample_num, sample_min_max>;
using latency_aggregators = set<sample_num, sample_min_max, sample_sum, sample_avg>;
using latency_stats_aggregators =
    set<sample_num, sample_min_max, sample_sum, sample_avg, sample_percentiles>;
using frequency_aggregators = set<sample_num, sample_freq>;
using net_object_agg = set<value_num, value_min_max, sample_num, sample_min_max, sample_freq>;
using net_freq_agg = set<value_num, sample_num, sample_freq>;
using net_rate_agg = set<value_sum, sample_sum, sample_rate>;
using queue_size_agg = set<value_num, value_min_max, sample_num, sample_min_max, sample_twa>;
using queue_latency_stats_aggregators = set<value_num, value_min_max, sample_num, sample_min_max,
                                            sample_sum, sample_avg, sample_percentiles>;

}  // namespace aggregation

using aggregation::latency_aggregators;
using aggregation::latency_stats_aggregators;

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_AGGREGATORS_H_

// The sink through which a metric value describes itself to a publisher.
//
// A value writes, in this order: its timestamp, units (when it has any), its
// printed text, its last value or sample, then one writer call per aggregate
// it keeps. The key around it adds the type, its name and, for an instance,
// the tag "instance". A min-max pair is one call. BasicSerializer keeps every
// field it is given with a flag that says it was set; publishers read those.
//
// Threads: a serializer belongs to the thread that fills it.
#ifndef ZEL_METRICS_SERIALIZER_H_
#define ZEL_METRICS_SERIALIZER_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zel {
namespace metrics {

class Serializer {
 public:
  virtual ~Serializer() = default;

  // The aggregate bit mask of the value (MetricValue::type()).
  virtual void type(uint64_t mask) = 0;
  virtual void name(const std::string& name) = 0;
  // Milliseconds since the epoch at the start of the reported period.
  virtual void timestamp(uint64_t ms) = 0;
  virtual void units(const std::string& units) = 0;
  // The printed form of the value (MetricValue::to_string).
  virtual void value(const std::string& text) = 0;
  virtual void tag(const std::string& key, const std::string& value) = 0;

  virtual void value_last(double v) = 0;
  virtual void sample_last(double v) = 0;
  virtual void value_num(uint64_t n) = 0;
  virtual void value_min_max(double min, double max) = 0;
  virtual void value_sum(double v) = 0;
  virtual void value_rate(double v) = 0;
  virtual void sample_num(uint64_t n) = 0;
  virtual void sample_min_max(double min, double max) = 0;
  virtual void sample_sum(double v) = 0;
  virtual void sample_avg(double v) = 0;
  virtual void sample_rate(double v) = 0;
  virtual void sample_freq(double v) = 0;
  virtual void sample_twa(double v) = 0;
  virtual void sample_p50(double v) = 0;
  virtual void sample_p95(double v) = 0;
  virtual void sample_p99(double v) = 0;
};

// One field of BasicSerializer: its value and whether a writer set it.
template <typename V>
struct SerializedField {
  V value{};
  bool set = false;

  void Set(V v) {
    value = std::move(v);
    set = true;
  }
};

class BasicSerializer : public Serializer {
 public:
  // The tag that carries the name of an instance key.
  static constexpr const char* kInstanceTag = "instance";

  // Serializer
  void type(uint64_t mask) override { type_.Set(mask); }
  void name(const std::string& name) override { name_.Set(name); }
  void timestamp(uint64_t ms) override { timestamp_.Set(ms); }
  void units(const std::string& units) override { units_.Set(units); }
  void value(const std::string& text) override { value_.Set(text); }
  void tag(const std::string& key, const std::string& value) override {
    tags_.emplace_back(key, value);
  }
  void value_last(double v) override { value_last_.Set(v); }
  void sample_last(double v) override { sample_last_.Set(v); }
  void value_num(uint64_t n) override { value_num_.Set(n); }
  void value_min_max(double min, double max) override {
    value_min_.Set(min);
    value_max_.Set(max);
  }
  void value_sum(double v) override { value_sum_.Set(v); }
  void value_rate(double v) override { value_rate_.Set(v); }
  void sample_num(uint64_t n) override { sample_num_.Set(n); }
  void sample_min_max(double min, double max) override {
    sample_min_.Set(min);
    sample_max_.Set(max);
  }
  void sample_sum(double v) override { sample_sum_.Set(v); }
  void sample_avg(double v) override { sample_avg_.Set(v); }
  void sample_rate(double v) override { sample_rate_.Set(v); }
  void sample_freq(double v) override { sample_freq_.Set(v); }
  void sample_twa(double v) override { sample_twa_.Set(v); }
  void sample_p50(double v) override { sample_p50_.Set(v); }
  void sample_p95(double v) override { sample_p95_.Set(v); }
  void sample_p99(double v) override { sample_p99_.Set(v); }

  // Forgets everything, so that one serializer can be reused key after key.
  void Clear() { *this = BasicSerializer(); }

  // The value of the "instance" tag, or an empty text for a plain key.
  std::string instance() const;

  const SerializedField<uint64_t>& type() const { return type_; }
  const SerializedField<std::string>& name() const { return name_; }
  const SerializedField<uint64_t>& timestamp() const { return timestamp_; }
  const SerializedField<std::string>& units() const { return units_; }
  const SerializedField<std::string>& value() const { return value_; }
  const std::vector<std::pair<std::string, std::string>>& tags() const { return tags_; }
  const SerializedField<double>& value_last() const { return value_last_; }
  const SerializedField<double>& sample_last() const { return sample_last_; }
  const SerializedField<uint64_t>& value_num() const { return value_num_; }
  const SerializedField<double>& value_min() const { return value_min_; }
  const SerializedField<double>& value_max() const { return value_max_; }
  const SerializedField<double>& value_sum() const { return value_sum_; }
  const SerializedField<double>& value_rate() const { return value_rate_; }
  const SerializedField<uint64_t>& sample_num() const { return sample_num_; }
  const SerializedField<double>& sample_min() const { return sample_min_; }
  const SerializedField<double>& sample_max() const { return sample_max_; }
  const SerializedField<double>& sample_sum() const { return sample_sum_; }
  const SerializedField<double>& sample_avg() const { return sample_avg_; }
  const SerializedField<double>& sample_rate() const { return sample_rate_; }
  const SerializedField<double>& sample_freq() const { return sample_freq_; }
  const SerializedField<double>& sample_twa() const { return sample_twa_; }
  const SerializedField<double>& sample_p50() const { return sample_p50_; }
  const SerializedField<double>& sample_p95() const { return sample_p95_; }
  const SerializedField<double>& sample_p99() const { return sample_p99_; }

 private:
  SerializedField<uint64_t> type_;
  SerializedField<std::string> name_;
  SerializedField<uint64_t> timestamp_;
  SerializedField<std::string> units_;
  SerializedField<std::string> value_;
  std::vector<std::pair<std::string, std::string>> tags_;
  SerializedField<double> value_last_;
  SerializedField<double> sample_last_;
  SerializedField<uint64_t> value_num_;
  SerializedField<double> value_min_;
  SerializedField<double> value_max_;
  SerializedField<double> value_sum_;
  SerializedField<double> value_rate_;
  SerializedField<uint64_t> sample_num_;
  SerializedField<double> sample_min_;
  SerializedField<double> sample_max_;
  SerializedField<double> sample_sum_;
  SerializedField<double> sample_avg_;
  SerializedField<double> sample_rate_;
  SerializedField<double> sample_freq_;
  SerializedField<double> sample_twa_;
  SerializedField<double> sample_p50_;
  SerializedField<double> sample_p95_;
  SerializedField<double> sample_p99_;
};

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_SERIALIZER_H_

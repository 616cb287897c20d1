// Builds and walks a document of the data-message shape of the local MPA
// protocol with our codec and with an independent BSON library, in one run,
// and prints each time and the ratio ours / theirs (below 1.0 is faster).
//
//   build/<dir>/bench/bson_bench [--benchmark_min_time=...]
#include <bson/bson.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"

namespace {

constexpr char kCorrelationId[] = "6f1c2a94-0d1e-4b7a-9c55-2f8e0a1b3c4d";
constexpr char kReplyTo[] = "zel-dorn.reply.6f1c2a94";
constexpr char kAppType[] = "zel-dorn";
constexpr char kContentType[] = "application/octet-stream";
constexpr char kRoutingKey[] = "com.orvane.zel.dorn.status";
constexpr char kMessageId[] = "1048576";
constexpr char kSessionId[] = "0b9f4f4e-52a1-4c1d-8d6e-3f1a2b3c4d5e";
constexpr size_t kPayloadLen = 256;

const std::vector<uint8_t>& Payload() {
  static const std::vector<uint8_t> payload = [] {
    std::vector<uint8_t> p(kPayloadLen);
    for (size_t i = 0; i < p.size(); ++i) p[i] = static_cast<uint8_t>(i * 31 + 7);
    return p;
  }();
  return payload;
}

// What a consumer takes out of a message; the walks fill it.
struct Fields {
  int64_t msgType = 0;
  int64_t payloadLen = 0;
  bool appId = false;
  const char* appType = nullptr;
  const char* contentType = nullptr;
  const char* routingKey = nullptr;
  const char* messageId = nullptr;
  const char* sessionId = nullptr;
  const uint8_t* payload = nullptr;
  size_t payloadSize = 0;
  const uint8_t* headers = nullptr;
};

// ---- Ours -----------------------------------------------------------------

ZelMpa::BSON BuildOurs() {
  ZelMpa::BSON headers;
  headers.appendString("amqp_correlationId", kCorrelationId);
  headers.appendString("amqp_replyTo", kReplyTo);
  headers.finish();
  ZelMpa::BSON doc;
  doc.appendLong("msg_type", 3);
  doc.appendString("app_type", kAppType);
  doc.appendBool("app_id", true);
  doc.appendObject("amqp_headers", headers);
  doc.appendString("content_type", kContentType);
  doc.appendString("amqp_routing_key", kRoutingKey);
  doc.appendBinary("amqp_payload", Payload().data(), static_cast<int32_t>(kPayloadLen));
  doc.appendLong("payload_len", static_cast<int64_t>(kPayloadLen));
  doc.appendString("amqp-message-id", kMessageId);
  doc.appendString("session-id", kSessionId);
  doc.finish();
  return doc;
}

void WalkOurs(const uint8_t* data, size_t len, Fields* f) {
  ZelMpa::BsonIterator it(data, len);
  const char* key;
  for (ZelMpa::BsonIterator::Type t = it.next(); t != ZelMpa::BsonIterator::END; t = it.next()) {
    switch (t) {
      case ZelMpa::BsonIterator::LONG: {
        int64_t v;
        it.getLong(key, v);
        if (std::strcmp(key, "msg_type") == 0) {
          f->msgType = v;
        } else if (std::strcmp(key, "payload_len") == 0) {
          f->payloadLen = v;
        }
        break;
      }
      case ZelMpa::BsonIterator::STRING: {
        const char* v;
        it.getString(key, v);
        if (std::strcmp(key, "app_type") == 0) {
          f->appType = v;
        } else if (std::strcmp(key, "content_type") == 0) {
          f->contentType = v;
        } else if (std::strcmp(key, "amqp_routing_key") == 0) {
          f->routingKey = v;
        } else if (std::strcmp(key, "amqp-message-id") == 0) {
          f->messageId = v;
        } else if (std::strcmp(key, "session-id") == 0) {
          f->sessionId = v;
        }
        break;
      }
      case ZelMpa::BsonIterator::BOOL:
        it.getBool(key, f->appId);
        break;
      case ZelMpa::BsonIterator::BINARY:
        it.getBinary(key, f->payload, f->payloadSize);
        break;
      case ZelMpa::BsonIterator::OBJECT: {
        bson sub;
        if (it.getRaw(key, &sub) == 0) f->headers = reinterpret_cast<const uint8_t*>(sub.data);
        break;
      }
      default:
        break;
    }
  }
}

// ---- Theirs ---------------------------------------------------------------

void BuildTheirs(bson_t* doc) {
  bson_t headers;
  bson_init(&headers);
  BSON_APPEND_UTF8(&headers, "amqp_correlationId", kCorrelationId);
  BSON_APPEND_UTF8(&headers, "amqp_replyTo", kReplyTo);
  bson_init(doc);
  BSON_APPEND_INT64(doc, "msg_type", 3);
  BSON_APPEND_UTF8(doc, "app_type", kAppType);
  BSON_APPEND_BOOL(doc, "app_id", true);
  BSON_APPEND_DOCUMENT(doc, "amqp_headers", &headers);
  BSON_APPEND_UTF8(doc, "content_type", kContentType);
  BSON_APPEND_UTF8(doc, "amqp_routing_key", kRoutingKey);
  BSON_APPEND_BINARY(doc, "amqp_payload", BSON_SUBTYPE_BINARY, Payload().data(),
                     static_cast<uint32_t>(kPayloadLen));
  BSON_APPEND_INT64(doc, "payload_len", static_cast<int64_t>(kPayloadLen));
  BSON_APPEND_UTF8(doc, "amqp-message-id", kMessageId);
  BSON_APPEND_UTF8(doc, "session-id", kSessionId);
  bson_destroy(&headers);
}

void WalkTheirs(const uint8_t* data, size_t len, Fields* f) {
  bson_iter_t it;
  if (!bson_iter_init_from_data(&it, data, len)) return;
  while (bson_iter_next(&it)) {
    const char* key = bson_iter_key(&it);
    switch (bson_iter_type(&it)) {
      case BSON_TYPE_INT64: {
        const int64_t v = bson_iter_int64(&it);
        if (std::strcmp(key, "msg_type") == 0) {
          f->msgType = v;
        } else if (std::strcmp(key, "payload_len") == 0) {
          f->payloadLen = v;
        }
        break;
      }
      case BSON_TYPE_UTF8: {
        const char* v = bson_iter_utf8(&it, nullptr);
        if (std::strcmp(key, "app_type") == 0) {
          f->appType = v;
        } else if (std::strcmp(key, "content_type") == 0) {
          f->contentType = v;
        } else if (std::strcmp(key, "amqp_routing_key") == 0) {
          f->routingKey = v;
        } else if (std::strcmp(key, "amqp-message-id") == 0) {
          f->messageId = v;
        } else if (std::strcmp(key, "session-id") == 0) {
          f->sessionId = v;
        }
        break;
      }
      case BSON_TYPE_BOOL:
        f->appId = bson_iter_bool(&it);
        break;
      case BSON_TYPE_BINARY: {
        bson_subtype_t subtype;
        uint32_t n;
        bson_iter_binary(&it, &subtype, &n, &f->payload);
        f->payloadSize = n;
        break;
      }
      case BSON_TYPE_DOCUMENT: {
        uint32_t n;
        bson_iter_document(&it, &n, &f->headers);
        break;
      }
      default:
        break;
    }
  }
}

// ---- Benchmarks -----------------------------------------------------------

void BM_BuildOurs(benchmark::State& state) {
  for (auto _ : state) {
    ZelMpa::BSON doc = BuildOurs();
    benchmark::DoNotOptimize(doc.dataPtr());
  }
}
BENCHMARK(BM_BuildOurs);

void BM_BuildTheirs(benchmark::State& state) {
  for (auto _ : state) {
    bson_t doc;
    BuildTheirs(&doc);
    benchmark::DoNotOptimize(bson_get_data(&doc));
    bson_destroy(&doc);
  }
}
BENCHMARK(BM_BuildTheirs);

// Both walks read the same bytes, so only the walker differs.
void BM_WalkOurs(benchmark::State& state) {
  const ZelMpa::BSON doc = BuildOurs();
  for (auto _ : state) {
    Fields f;
    WalkOurs(doc.dataPtr(), static_cast<size_t>(doc.size()), &f);
    benchmark::DoNotOptimize(f);
  }
}
BENCHMARK(BM_WalkOurs);

void BM_WalkTheirs(benchmark::State& state) {
  const ZelMpa::BSON doc = BuildOurs();
  for (auto _ : state) {
    Fields f;
    WalkTheirs(doc.dataPtr(), static_cast<size_t>(doc.size()), &f);
    benchmark::DoNotOptimize(f);
  }
}
BENCHMARK(BM_WalkTheirs);

// Console output plus a note of each benchmark's time per iteration.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        ns_[run.benchmark_name()] = run.GetAdjustedCPUTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double Ns(const std::string& name) const {
    auto it = ns_.find(name);
    return it == ns_.end() ? 0 : it->second;
  }

 private:
  std::map<std::string, double> ns_;
};

// Checks that both walks see the same message before anything is timed.
bool SameFields() {
  const ZelMpa::BSON doc = BuildOurs();
  Fields a, b;
  WalkOurs(doc.dataPtr(), static_cast<size_t>(doc.size()), &a);
  WalkTheirs(doc.dataPtr(), static_cast<size_t>(doc.size()), &b);
  bson_t theirs;
  BuildTheirs(&theirs);
  const bool sameBytes = theirs.len == static_cast<uint32_t>(doc.size()) &&
                         std::memcmp(bson_get_data(&theirs), doc.dataPtr(), theirs.len) == 0;
  bson_destroy(&theirs);
  return sameBytes && a.msgType == 3 && a.msgType == b.msgType && a.payloadLen == b.payloadLen &&
         a.appId && b.appId && a.payload == b.payload && a.payloadSize == kPayloadLen &&
         a.payloadSize == b.payloadSize && a.headers == b.headers && a.sessionId == b.sessionId &&
         a.appType == b.appType && a.contentType == b.contentType && a.routingKey == b.routingKey &&
         a.messageId == b.messageId;
}

}  // namespace

int main(int argc, char** argv) {
  if (!SameFields()) {
    std::fprintf(stderr, "the two codecs disagree on the benchmark document\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const struct {
    const char* what;
    const char* ours;
    const char* theirs;
  } pairs[] = {{"build", "BM_BuildOurs", "BM_BuildTheirs"}, {"walk", "BM_WalkOurs", "BM_WalkTheirs"}};
  std::printf("\n%-6s %12s %12s %8s\n", "", "ours ns", "libbson ns", "ratio");
  for (const auto& p : pairs) {
    const double ours = reporter.Ns(p.ours);
    const double theirs = reporter.Ns(p.theirs);
    if (ours > 0 && theirs > 0) {
      std::printf("%-6s %12.1f %12.1f %8.2f\n", p.what, ours, theirs, ours / theirs);
    }
  }
  return 0;
}

#include "mpa_relay/relay_script.h"

#include <cstdlib>
#include <sstream>

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include "mpa_relay/relay_wire.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace mpa_relay {
namespace {

using orvane::zel::dorn::DornMessage;

class CollectErrors : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, google::protobuf::io::ColumnNumber column,
                const std::string& message) override {
    if (!text.empty()) text += "; ";
    text += std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

std::string Trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string::npos) return "";
  const size_t e = s.find_last_not_of(" \t\r");
  return s.substr(b, e - b + 1);
}

bool ParseCount(const std::string& text, long min, long* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (*end != '\0' || v < min) return false;
  *out = v;
  return true;
}

}  // namespace

void Modifiers::ApplyTo(Step* step) {
  if (no_answer) step->expect_answer = false;
  step->split_at = split_at;
  step->batch = batch;
  *this = Modifiers();
}

bool AgentAnswers(const std::string& payload) {
  DornMessage m;
  if (!m.ParseFromString(payload)) return false;
  if (!m.has_message_type()) return m.has_operation_id() && !m.operation_id().empty();
  switch (m.message_type()) {
    case orvane::zel::dorn::MT_OPERATION_STATUS:
      return false;
    case orvane::zel::dorn::MT_INIT:
      return !m.operation_id().empty();
    default:
      return true;
  }
}

bool ParseRequest(const std::string& text, Step* step, std::string* error) {
  DornMessage m;
  google::protobuf::TextFormat::Parser parser;
  CollectErrors errors;
  parser.RecordErrorsTo(&errors);
  if (!parser.ParseFromString(text, &m)) {
    *error = errors.text.empty() ? "not a DornMessage in text format" : errors.text;
    return false;
  }
  step->kind = StepKind::kSend;
  step->text = text;
  step->payload = m.SerializeAsString();
  step->expect_answer = AgentAnswers(step->payload);
  return true;
}

bool ParseDirective(const std::string& line, std::vector<Step>* steps, Modifiers* pending,
                    std::string* error) {
  std::istringstream in(Trim(line));
  std::string word, arg, extra;
  in >> word >> arg >> extra;
  if (!word.empty() && word[0] == '!') word.erase(0, 1);
  if (!extra.empty()) {
    *error = "too many words in \"" + Trim(line) + "\"";
    return false;
  }
  auto no_arg = [&]() {
    if (arg.empty()) return true;
    *error = "!" + word + " takes no argument";
    return false;
  };
  Step step;
  long n = 0;
  if (word == "sync") {
    if (!no_arg()) return false;
    step.kind = StepKind::kSync;
  } else if (word == "close") {
    if (!no_arg()) return false;
    step.kind = StepKind::kClose;
  } else if (word == "close-stale") {
    if (!no_arg()) return false;
    step.kind = StepKind::kCloseStale;
  } else if (word == "drop") {
    if (!no_arg()) return false;
    step.kind = StepKind::kDrop;
  } else if (word == "await-registration") {
    if (!no_arg()) return false;
    step.kind = StepKind::kAwaitRegistration;
  } else if (word == "restart") {
    if (!ParseCount(arg.empty() ? "0" : arg, 0, &n)) {
      *error = "!restart takes a down time in milliseconds";
      return false;
    }
    step.kind = StepKind::kRestart;
    step.number = n;
  } else if (word == "malformed") {
    bool known = false;
    for (const auto& k : MalformedKinds()) known = known || k == arg;
    if (!known) {
      std::string kinds;
      for (const auto& k : MalformedKinds()) kinds += (kinds.empty() ? "" : ", ") + k;
      *error = "unknown malformed kind \"" + arg + "\" (one of " + kinds + ")";
      return false;
    }
    step.kind = StepKind::kMalformed;
    step.word = arg;
  } else if (word == "no-answer") {
    if (!no_arg()) return false;
    pending->no_answer = true;
    return true;
  } else if (word == "split") {
    if (!ParseCount(arg, 1, &n)) {
      *error = "!split takes a byte offset of 1 or more";
      return false;
    }
    pending->split_at = static_cast<size_t>(n);
    return true;
  } else if (word == "batch") {
    if (!ParseCount(arg, 1, &n)) {
      *error = "!batch takes a count of 1 or more";
      return false;
    }
    pending->batch = static_cast<size_t>(n);
    return true;
  } else {
    *error = "unknown directive \"" + Trim(line) + "\"";
    return false;
  }
  steps->push_back(std::move(step));
  return true;
}

bool ParseScript(const std::string& text, std::vector<Step>* steps, std::string* error) {
  std::istringstream in(text);
  std::string line;
  int number = 0;
  std::string block;
  std::string title;
  int block_start = 0;
  Modifiers pending;

  auto finish_block = [&]() -> bool {
    if (Trim(block).empty()) {
      block.clear();
      return true;
    }
    Step step;
    std::string why;
    if (!ParseRequest(block, &step, &why)) {
      *error = "request at line " + std::to_string(block_start) + ": " + why;
      return false;
    }
    step.title = title;
    pending.ApplyTo(&step);
    steps->push_back(std::move(step));
    block.clear();
    title.clear();
    return true;
  };

  while (std::getline(in, line)) {
    ++number;
    const std::string t = Trim(line);
    if (t.empty()) {
      if (!finish_block()) return false;
      continue;
    }
    if (t[0] == '#') {
      if (block.empty()) title = Trim(t.substr(1));
      continue;
    }
    if (t[0] == '!') {
      if (!finish_block()) return false;
      std::string why;
      if (!ParseDirective(t, steps, &pending, &why)) {
        *error = "line " + std::to_string(number) + ": " + why;
        return false;
      }
      title.clear();
      continue;
    }
    if (block.empty()) block_start = number;
    block += line;
    block += '\n';
  }
  return finish_block();
}

std::string MessageText(const std::string& payload, bool json) {
  DornMessage m;
  if (!m.ParseFromString(payload)) return json ? "null" : "(not a DornMessage)\n";
  std::string out;
  if (json) {
    google::protobuf::util::JsonPrintOptions options;
    options.preserve_proto_field_names = true;
    if (!google::protobuf::util::MessageToJsonString(m, &out, options).ok()) return "null";
    return out;
  }
  google::protobuf::TextFormat::PrintToString(m, &out);
  return out;
}

std::string MessageSummary(const std::string& payload) {
  DornMessage m;
  if (!m.ParseFromString(payload)) return "(not a DornMessage)";
  std::string out = orvane::zel::dorn::MessageType_Name(m.message_type());
  if (out.empty()) out = "message_type " + std::to_string(m.message_type());
  if (!m.operation_id().empty()) out += " " + m.operation_id();
  return out;
}

}  // namespace mpa_relay

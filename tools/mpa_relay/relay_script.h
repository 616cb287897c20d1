// Scripts of mpa-relay: the steps it takes (requests and connection actions)
// and their text form.
//
// A script file holds blocks separated by blank lines. A block is either a
// DornMessage in protobuf text format, or one directive line that starts
// with '!'. Lines starting with '#' are comments; a comment just before a
// request becomes its title in the output.
//
//   # Run a command
//   message_type: MT_RUN_COMMAND
//   operation_id: "op-1"
//   dorn_fabric_object { runCommand { command: "uname -a" } }
//
//   !close
//
// Directives: !sync, !close, !close-stale, !drop, !restart MS,
// !malformed KIND, !await-registration, !no-answer (the next request gets no
// answer), !split K (the next request is written cut after K bytes),
// !batch N (the next N requests go in one write).
#ifndef ZEL_TOOLS_MPA_RELAY_RELAY_SCRIPT_H_
#define ZEL_TOOLS_MPA_RELAY_RELAY_SCRIPT_H_

#include <cstddef>
#include <string>
#include <vector>

namespace mpa_relay {

enum class StepKind {
  kSend,               // send `payload`
  kSync,               // wait until every expected answer has come
  kClose,              // RMQ_CLIENT_CLOSE on the current connection
  kCloseStale,         // RMQ_CLIENT_CLOSE on an older, still open connection
  kDrop,               // close the current connection's socket
  kRestart,            // close everything, listen again after `number` ms
  kMalformed,          // send the damaged frame `word`
  kAwaitRegistration,  // wait for a new registration
};

struct Step {
  StepKind kind = StepKind::kSend;
  // kSend: the request.
  std::string title;
  std::string text;     // as given, for the output
  std::string payload;  // serialised DornMessage
  bool expect_answer = true;
  size_t split_at = 0;   // 0: one write
  size_t batch = 0;      // > 1: this and the next batch-1 requests in one write
  // kRestart: down time in milliseconds.
  long number = 0;
  // kMalformed: the kind.
  std::string word;
};

// Whether the agent answers a request: it does for every type except
// MT_OPERATION_STATUS (and values outside the enum), and MT_INIT only with an
// operation_id.
bool AgentAnswers(const std::string& payload);

// Parses one request in text format into `step`. On failure returns false
// with the parser's complaint in `error`.
bool ParseRequest(const std::string& text, Step* step, std::string* error);

// Modifiers that apply to the next request only.
struct Modifiers {
  bool no_answer = false;
  size_t split_at = 0;
  size_t batch = 0;
  // Applies to `step` (a request) and resets.
  void ApplyTo(Step* step);
};

// Parses one directive line ("!close", "!restart 500", "!split 3"...): an
// action is appended to `steps`, a modifier is noted in `pending`. The '!'
// is optional. On failure returns false with the reason in `error`.
bool ParseDirective(const std::string& line, std::vector<Step>* steps, Modifiers* pending,
                    std::string* error);

// Parses a whole script. Modifiers are folded into the requests they
// precede. On failure returns false with "line N: reason" in `error`.
bool ParseScript(const std::string& text, std::vector<Step>* steps, std::string* error);

// The request as text: protobuf text format (multi-line), or one JSON object.
std::string MessageText(const std::string& payload, bool json);

// Short one-line description: "MT_RUN_COMMAND op-1".
std::string MessageSummary(const std::string& payload);

}  // namespace mpa_relay

#endif  // ZEL_TOOLS_MPA_RELAY_RELAY_SCRIPT_H_

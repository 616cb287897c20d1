// UlmAdvConfigMonitorThread: joins an Ulm hypervisor to the management plane
// once an installer has filled in the four advanced configuration options
// that carry the join values (ZEL_IP, ZEL_Thumbprint, ZEL_Token,
// ZEL_NodeUUID).
//
// The thread creates the options, then every 100 seconds reads them in
// order. As soon as one is empty or "null" it waits for the next round; with
// all four set it runs the CLI join command and resets all four, whether
// the join worked or not, so a failed join waits for new values.
//
// Threads: run() is the thread body; every command goes through
// HostOperations::Execute on this thread. The wait between rounds is not an
// interruption point, so Interrupt() does not end a sleeping thread.
#ifndef DORN_CORE_ULM_ADV_CONFIG_MONITOR_THREAD_H_
#define DORN_CORE_ULM_ADV_CONFIG_MONITOR_THREAD_H_

#include <functional>
#include <string>

#include <boost/shared_ptr.hpp>

#include "core/thread.h"

namespace ZelDorn {

class HostOperations;

class UlmAdvConfigMonitorThread : public Thread {
 public:
  static constexpr const char* kThreadName = "UlmAdvConfigMonitorThread";
  static constexpr unsigned kPollSeconds = 100;

  // `host` runs the commands; when null, HostOperations::GetInstance() is
  // used at the start of run(). `wait` is called before each round; the
  // default sleeps kPollSeconds with ::sleep. A `wait` that throws
  // boost::thread_interrupted ends the thread quietly (tests do so).
  explicit UlmAdvConfigMonitorThread(const std::string& name = kThreadName,
                                     boost::shared_ptr<HostOperations> host = {},
                                     std::function<void()> wait = {});
  // Joins the thread before the members it uses go away.
  ~UlmAdvConfigMonitorThread() override;

  // Creates the options, then checks them for ever (see the file comment).
  void run() override;

  // `text` without white space at either end.
  virtual std::string Trim(const std::string& text);

  // One round: reads the options in order and, when all four are set, runs
  // the join command and resets the options. Returns true when it ran the
  // join command.
  bool CheckOnce();

 private:
  HostOperations& Host_();

  boost::shared_ptr<HostOperations> host_;
  std::function<void()> wait_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_ULM_ADV_CONFIG_MONITOR_THREAD_H_

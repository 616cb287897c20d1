// Test support for the operation managers, the SoftwareManager and the
// Monitor: log capture at VERBOSE; a temporary directory whose bin/ leads
// PATH with an "rpmquery" stand-in printing its software_list file; host type
// RHELKVM with an id script printing kHostId; a CommunicationHandler over the
// fake client layer whose answers are recorded. Stand-ins are harmless only;
// anything touching the host runs in the e2e sandbox. One at a time, built
// and destroyed on the test's thread.
#ifndef DORN_TESTS_CORE_MANAGER_TEST_SUPPORT_H_
#define DORN_TESTS_CORE_MANAGER_TEST_SUPPORT_H_

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>

#include "core/communication_handler.h"
#include "core/host_info.h"
#include "core/host_operations.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/rpc/asio_zel_provider.h"
#include "fakes/fake_mp_client_layer.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace testing {

using zel::testing::LogCapture;
using zel::testing::TempDir;

class ManagerTestEnv {
 public:
  static constexpr const char* kHostId = "0a1b2c3d-4e5f-4a6b-8c7d-9e0f1a2b3c4d";

  ManagerTestEnv() {

    const char* path = getenv("PATH");
    savedPath_ = path != nullptr ? path : "";
    bin_ = dir_.path() + "/bin";
    if (mkdir(bin_.c_str(), 0755) != 0) throw std::runtime_error("mkdir " + bin_);
    WriteExecutable(bin_ + "/rpmquery", "#!/bin/sh\necho \"rpmquery $*\" >> '" + dir_.path() +
                                            "/calls'\n[ -f '" + dir_.path() +
                                            "/software_list' ] && cat '" + dir_.path() +
                                            "/software_list'\nexit 0\n");
    setenv("PATH", (bin_ + ":" + savedPath_).c_str(), 1);

    HostOperations::CreateInstance();
    const std::string idScript = dir_.path() + "/host_id";
    SetHostIdOutput(std::string(kHostId) + "\n");
    WriteExecutable(idScript, "#!/bin/sh\necho host_id >> '" + dir_.path() + "/calls'\ncat '" +
                                  dir_.path() + "/host_id_output'\n");
    HostInfo::CreateInstance(idScript);
    HostInfo::SetHostTypeForTest(kHostTypeRhel);

    provider_ = zel::rpc::AsioZelProvider::Create(boost::property_tree::ptree());
    layer_ = boost::make_shared<FakeMpClientLayer>();
    handler_ = CommunicationHandler::CreateInstance(nullptr, provider_.get(), layer_);
    // Start serves the provider on this thread; the queued stop ends that.
    provider_->GetDispatcher()->Post([this] { provider_->Stop(); });
    handler_->Start();
    if (!layer_->client()) throw std::runtime_error("CommunicationHandler registered no client");
    log_.Clear();
  }

  ~ManagerTestEnv() {
    handler_->Stop();
    handler_.reset();
    CommunicationHandler::CreateInstance(nullptr, nullptr, nullptr);
    provider_.reset();
    setenv("PATH", savedPath_.c_str(), 1);
  }

  ManagerTestEnv(const ManagerTestEnv&) = delete;
  ManagerTestEnv& operator=(const ManagerTestEnv&) = delete;

  // The text that the next software list command prints.
  void SetSoftwareList(const std::string& text) { dir_.WriteFile("software_list", text); }
  // What the host id script prints from now on ("" for a host that is not
  // registered yet).
  void SetHostIdOutput(const std::string& text) { dir_.WriteFile("host_id_output", text); }
  // Number of software list commands run so far.
  size_t SoftwareListRuns() const { return Calls("rpmquery"); }
  // Number of runs of the host id script so far.
  size_t HostIdRuns() const { return Calls("host_id"); }

  // Records the managers sent, in order.
  std::vector<SentMessage> Sent() const { return layer_->client()->Sent(); }
  // The one answer sent; throws unless exactly one was, parsed.
  orvane::zel::dorn::DornMessage OnlyAnswer() const {
    auto sent = Sent();
    if (sent.size() != 1 || !sent[0].parsed) {
      throw std::runtime_error("expected one answer, got " + std::to_string(sent.size()));
    }
    return sent[0].message;
  }
  void ClearSent() { layer_->client()->ClearSent(); }

  LogCapture& log() { return log_; }
  const TempDir& dir() const { return dir_; }

 private:
  size_t Calls(const std::string& name) const {
    const std::string calls = TempDir::ReadFile(dir_.path() + "/calls");
    size_t n = 0;
    for (size_t at = calls.find(name); at != std::string::npos; at = calls.find(name, at + 1)) {
      ++n;
    }
    return n;
  }

  static void WriteExecutable(const std::string& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out || chmod(file.c_str(), 0755) != 0) throw std::runtime_error("cannot write " + file);
  }

  LogCapture log_{"VERBOSE"};
  TempDir dir_;
  std::string bin_;
  std::string savedPath_;
  boost::shared_ptr<zel::rpc::AsioZelProvider> provider_;
  boost::shared_ptr<FakeMpClientLayer> layer_;
  boost::shared_ptr<CommunicationHandler> handler_;
};

// A request of `type` with `operationId`; objects are added by the caller.
inline orvane::zel::dorn::DornMessage Request(orvane::zel::dorn::MessageType type,
                                              const std::string& operationId) {
  orvane::zel::dorn::DornMessage request;
  request.set_message_type(type);
  request.set_operation_id(operationId);
  return request;
}

}  // namespace testing
}  // namespace ZelDorn

#endif  // DORN_TESTS_CORE_MANAGER_TEST_SUPPORT_H_

// HostManager: the operations on the host as a whole that take no operand:
// reboot, and reading the host certificate and the SSH RSA public key.
//
// Threads: each operation runs on the thread that delivers the request. The
// three share one mutex, held from before the command to after the answer has
// been sent, so their answers leave in order. No other manager is called
// while it is held.
#ifndef DORN_CORE_HOST_MANAGER_H_
#define DORN_CORE_HOST_MANAGER_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

namespace orvane {
namespace zel {
namespace dorn {
class DornMessage;
}  // namespace dorn
}  // namespace zel
}  // namespace orvane

namespace ZelDorn {

class HostManager {
 public:
  // Builds the process-wide instance (replacing any earlier one) and returns
  // it. Called once by the entry during start-up.
  static boost::shared_ptr<HostManager> CreateInstance();
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<HostManager> GetInstance();

  HostManager(const HostManager&) = delete;
  HostManager& operator=(const HostManager&) = delete;

  // All three answer MT_OPERATION_STATUS with one status whose message is
  // the command's standard output (its standard error is not captured).
  // `replyTo` and `correlationId` (either may be null) are passed to
  // CommunicationHandler::SendMsg unchanged.

  // Runs "reboot". COMMAND_SUCCESS when it exited with 0, else
  // COMMAND_FAILED. The answer is sent after the command returned and races
  // with the host's shutdown; nothing here delays the reboot.
  void RebootHost(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                  const char* correlationId);
  // Reads /etc/orvane/zel/host-cert.pem. GET_CERTIFICATE_SUCCESS with the PEM
  // text, or GET_CERTIFICATE_FAILED with whatever the command printed.
  void GetCertificate(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                      const char* correlationId);
  // Reads /etc/ssh/ssh_host_rsa_key.pub. The key reuses the certificate's
  // statuses: GET_CERTIFICATE_SUCCESS with the key text, or
  // GET_CERTIFICATE_FAILED.
  void GetRsaKey(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                 const char* correlationId);

 private:
  HostManager() = default;

  // Runs `command` (a "cat" of one host file) and builds the answer with the
  // certificate statuses. The caller holds mutex_.
  orvane::zel::dorn::DornMessage ReadHostFile_(const orvane::zel::dorn::DornMessage& request,
                                               const char* command);

  boost::mutex mutex_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_HOST_MANAGER_H_

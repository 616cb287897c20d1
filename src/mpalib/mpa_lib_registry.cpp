#include "mpalib/mpa_lib_registry.h"

#include <utility>
#include <vector>

#include "cpp/lib/common/logger.h"
#include "mpalib/mpa_lib_client.h"
#include "mpalib/mpa_lib_exceptions.h"
#include "mpalib/mpa_lib_result.h"
#include "util/mpa_error_tags.h"

namespace ZelMpa {

MpaLibRegistry::MpaLibRegistry() { FD_ZERO(&set_); }

int MpaLibRegistry::Add(int id, std::shared_ptr<MpaLibClient> client) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (clients_.size() >= kMaxClients) throw RegistrySizeError();
  if (id < 0 || id >= FD_SETSIZE) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA139)
        .format("%sClient descriptor %d cannot be watched by select", logPrefix_, id);
    throw RegistrySizeError();
  }
  if (clients_.count(id) != 0 && FD_ISSET(id, &set_)) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA139)
        .format("%sClient with same cookie id already exists in registry", logPrefix_);
    return kMpaFailure;
  }
  clients_[id] = std::move(client);
  FD_SET(id, &set_);
  if (id > maxFd_) maxFd_ = id;
  MPALIB_LOG(zel::kLogInfo)
      .format("%sClient %d added, fdmax now %d", logPrefix_, id, maxFd_);
  return 0;
}

int MpaLibRegistry::Remove(int id, bool notify) {
  std::shared_ptr<MpaLibClient> client;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (id >= 0 && id < FD_SETSIZE) FD_CLR(id, &set_);
    auto it = clients_.find(id);
    if (it == clients_.end()) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA143)
          .format("%sClient with index %d not found in registry\n", logPrefix_, id);
    } else {
      client = std::move(it->second);
      clients_.erase(it);
    }
    RecomputeMax_();
  }
  if (!client) return kMpaClientNotFound;
  // Closed outside the lock: with `notify` the client calls the application.
  const int rc = client->Close(notify);
  if (rc < 0) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA101)
        .format("%sClient returned error code %d on close\n", logPrefix_, rc);
    return rc;
  }
  return 0;
}

void MpaLibRegistry::RecomputeMax_() {
  int fd = maxFd_;
  while (fd >= 0 && !(clients_.count(fd) != 0 && FD_ISSET(fd, &set_))) --fd;
  maxFd_ = fd;
  MPALIB_LOG(zel::kLogDebug)
      .format("%sTruncated max file descriptor to %d", logPrefix_, maxFd_);
}

void MpaLibRegistry::Clear(bool notify) {
  std::vector<int> ids;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (const auto& entry : clients_) ids.push_back(entry.first);
  }
  for (int id : ids) {
    MPALIB_LOG(zel::kLogInfo).format("%sClear removing client %d", logPrefix_, id);
    if (Remove(id, notify) < 0) {
      MPALIB_LOG(zel::kLogError)
          .format("%sCould not close client with id: %d", logPrefix_, id);
    }
  }
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  FD_ZERO(&set_);
  // A client added while the others were being closed stays registered and
  // watched.
  for (const auto& entry : clients_) FD_SET(entry.first, &set_);
  maxFd_ = clients_.empty() ? -1 : clients_.rbegin()->first;
}

std::shared_ptr<MpaLibClient> MpaLibRegistry::Get(int id) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  auto it = clients_.find(id);
  return it == clients_.end() ? nullptr : it->second;
}

int MpaLibRegistry::Snapshot(fd_set* set) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  *set = set_;
  return maxFd_;
}

int MpaLibRegistry::GetMaxDescriptor() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return maxFd_;
}

size_t MpaLibRegistry::Size() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return clients_.size();
}

}  // namespace ZelMpa

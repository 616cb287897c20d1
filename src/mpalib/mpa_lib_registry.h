// ZelMpa::MpaLibRegistry: the table of live clients, keyed by cookie id (the
// client's socket descriptor), with the descriptor set the listener watches.
//
// Threads: every operation may be called from any thread. The registry's
// mutex is recursive and is released before a client is closed, so the close
// callback (a RMQ_CLIENT_CLOSE record) runs with no registry lock held and may
// call back into the library. Lock order: library, then registry, then client.
#ifndef ZEL_MPALIB_MPA_LIB_REGISTRY_H_
#define ZEL_MPALIB_MPA_LIB_REGISTRY_H_

#include <sys/select.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>

namespace ZelMpa {

class MpaLibClient;

class MpaLibRegistry {
 public:
  static constexpr size_t kMaxClients = 32;

  MpaLibRegistry();
  virtual ~MpaLibRegistry() = default;

  MpaLibRegistry(const MpaLibRegistry&) = delete;
  MpaLibRegistry& operator=(const MpaLibRegistry&) = delete;

  // Adds `client` under `id`. Returns 0, or -1 when the id is already
  // present. Throws RegistrySizeError when kMaxClients are present or `id`
  // cannot be watched by select().
  int Add(int id, std::shared_ptr<MpaLibClient> client);
  // Takes the client out and closes it with `notify`. Returns 0,
  // kMpaClientNotFound when `id` is unknown, or the client's negative close
  // result.
  int Remove(int id, bool notify);
  // Removes and closes every client.
  void Clear(bool notify);

  // The client under `id`, or null.
  std::shared_ptr<MpaLibClient> Get(int id);
  // Copies the descriptor set and returns the highest descriptor, -1 when
  // empty.
  int Snapshot(fd_set* set);
  int GetMaxDescriptor();
  size_t Size();

 private:
  void RecomputeMax_();  // mutex_ held

  std::recursive_mutex mutex_;
  std::map<int, std::shared_ptr<MpaLibClient>> clients_;  // guarded by mutex_
  fd_set set_;                                            // guarded by mutex_
  const char* const logPrefix_ = "REGISTRY: ";
  int maxFd_ = -1;                                        // guarded by mutex_
};

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_MPA_LIB_REGISTRY_H_

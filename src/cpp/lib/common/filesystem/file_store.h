// FileStore: a directory of finished files (rotated logs, metric reports) kept
// within a maximum count, a maximum total size and a minimum of free space on
// its file system. The oldest files go first.
//
//   auto store = std::make_shared<FileStore>(fs, options);
//   store->Scan();                  // take in what an earlier run left
//   store->Store("/var/x/a_2026-11-25T10-00-00.txt");  // a finished file; trims
//
// A limit that is not given never triggers a trim. The file in use is not the
// store's: a RotatingFile stores a file only when it is finished, so a trim
// never removes the one being written.
//
// Threads: all operations may be called from any thread; one mutex.
#ifndef ZEL_COMMON_FILESYSTEM_FILE_STORE_H_
#define ZEL_COMMON_FILESYSTEM_FILE_STORE_H_

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/property_tree/ptree_fwd.hpp>

#include "cpp/lib/common/filesystem/file_system.h"

namespace zel {
namespace filesystem {

struct FileStoreOptions {
  path_t path;
  uint64_t min_free_space = 0;
  uint64_t max_size = UINT64_MAX;
  uintmax_t max_files = UINTMAX_MAX;
  // The store keeps only files whose names start with `prefix` and end with
  // `suffix` (a rotating file's "<stem>_" and extension); other files in the
  // directory are never counted or removed. Not read from a tree.
  std::string prefix;
  std::string suffix;

  // "{ path: '%s', min_free_space: %s, max_size: %s, max_files: %ju }".
  std::string ToString() const;
  // Reads "path", "min_free_space", "max_size" (sizes as ParseSize takes them)
  // and "max_files". A value that does not parse, a negative one included,
  // keeps its default and logs "FileStore: invalid %s '%s' - using the
  // default" at WARN.
  static FileStoreOptions FromTree(const boost::property_tree::ptree& tree);
};

class FileStore {
 public:
  FileStore(std::shared_ptr<FileSystem> fs, FileStoreOptions options);

  FileStore(const FileStore&) = delete;
  FileStore& operator=(const FileStore&) = delete;

  // Forgets the known files and reads the directory again.
  void Scan();
  // Adds a finished file as the newest, then trims.
  void Store(const path_t& file);
  // Removes the oldest files until the limits are met.
  void Trim();

  const FileStoreOptions& options() const { return options_; }
  const std::string& name() const { return name_; }
  // The known files, oldest first, and their total size.
  std::vector<path_t> Files() const;
  uint64_t TotalSize() const;

 private:
  struct Entry {
    path_t name;
    uint64_t size = 0;
    time_t time = 0;
  };

  // Size and time of `file`; false, logged under `step`, when unreadable.
  bool Read_(const path_t& file, Entry* e, const char* step);

  bool CheckLimitsLocked_();
  void TrimLocked_();

  const std::shared_ptr<FileSystem> fs_;
  const FileStoreOptions options_;
  const std::string name_;
  mutable std::mutex mutex_;
  uint64_t totalSize_ = 0;   // guarded by mutex_
  std::deque<Entry> files_;  // guarded by mutex_; oldest first
};

// "%Y-%m-%dT%H:%M:%S" in UTC, "<INVALID>" when the time cannot be broken down.
std::string IsoTime(time_t t);

}  // namespace filesystem
}  // namespace zel

#endif  // ZEL_COMMON_FILESYSTEM_FILE_STORE_H_

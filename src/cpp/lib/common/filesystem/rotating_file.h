// RotatingFile: a File that moves on to a new file when the current one would
// grow past a maximum size, and hands each finished file to a FileStore.
//
//   RotatingFileOptions o;
//   o.filename = "/var/log/zel/metrics.txt";   // names: metrics_<UTC time>[+NNN].txt
//   o.max_size = 10 << 20;
//   RotatingFile f(fs, store, o);
//   f.Open(std::ios_base::app, ec);             // opens lazily, at the first write
//   f.Write(cbyte_array_view(line), ec);
//
// Names are "<stem>_<%Y-%m-%dT%H-%M-%S UTC><extension>"; a second file within
// the same second gets "+001", "+002", ... before the extension, and a name
// that exists is skipped. A write never splits: a write that would pass the
// maximum goes to a new file, and a first write larger than the maximum goes
// whole into a file of its own. A maximum of 0 never rotates.
//
// Threads: all operations may be called from any thread; the file's mutex is
// taken before the store's.
#ifndef ZEL_COMMON_FILESYSTEM_ROTATING_FILE_H_
#define ZEL_COMMON_FILESYSTEM_ROTATING_FILE_H_

#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <boost/property_tree/ptree_fwd.hpp>

#include "cpp/lib/common/filesystem/file_system.h"

namespace zel {
namespace filesystem {

class FileStore;

struct RotatingFileOptions {
  path_t filename;
  uint64_t max_size = 0;  // the rotation policy; 0: never rotate

  // "{ filename: '%s', rotation policy: { max_size: %s } }".
  std::string ToString() const;
  // Reads "filename" and "rotation_policy.max_size" (a size as ParseSize
  // takes it; a bad one logs "RotatingFile: invalid max_size '%s' - using
  // the default" at WARN and keeps 0).
  static RotatingFileOptions FromTree(const boost::property_tree::ptree& tree);
};

class RotatingFile : public File {
 public:
  using Clock = std::function<time_t()>;

  // `store` may be null: finished files are then left alone. `clock` gives
  // the time for names (time(nullptr) by default).
  RotatingFile(std::shared_ptr<FileSystem> fs, std::shared_ptr<FileStore> store, RotatingFileOptions options,
               Clock clock = nullptr);
  ~RotatingFile() override;

  using File::Close;
  using File::Flush;
  using File::Open;
  using File::Write;

  // File
  void Open(std::ios_base::openmode mode, error_code& ec) override;
  // Closes the current file and stores it.
  void Close(error_code& ec) override;
  std::size_t Write(cbyte_array_view data, error_code& ec) override;
  void Flush(error_code& ec) override;
  bool Good() const override;
  // The current file, or the configured name while none is open.
  path_t path() const override;

  const RotatingFileOptions& options() const { return options_; }

 private:
  // Closes the current file and stores it; the caller holds mutex_.
  void CloseFileLocked_();
  // The next free name for the time `now`; empty when none is found.
  path_t NewNameLocked_(time_t now);

  const std::shared_ptr<FileSystem> fs_;
  const std::shared_ptr<FileStore> store_;
  const RotatingFileOptions options_;
  const Clock clock_;
  const std::string name_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::unique_ptr<File> file_;
  path_t current_;
  std::ios_base::openmode mode_ = std::ios_base::app;
  uint64_t written_ = 0;
  time_t lastNameTime_ = -1;
  std::size_t lastNameCounter_ = 0;
  // A failure to open a file is logged once until a file opens again, so
  // that a cycle of many writes into an unwritable place logs one line.
  bool openFailureLogged_ = false;
};

}  // namespace filesystem
}  // namespace zel

#endif  // ZEL_COMMON_FILESYSTEM_ROTATING_FILE_H_

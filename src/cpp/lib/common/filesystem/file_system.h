// zel::filesystem: a thin layer over boost::filesystem that tests can replace,
// and the human forms of byte sizes.
//
// Every operation comes as a pair: a form that reports through an error_code
// and a form that throws FileSystemError. Implementations override the
// error_code forms; the throwing forms call them and throw with the text
//
//   "void Remove(const path_t&) (/var/x) failed with system error 2-No such file or directory"
//
// (signature, the paths in parentheses, category, code and message).
//
//   std::shared_ptr<zel::filesystem::FileSystem> fs = zel::filesystem::MakeFileSystem();
//   std::unique_ptr<File> f(fs->GetFile("/var/log/x.txt"));
//   f->Open(std::ios_base::app, ec);
//   f->Write(cbyte_array_view("line\n"), ec);
//
// Threads: a FileSystem may be used from any thread; a File or Directory
// belongs to one thread at a time.
#ifndef ZEL_COMMON_FILESYSTEM_FILE_SYSTEM_H_
#define ZEL_COMMON_FILESYSTEM_FILE_SYSTEM_H_

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <ios>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>
#include <boost/system/error_code.hpp>

namespace zel {
namespace filesystem {

using path_t = boost::filesystem::path;
using error_code = boost::system::error_code;

// Bytes to write: a pointer and a length, borrowed from the caller.
struct cbyte_array_view {
  const void* data = nullptr;
  std::size_t size = 0;

  cbyte_array_view() = default;
  cbyte_array_view(const void* d, std::size_t n) : data(d), size(n) {}
  cbyte_array_view(const std::string& s) : data(s.data()), size(s.size()) {}  // NOLINT: implicit
};

class FileSystemError : public std::runtime_error {
 public:
  FileSystemError(const std::string& what, error_code ec) : std::runtime_error(what), code_(ec) {}
  const error_code& code() const noexcept { return code_; }

 private:
  error_code code_;
};

// "<signature> (<paths>) failed with <category> error <code>-<message>"; no
// parentheses without paths.
std::string FailureText(const char* signature, const std::vector<path_t>& paths, const error_code& ec);
[[noreturn]] void ThrowFailure(const char* signature, const std::vector<path_t>& paths,
                               const error_code& ec);

// "%ju B", "%.1f KiB" ... "%.1f TiB", "%ju PiB".
std::string HumanSize(uint64_t bytes);
// A number of bytes, optionally followed by a unit: "b", "kib", "mib", "gib",
// "tib", "pib" (any case, blanks allowed before it). False for anything else,
// a negative number or an overflow.
bool ParseSize(const std::string& text, uint64_t* bytes);

// An open-and-write file over a C stream.
class File {
 public:
  virtual ~File() = default;

  // std::ios_base::app opens for appending ("ab"); anything else truncates ("wb").
  virtual void Open(std::ios_base::openmode mode, error_code& ec) = 0;
  virtual void Close(error_code& ec) = 0;
  // The bytes written; fewer than asked only with `ec` set.
  virtual std::size_t Write(cbyte_array_view data, error_code& ec) = 0;
  virtual void Flush(error_code& ec) = 0;
  // False once a write or flush has failed, or when the file is not open.
  virtual bool Good() const = 0;
  virtual path_t path() const = 0;

  void Open(std::ios_base::openmode mode);
  void Close();
  std::size_t Write(cbyte_array_view data);
  void Flush();
};

// The paths directly inside a directory.
using DirectoryPathRange = std::vector<path_t>;

class Directory {
 public:
  virtual ~Directory() = default;
  virtual DirectoryPathRange Paths(error_code& ec) const = 0;
  DirectoryPathRange Paths() const;
};

// Total, free and available bytes of the file system that holds a path.
struct SpaceInfo {
  uint64_t capacity = 0;
  uint64_t free = 0;
  uint64_t available = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  virtual bool Exists(const path_t& p, error_code& ec) = 0;
  virtual bool FileExists(const path_t& p, error_code& ec) = 0;
  virtual File* GetFile(const path_t& p, error_code& ec) = 0;
  virtual uint64_t FileSize(const path_t& p, error_code& ec) = 0;
  virtual void CopyFile(const path_t& from, const path_t& to, error_code& ec) = 0;
  virtual void MoveFile(const path_t& from, const path_t& to, error_code& ec) = 0;
  virtual void Rename(const path_t& from, const path_t& to, error_code& ec) = 0;
  virtual void Remove(const path_t& p, error_code& ec) = 0;
  virtual uintmax_t RemoveAll(const path_t& p, error_code& ec) = 0;
  virtual Directory* GetDirectory(const path_t& p, error_code& ec) = 0;
  virtual bool DirectoryExists(const path_t& p, error_code& ec) = 0;
  virtual void CreateDirectories(const path_t& p, error_code& ec) = 0;
  virtual time_t LastWriteTime(const path_t& p, error_code& ec) = 0;
  // The space query of the file system that holds `p`.
  virtual SpaceInfo Space(const path_t& p, error_code& ec) = 0;

  bool Exists(const path_t& p);
  bool FileExists(const path_t& p);
  File* GetFile(const path_t& p);
  uint64_t FileSize(const path_t& p);
  void CopyFile(const path_t& from, const path_t& to);
  void MoveFile(const path_t& from, const path_t& to);
  void Rename(const path_t& from, const path_t& to);
  void Remove(const path_t& p);
  uintmax_t RemoveAll(const path_t& p);
  Directory* GetDirectory(const path_t& p);
  bool DirectoryExists(const path_t& p);
  void CreateDirectories(const path_t& p);
  time_t LastWriteTime(const path_t& p);
  SpaceInfo Space(const path_t& p);
};

// The real file system (FileSystemImpl).
std::shared_ptr<FileSystem> MakeFileSystem();

}  // namespace filesystem
}  // namespace zel

#endif  // ZEL_COMMON_FILESYSTEM_FILE_SYSTEM_H_

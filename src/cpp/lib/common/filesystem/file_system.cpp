#include "cpp/lib/common/filesystem/file_system.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/operations.hpp>

namespace zel {
namespace filesystem {

namespace bfs = boost::filesystem;

std::string FailureText(const char* signature, const std::vector<path_t>& paths, const error_code& ec) {
  std::string text = signature;
  if (!paths.empty()) {
    text += " (";
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (i) text += ", ";
      text += paths[i].string();
    }
    text += ")";
  }
  return text + " failed with " + ec.category().name() + " error " + std::to_string(ec.value()) + "-" +
         ec.message();
}

void ThrowFailure(const char* signature, const std::vector<path_t>& paths, const error_code& ec) {
  throw FileSystemError(FailureText(signature, paths, ec), ec);
}

std::string HumanSize(uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  char text[64];
  if (bytes < 1024) {
    std::snprintf(text, sizeof text, "%ju B", static_cast<uintmax_t>(bytes));
    return text;
  }
  double v = static_cast<double>(bytes);
  for (const char* unit : kUnits) {
    v /= 1024;
    if (v < 1024) {
      std::snprintf(text, sizeof text, "%.1f %s", v, unit);
      return text;
    }
  }
  std::snprintf(text, sizeof text, "%ju PiB", static_cast<uintmax_t>(bytes >> 50));
  return text;
}

bool ParseSize(const std::string& text, uint64_t* bytes) {
  std::size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  uint64_t n = 0;
  const std::size_t digits = i;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const uint64_t d = static_cast<uint64_t>(text[i] - '0');
    if (n > (UINT64_MAX - d) / 10) return false;
    n = n * 10 + d;
  }
  if (i == digits) return false;
  while (i < text.size() && text[i] == ' ') ++i;
  std::string unit;
  for (; i < text.size() && text[i] != ' '; ++i) unit += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
  while (i < text.size() && text[i] == ' ') ++i;
  if (i != text.size()) return false;
  static const char* const kUnits[] = {"b", "kib", "mib", "gib", "tib", "pib"};
  int shift = -1;
  if (unit.empty()) shift = 0;
  for (int u = 0; u < 6 && shift < 0; ++u) {
    if (unit == kUnits[u]) shift = 10 * u;
  }
  if (shift < 0 || (shift > 0 && n > (UINT64_MAX >> shift))) return false;
  *bytes = n << shift;
  return true;
}

// --- throwing forms ----------------------------------------------------------

#define ZEL_FS_THROWING(sig, call, ...) \
  error_code ec;                        \
  auto result = call;                   \
  if (ec) ThrowFailure(sig, {__VA_ARGS__}, ec); \
  return result

void File::Open(std::ios_base::openmode mode) {
  error_code ec;
  Open(mode, ec);
  if (ec) ThrowFailure("void Open(openmode)", {path()}, ec);
}
void File::Close() {
  error_code ec;
  Close(ec);
  if (ec) ThrowFailure("void Close()", {path()}, ec);
}
std::size_t File::Write(cbyte_array_view data) {
  ZEL_FS_THROWING("size_t Write(cbyte_array_view)", Write(data, ec), path());
}
void File::Flush() {
  error_code ec;
  Flush(ec);
  if (ec) ThrowFailure("void Flush()", {path()}, ec);
}

DirectoryPathRange Directory::Paths() const {
  ZEL_FS_THROWING("DirectoryPathRange Paths()", Paths(ec));
}

bool FileSystem::Exists(const path_t& p) { ZEL_FS_THROWING("bool Exists(const path_t&)", Exists(p, ec), p); }
bool FileSystem::FileExists(const path_t& p) {
  ZEL_FS_THROWING("bool FileExists(const path_t&)", FileExists(p, ec), p);
}
File* FileSystem::GetFile(const path_t& p) { ZEL_FS_THROWING("File* GetFile(const path_t&)", GetFile(p, ec), p); }
uint64_t FileSystem::FileSize(const path_t& p) {
  ZEL_FS_THROWING("uint64_t FileSize(const path_t&)", FileSize(p, ec), p);
}
void FileSystem::CopyFile(const path_t& from, const path_t& to) {
  error_code ec;
  CopyFile(from, to, ec);
  if (ec) ThrowFailure("void CopyFile(const path_t&, const path_t&)", {from, to}, ec);
}
void FileSystem::MoveFile(const path_t& from, const path_t& to) {
  error_code ec;
  MoveFile(from, to, ec);
  if (ec) ThrowFailure("void MoveFile(const path_t&, const path_t&)", {from, to}, ec);
}
void FileSystem::Rename(const path_t& from, const path_t& to) {
  error_code ec;
  Rename(from, to, ec);
  if (ec) ThrowFailure("void Rename(const path_t&, const path_t&)", {from, to}, ec);
}
void FileSystem::Remove(const path_t& p) {
  error_code ec;
  Remove(p, ec);
  if (ec) ThrowFailure("void Remove(const path_t&)", {p}, ec);
}
uintmax_t FileSystem::RemoveAll(const path_t& p) {
  ZEL_FS_THROWING("uintmax_t RemoveAll(const path_t&)", RemoveAll(p, ec), p);
}
Directory* FileSystem::GetDirectory(const path_t& p) {
  ZEL_FS_THROWING("Directory* GetDirectory(const path_t&)", GetDirectory(p, ec), p);
}
bool FileSystem::DirectoryExists(const path_t& p) {
  ZEL_FS_THROWING("bool DirectoryExists(const path_t&)", DirectoryExists(p, ec), p);
}
void FileSystem::CreateDirectories(const path_t& p) {
  error_code ec;
  CreateDirectories(p, ec);
  if (ec) ThrowFailure("void CreateDirectories(const path_t&)", {p}, ec);
}
time_t FileSystem::LastWriteTime(const path_t& p) {
  ZEL_FS_THROWING("time_t LastWriteTime(const path_t&)", LastWriteTime(p, ec), p);
}
SpaceInfo FileSystem::Space(const path_t& p) { ZEL_FS_THROWING("SpaceInfo Space(const path_t&)", Space(p, ec), p); }

#undef ZEL_FS_THROWING

// --- the real file system ------------------------------------------------------

namespace {

error_code ErrnoCode(int error) { return error_code(error, boost::system::system_category()); }

class FileImpl : public File {
 public:
  explicit FileImpl(path_t p) : path_(std::move(p)) {}
  ~FileImpl() override {
    if (stream_) std::fclose(stream_);
  }

  void Open(std::ios_base::openmode mode, error_code& ec) override {
    ec.clear();
    if (stream_) std::fclose(stream_);
    stream_ = std::fopen(path_.c_str(), (mode & std::ios_base::app) ? "ab" : "wb");
    if (!stream_) ec = ErrnoCode(errno);
  }
  void Close(error_code& ec) override {
    ec.clear();
    if (!stream_) return;
    const int rc = std::fclose(stream_);
    stream_ = nullptr;
    if (rc != 0) ec = ErrnoCode(errno);
  }
  std::size_t Write(cbyte_array_view data, error_code& ec) override {
    ec.clear();
    if (!stream_) {
      ec = ErrnoCode(EBADF);
      return 0;
    }
    const std::size_t n = std::fwrite(data.data, 1, data.size, stream_);
    if (n < data.size) ec = ErrnoCode(std::ferror(stream_) && errno ? errno : EIO);
    return n;
  }
  void Flush(error_code& ec) override {
    ec.clear();
    if (stream_ && std::fflush(stream_) != 0) ec = ErrnoCode(errno);
  }
  bool Good() const override { return stream_ && !std::ferror(stream_); }
  path_t path() const override { return path_; }

 private:
  const path_t path_;
  std::FILE* stream_ = nullptr;
};

class DirectoryImpl : public Directory {
 public:
  explicit DirectoryImpl(path_t p) : path_(std::move(p)) {}

  DirectoryPathRange Paths(error_code& ec) const override {
    DirectoryPathRange paths;
    bfs::directory_iterator it(path_, ec), end;
    for (; !ec && it != end; it.increment(ec)) paths.push_back(it->path());
    return paths;
  }

 private:
  const path_t path_;
};

class FileSystemImpl : public FileSystem {
 public:
  bool Exists(const path_t& p, error_code& ec) override {
    const bool yes = bfs::exists(p, ec);
    if (ec == boost::system::errc::no_such_file_or_directory) ec.clear();
    return yes;
  }
  bool FileExists(const path_t& p, error_code& ec) override {
    const bool yes = bfs::is_regular_file(p, ec);
    if (ec == boost::system::errc::no_such_file_or_directory) ec.clear();
    return yes;
  }
  File* GetFile(const path_t& p, error_code& ec) override {
    ec.clear();
    return new FileImpl(p);
  }
  uint64_t FileSize(const path_t& p, error_code& ec) override {
    const uintmax_t n = bfs::file_size(p, ec);
    return ec ? 0 : n;
  }
  void CopyFile(const path_t& from, const path_t& to, error_code& ec) override {
    bfs::copy_file(from, to, bfs::copy_option::overwrite_if_exists, ec);
  }
  void MoveFile(const path_t& from, const path_t& to, error_code& ec) override {
    bfs::rename(from, to, ec);
    if (ec == boost::system::errc::cross_device_link) {
      bfs::copy_file(from, to, bfs::copy_option::overwrite_if_exists, ec);
      if (!ec) bfs::remove(from, ec);
    }
  }
  void Rename(const path_t& from, const path_t& to, error_code& ec) override { bfs::rename(from, to, ec); }
  void Remove(const path_t& p, error_code& ec) override {
    if (!bfs::remove(p, ec) && !ec) ec = ErrnoCode(ENOENT);
  }
  uintmax_t RemoveAll(const path_t& p, error_code& ec) override { return bfs::remove_all(p, ec); }
  Directory* GetDirectory(const path_t& p, error_code& ec) override {
    ec.clear();
    return new DirectoryImpl(p);
  }
  bool DirectoryExists(const path_t& p, error_code& ec) override {
    const bool yes = bfs::is_directory(p, ec);
    if (ec == boost::system::errc::no_such_file_or_directory) ec.clear();
    return yes;
  }
  void CreateDirectories(const path_t& p, error_code& ec) override { bfs::create_directories(p, ec); }
  time_t LastWriteTime(const path_t& p, error_code& ec) override { return bfs::last_write_time(p, ec); }
  SpaceInfo Space(const path_t& p, error_code& ec) override {
    const bfs::space_info s = bfs::space(p, ec);
    if (ec) return {};
    return {s.capacity, s.free, s.available};
  }
};

}  // namespace

std::shared_ptr<FileSystem> MakeFileSystem() { return std::make_shared<FileSystemImpl>(); }

}  // namespace filesystem
}  // namespace zel

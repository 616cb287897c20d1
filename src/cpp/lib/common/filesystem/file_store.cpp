#include "cpp/lib/common/filesystem/file_store.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/error_tags.h"
#include "cpp/lib/common/logger.h"

namespace zel {
namespace filesystem {

namespace {

// Serial number of a rotated name, "+NNN" before the extension; 0 for none.
// Files of one second are ordered by it.
unsigned long Serial(const path_t& p) {
  const std::string stem = p.stem().string();
  const std::size_t plus = stem.rfind('+');
  if (plus == std::string::npos) return 0;
  char* end = nullptr;
  const unsigned long n = std::strtoul(stem.c_str() + plus + 1, &end, 10);
  return (end && *end == '\0') ? n : 0;
}

const char* Check(bool ok) { return ok ? "OK" : "OUT"; }

}  // namespace

std::string IsoTime(time_t t) {
  struct tm parts;
  char text[64];
  if (!gmtime_r(&t, &parts) || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts) == 0) {
    return "<INVALID>";
  }
  return text;
}

std::string FileStoreOptions::ToString() const {
  char text[512];
  std::snprintf(text, sizeof text, "{ path: '%s', min_free_space: %s, max_size: %s, max_files: %ju }",
                path.c_str(), HumanSize(min_free_space).c_str(), HumanSize(max_size).c_str(), max_files);
  return text;
}

FileStoreOptions FileStoreOptions::FromTree(const boost::property_tree::ptree& tree) {
  FileStoreOptions o;
  o.path = tree.get<std::string>("path", "");
  auto size = [&tree](const char* key, uint64_t* out) {
    const auto text = tree.get_optional<std::string>(key);
    if (text && !ParseSize(*text, out)) {
      ZEL_CORE_LOG(kLogWarn).format("FileStore: invalid %s '%s' - using the default", key, text->c_str());
    }
  };
  size("min_free_space", &o.min_free_space);
  size("max_size", &o.max_size);
  uint64_t files = 0;
  if (const auto text = tree.get_optional<std::string>("max_files")) {
    if (ParseSize(*text, &files) && text->find_first_not_of(" 0123456789") == std::string::npos) {
      o.max_files = files;
    } else {
      ZEL_CORE_LOG(kLogWarn).format("FileStore: invalid max_files '%s' - using the default", text->c_str());
    }
  }
  return o;
}

FileStore::FileStore(std::shared_ptr<FileSystem> fs, FileStoreOptions options)
    : fs_(std::move(fs)), options_(std::move(options)), name_("FileStore[" + options_.path.string() + "]") {}

void FileStore::Scan() {
  std::lock_guard<std::mutex> lock(mutex_);
  ZEL_CORE_LOG(kLogVerbose).format("%s Scan", name_.c_str());
  files_.clear();
  totalSize_ = 0;
  error_code ec;
  if (!fs_->DirectoryExists(options_.path, ec)) {
    ZEL_CORE_LOG(kLogVerbose).format("%s Scan - directory does not exist", name_.c_str());
    return;
  }
  std::unique_ptr<Directory> dir(fs_->GetDirectory(options_.path, ec));
  const DirectoryPathRange paths = dir ? dir->Paths(ec) : DirectoryPathRange();
  if (ec) {
    ZEL_CORE_LOG(kLogWarn).format("%s Scan - failed to read the directory: %i-%s", name_.c_str(), ec.value(),
                                  ec.message().c_str());
  }
  for (const path_t& p : paths) {
    const std::string leaf = p.filename().string();
    if (leaf.size() < options_.prefix.size() + options_.suffix.size() ||
        leaf.compare(0, options_.prefix.size(), options_.prefix) != 0 ||
        leaf.compare(leaf.size() - options_.suffix.size(), options_.suffix.size(), options_.suffix) != 0) {
      ZEL_CORE_LOG(kLogVerbose).format("%s Scan - not one of its files '%s'", name_.c_str(), p.c_str());
      continue;
    }
    if (!fs_->FileExists(p, ec)) {
      ZEL_CORE_LOG(kLogVerbose).format("%s Scan - not a file '%s'", name_.c_str(), p.c_str());
      continue;
    }
    Entry e;
    if (!Read_(p, &e, "Scan")) continue;
    ZEL_CORE_LOG(kLogVerbose).format("%s Scan - found file '%s'", name_.c_str(), p.c_str());
    totalSize_ += e.size;
    files_.push_back(std::move(e));
  }
  std::sort(files_.begin(), files_.end(), [](const Entry& a, const Entry& b) {
    if (a.time != b.time) return a.time < b.time;
    const unsigned long na = Serial(a.name), nb = Serial(b.name);
    if (na != nb) return na < nb;
    return a.name < b.name;
  });
  if (files_.empty()) {
    ZEL_CORE_LOG(kLogInfo).format("%s Scan - found 0 file(s)", name_.c_str());
  } else {
    ZEL_CORE_LOG(kLogInfo).format("%s Scan - found %zu file(s), oldest '%s' @ %s, newest '%s' @ %s", name_.c_str(),
                                  files_.size(), files_.front().name.c_str(), IsoTime(files_.front().time).c_str(),
                                  files_.back().name.c_str(), IsoTime(files_.back().time).c_str());
  }
}

void FileStore::Store(const path_t& file) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZEL_CORE_LOG(kLogVerbose).format("%s Store '%s'", name_.c_str(), file.c_str());
  Entry e;
  if (!Read_(file, &e, "Store")) return;
  totalSize_ += e.size;
  files_.push_back(std::move(e));
  TrimLocked_();
}

bool FileStore::Read_(const path_t& file, Entry* e, const char* step) {
  error_code ec;
  e->name = file;
  e->size = fs_->FileSize(file, ec);
  if (!ec) e->time = fs_->LastWriteTime(file, ec);
  if (ec) {
    ZEL_CORE_LOG(kLogWarn).format("%s %s - skipping file '%s': %i-%s", name_.c_str(), step, file.c_str(), ec.value(),
                                  ec.message().c_str());
  }
  return !ec;
}

void FileStore::Trim() {
  std::lock_guard<std::mutex> lock(mutex_);
  TrimLocked_();
}

bool FileStore::CheckLimitsLocked_() {
  const bool filesOk = options_.max_files >= files_.size();
  const bool sizeOk = options_.max_size >= totalSize_;
  // Free space is what an unprivileged writer could still use: space kept
  // back for root does not count.
  bool spaceOk = true;
  uint64_t freeSpace = 0;
  if (options_.min_free_space > 0) {
    error_code ec;
    const SpaceInfo space = fs_->Space(options_.path, ec);
    if (ec) {
      ZEL_CORE_LOG(kLogWarn).format("%s Couldn't get info on free space for '%s'", name_.c_str(),
                                    options_.path.c_str());
    } else {
      freeSpace = space.available;
      spaceOk = freeSpace >= options_.min_free_space;
    }
  }
  ZEL_CORE_LOG(kLogDebug).format(
      "%s CheckLimits - %s: num files %ju %s max %ju, total size %s %s max %s, fs free space %s %s min %s",
      name_.c_str(), Check(filesOk && sizeOk && spaceOk), static_cast<uintmax_t>(files_.size()), Check(filesOk),
      options_.max_files, HumanSize(totalSize_).c_str(), Check(sizeOk), HumanSize(options_.max_size).c_str(),
      options_.min_free_space > 0 ? HumanSize(freeSpace).c_str() : "n/a", Check(spaceOk),
      HumanSize(options_.min_free_space).c_str());
  return filesOk && sizeOk && spaceOk;
}

void FileStore::TrimLocked_() {
  if (CheckLimitsLocked_()) {
    ZEL_CORE_LOG(kLogVerbose).format("%s Trim - nothing to do", name_.c_str());
    return;
  }
  ZEL_CORE_LOG(kLogVerbose).format("%s Trim - processing", name_.c_str());
  for (auto it = files_.begin(); it != files_.end();) {
    ZEL_CORE_LOG(kLogVerbose).format("%s Trim - trying to remove '%s'", name_.c_str(), it->name.c_str());
    error_code ec;
    fs_->Remove(it->name, ec);
    if (ec) {
      ZEL_CORE_LOG(kLogError).addTag(kTagCmnLib50).format("%s Trim - failed to remove file '%s': %i-%s",
                                                          name_.c_str(), it->name.c_str(), ec.value(),
                                                          ec.message().c_str());
      ++it;
    } else {
      totalSize_ -= it->size;
      it = files_.erase(it);
    }
    if (CheckLimitsLocked_()) {
      ZEL_CORE_LOG(kLogVerbose).format("%s Trim - done", name_.c_str());
      return;
    }
  }
  ZEL_CORE_LOG(kLogError).addTag(kTagCmnLib50).format("%s Trim - incomplete", name_.c_str());
}

std::vector<path_t> FileStore::Files() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<path_t> names;
  for (const Entry& e : files_) names.push_back(e.name);
  return names;
}

uint64_t FileStore::TotalSize() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return totalSize_;
}

}  // namespace filesystem
}  // namespace zel

#include "cpp/lib/common/filesystem/rotating_file.h"

#include <cstdio>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/filesystem/file_store.h"
#include "cpp/lib/common/logger.h"

namespace zel {
namespace filesystem {

namespace {
// Names tried within one second before giving up.
constexpr std::size_t kMaxNamesPerSecond = 1000;
}  // namespace

std::string RotatingFileOptions::ToString() const {
  return "{ filename: '" + filename.string() + "', rotation policy: { max_size: " + HumanSize(max_size) + " } }";
}

RotatingFileOptions RotatingFileOptions::FromTree(const boost::property_tree::ptree& tree) {
  RotatingFileOptions o;
  o.filename = tree.get<std::string>("filename", "");
  if (const auto text = tree.get_optional<std::string>("rotation_policy.max_size")) {
    if (!ParseSize(*text, &o.max_size)) {
      o.max_size = 0;
      ZEL_CORE_LOG(kLogWarn).format("RotatingFile: invalid max_size '%s' - using the default", text->c_str());
    }
  }
  return o;
}

RotatingFile::RotatingFile(std::shared_ptr<FileSystem> fs, std::shared_ptr<FileStore> store,
                           RotatingFileOptions options, Clock clock)
    : fs_(std::move(fs)),
      store_(std::move(store)),
      options_(std::move(options)),
      clock_(clock ? std::move(clock) : Clock([] { return time(nullptr); })),
      name_("RotatingFile[" + options_.filename.string() + "]") {
  ZEL_CORE_LOG(kLogVerbose).format("%s is being created", name_.c_str());
}

RotatingFile::~RotatingFile() {
  ZEL_CORE_LOG(kLogVerbose).format("%s is being destroyed", name_.c_str());
  std::lock_guard<std::mutex> lock(mutex_);
  CloseFileLocked_();
}

void RotatingFile::Open(std::ios_base::openmode mode, error_code& ec) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZEL_CORE_LOG(kLogVerbose).format("%s Open: saving openmode x%02X", name_.c_str(), static_cast<unsigned>(mode));
  ec.clear();
  mode_ = mode;
}

void RotatingFile::Close(error_code& ec) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZEL_CORE_LOG(kLogVerbose).format("%s Close", name_.c_str());
  ec.clear();
  CloseFileLocked_();
}

void RotatingFile::CloseFileLocked_() {
  if (!file_) return;
  ZEL_CORE_LOG(kLogVerbose).format("%s CloseFile", name_.c_str());
  error_code ec;
  file_->Close(ec);
  file_.reset();
  if (store_) store_->Store(current_);
  current_.clear();
  written_ = 0;
}

path_t RotatingFile::NewNameLocked_(time_t now) {
  struct tm parts;
  char stamp[32] = "";
  if (gmtime_r(&now, &parts)) std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H-%M-%S", &parts);
  const path_t dir = options_.filename.parent_path();
  const std::string stem = options_.filename.stem().string();
  const std::string ext = options_.filename.extension().string();
  if (now != lastNameTime_) {
    lastNameTime_ = now;
    lastNameCounter_ = 0;
  } else {
    ++lastNameCounter_;
  }
  path_t candidate;
  for (std::size_t tries = 0; tries < kMaxNamesPerSecond; ++tries, ++lastNameCounter_) {
    char name[512];
    if (lastNameCounter_ == 0) {
      std::snprintf(name, sizeof name, "%s_%s%s", stem.c_str(), stamp, ext.c_str());
    } else {
      std::snprintf(name, sizeof name, "%s_%s+%03zu%s", stem.c_str(), stamp, lastNameCounter_, ext.c_str());
    }
    candidate = dir / name;
    error_code ec;
    if (!fs_->Exists(candidate, ec) && !ec) return candidate;
  }
  ZEL_CORE_LOG(kLogError).format("%s Write: failed to find new name for a file (last tried '%s')", name_.c_str(),
                                 candidate.c_str());
  return path_t();
}

std::size_t RotatingFile::Write(cbyte_array_view data, error_code& ec) {
  std::lock_guard<std::mutex> lock(mutex_);
  ec.clear();
  const bool over = options_.max_size != 0 && written_ + data.size > options_.max_size;
  ZEL_CORE_LOG(kLogDebug).format("%s Write: %s + %s %s %s", name_.c_str(), HumanSize(written_).c_str(),
                                 HumanSize(data.size).c_str(), over ? ">" : "<=",
                                 HumanSize(options_.max_size).c_str());
  if (over && written_ > 0) {
    ZEL_CORE_LOG(kLogVerbose).format("%s Rotate", name_.c_str());
    CloseFileLocked_();
  }
  if (!file_) {
    const path_t dir = options_.filename.parent_path();
    if (!dir.empty()) fs_->CreateDirectories(dir, ec);
    if (ec) {
      if (!openFailureLogged_) {
        ZEL_CORE_LOG(kLogError).format("%s Write: failed to create directories: %i-%s", name_.c_str(), ec.value(),
                                       ec.message().c_str());
      }
      openFailureLogged_ = true;
      return 0;
    }
    const path_t name = NewNameLocked_(clock_());
    if (name.empty()) {
      ec = error_code(EEXIST, boost::system::system_category());
      return 0;
    }
    std::unique_ptr<File> file(fs_->GetFile(name, ec));
    if (file) file->Open(mode_, ec);
    if (!file || ec) {
      if (!ec) ec = error_code(EIO, boost::system::system_category());
      if (!openFailureLogged_) {
        ZEL_CORE_LOG(kLogError).format("%s Write: failed to open file '%s': %i-%s", name_.c_str(), name.c_str(),
                                       ec.value(), ec.message().c_str());
      }
      openFailureLogged_ = true;
      return 0;
    }
    openFailureLogged_ = false;
    file_ = std::move(file);
    current_ = name;
  }
  const std::size_t n = file_->Write(data, ec);
  if (ec) {
    ZEL_CORE_LOG(kLogError).format("%s Write: failed to write to file '%s': %i-%s", name_.c_str(), current_.c_str(),
                                   ec.value(), ec.message().c_str());
  } else if (!file_->Good()) {
    ZEL_CORE_LOG(kLogError).format("%s Write: '%s' is not good", name_.c_str(), current_.c_str());
  }
  written_ += n;
  return n;
}

void RotatingFile::Flush(error_code& ec) {
  std::lock_guard<std::mutex> lock(mutex_);
  ZEL_CORE_LOG(kLogDebug).format("%s Flush", name_.c_str());
  ec.clear();
  if (file_) file_->Flush(ec);
}

bool RotatingFile::Good() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !file_ || file_->Good();
}

path_t RotatingFile::path() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return file_ ? current_ : options_.filename;
}

}  // namespace filesystem
}  // namespace zel

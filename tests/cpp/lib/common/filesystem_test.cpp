// The file system layer's error texts and size forms, the file store's limits
// and the rotating file's names, against an in-memory file system and once
// against a small real tmpfs.
#include <sys/mount.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/filesystem/file_store.h"
#include "cpp/lib/common/filesystem/file_system.h"
#include "cpp/lib/common/filesystem/rotating_file.h"
#include "cpp/lib/common/logger.h"
#include "support/log_capture.h"
#include "support/private_network.h"
#include "support/temp_dir.h"

namespace zel {
namespace filesystem {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

error_code Errno(int e) { return error_code(e, boost::system::system_category()); }

// The file system layer's VERBOSE and DEBUG lines, for the tests that read them.
class CoreLogCeiling : public ::testing::Environment {
 public:
  void SetUp() override { g_coreLogCeiling = kLogDebug; }
};
const auto* const kCeiling = ::testing::AddGlobalTestEnvironment(new CoreLogCeiling);

// An in-memory file system: files with contents and times, directories, and
// faults a test injects.
class FakeFileSystem : public FileSystem {
 public:
  struct Node {
    std::string data;
    time_t time = 0;
  };
  std::map<std::string, Node> files;
  std::set<std::string> dirs;
  std::set<std::string> failRemove;  // Remove of these fails with EACCES
  bool failSpace = false;
  // Available space: a base plus what has been removed since.
  uint64_t availableBase = 0;
  uint64_t removed = 0;
  time_t now = 1000;

  using FileSystem::Exists;
  using FileSystem::Remove;

  class FakeFile : public File {
   public:
    FakeFile(FakeFileSystem* fs, path_t p) : fs_(fs), path_(std::move(p)) {}
    void Open(std::ios_base::openmode mode, error_code& ec) override {
      ec.clear();
      Node& n = fs_->files[path_.string()];
      if (!(mode & std::ios_base::app)) n.data.clear();
      n.time = fs_->now;
      open_ = true;
    }
    void Close(error_code& ec) override {
      ec.clear();
      open_ = false;
    }
    std::size_t Write(cbyte_array_view d, error_code& ec) override {
      ec.clear();
      fs_->files[path_.string()].data.append(static_cast<const char*>(d.data), d.size);
      return d.size;
    }
    void Flush(error_code& ec) override { ec.clear(); }
    bool Good() const override { return open_; }
    path_t path() const override { return path_; }

   private:
    FakeFileSystem* fs_;
    path_t path_;
    bool open_ = false;
  };

  class FakeDirectory : public Directory {
   public:
    FakeDirectory(FakeFileSystem* fs, path_t p) : fs_(fs), path_(std::move(p)) {}
    DirectoryPathRange Paths(error_code& ec) const override {
      ec.clear();
      DirectoryPathRange out;
      for (const auto& f : fs_->files) {
        if (path_t(f.first).parent_path() == path_) out.push_back(f.first);
      }
      for (const auto& d : fs_->dirs) {
        if (path_t(d).parent_path() == path_) out.push_back(d);
      }
      return out;
    }

   private:
    FakeFileSystem* fs_;
    path_t path_;
  };

  bool Exists(const path_t& p, error_code& ec) override {
    ec.clear();
    return files.count(p.string()) || dirs.count(p.string());
  }
  bool FileExists(const path_t& p, error_code& ec) override {
    ec.clear();
    return files.count(p.string()) > 0;
  }
  File* GetFile(const path_t& p, error_code& ec) override {
    ec.clear();
    return new FakeFile(this, p);
  }
  uint64_t FileSize(const path_t& p, error_code& ec) override {
    ec.clear();
    const auto it = files.find(p.string());
    if (it == files.end()) ec = Errno(ENOENT);
    return it == files.end() ? 0 : it->second.data.size();
  }
  void CopyFile(const path_t&, const path_t&, error_code& ec) override { ec = Errno(ENOTSUP); }
  void MoveFile(const path_t&, const path_t&, error_code& ec) override { ec = Errno(ENOTSUP); }
  void Rename(const path_t&, const path_t&, error_code& ec) override { ec = Errno(ENOTSUP); }
  void Remove(const path_t& p, error_code& ec) override {
    ec.clear();
    if (failRemove.count(p.string())) {
      ec = Errno(EACCES);
      return;
    }
    const auto it = files.find(p.string());
    if (it == files.end()) {
      ec = Errno(ENOENT);
      return;
    }
    removed += it->second.data.size();
    files.erase(it);
  }
  uintmax_t RemoveAll(const path_t&, error_code& ec) override {
    ec = Errno(ENOTSUP);
    return 0;
  }
  Directory* GetDirectory(const path_t& p, error_code& ec) override {
    ec.clear();
    return new FakeDirectory(this, p);
  }
  bool DirectoryExists(const path_t& p, error_code& ec) override {
    ec.clear();
    return dirs.count(p.string()) > 0;
  }
  void CreateDirectories(const path_t& p, error_code& ec) override {
    ec.clear();
    dirs.insert(p.string());
  }
  time_t LastWriteTime(const path_t& p, error_code& ec) override {
    ec.clear();
    const auto it = files.find(p.string());
    if (it == files.end()) ec = Errno(ENOENT);
    return it == files.end() ? 0 : it->second.time;
  }
  SpaceInfo Space(const path_t&, error_code& ec) override {
    ec = failSpace ? Errno(EIO) : error_code();
    return {1 << 30, availableBase + removed, availableBase + removed};
  }

  void Add(const std::string& p, std::size_t size, time_t t) { files[p] = Node{std::string(size, 'x'), t}; }
  std::vector<std::string> Names() const {
    std::vector<std::string> out;
    for (const auto& f : files) out.push_back(path_t(f.first).filename().string());
    return out;
  }
};

TEST(FileSystemTest, SizesAreParsedAndPrintedInTheirHumanForms) {
  const struct {
    const char* text;
    bool ok;
    uint64_t bytes;
  } parse[] = {
      {"0", true, 0},          {"512", true, 512},      {"10 KiB", true, 10240},
      {"3mib", true, 3 << 20}, {"1 GiB", true, 1 << 30}, {"2 tib", true, 2ULL << 40},
      {"1 PiB", true, 1ULL << 50}, {" 7 b ", true, 7},  {"", false, 0},
      {"-1", false, 0},        {"10 MB", false, 0},     {"1.5 KiB", false, 0},
      {"99999999999999999999", false, 0}, {"16384 PiB", false, 0},
  };
  for (const auto& row : parse) {
    SCOPED_TRACE(row.text);
    uint64_t bytes = 0;
    EXPECT_EQ(ParseSize(row.text, &bytes), row.ok);
    if (row.ok) {
      EXPECT_EQ(bytes, row.bytes);
    }
  }
  const std::pair<uint64_t, const char*> print[] = {
      {0, "0 B"},           {1023, "1023 B"},          {1024, "1.0 KiB"},
      {1536, "1.5 KiB"},    {5ULL << 20, "5.0 MiB"},   {3ULL << 30, "3.0 GiB"},
      {2ULL << 40, "2.0 TiB"}, {3ULL << 50, "3 PiB"},
  };
  for (const auto& row : print) EXPECT_EQ(HumanSize(row.first), row.second);
}

TEST(FileSystemTest, ThrowingFormsNameTheOperationThePathsAndTheError) {
  testing::TempDir dir;
  std::shared_ptr<FileSystem> fs = MakeFileSystem();
  const std::string missing = dir.path() + "/missing";
  try {
    fs->Remove(missing);
    FAIL() << "no throw";
  } catch (const FileSystemError& e) {
    EXPECT_EQ(std::string(e.what()),
              "void Remove(const path_t&) (" + missing + ") failed with system error 2-No such file or directory");
    EXPECT_EQ(e.code().value(), ENOENT);
  }
  try {
    fs->Rename(missing, dir.path() + "/b");
    FAIL() << "no throw";
  } catch (const FileSystemError& e) {
    EXPECT_THAT(e.what(), ::testing::StartsWith("void Rename(const path_t&, const path_t&) (" + missing + ", " +
                                                dir.path() + "/b) failed with system error 2-"));
  }
  // The error-code forms report and do not throw.
  error_code ec;
  EXPECT_FALSE(fs->Exists(missing, ec));
  EXPECT_FALSE(ec);
  fs->Remove(missing, ec);
  EXPECT_EQ(ec.value(), ENOENT);
}

TEST(FileStoreTest, TrimRemovesTheOldestFilesUntilTheLimitsAreMet) {
  const uint64_t kNone = UINT64_MAX;
  const struct {
    const char* name;
    uint64_t maxFiles, maxSize, minFree, availableBase;
    std::set<std::string> failRemove;
    bool failSpace;
    std::vector<std::string> left;
    bool incomplete;
  } rows[] = {
      {"limits met", 4, 160, 10, 100, {}, false, {"a", "b", "c", "d"}, false},
      {"no limits given", kNone, kNone, 0, 0, {}, false, {"a", "b", "c", "d"}, false},
      {"too many files", 2, kNone, 0, 0, {}, false, {"c", "d"}, false},
      {"too large", kNone, 100, 0, 0, {}, false, {"c", "d"}, false},
      {"too little free space", kNone, kNone, 100, 30, {}, false, {"c", "d"}, false},
      {"failed query counts as enough", kNone, kNone, 100, 0, {}, true, {"a", "b", "c", "d"}, false},
      {"failed removal moves on", 2, kNone, 0, 0, {"/s/a"}, false, {"a", "d"}, false},
      {"nothing removable", 2, kNone, 0, 0, {"/s/a", "/s/b", "/s/c", "/s/d"}, false, {"a", "b", "c", "d"}, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    testing::LogCapture log("VERBOSE");
    auto fs = std::make_shared<FakeFileSystem>();
    fs->dirs.insert("/s");
    for (const char* n : {"a", "b", "c", "d"}) fs->Add(std::string("/s/") + n, 40, 100 + n[0]);
    fs->failRemove = row.failRemove;
    fs->failSpace = row.failSpace;
    fs->availableBase = row.availableBase;
    FileStoreOptions o;
    o.path = "/s";
    o.max_files = row.maxFiles;
    o.max_size = row.maxSize;
    o.min_free_space = row.minFree;
    FileStore store(fs, o);
    store.Scan();
    store.Trim();
    EXPECT_THAT(fs->Names(), ElementsAreArray(row.left));
    // The store knows what is still there, a file it failed to remove too.
    std::vector<std::string> known;
    for (const path_t& p : store.Files()) known.push_back(p.filename().string());
    EXPECT_THAT(known, ElementsAreArray(row.left));
    EXPECT_EQ(log.Count("FileStore[/s] Trim - incomplete"), row.incomplete ? 1u : 0u);
    EXPECT_EQ(log.Count("errorCode=\"CMNLIB50\""), row.failRemove.size() + (row.incomplete ? 1 : 0));
    EXPECT_EQ(log.Count("Couldn't get info on free space for '/s'") > 0, row.failSpace);
  }
}

TEST(FileStoreTest, ScanOrdersByTimeThenSerialAndSkipsWhatIsNotItsOwn) {
  testing::LogCapture log("VERBOSE");
  auto fs = std::make_shared<FakeFileSystem>();
  fs->dirs = {"/s", "/s/m_sub.txt"};
  fs->Add("/s/m_T+002.txt", 1, 50);
  fs->Add("/s/m_T.txt", 2, 50);
  fs->Add("/s/m_T+001.txt", 3, 50);
  fs->Add("/s/m_old.txt", 4, 10);
  fs->Add("/s/host-notes.txt", 100, 1);  // the host's: never counted, never removed
  FileStoreOptions o{"/s"};
  o.prefix = "m_";
  o.suffix = ".txt";
  FileStore store(fs, o);
  store.Scan();
  std::vector<std::string> names;
  for (const path_t& p : store.Files()) names.push_back(p.filename().string());
  EXPECT_THAT(names, ElementsAre("m_old.txt", "m_T.txt", "m_T+001.txt", "m_T+002.txt"));
  EXPECT_EQ(store.TotalSize(), 10u);
  EXPECT_EQ(log.Count("FileStore[/s] Scan - not a file '/s/m_sub.txt'"), 1u);
  EXPECT_EQ(log.Count("FileStore[/s] Scan - not one of its files '/s/host-notes.txt'"), 1u);
  EXPECT_EQ(log.Count("FileStore[/s] Scan - found 4 file(s), oldest '/s/m_old.txt' @ 1970-01-01T00:00:10, newest "
                      "'/s/m_T+002.txt' @ 1970-01-01T00:00:50"),
            1u);
  FileStore none(fs, FileStoreOptions{"/nowhere"});
  none.Scan();
  EXPECT_EQ(log.Count("FileStore[/nowhere] Scan - directory does not exist"), 1u);
}

TEST(RotatingFileTest, RotatesBeforeAWriteThatWouldPassTheMaximumAndNamesBySecondAndSerial) {
  const struct {
    const char* filename;
    std::vector<std::string> names;
  } rows[] = {
      {"/d/m.txt", {"m_1970-01-01T00-16-40.txt", "m_1970-01-01T00-16-40+001.txt", "m_1970-01-01T00-16-40+002.txt",
                    "m_1970-01-01T00-16-41.txt"}},
      {"/d/m", {"m_1970-01-01T00-16-40", "m_1970-01-01T00-16-40+001", "m_1970-01-01T00-16-40+002",
                "m_1970-01-01T00-16-41"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.filename);
    auto fs = std::make_shared<FakeFileSystem>();
    auto store = std::make_shared<FileStore>(fs, FileStoreOptions{"/d"});
    time_t now = 1000;
    RotatingFile f(fs, store, RotatingFileOptions{row.filename, 8}, [&now] { return now; });
    f.Open(std::ios_base::app);
    // A first write larger than the maximum goes whole into the first file.
    EXPECT_EQ(f.Write(std::string(12, 'a')), 12u);
    f.Write(std::string("bbbb"));  // 12 + 4 > 8: a new file, same second
    f.Write(std::string("cccc"));  // 4 + 4 fits
    f.Write(std::string("d"));     // 8 + 1: the third file of this second
    now = 1001;
    f.Write(std::string("eeeeeeee"));
    f.Close();
    EXPECT_THAT(fs->Names(), ::testing::UnorderedElementsAreArray(row.names));
    EXPECT_EQ(fs->files["/d/" + row.names[1]].data, "bbbbcccc");
    // Every finished file, the last one at Close, went to the store.
    EXPECT_EQ(store->Files().size(), 4u);
    EXPECT_TRUE(fs->dirs.count("/d"));
  }
}

TEST(FileStoreTest, OptionsFromTreesKeepTheirDefaultsForBadValues) {
  const struct {
    const char* key;
    const char* text;
  } rows[] = {{"max_size", "-1"}, {"max_size", "10 XB"}, {"max_files", "-3"}, {"max_files", "2 KiB"},
              {"min_free_space", "lots"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key + std::string("=") + row.text);
    testing::LogCapture log;
    boost::property_tree::ptree tree;
    tree.put(row.key, row.text);
    const FileStoreOptions o = FileStoreOptions::FromTree(tree);
    EXPECT_EQ(o.max_size, UINT64_MAX);
    EXPECT_EQ(o.max_files, UINTMAX_MAX);
    EXPECT_EQ(o.min_free_space, 0u);
    EXPECT_EQ(log.Count(std::string("FileStore: invalid ") + row.key + " '" + row.text + "' - using the default"),
              1u);
  }
  boost::property_tree::ptree file;
  file.put("filename", "/x/m.txt");
  file.put("rotation_policy.max_size", "-5");
  EXPECT_EQ(RotatingFileOptions::FromTree(file).ToString(), "{ filename: '/x/m.txt', rotation policy: { max_size: 0 B } }");
}

TEST(RotatingFileTest, AnUnwritablePlaceFailsEachWriteAndIsLoggedOnce) {
  testing::LogCapture log;
  RotatingFile f(MakeFileSystem(), nullptr, RotatingFileOptions{"/dev/null/metrics/m.txt", 0});
  for (int i = 0; i < 3; ++i) {
    error_code ec;
    EXPECT_EQ(f.Write(std::string("line\n"), ec), 0u);
    EXPECT_TRUE(ec);
  }
  EXPECT_EQ(log.Count("RotatingFile[/dev/null/metrics/m.txt] Write: failed to create directories: "), 1u);
}

TEST(RotatingFileTest, SkipsNamesThatExist) {
  auto fs = std::make_shared<FakeFileSystem>();
  fs->Add("/d/m_1970-01-01T00-16-40.txt", 1, 1);
  fs->Add("/d/m_1970-01-01T00-16-40+001.txt", 1, 1);
  RotatingFile f(fs, nullptr, RotatingFileOptions{"/d/m.txt", 0}, [] { return time_t(1000); });
  f.Write(std::string("x"));
  EXPECT_EQ(f.path(), path_t("/d/m_1970-01-01T00-16-40+002.txt"));
}

// A real tmpfs of 64 KiB: the store keeps free space by removing old files,
// and a write into a full file system fails, is logged, and loses only itself.
TEST(RotatingFileTest, OnASmallTmpfsKeepsFreeSpaceAndSurvivesAFullDisk) {
  if (!testing::EnterPrivateNetwork()) GTEST_SKIP() << "needs root for a private mount namespace";
  testing::TempDir dir;
  ASSERT_EQ(mount("zel-test", dir.path().c_str(), "tmpfs", 0, "size=64k"), 0) << errno;
  testing::LogCapture log;
  std::shared_ptr<FileSystem> fs = MakeFileSystem();
  FileStoreOptions so;
  so.path = dir.path();
  so.min_free_space = 24 << 10;
  auto store = std::make_shared<FileStore>(fs, so);
  time_t now = 1000;
  {
    RotatingFile f(fs, store, RotatingFileOptions{dir.path() + "/r.log", 8 << 10}, [&now] { return now++; });
    f.Open(std::ios_base::app);
    const std::string block(4 << 10, 'z');
    for (int i = 0; i < 40; ++i) f.Write(block);  // 160 KiB through a 64 KiB disk
    f.Close();
  }
  EXPECT_GE(fs->Space(dir.path()).available, so.min_free_space);
  EXPECT_EQ(log.Count("Trim - incomplete"), 0u);

  // Nothing trims a file that is not the store's: fill the disk.
  std::ofstream(dir.path() + "/filler", std::ios::binary) << std::string(fs->Space(dir.path()).available, 'f');
  RotatingFile g(fs, nullptr, RotatingFileOptions{dir.path() + "/full.log", 0}, [] { return time_t(5); });
  g.Open(std::ios_base::app);
  error_code ec;
  EXPECT_LT(g.Write(std::string(16 << 10, 'y'), ec), 16u << 10);
  EXPECT_EQ(ec.value(), ENOSPC);
  EXPECT_EQ(log.Count("RotatingFile[" + dir.path() + "/full.log] Write: failed to write to file"), 1u);
  g.Close(ec);
  EXPECT_EQ(umount(dir.path().c_str()), 0);
}

}  // namespace
}  // namespace filesystem
}  // namespace zel

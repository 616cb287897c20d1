// Test helper: a private temporary directory, removed with its contents.
#ifndef ZEL_TESTS_SUPPORT_TEMP_DIR_H_
#define ZEL_TESTS_SUPPORT_TEMP_DIR_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace zel {
namespace testing {

class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/dorn-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }

  // Writes `content` to `name` inside the directory and returns its path.
  std::string WriteFile(const std::string& name, const std::string& content) const {
    const std::string file = path_ + "/" + name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + file);
    return file;
  }

  static std::string ReadFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

 private:
  std::string path_;
};

}  // namespace testing
}  // namespace zel

#endif  // ZEL_TESTS_SUPPORT_TEMP_DIR_H_

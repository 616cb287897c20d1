// Base of every exception thrown by the MPA socket layer and the MPA library.
// It carries one fixed text, which what() returns.
#ifndef ZEL_UTIL_MPA_EXCEPTION_H_
#define ZEL_UTIL_MPA_EXCEPTION_H_

#include <exception>
#include <string>
#include <utility>

namespace ZelMpa {

class MpaException : public std::exception {
 public:
  MpaException() = default;
  explicit MpaException(std::string text) : text_(std::move(text)) {}
  ~MpaException() override = default;

  const char* what() const noexcept override { return text_.c_str(); }

 protected:
  // Lets a subclass build its text after the base is constructed.
  void SetText(std::string text) { text_ = std::move(text); }

 private:
  std::string text_;
};

}  // namespace ZelMpa

#endif  // ZEL_UTIL_MPA_EXCEPTION_H_

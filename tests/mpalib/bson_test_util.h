// Helpers for the codec tests: documents written byte by byte, independent of
// the codec, so that expected wire bytes are spelled out in the test.
#ifndef ZEL_TESTS_MPALIB_BSON_TEST_UTIL_H_
#define ZEL_TESTS_MPALIB_BSON_TEST_UTIL_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace bson_test {

inline std::string Le32(int32_t v) {
  const auto u = static_cast<uint32_t>(v);
  return std::string{static_cast<char>(u), static_cast<char>(u >> 8), static_cast<char>(u >> 16),
                     static_cast<char>(u >> 24)};
}

inline std::string Le64(int64_t v) {
  const auto u = static_cast<uint64_t>(v);
  return Le32(static_cast<int32_t>(u)) + Le32(static_cast<int32_t>(u >> 32));
}

inline std::string LeDouble(double d) {
  int64_t bits;
  std::memcpy(&bits, &d, 8);
  return Le64(bits);
}

// One element: type byte, name with its NUL, value bytes.
inline std::string Elem(int type, const std::string& name, const std::string& value) {
  return std::string(1, static_cast<char>(type)) + name + std::string(1, '\0') + value;
}

// A string value: int32 length with the NUL, bytes, NUL.
inline std::string Str(const std::string& s) {
  return Le32(static_cast<int32_t>(s.size() + 1)) + s + std::string(1, '\0');
}

// A whole document around `elements`.
inline std::string Doc(const std::string& elements) {
  return Le32(static_cast<int32_t>(elements.size() + 5)) + elements + std::string(1, '\0');
}

inline std::vector<uint8_t> Bytes(const std::string& s) {
  return std::vector<uint8_t>(s.begin(), s.end());
}

}  // namespace bson_test

#endif  // ZEL_TESTS_MPALIB_BSON_TEST_UTIL_H_
